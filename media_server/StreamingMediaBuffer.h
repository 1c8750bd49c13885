#pragma once

#include "media_server/MediaPlaybackMetadata.h"
#include "media_server/MediaCacheFiles.h"
#include "media_server/StreamingMediaBufferInfo.h"
#include "platform/net/NetDownloader.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

class ThreadedFileWriter;

namespace MediaV2 {

class DownloadFileWriter;
class StreamCache;
struct ResponseExtent;

// Keeps one download in its cache file so that playback can start before the download ends,
// and so that a later start for the same cache key resumes it or finds it complete.
//
// The data file, cacheFile(), holds the resource's bytes at their offsets and nothing else;
// the info file beside it (StreamingMediaBufferInfo) says how much of it is there. Decisions
// that keep both honest through tunnels, crashes and odd servers:
// - Only downloaded bytes are ever in the data file. A Content-Length reserves room through
//   the writer without lengthening the file: playbin3 reads a growing file up to six seconds
//   ahead and would decode pre-extended zeros as garbage without any error.
// - The length is the resource's, not the response's: a 206 answer to "Range: bytes=N-" takes
//   its total from Content-Range (or N plus its Content-Length). The file is never cut below
//   the bytes written, and the progress fraction stays below 1.0 until Finished.
// - No file ever splices two responses. Every download continues the file exactly at the bytes
//   confirmed written: writes still on their way from an earlier response are cut off and not
//   counted. A 200 answer to a range request starts the file over from 0, and so does a
//   resumed answer whose total or first byte differs from what the file holds. A redirect
//   discards data only when body bytes of this download were already taken (curl never
//   passes on a redirect's own body, so the final response's status decides).
// - Bodies of error answers (403, 404, 500 ...) never reach the file.
// - Finished means every byte is on disk: the completion trims the file to its content
//   (giving back the reserved room) and waits for the writer's report of that, which comes
//   after every chunk's. Only then is the info file written "complete" (written == length),
//   the writer dropped and the file described to the stream cache as {"file", "length"}.
//   A failed chunk (full disk) abandons the download and resumes it from the bytes written.
// - A crash or a power cut resumes instead of restarting: the info file is written as soon as
//   the length is known, then at most once a second while data flows, and at stop(). A start
//   resumes from the data file's own size (every chunk is all or nothing, so it holds only
//   real bytes); an info file that is damaged or names another key counts as absent.
// - A file once described to the stream cache is never written again (the cache may share its
//   bytes through a hard link): a new download of the key removes the old file and creates a
//   new one, and a "complete" info file whose data file no longer matches starts over the
//   same way. A start that finds its file complete describes it to the stream cache again:
//   a buffer runs only after the cache answered "not cached", so the file is missing there.
// - A slow disk slows the download, never memory: the downloader is paused at the writer's
//   backlog high-water mark and resumed at the low one.
//
// contentLength(true) is the whole resource's length, contentLength(false) what the running
// response still has to deliver; both 0 while unknown.
//
// Thread: main thread only. The file writers work on FileWriterThread and report back queued;
// the stream cache is reached only by queued invocation. Owns the downloader and both file
// writers. No locks. Failure: never throws; a download ends in Failed, Timeout or Forbidden
// and the log says why; consistency violations go through LOG_ASSERT.
class StreamingMediaBuffer : public QObject
{
    Q_OBJECT
public:
    enum State { Uninitialized = 0, Initializing = 1, Buffering = 2, Finished = 3, Failed = 4, Timeout = 5, Forbidden = 6 };
    Q_ENUM(State)

    StreamingMediaBuffer(const MediaPlaybackMetadata& metadata, const MediaPlaybackMetadata& onDeckMetadata,
                         StreamCache* streamCache, QObject* parent = nullptr);
    ~StreamingMediaBuffer() override;

    static QString nameForState(int state);
    static QString hashForKey(const QString& key) { return MediaCacheFiles::hashForKey(key); }
    static QString cacheFileName(const QString& key) { return MediaCacheFiles::cacheFileName(key); }
    static QString infoFileName(const QString& key) { return MediaCacheFiles::infoFileName(key); }

