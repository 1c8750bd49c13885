#include "media_server/StreamingMediaBuffer.h"

#include "media_server/DownloadFileWriter.h"
#include "media_server/ResponseExtent.h"
#include "media_server/StreamCache.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/io/FileUtils.h"
#include "platform/io/ThreadedFileWriter.h"
#include "platform/log/LogLine.h"
#include "platform/log/Logger.h"
#include "vehicle/VehicleDataValues.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace MediaV2 {

namespace {

// Bytes on disk before playback may start: the decoder's first reads plus a few seconds of
// headroom at common bit rates (10 s of 128 kbit/s audio).
ConfigIntValue sInitialThreshold("media_buffer/initial_threshold_bytes", 160000,
    "bytes on disk before a buffered item may start playing (bytes)", ConfigRange<int>{0});
// The fraction shown while the download runs never reads as complete: listeners treat 1.0 as
// "every byte on disk", which only Finished guarantees.
constexpr qreal kProgressBeforeFinished = 0.999;
// A crash loses at most this much of the info file's knowledge; writing it on every chunk
// would cost a file replacement per 16 kB.
constexpr qint64 kInfoWriteIntervalMs = 1000;

const char* const kStateNames[] = {"Uninitialized", "Initializing", "Buffering", "Finished",
                                   "Failed",        "Timeout",      "Forbidden"};

} // namespace

StreamingMediaBuffer::StreamingMediaBuffer(const MediaPlaybackMetadata& metadata,
                                           const MediaPlaybackMetadata& onDeckMetadata, StreamCache* streamCache,
                                           QObject* parent)
    : QObject(parent)
    , mMetadata(metadata)
    , mOnDeckMetadata(onDeckMetadata)
    , mStreamCache(streamCache)
{
    mTimeoutTimer.setSingleShot(true);
    connect(&mTimeoutTimer, &QTimer::timeout, this, &StreamingMediaBuffer::downloadTimeout);
}

// Like a process that dies: nothing more is written about the download; a later start resumes
// from the data file and the last info file.
StreamingMediaBuffer::~StreamingMediaBuffer()
{
    if (mDownloader)
        disconnect(mDownloader, nullptr, this, nullptr);
    delete mDownloader;
    releaseFileWriter();
    delete mInfoWriter;
}

QString StreamingMediaBuffer::nameForState(int state)
{
    if (state < Uninitialized || state > Forbidden) {
        LOG_ASSERT(false, QStringLiteral("Unknown buffer state %1").arg(state));
        return QStringLiteral("Unknown");
    }
    return QString::fromLatin1(kStateNames[state]);
}

qint64 StreamingMediaBuffer::contentLength(bool total) const
{
    if (total || mContentLength < 1)
        return mContentLength;
    return qMax<qint64>(mContentLength - mWritten, 0);
}

bool StreamingMediaBuffer::isPastInitialThreshold(int bytes) const
{
    const qint64 length = contentLength(true);
    if (length >= 1 && mMetadata.bufferMs >= 1 && mMetadata.duration > 0)
        return double(mMetadata.duration) * (double(mWritten) / double(length)) >= double(mMetadata.bufferMs);
    const int threshold = mMetadata.bufferBytes >= 1 ? mMetadata.bufferBytes : sInitialThreshold.value();
    return bytes > threshold;
}

QString StreamingMediaBuffer::downloadStats() const
{
    const double seconds = mStatsTimer.isValid() ? double(mStatsTimer.elapsed()) / 1000.0 : 0.0;
    const qint64 bytes = qMax<qint64>(mWritten - mStatsStartBytes, 0);   // this run's, not an earlier run's
    const double megabytes = double(bytes) / 1e6;
    const double kilobits = seconds > 0 ? double(bytes) * 8.0 / 1000.0 / seconds : 0.0;
    QString stats = QStringLiteral("downloaded %1 MB in %2 seconds, avg rate %3 kb/s")
                        .arg(megabytes, 0, 'f', 2)
                        .arg(seconds, 0, 'f', 1)
                        .arg(kilobits, 0, 'f', 0);
    if (mUnderruns > 0)
        stats += QStringLiteral(", %1 underruns").arg(mUnderruns);
    return stats;
}

void StreamingMediaBuffer::playerPausedForUnderrun()
{
    ++mUnderruns;
    LOG_INFO << "player ran out of data at " << mWritten << " of " << mContentLength << " bytes";
}

void StreamingMediaBuffer::playerRecoveredAfterUnderrun()
{
    LOG_INFO << "player resumed with " << mWritten << " of " << mContentLength << " bytes on disk";
}

