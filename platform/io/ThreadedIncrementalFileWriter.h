#pragma once

#include <QObject>
#include <QQueue>
#include <QString>

class IncrementalFileWorker;

// Writes a file piece by piece on the process's file-writer thread: each chunk goes at the
// current position (at first the end of whatever the file already holds, so an interrupted
// download is continued) and is reported with dataWritten(bytes, "") or dataWritten(-1, why).
// A failed chunk leaves nothing of itself in the file, and the chunks after it fail too until
// the next seek() (see IncrementalFileWorker), so the file holds exactly the bytes reported
// written, each at its place. resize() past the written end reserves room without
// making the file look longer; resize() to the written size or below cuts the file there and
// gives back every reserved block past the cut; see resized().
//
// Back-pressure: a disk slower than the network would otherwise let chunks pile up in memory
// without limit. backlogBytes() counts the bytes handed to write() and not yet reported;
// backlogHigh() fires once when it rises above kBacklogHighBytes, backlogLow() once when it
// then falls to kBacklogLowBytes or below, so a producer can pause and resume.
//
// Thread: created and used on its owner's thread; the work happens on FileWriterThread, in
// the order asked, and reports come back queued. The backlog is counted on the owner's thread
// without locks: backlogHigh() is emitted from within write(), backlogLow() from a report. Owns its worker, which is deleted on the
// writer thread after the work already asked for. Failure: a file that cannot be opened, a
// full disk or any I/O error is a report with -1 and a one-line reason, never a crash.
class ThreadedIncrementalFileWriter : public QObject
{
    Q_OBJECT
public:
    // A few seconds of a fast download: enough that a healthy disk never trips it, small enough
    // that a stalled one costs little memory.
    static constexpr qint64 kBacklogHighBytes = 4 * 1024 * 1024;
    // Resume well below the high mark so that a disk near its limit does not flap the producer
    // between paused and running on every chunk.
    static constexpr qint64 kBacklogLowBytes = 1024 * 1024;

    explicit ThreadedIncrementalFileWriter(const QString& path, QObject* parent = nullptr);
    ~ThreadedIncrementalFileWriter() override;

    QString path() const { return mPath; }
    void write(const QByteArray& data);
    // The next write goes at this byte offset.
    void seek(qint64 position);
    void resize(qint64 size);
    qint64 backlogBytes() const { return mBacklogBytes; }
    // Writes handed over whose report has not come back yet.
    int pendingWrites() const { return int(mPendingChunks.size()); }

signals:
    void dataWritten(qint64 bytes, QString error);
    void resized(qint64 size, QString error);
    void backlogHigh();
    void backlogLow();

private:
    void onWritten(qint64 bytes, const QString& error);

    const QString mPath;
    IncrementalFileWorker* mWorker;
    QQueue<qint64> mPendingChunks;   // sizes of the chunks not yet reported, oldest first
    qint64 mBacklogBytes = 0;        // their sum
    bool mBacklogIsHigh = false;     // backlogHigh() fired and backlogLow() has not yet
};
