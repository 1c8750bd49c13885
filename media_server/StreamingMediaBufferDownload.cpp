// StreamingMediaBuffer, second half: one download's life, from the request through the
// response headers and the body to its end, retries and the wait for connectivity. The first
// half (StreamingMediaBuffer.cpp) holds the item's files, states and statistics.

#include "media_server/DownloadFileWriter.h"
#include "media_server/ResponseExtent.h"
#include "media_server/StreamingMediaBuffer.h"
#include "platform/config/ConfigBoolValue.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/io/ThreadedIncrementalFileWriter.h"
#include "platform/log/LogLine.h"
#include "platform/log/Logger.h"
#include "vehicle/VehicleDataValues.h"

namespace MediaV2 {

namespace {

// Resumptions of a broken download before the item fails: enough for a tunnel, not so many
// that a dead server keeps the driver waiting.
ConfigIntValue sDownloadRetries("media_buffer/download_retries", 3,
    "resumptions of a broken download before the item fails", ConfigRange<int>{0});
// Response headers in the log, for diagnosing servers; off because they are long.
ConfigBoolValue sHeaderDebug("media_buffer/header_debug", false, "log the response headers of every download");
// Milliseconds without data before a download is abandoned and retried.
ConfigIntValue sDownloadTimeout("media_buffer/download_timeout", 10000,
    "time without data after which a download is abandoned and retried (ms)", ConfigRange<int>{1});

constexpr int kHttpForbidden = 403;

} // namespace

void StreamingMediaBuffer::startDownload(int offset)
{
    LOG_INFO << "startDownload url=" << mMetadata.url;
    if (offset < 0)
        offset = 0;   // a count past 2 GiB narrowed to a negative int: start over rather than splice
    dropDownloader();
    mStoreData.clear();
    mWritten = offset;
    if (mFileWriter)
        mFileWriter->restartAt(offset);
    mDownloader = new NetDownloader(NetStats::Category(mMetadata.statsCategory), mMetadata.url, true, this);
    mDownloader->addHeader(QStringLiteral("Icy-MetaData"), QStringLiteral("1"));
    mDownloader->addHeader(QStringLiteral("transferMode.dlna.org"), QStringLiteral("Streaming"));
    mDownloader->addHeader(QStringLiteral("User-Agent"), QStringLiteral("WinampMPEG/5.09"));
    mDownloader->setRetryWithTLSV1OnSSLError(true);
    mDownloader->setSSLPeerVerificationMode(QSslSocket::VerifyNone);
    mDownloader->setFromEncodedUrl(true);
    if (offset > 0)
        mDownloader->addHeader(QStringLiteral("Range"), QStringLiteral("bytes=%1-").arg(offset));
    connectDownloader();
    mBodyTaken = false;
    mResponseAccepted = false;
    mRequestOffset = offset;
    mWriteError.clear();
    mDownloader->startDownload();
    mTimeoutTimer.start(sDownloadTimeout.value());
}

void StreamingMediaBuffer::connectDownloader()
{
    connect(mDownloader, &NetDownloader::dataAvailable, this, &StreamingMediaBuffer::dataAvailable);
    connect(mDownloader, &NetDownloader::downloadComplete, this, &StreamingMediaBuffer::downloadComplete);
    connect(mDownloader, &NetDownloader::metaDataChanged, this, &StreamingMediaBuffer::metaDataChanged);
    connect(mDownloader, &NetDownloader::redirected, this, &StreamingMediaBuffer::downloadRedirect);
    // A writer already behind (a slow disk while the last download ended) holds the new one too.
    if (mFileWriter && mFileWriter->backlogBytes() > ThreadedIncrementalFileWriter::kBacklogHighBytes)
        mDownloader->pause();
}

void StreamingMediaBuffer::dropDownloader()
{
    if (!mDownloader)
        return;
    disconnect(mDownloader, nullptr, this, nullptr);
    mDownloader->abort();
    mDownloader->deleteLater();
    mDownloader = nullptr;
}

void StreamingMediaBuffer::abandonDownload(NetDownloader::Status status)
{
    NetDownloader* downloader = mDownloader;
    disconnect(downloader, nullptr, this, nullptr);
    downloader->abort();
    downloadComplete(downloader, status);
}

void StreamingMediaBuffer::metaDataChanged()
{
    if (!mDownloader)
        return;
    if (sHeaderDebug.value())
        logHeaders();
    noteAcceptRanges();
    const int code = mDownloader->statusCode();
    mResponseAccepted = code >= 200 && code < 300;
    if (!mResponseAccepted)
        return;   // an error page never reaches the file; the downloader ends with the error
    applyResponseExtent(ResponseExtent::of(mRequestOffset, code, mDownloader->responseHeader("Content-Length"),
                                           mDownloader->responseHeader("Content-Range")));
}

void StreamingMediaBuffer::logHeaders() const
{
    LOG_INFO << "[Header] status " << mDownloader->statusCode();
    for (const auto& header : mDownloader->responseHeaders())
        LOG_INFO << "[Header] " << header.first << ": " << header.second;
}

void StreamingMediaBuffer::noteAcceptRanges()
{
    const bool ranges = mDownloader->statusCode() == 206
                        || mDownloader->responseHeader("Accept-Ranges").trimmed().toLower() == "bytes";
    if (ranges && !mAcceptRangesSupported)
        LOG_INFO << "Accepts-ranges bytes supported, resume download enabled";
    if (!ranges && mAcceptRangesSupported)
        LOG_WARN << "mAcceptRangesSupported went from true -> false";
    mAcceptRangesSupported = ranges;
}

// The body must continue the file exactly where it ends, else the file would splice two
// responses: the whole resource restarts the file, any other start downloads it afresh.
void StreamingMediaBuffer::applyResponseExtent(const ResponseExtent& extent)
{
    const qint64 fileEnd = mFileWriter ? mFileWriter->fileEnd() : 0;
    if (extent.bodyStart == 0 && fileEnd > 0) {
        LOG_WARN << "the server answered the whole resource instead of bytes from " << fileEnd << "; starting the file over";
        mFileWriter->restartAt(0);
        mWritten = 0;
        mContentLength = 0;
    } else if (extent.bodyStart != fileEnd) {
        startOver(QStringLiteral("the server answered bytes from %1 instead of %2").arg(extent.bodyStart).arg(fileEnd));
        return;
    } else if (mContentLength > 0 && extent.total > 0 && extent.total != mContentLength) {
        startOver(QStringLiteral("the resource is now %1 bytes long, not %2").arg(extent.total).arg(mContentLength));
        return;
    }
    if (extent.total > 0)
        reserveContentLength(extent.total);
}

void StreamingMediaBuffer::startOver(const QString& reason)
{
    LOG_WARN << reason << "; downloading from the start";
    mContentLength = 0;
    startDownload(0);
}

void StreamingMediaBuffer::reserveContentLength(qint64 length)
{
    LOG_INFO << "Content length reported as " << length << ", resizing disk cache";
    const bool known = mContentLength == length;
    mContentLength = length;
    if (!mFileWriter) {
        LOG_ASSERT(mFileWriter, QStringLiteral("Can't resize, disk cache writer = NULL"));
        return;
    }
    mFileWriter->reserve(length);
    if (!known)
        emit contentLengthDetermined(estimatedDurationMs(length));
    writeInfoFile();
}

// The item's own duration when the client gave one, else the length at its stated bit rate
// (kbit/s, so bytes * 8 / kbit/s is milliseconds); 0 when neither is known.
qint64 StreamingMediaBuffer::estimatedDurationMs(qint64 length) const
{
    if (mMetadata.duration > 0)
        return mMetadata.duration;
    return mMetadata.bitrate > 0 ? length * 8 / mMetadata.bitrate : 0;
}

void StreamingMediaBuffer::dataAvailable(QByteArray data)
{
    if (!mFileWriter) {
        LOG_ASSERT(mFileWriter, QStringLiteral("Received data, disk cache writer = NULL"));
        return;
    }
    if (!mResponseAccepted)
        return;
    mBodyTaken = true;
    mFileWriter->append(data);
}

void StreamingMediaBuffer::downloadRedirect(QString newUrl)
{
    if (!mBodyTaken) {
        LOG_INFO << "not clearing cache, download redirected to: " << newUrl;
        return;
    }
    LOG_INFO << "clearing cache, download redirected to: " << newUrl;
    if (mFileWriter)
        mFileWriter->restartAt(0);
    else
        LOG_ASSERT(mFileWriter, QStringLiteral("Can't seek, disk cache writer = NULL"));
    mWritten = 0;
    mContentLength = 0;
    mFailedDownloadCount = 0;
    mBodyTaken = false;
    mRequestOffset = 0;   // the new response's body is judged against the emptied file
}

void StreamingMediaBuffer::downloadTimeout()
{
    if (!mDownloader || (!mBodyTaken && mState != Initializing && mState != Buffering))
        return;
    LOG_WARN << "Download timed out, and received no data in last timeout period... aborting";
    abandonDownload(NetDownloader::Timeout);
}

bool StreamingMediaBuffer::acceptWriteReport(qint64 bytes, const QString& error)
{
    if (mDownloader)
        mTimeoutTimer.start();
    if (bytes >= 0) {
        mWritten += bytes;
        return true;
    }
    // The chunks after the failed one landed in its place: cut them off and fetch them again.
    mWriteError = QStringLiteral("cannot write the cache file: ") + error;
    mFileWriter->restartAt(mWritten);
    if (mDownloader)
        abandonDownload(NetDownloader::Aborted);
    return false;
}

void StreamingMediaBuffer::dataWritten(qint64 bytes, QString error)
{
    if (bytes < 0)
        LOG_ERROR << "Failed to write to disk cache: " << error;
    if (!acceptWriteReport(bytes, error))
        return;
    // Bytes fetched again after a server restarted the file are no progress: a connection that
    // always breaks at the same point must still use up its retries.
    if (mFailedDownloadCount > 0 && mWritten > mProgressMark) {
        LOG_INFO << "Got data after a failed download, resetting failed count";
        mFailedDownloadCount = 0;
    }
    mProgressMark = qMax(mProgressMark, mWritten);
    if (mState == Initializing && isPastInitialThreshold(int(qMin<qint64>(mWritten, INT_MAX)))) {
        LOG_INFO << QStringLiteral("passed threshold with %1 bytes in %2 s").arg(mWritten).arg(double(mThresholdTimer.elapsed()) / 1000.0);
        setState(Buffering, QStringLiteral("passed threshold"));
    }
    maybeWriteProgressInfo();
    updateProgress();
}

void StreamingMediaBuffer::trimCachedFileToContentSize()
{
    if (!mFileWriter) {
        LOG_WARN << "Cannot trim cache file to " << mWritten << " bytes: it has no writer";
        completionWritten(false);
        return;
    }
    LOG_INFO << "Trimming cache file " << cacheFile() << " to downloaded content size " << mFileWriter->fileEnd();
    mFileWriter->finish();
}

void StreamingMediaBuffer::completionWritten(bool allWritten)
{
    if (mFailureWaiting) {
        mFailureWaiting = false;
        // An error reported after the last byte arrived leaves nothing to fetch.
        if (!allWritten || mContentLength < 1 || !holdsWholeContent()) {
            handleFailure(mFailureTarget, mFailureError);
            return;
        }
    }
    if (!allWritten) {
        handleFailure(Failed, mWriteError.isEmpty() ? QStringLiteral("the last chunks did not reach the disk") : mWriteError);
        return;
    }
    if (!holdsWholeContent()) {
        handleFailure(Failed, QStringLiteral("the download ended after %1 of %2 bytes").arg(mWritten).arg(mContentLength));
        return;
    }
    emit bufferProgress(1.0, mWritten, mWritten);
    completeFile(QStringLiteral("download complete, ") + downloadStats());
}

void StreamingMediaBuffer::downloadComplete(NetDownloader* nd, NetDownloader::Status status)
{
    mTimeoutTimer.stop();
    if (status == NetDownloader::Success && (!mResponseAccepted || !mFileWriter || mFileWriter->fileEnd() == 0)) {
        dropDownloader();
        handleFailure(Failed, QStringLiteral("the server sent no data"));
        return;
    }
    if (status == NetDownloader::Success) {
        dropDownloader();
        trimCachedFileToContentSize();
        return;
    }
    const State target = failureState(nd, status);
    const QString error = (status == NetDownloader::Aborted && !mWriteError.isEmpty()) ? mWriteError : nd->errorString();
    LOG_INFO << QStringLiteral("error=%1, status=%2, statusCode=%3").arg(error).arg(int(status)).arg(nd->statusCode());
    dropDownloader();
    // Decide once every byte received is counted: the resume then starts after all of them,
    // and data that arrived since the last failure resets the failed count first.
    mFailureWaiting = true;
    mFailureTarget = target;
    mFailureError = error;
    trimCachedFileToContentSize();
}

StreamingMediaBuffer::State StreamingMediaBuffer::failureState(NetDownloader* nd, NetDownloader::Status status) const
{
    if (status == NetDownloader::Timeout)
        return Timeout;
    return nd->statusCode() == kHttpForbidden ? Forbidden : Failed;
}

void StreamingMediaBuffer::handleFailure(State target, const QString& error)
{
    if (!mAcceptRangesSupported || mContentLength < 1) {
        LOG_WARN << "failed with " << error;
        setState(target, QStringLiteral("failed with %1").arg(error));
        return;
    }
    ++mFailedDownloadCount;
    mFailureTarget = target;   // the state to end in if the retries run out while waiting
    LOG_WARN << "Download failed [#" << mFailedDownloadCount << "] with error: " << error;
    if (!GUI_canUseInternet.value()) {
        waitForConnectivity();
        return;
    }
    if (!maybeRetryDownload())
        setState(target, QStringLiteral("tried to download %1 times and failed with %2").arg(mFailedDownloadCount).arg(error));
}

void StreamingMediaBuffer::waitForConnectivity()
{
    LOG_WARN << "Lost connectivity. Not retrying until connectivity restored.";
    connect(&GUI_canUseInternet, &DataValue::valueChanged, this, &StreamingMediaBuffer::onConnectivityChange,
            Qt::UniqueConnection);
}

void StreamingMediaBuffer::onConnectivityChange()
{
    if (!GUI_canUseInternet.value())
        return;
    disconnect(&GUI_canUseInternet, &DataValue::valueChanged, this, &StreamingMediaBuffer::onConnectivityChange);
    if (!maybeRetryDownload())
        setState(mFailureTarget, QStringLiteral("tried to download %1 times").arg(mFailedDownloadCount));
}

bool StreamingMediaBuffer::maybeRetryDownload()
{
    if (mFailedDownloadCount > sDownloadRetries.value())
        return false;
    LOG_INFO << "Trying to resume download from byte " << mWritten << ", " << (mContentLength - mWritten) << " bytes left";
    startDownload(int(mWritten));
    return true;
}

} // namespace MediaV2