void StreamingMediaBuffer::simulateTimeout()
{
    if (!mDownloader) {
        LOG_WARN << "Can't simulate timeout, no downloader";
        return;
    }
    LOG_WARN << "Simulated download timeout!";
    downloadTimeout();
}

void StreamingMediaBuffer::simulateFailure()
{
    if (!mDownloader) {
        LOG_WARN << "Can't simulate failure, no NetDownloader active";
        return;
    }
    abandonDownload(NetDownloader::NetworkError);
}

void StreamingMediaBuffer::start()
{
    StreamingMediaBufferInfo info;
    const bool found = readCacheInfo(mMetadata.cacheKey, &info);
    if (found)
        LOG_INFO << "found cache: written " << info.written << ", length " << info.length;
    if (adoptCacheInfo(found, info)) {
        setState(Finished, QStringLiteral("already cached content"));
        emit bufferProgress(1.0, mWritten, mContentLength);
        // The stream cache has just answered "not cached" (its database was lost, its entry
        // pruned, or its store refused for want of room): offered again, the complete file
        // gets its entry back instead of staying out of the cache for good.
        describeToStreamCache();
        return;
    }
    cleanupCacheDirectory();
    if (beginDownload(QStringLiteral("new url")))
        LOG_INFO << "start download " << cacheFile();
    else
        trimCachedFileToContentSize();
}

void StreamingMediaBuffer::stop()
{
    LOG_INFO << mMetadata.cacheKey << ": " << downloadStats();
    mTimeoutTimer.stop();
    disconnect(&GUI_canUseInternet, &DataValue::valueChanged, this, &StreamingMediaBuffer::onConnectivityChange);
    dropDownloader();
    mFailureWaiting = false;
    if (mState != Finished)
        writeInfoFile();
    releaseFileWriter();
}

// Chunks still on their way land in the file (a later start resumes from its size), but their
// reports no longer move this buffer's state, progress or info file, and the room reserved
// for the whole length is given back rather than held by a stopped item.
void StreamingMediaBuffer::releaseFileWriter(bool giveBackRoom)
{
    if (!mFileWriter)
        return;
    disconnect(mFileWriter, nullptr, this, nullptr);
    mFileWriter->cancelFinish();
    if (giveBackRoom)
        mFileWriter->releaseReservedRoom();
    // stop() or the destructor may run inside one of the writer's own reports: it goes once
    // that report has returned, not with this buffer.
    mFileWriter->setParent(nullptr);
    mFileWriter->deleteLater();
    mFileWriter = nullptr;
}

bool StreamingMediaBuffer::readCacheInfo(const QString& key, StreamingMediaBufferInfo* info)
{
    QString problem;
    const QString path = infoFileName(key);
    switch (StreamingMediaBufferInfo::read(path, key, info, &problem)) {
    case StreamingMediaBufferInfo::Read::Valid:
        return true;
    case StreamingMediaBufferInfo::Read::Damaged:
        LOG_WARN << "ignoring the info file " << path << " (" << problem << "); downloading from the start";
        return false;
    case StreamingMediaBufferInfo::Read::Absent:
        break;
    }
    return false;
}

bool StreamingMediaBuffer::adoptCacheInfo(bool found, const StreamingMediaBufferInfo& info)
{
    const QString file = cacheFile();
    const qint64 size = FileUtils::fileSize(file);
    mWritten = 0;
    mContentLength = 0;
    if (found && size < 0)
        LOG_ASSERT(size >= 0, QStringLiteral("Info file found but no associated cache file."));
    if (!found || size < 0) {
        QFile::remove(file);   // a new download never writes into a file the stream cache may share
        return false;
    }
    if (info.complete && size == info.length) {
        mWritten = mContentLength = size;
        return true;
    }
    if (info.complete || (info.length > 0 && size > info.length)) {
        LOG_WARN << "the data file holds " << size << " bytes, not the " << info.length
                 << " its info file names; downloading it again";
        QFile::remove(file);
        return false;
    }
    if (size != info.written)
        LOG_INFO << "resuming from the " << size << " bytes of the data file (its info file counted " << info.written << ")";
    mWritten = size;
    mContentLength = info.length;
    return false;
}

bool StreamingMediaBuffer::beginDownload(const QString& reason)
{
    createFileWriter();
    mThresholdTimer.start();
    mStatsTimer.start();
    mStatsStartBytes = mWritten;
    mProgressMark = mWritten;
    setState(Initializing, reason);
    if (mWritten > 0)
        LOG_INFO << "resuming from byte " << mWritten << " of " << mContentLength;
    if (mContentLength > 0 && mWritten == mContentLength) {
        LOG_INFO << "the data file already holds all " << mWritten << " bytes";
        return false;
    }
    startDownload(int(mWritten));
    return true;
}