    State state() const { return mState; }
    QString cacheFile() const { return cacheFileName(mMetadata.cacheKey); }
    qint64 contentLength(bool total) const;
    bool isPastInitialThreshold(int bytes) const;
    QString downloadStats() const;
    // The player ran out of downloaded audio, and later had enough again; counted for the
    // statistics line.
    void playerPausedForUnderrun();
    void playerRecoveredAfterUnderrun();
    // Test hooks: end the running download as if it had stalled, or as if the network failed.
    void simulateTimeout();
    void simulateFailure();

signals:
    void contentLengthDetermined(qint64 ms);
    void bufferStateChanged(StreamingMediaBuffer::State state);
    void bufferProgress(qreal percent, qint64 downloaded, qint64 contentLength);

public slots:
    virtual void start();
    virtual void stop();
    virtual void downloadComplete(NetDownloader* nd, NetDownloader::Status status);
    void dataAvailable(QByteArray data);
    void downloadRedirect(QString newUrl);
    void metaDataChanged();
    void downloadTimeout();
    virtual void dataWritten(qint64 bytes, QString error);
    void onConnectivityChange();

protected:
    bool readCacheInfo(const QString& key, StreamingMediaBufferInfo* info);
    // Takes over what the info file says after checking it against the data file; true when
    // the data is complete and recorded so (nothing to download). A data file that cannot be
    // continued is removed.
    bool adoptCacheInfo(bool found, const StreamingMediaBufferInfo& info);
    // Creates the data file's writer, starts the timers, enters Initializing with `reason` and
    // starts the download; false when the data file already holds every byte (then nothing
    // is downloaded and the caller completes the file).
    bool beginDownload(const QString& reason);
    void writeInfoFile();
    void startDownload(int offset);
    bool maybeRetryDownload();
    void setState(State state, const QString& reason);
    void updateProgress();
    void dropDownloader();
    // Counts a counted writer report; false for a failed chunk, after which the file is cut
    // back to the bytes written and the download ended as aborted, so that it resumes there.
    bool acceptWriteReport(qint64 bytes, const QString& error);
    // Ends the running download now and reports it through the virtual downloadComplete().
    void abandonDownload(NetDownloader::Status status);
    // Trims the data file to the bytes received (giving back reserved room); completionWritten()
    // follows once they are all on disk.
    void trimCachedFileToContentSize();
    void maybeWriteProgressInfo();
    // Lets go of the data file's writer: chunks on their way still land, but their reports no
    // longer reach this buffer; with giveBackRoom the room reserved past them is freed too.
    void releaseFileWriter(bool giveBackRoom = true);
    // The bytes written are the whole resource as far as its length is known.
    bool holdsWholeContent() const;
    // Finished: the info file says complete, the writer is gone, the stream cache is told.
    void completeFile(const QString& reason);
    // Describes the complete data file ({"file", "length"}) and hands it to the stream cache.
    void describeToStreamCache();
    void handOverToStreamCache();
    // The data file's trim came back after every write (allWritten) or after a failed chunk:
    // the download's end, success or failure, is handled now.
    virtual void completionWritten(bool allWritten);

    MediaPlaybackMetadata mMetadata;
    MediaPlaybackMetadata mOnDeckMetadata;
    StreamCache* mStreamCache;
    int mFailedDownloadCount = 0;
    qint64 mWritten = 0;          // bytes confirmed on disk, from the start of the file
    qint64 mContentLength = 0;    // the whole resource's; 0 while unknown
    State mState = Uninitialized;
    NetDownloader* mDownloader = nullptr;
    DownloadFileWriter* mFileWriter = nullptr;   // wraps the data file's ThreadedIncrementalFileWriter
    ThreadedFileWriter* mInfoWriter = nullptr;
    bool mAcceptRangesSupported = false;
    QTimer mTimeoutTimer;
    QElapsedTimer mThresholdTimer;
    QElapsedTimer mStatsTimer;
    QByteArray mStoreData;        // {"file", "length"} once Finished; empty otherwise

private:
    void createFileWriter();
    void cleanupCacheDirectory();
    void connectDownloader();
    void holdDownload();
    void releaseDownload();
    void noteAcceptRanges();
    void applyResponseExtent(const ResponseExtent& extent);
    void reserveContentLength(qint64 length);
    void startOver(const QString& reason);
    void handleFailure(State target, const QString& error);
    State failureState(NetDownloader* nd, NetDownloader::Status status) const;
    void waitForConnectivity();
    void logHeaders() const;
    void infoWritten(qint64 bytes, const QString& error);
    qint64 estimatedDurationMs(qint64 length) const;

    // Per download, cleared by startDownload():
    bool mBodyTaken = false;        // body bytes of this download went to the file; a redirect then discards them
    bool mResponseAccepted = false; // the final response succeeded: its body belongs in the file, progress counts it
    qint64 mRequestOffset = 0;      // the byte the request asked to start from
    // A failed download waits for the writer's last report before it is retried or given up.
    bool mFailureWaiting = false;
    State mFailureTarget = Failed;
    QString mFailureError;
    QString mWriteError;            // why a chunk of this download could not be written
    QElapsedTimer mLastInfoWrite;
    qint64 mStatsStartBytes = 0;    // bytes the file held when this run's download began
    qint64 mProgressMark = 0;       // the most bytes the file has held; only passing it is progress
    int mUnderruns = 0;
};

} // namespace MediaV2
