#include "media_server/StreamingMediaPreloader.h"

#include "media_server/DownloadFileWriter.h"
#include "platform/log/LogLine.h"

namespace MediaV2 {

StreamingMediaPreloader::StreamingMediaPreloader(const MediaPlaybackMetadata& metadata, StreamCache* streamCache)
    : StreamingMediaBuffer(metadata, MediaPlaybackMetadata(), streamCache, nullptr)
{
}

void StreamingMediaPreloader::start()
{
    StreamingMediaBufferInfo info;
    const bool found = readCacheInfo(mMetadata.cacheKey, &info);
    if (found)
        LOG_INFO << "found cache: written " << info.written << ", length " << info.length;
    if (adoptCacheInfo(found, info)) {
        LOG_INFO << "found preload cache already finished";
        setState(Finished, QStringLiteral("found preload cache already finished"));
        emit finished();
        return;
    }
    if (beginDownload(QStringLiteral("new preload")))
        LOG_INFO << "start download " << cacheFile();
    else
        trimCachedFileToContentSize();
}

void StreamingMediaPreloader::stop()
{
    LOG_INFO << "stop preloading " << mMetadata.cacheKey << ", keeping what is on disk";
    StreamingMediaBuffer::stop();
}

void StreamingMediaPreloader::dataWritten(qint64 bytes, QString error)
{
    if (bytes < 0)
        LOG_ERROR << "Failed to write to disk cache: " << error;
    if (!acceptWriteReport(bytes, error))
        return;
    if (mState == Initializing && isPastInitialThreshold(int(qMin<qint64>(mWritten, INT_MAX)))) {
        LOG_INFO << QStringLiteral("passed threshold with %1 bytes").arg(mWritten);
        setState(Buffering, QStringLiteral("passed threshold"));
    }
    maybeWriteProgressInfo();
}

void StreamingMediaPreloader::downloadComplete(NetDownloader* nd, NetDownloader::Status status)
{
    mTimeoutTimer.stop();
    const bool gotData = mFileWriter && mFileWriter->fileEnd() > 0;
    const QString error = status == NetDownloader::Success ? QStringLiteral("the server sent no data") : nd->errorString();
    dropDownloader();
    if (status != NetDownloader::Success || !gotData) {
        failPreload(error);
        return;
    }
    LOG_INFO << "SUCCESS";
    trimCachedFileToContentSize();
}

void StreamingMediaPreloader::completionWritten(bool allWritten)
{
    if (!allWritten || !holdsWholeContent()) {
        failPreload(QStringLiteral("%1 of %2 bytes reached the disk").arg(mWritten).arg(mContentLength));
        return;
    }
    LOG_INFO << "finished preloading";
    completeFile(QStringLiteral("finished preloading"));
    emit finished();
}

void StreamingMediaPreloader::failPreload(const QString& error)
{
    LOG_WARN << "FAILED: " << error << " (completed with error)";
    setState(Failed, QStringLiteral("completed with error"));
    writeInfoFile();
    releaseFileWriter();
    handOverToStreamCache();
    emit finished();
}

} // namespace MediaV2
