#pragma once

#include <QObject>
#include <QString>

class IncrementalFileWorker;

// Writes a file piece by piece on the process's file-writer thread: each chunk goes at the
// current position (at first the end of whatever the file already holds, so an interrupted
// download is continued) and is reported with dataWritten(bytes, "") or dataWritten(-1, why).
// resize() reserves room without making the file look longer, or cuts it; see resized().
//
// Thread: created and used on its owner's thread; the work happens on FileWriterThread, in
// the order asked, and reports come back queued. Owns its worker, which is deleted on the
// writer thread after the work already asked for. Failure: a file that cannot be opened, a
// full disk or any I/O error is a report with -1 and a one-line reason, never a crash.
class ThreadedIncrementalFileWriter : public QObject
{
    Q_OBJECT
public:
    explicit ThreadedIncrementalFileWriter(const QString& path, QObject* parent = nullptr);
    ~ThreadedIncrementalFileWriter() override;

    QString path() const { return mPath; }
    void write(const QByteArray& data);
    // The next write goes at this byte offset.
    void seek(qint64 position);
    void resize(qint64 size);

signals:
    void dataWritten(qint64 bytes, QString error);
    void resized(qint64 size, QString error);

private:
    const QString mPath;
    IncrementalFileWorker* mWorker;
};