void StreamingMediaBuffer::cleanupCacheDirectory()
{
    LOG_INFO << "keeping only the files of " << mMetadata.cacheKey
             << (mOnDeckMetadata.cacheKey.isEmpty() ? QString() : QStringLiteral(" and ") + mOnDeckMetadata.cacheKey);
    MediaCacheFiles::keepOnlyFilesOf({mMetadata.cacheKey, mOnDeckMetadata.cacheKey});
}

void StreamingMediaBuffer::createFileWriter()
{
    releaseFileWriter();
    mFileWriter = new DownloadFileWriter(cacheFile(), mWritten, this);
    connect(mFileWriter, &DownloadFileWriter::dataWritten, this, &StreamingMediaBuffer::dataWritten);
    connect(mFileWriter, &DownloadFileWriter::finished, this, &StreamingMediaBuffer::completionWritten);
    connect(mFileWriter, &DownloadFileWriter::backlogHigh, this, &StreamingMediaBuffer::holdDownload);
    connect(mFileWriter, &DownloadFileWriter::backlogLow, this, &StreamingMediaBuffer::releaseDownload);
}

// A download held back by a slow disk is not a silent server: no time-out while it waits.
void StreamingMediaBuffer::holdDownload()
{
    if (!mDownloader)
        return;
    mDownloader->pause();
    mTimeoutTimer.stop();
}

void StreamingMediaBuffer::releaseDownload()
{
    if (!mDownloader)
        return;
    mDownloader->resume();
    mTimeoutTimer.start();
}

void StreamingMediaBuffer::setState(State state, const QString& reason)
{
    LOG_INFO << "Buffer state changed from " << nameForState(mState) << " to " << nameForState(state) << " (" << reason << ")";
    mState = state;
    emit bufferStateChanged(state);
}

void StreamingMediaBuffer::updateProgress()
{
    const qreal fraction = mContentLength > 0 ? qMin(qreal(mWritten) / qreal(mContentLength), kProgressBeforeFinished) : 0.0;
    emit bufferProgress(fraction, mWritten, mContentLength);
}

void StreamingMediaBuffer::writeInfoFile()
{
    if (mContentLength < 1)
        return;
    if (!mInfoWriter) {
        mInfoWriter = new ThreadedFileWriter(infoFileName(mMetadata.cacheKey), this);
        connect(mInfoWriter, &ThreadedFileWriter::dataWritten, this, &StreamingMediaBuffer::infoWritten);
    }
    StreamingMediaBufferInfo info;
    info.complete = mState == Finished;
    info.written = mWritten;
    info.length = mContentLength;
    info.cachekey = mMetadata.cacheKey;
    info.url = mMetadata.url;
    mInfoWriter->writeContent(info.toJson());
    mLastInfoWrite.start();
}

void StreamingMediaBuffer::infoWritten(qint64 bytes, const QString& error)
{
    if (bytes < 0)
        LOG_WARN << "could not write the info file of " << mMetadata.cacheKey << ": " << error;
}

void StreamingMediaBuffer::maybeWriteProgressInfo()
{
    if (!mLastInfoWrite.isValid() || mLastInfoWrite.elapsed() >= kInfoWriteIntervalMs)
        writeInfoFile();
}

void StreamingMediaBuffer::handOverToStreamCache()
{
    if (!mMetadata.shouldCache)
        return;
    const bool invoked = QMetaObject::invokeMethod(mStreamCache, "store", Qt::QueuedConnection,
                                                   Q_ARG(QString, mMetadata.cacheKey), Q_ARG(QByteArray, mStoreData));
    LOG_ASSERT(invoked, QStringLiteral("failed to invoke StreamCache::store"));
}

// A server may end a response early without an error (a 206 of its own choosing, a proxy):
// a file shorter than the announced length is not complete.
bool StreamingMediaBuffer::holdsWholeContent() const
{
    return mContentLength < 1 || mWritten == mContentLength;
}

// Every byte is on disk and the writer is gone before the cache hears of the file: it may
// share the bytes through a hard link, so nothing may write to them afterwards.
void StreamingMediaBuffer::completeFile(const QString& reason)
{
    mContentLength = mWritten;
    setState(Finished, reason);
    writeInfoFile();
    releaseFileWriter(false);   // already trimmed: nothing touches the file from here on
    describeToStreamCache();
}

void StreamingMediaBuffer::describeToStreamCache()
{
    const QJsonObject description{{QStringLiteral("file"), cacheFile()}, {QStringLiteral("length"), mWritten}};
    mStoreData = QJsonDocument(description).toJson(QJsonDocument::Compact);
    handOverToStreamCache();
}

} // namespace MediaV2
