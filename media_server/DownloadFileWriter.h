#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class ThreadedIncrementalFileWriter;

namespace MediaV2 {

// A download buffer's data file as its download sees it: bytes appended in the order they
// arrive, an exact restart point when a response ends, room reserved for the announced
// length, and a trim that says when every byte has reached the disk.
//
// Why it exists: the file writer reports chunks long after they were handed over. When a
// download breaks and resumes, or a server answers the whole resource to a range request,
// chunks of the old response may still be on their way; restartAt() cuts the file back to
// the bytes confirmed written and drops the reports of those chunks, so the file never
// splices two responses and the count of confirmed bytes stays exact. A failed chunk (full
// disk) leaves nothing of itself, but the chunks after it would land in its place; the owner
// therefore restarts at the confirmed count after every failure report.
//
// Reports: dataWritten(bytes, "") per counted chunk and dataWritten(-1, why) per failed one,
// in order, never for chunks made stale by restartAt(). After finish(), finished(true) comes
// once the trim to fileEnd() has been done behind every write, or finished(false) when a
// chunk failed meanwhile or the trim failed.
//
// Thread: owner's thread (the main thread); the writing happens on FileWriterThread. Owns the
// ThreadedIncrementalFileWriter. Failure: reports as above, never a crash.
class DownloadFileWriter : public QObject
{
    Q_OBJECT
public:
    // `size`: the bytes the file already holds and the download continues from.
    DownloadFileWriter(const QString& path, qint64 size, QObject* parent = nullptr);
    ~DownloadFileWriter() override;

    void append(const QByteArray& data);
    // The file is exactly `offset` bytes long before the next append.
    void restartAt(qint64 offset);
    // Reserves room up to `length` without lengthening the file; nothing when not beyond fileEnd().
    void reserve(qint64 length);
    // Trims the file to fileEnd(), giving back reserved room, then reports finished().
    void finish();
    // Forget a finish() in progress: finished() will not come.
    void cancelFinish() { mFinishing = false; }
    // Gives back the room reserved past fileEnd() (a download that stops short of its length).
    void releaseReservedRoom();
    // The file's length once every append so far has landed.
    qint64 fileEnd() const { return mFileEnd; }
    qint64 backlogBytes() const;

signals:
    void dataWritten(qint64 bytes, QString error);
    void finished(bool allWritten);
    void backlogHigh();
    void backlogLow();

private:
    void onWritten(qint64 bytes, const QString& error);
    void onResized(qint64 size, const QString& error);

    ThreadedIncrementalFileWriter* mWriter;
    qint64 mFileEnd;
    int mStaleReports = 0;     // reports of chunks handed over before the last restartAt()
    int mPendingResizes = 0;   // resize reports still to come
    bool mFinishing = false;   // finish() called, finished() not yet emitted
    bool mFinishFailed = false;
};

} // namespace MediaV2
