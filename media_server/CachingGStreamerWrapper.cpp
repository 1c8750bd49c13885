#include "media_server/CachingGStreamerWrapper.h"

#include "media_server/GStreamerMediaFIFO.h"
#include "media_server/MediaServerDataValues.h"
#include "media_server/StreamCache.h"
#include "media_server/StreamingMediaPreloader.h"
#include "platform/config/ConfigBoolValue.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/config/ConfigStringValue.h"
#include "platform/core/SimpleTThread.h"
#include "platform/log/LogLine.h"
#include "platform/log/Logger.h"

#include <QDateTime>
#include <QFileInfo>

namespace MediaV2 {

namespace {

// Pause when less than this much audio is downloaded ahead of the play position: enough to
// ride out a short radio shadow without an audible gap.
ConfigIntValue sUnderrunThresholdMs("media_buffer/underrun_threshold_ms", 5000,
    "pause for buffering when less audio than this is downloaded ahead of the play position (ms)", ConfigRange<int>{0});
// Resume after an underrun only with this much ahead, twice the pause threshold, so playback
// does not stutter between pause and play on a marginal link.
ConfigIntValue sResumePlayThresholdMs("media_buffer/resume_play_threshold_ms", 10000,
    "after an underrun, play again once this much audio is downloaded ahead (ms)", ConfigRange<int>{0});
// Live streams through the in-memory FIFO; off until a deployment has verified its stations.
ConfigBoolValue sAllowFifo("media_buffer/allow_fifo", false,
    "play live streams through the in-memory FIFO that strips their in-stream titles");
// A cache hit counts as a hit for statistics only when the entry was idle this long (seconds),
// so replaying the same item at once is not reported as the cache saving a download.
ConfigIntValue sCacheHitAccessTimeThreshold("mediaserver/cache_hit_access_time_threshold_seconds", 600,
    "a cache hit counts in the statistics only when the entry was idle this long (s)", ConfigRange<int>{0});
// Test overrides of the items' cache keys; empty means use the client's keys.
ConfigStringValue sCacheKeyOverride("mediaserver/cache_key", QString(),
    "test override of every item's cache key; empty: the client's keys");
ConfigStringValue sPreloadCacheKeyOverride("mediaserver/preload_cache_key", QString(),
    "test override of every preloaded item's cache key; empty: the client's keys");

} // namespace

CachingGStreamerWrapper::CachingGStreamerWrapper(QObject* parent)
    : QObject(parent)
{
    mStreamCacheThread = new SimpleTThread(QStringLiteral("StreamCacheThread"), true);
    mStreamCache = new StreamCache(StreamCache::configuredMaxSize(), StreamCache::configuredMaxCount());
    mStreamCache->moveToThread(mStreamCacheThread);
    mStreamCacheThread->start(QThread::InheritPriority);
    connect(mStreamCache, &StreamCache::streamFileFound, this, &CachingGStreamerWrapper::onStreamFileFound, Qt::QueuedConnection);
    if (!QMetaObject::invokeMethod(mStreamCache, "init", Qt::QueuedConnection))
        LOG_ASSERT(false, QStringLiteral("failed to invoke StreamCache::init"));
    connect(&mPlayer, &GStreamerPlayer::mediaStatusChanged, this, &CachingGStreamerWrapper::mediaStatusChanged);
    connect(&mPlayer, &GStreamerPlayer::stateChanged, this, &CachingGStreamerWrapper::stateChanged);
    connect(&mPlayer, &GStreamerPlayer::positionChanged, this, &CachingGStreamerWrapper::positionChanged);
    connect(&mPlayer, &GStreamerPlayer::metaDataChanged, this, &CachingGStreamerWrapper::metaDataChanged);
    connect(&mPlayer, &GStreamerPlayer::positionChanged, this, &CachingGStreamerWrapper::gstreamerPositionChanged);
    connect(&mPlayer, &GStreamerPlayer::bufferProgress, this, &CachingGStreamerWrapper::gstreamerBufferProgress);
    emit bufferProgress(0, 0, 0);
}

// The cache goes with its thread: the lookups and stores already queued run first, then the
// cache is deleted on its own thread as the thread ends, and the thread is joined. An answer
// posted to this wrapper meanwhile is dropped with it. At process exit the finalisers have
// already closed the cache and stopped its thread, which would never run a deferred deletion:
// the cache is deleted here, with nothing left to race it.
CachingGStreamerWrapper::~CachingGStreamerWrapper()
{
    cleanup();
    disconnect(mStreamCache, nullptr, this, nullptr);
    if (mStreamCacheThread->isFinished())
        delete mStreamCache;
    else
        mStreamCache->deleteLater();
    delete mStreamCacheThread;
}

bool CachingGStreamerWrapper::setMedia(const MediaPlaybackMetadata& current, const MediaPlaybackMetadata& onDeck)
{
    mMetadata = current;
    mOnDeckMetadata = onDeck;
    if (!sCacheKeyOverride.value().isEmpty())
        mMetadata.cacheKey = sCacheKeyOverride.value();
    if (!sPreloadCacheKeyOverride.value().isEmpty())
        mOnDeckMetadata.cacheKey = sPreloadCacheKeyOverride.value();
    cleanup();
    mMediaSet = false;
    mStopRequested = false;
    mBufferProgress = 0.0;
    mPosition = 0;
    mPendingStartMs = 0;
    supersedePendingLookups();
    LOG_INFO << "setMedia" << " mMetadata: " << mMetadata.toJSON();
    LOG_INFO << " mOnDeckMetadata: " << mOnDeckMetadata.toJSON();
    emit bufferProgress(0, 0, 0);
    if (mMetadata.liveStream && sAllowFifo.value())
        return setLiveMedia();
    if (mMetadata.cacheKey.isEmpty()) {
        LOG_INFO << "not a live stream, and can't cache -> NOT using streaming media buffer";
        MEDIA2_streamCached.setValue(false);
        return mPlayer.setMedia(cleanupUrl(mMetadata.url), false);
    }
    if (!mMetadata.shouldCache) {
        MEDIA2_streamCached.setValue(false);
        startStreamingMediaBuffer();
        return true;
    }
    findStream(mMetadata.cacheKey, CurrentItem);
    return true;
}

bool CachingGStreamerWrapper::setLiveMedia()
{
    LOG_INFO << "live stream -> using FIFO";
    mMediaFIFO = new GStreamerMediaFIFO(mMetadata);
    // Not queued: the engine emits on this thread while the pipeline holds the element, and a
    // queued call would carry a pointer nobody holds any more.
    connect(&mPlayer, &GStreamerPlayer::newSourceElement, mMediaFIFO, &GStreamerMediaFIFO::playerHasNewSourceElement);
    connect(mMediaFIFO, &GStreamerMediaFIFO::metadataChanged, this, &CachingGStreamerWrapper::metaDataChanged);
    mMediaFIFO->start();
    MEDIA2_streamCached.setValue(false);
    // Live: a station that stops is an error, not the end of an item.
    return mPlayer.setMedia(QUrl(QStringLiteral("appsrc://")), true);
}

void CachingGStreamerWrapper::findStream(const QString& key, Lookup lookup)
{
    if (QMetaObject::invokeMethod(mStreamCache, "findStream", Qt::QueuedConnection, Q_ARG(QString, key)))
        mPendingLookups.enqueue(lookup);
    else
        LOG_ASSERT(false, QStringLiteral("failed to invoke StreamCache::findStream"));
}

// An outstanding on-deck lookup stays one: its answer still decides whether to preload (now the
// new on-deck item). Only the answer about a replaced current item would be taken for the wrong
// item.
void CachingGStreamerWrapper::supersedePendingLookups()
{
    for (Lookup& lookup : mPendingLookups)
        if (lookup == CurrentItem)
            lookup = Superseded;
}

QUrl CachingGStreamerWrapper::cleanupUrl(const QString& url)
{
    if (url.startsWith(QLatin1Char('/')))
        return QUrl::fromLocalFile(url);
    return QUrl(url);
}

bool CachingGStreamerWrapper::playMediaFile(const QString& path)
{
    const QUrl url(QStringLiteral("file://%1").arg(path));
    bool result = mPlayer.setMedia(url, false);
    if (result)
        result = mPlayer.play(0, false);
    return result;
}

// A start position the download has not reached yet is held, not handed to the engine: the
// engine would check it against a duration estimated from the file so far, refuse it and
// play from the start. The engine waits paused and buffering, and checkForUnderrun() plays
// from the position once the resume threshold is downloaded beyond it.
bool CachingGStreamerWrapper::play(qint64 pos)
{
    mStopRequested = false;
    if (pos > 0 && growingFileLacks(pos)) {
        LOG_INFO << "start position " << pos << " ms not downloaded yet, waiting for it";
        mPendingStartMs = pos;
        return mPlayer.pause(true);
    }
    mPendingStartMs = 0;
    return mPlayer.play(pos, false);
}

bool CachingGStreamerWrapper::growingFileLacks(qint64 pos) const
{
    return mMediaBuffer && mMediaBuffer->state() != StreamingMediaBuffer::Finished && mMetadata.duration > 0
        && downloadedMs() - pos <= sResumePlayThresholdMs.value();
}

qint64 CachingGStreamerWrapper::downloadedMs() const
{
    return qint64(double(mMetadata.duration) * mBufferProgress);
}

bool CachingGStreamerWrapper::pause()
{
    mStopRequested = false;
    return mPlayer.pause(false);
}

bool CachingGStreamerWrapper::seek(qint64 pos)
{
    mStopRequested = false;
    return mPlayer.seek(pos);
}

bool CachingGStreamerWrapper::stop()
{
    mStopRequested = true;
    return mPlayer.stop(false, GStreamerPlayer::Error);
}

bool CachingGStreamerWrapper::stopMediaFile()
{
    return mPlayer.stop(false, GStreamerPlayer::Error);
}

GStreamerMediaMetadata CachingGStreamerWrapper::getAvailableMetadata() const
{
    GStreamerMediaMetadata metadata = mPlayer.getAvailableMetadata();
    if (!mMediaFIFO)
        return metadata;
    const GStreamerMediaMetadata station = mMediaFIFO->getAvailableMetadata();
    if (!station.title.isEmpty())
        metadata.title = station.title;
    if (metadata.bitrate == 0)
        metadata.bitrate = station.bitrate;
    return metadata;
}

void CachingGStreamerWrapper::onStreamFileFound(bool inCache, QString file, qint64 timeSeconds)
{
    // The cache answers each lookup once, in the order asked; an answer about a current item that
    // has been replaced since is dropped. An answer nobody asked for is taken for the current item.
    const Lookup lookup = mPendingLookups.isEmpty() ? CurrentItem : mPendingLookups.dequeue();
    if (lookup == Superseded)
        return;
    if (lookup == OnDeckItem) {
        if (inCache)
            LOG_INFO << "Skipping preload since already in cache";
        else
            startPreloadingOnDeck();
        return;
    }
    if (!inCache) {
        startStreamingMediaBuffer();
        MEDIA2_streamCached.setValue(false);
        return;
    }
    playFromCache(file, timeSeconds);
}

// A replay of a file used within the threshold is not counted as the cache saving a download.
void CachingGStreamerWrapper::playFromCache(const QString& file, qint64 timeSeconds)
{
    const qint64 size = QFileInfo(file).size();
    emit bufferProgress(1.0, size, size);
    const QUrl url = QUrl::fromLocalFile(file);
    mPlayer.setMedia(url, false);
    LOG_INFO << "Cached in StreamCache, playing from " << url.toString();
    const qint64 idleSeconds = QDateTime::currentMSecsSinceEpoch() / 1000 - timeSeconds;
    const bool counted = idleSeconds > sCacheHitAccessTimeThreshold.value();
    if (!mOnDeckMetadata.url.isEmpty())
        initPreloadingOnDeck();
    MEDIA2_streamCached.setValue(counted);
}

void CachingGStreamerWrapper::startStreamingMediaBuffer()
{
    LOG_INFO << "not live stream, can cache -> using streaming media buffer";
    mMediaBuffer = new StreamingMediaBuffer(mMetadata, mOnDeckMetadata, mStreamCache);
    connect(mMediaBuffer, &StreamingMediaBuffer::bufferStateChanged, this, &CachingGStreamerWrapper::mediaBufferStateChanged);
    connect(mMediaBuffer, &StreamingMediaBuffer::bufferProgress, this, &CachingGStreamerWrapper::mediaBufferProgress);
    mMediaBuffer->start();
}

void CachingGStreamerWrapper::mediaBufferStateChanged(StreamingMediaBuffer::State state)
{
    if ((state == StreamingMediaBuffer::Buffering || state == StreamingMediaBuffer::Finished) && !mMediaSet) {
        LOG_INFO << "Buffer has made sufficient progress -> setMedia()";
        mMediaSet = true;
        mPlayer.setMedia(QUrl::fromLocalFile(mMediaBuffer->cacheFile()), false);
    }
    if (state == StreamingMediaBuffer::Failed || state == StreamingMediaBuffer::Timeout || state == StreamingMediaBuffer::Forbidden) {
        LOG_INFO << "Stopping since buffering failed";
        const GStreamerPlayer::State error = state == StreamingMediaBuffer::Timeout     ? GStreamerPlayer::ErrorTimeout
                                             : state == StreamingMediaBuffer::Forbidden ? GStreamerPlayer::ErrorForbidden
                                                                                        : GStreamerPlayer::Error;
        mPlayer.stop(true, error);
    }
    if (state == StreamingMediaBuffer::Finished && !mOnDeckMetadata.url.isEmpty())
        initPreloadingOnDeck();
    // The last progress report came before Finished, and a paused engine reports no position:
    // without this, a download ending during an underrun would never resume playback.
    if (state == StreamingMediaBuffer::Finished)
        checkForUnderrun();
}

void CachingGStreamerWrapper::initPreloadingOnDeck()
{
    findStream(mOnDeckMetadata.cacheKey, OnDeckItem);
}

void CachingGStreamerWrapper::startPreloadingOnDeck()
{
    mPreloader = new StreamingMediaPreloader(mOnDeckMetadata, mStreamCache);
    mPreloader->start();
}

void CachingGStreamerWrapper::mediaBufferProgress(qreal percent, qint64 downloadedBytes, qint64 totalBytes)
{
    emit bufferProgress(percent, downloadedBytes, totalBytes);
    mBufferProgress = percent;
    checkForUnderrun();
}

void CachingGStreamerWrapper::gstreamerBufferProgress(qreal percent)
{
    if (!mMetadata.cacheKey.isEmpty())
        return;
    emit bufferProgress(percent, 0, 0);
    mBufferProgress = percent;
}

void CachingGStreamerWrapper::gstreamerPositionChanged(qint64 ms)
{
    mPosition = ms;
    checkForUnderrun();
}

// Pauses strictly below the underrun threshold and resumes strictly above the resume
// threshold (or once the download is complete): between the two nothing changes, so a
// marginal link does not make playback stutter.
void CachingGStreamerWrapper::checkForUnderrun()
{
    if (mMetadata.duration <= 0 || !mMediaBuffer || mMediaBuffer->state() == StreamingMediaBuffer::Uninitialized
        || mMediaBuffer->state() == StreamingMediaBuffer::Initializing)
        return;
    // While a start position is held, the engine's position is not where playback will begin.
    const qint64 ahead = downloadedMs() - qMax(mPosition, mPendingStartMs);
    const bool finished = mMediaBuffer->state() == StreamingMediaBuffer::Finished;
    if (!finished && ahead < sUnderrunThresholdMs.value() && mPlayer.getState() == GStreamerPlayer::Playing) {
        LOG_INFO << "Buffer underrun, pausing";
        mPlayer.pause(true);
        mMediaBuffer->playerPausedForUnderrun();
        return;
    }
    const GStreamerPlayer::MediaStatus status = mPlayer.getMediaStatus();
    if (mPlayer.getState() != GStreamerPlayer::Playing
        && (status == GStreamerPlayer::Buffering || status == GStreamerPlayer::Buffered)
        && (ahead > sResumePlayThresholdMs.value() || finished) && !mStopRequested) {
        LOG_INFO << "Buffer passed threshold after underrun, resuming playback";
        mPlayer.play(mPendingStartMs, true);
        mPendingStartMs = 0;
        mMediaBuffer->playerRecoveredAfterUnderrun();
    }
}

void CachingGStreamerWrapper::cleanup()
{
    cleanupMediaBuffers();
    cleanupMediaFIFO();
}

void CachingGStreamerWrapper::cleanupMediaBuffer(StreamingMediaBuffer* buffer)
{
    if (!buffer)
        return;
    disconnect(this, nullptr, buffer, nullptr);
    buffer->stop();
    disconnect(buffer, nullptr, this, nullptr);
    buffer->deleteLater();
}

void CachingGStreamerWrapper::cleanupMediaBuffers()
{
    LOG_INFO << "cleanupMediaBuffer()";
    cleanupMediaBuffer(mMediaBuffer);
    mMediaBuffer = nullptr;
    cleanupMediaBuffer(mPreloader);
    mPreloader = nullptr;
}

void CachingGStreamerWrapper::cleanupMediaFIFO()
{
    if (!mMediaFIFO)
        return;
    LOG_INFO << "cleanupMediaFIFO()";
    disconnect(this, nullptr, mMediaFIFO, nullptr);
    disconnect(&mPlayer, nullptr, mMediaFIFO, nullptr);
    disconnect(mMediaFIFO, nullptr, this, nullptr);
    mMediaFIFO->stop();
    mMediaFIFO->deleteLater();
    mMediaFIFO = nullptr;
}

} // namespace MediaV2
