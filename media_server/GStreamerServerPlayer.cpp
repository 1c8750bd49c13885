#include "media_server/GStreamerServerPlayer.h"

#include "media_server/MediaServerDataValues.h"
#include "media_server/MediaServerMachineSM.h"
#include "media_server/MediaServerMachineState.h"
#include "media_server/ServerStateRules.h"
#include "platform/config/ConfigBoolValue.h"
#include "platform/log/LogLine.h"
#include "utils/Singleton.h"

#include <QCoreApplication>
#include <QThread>

namespace {

// Every transition of the playback state machine in the log: on by default, because the state
// history is the first thing needed when a field report says playback stopped.
ConfigBoolValue sTracePlayerSm("media_server/trace_player_sm", true, "log every transition of the playback state machine");

// Requests come by queued invocation from the service on the main thread; a call from another
// thread would race the engine and the machine, which are not locked.
#define ASSERT_MAIN_THREAD()                                                                                            \
    LOG_ASSERT(QCoreApplication::instance() && QThread::currentThread() == QCoreApplication::instance()->thread(), \
               QStringLiteral("%1() called outside the main thread").arg(QLatin1String(__func__)))

} // namespace

namespace MediaV2 {

GStreamerServerPlayer* GStreamerServerPlayer::instance()
{
    return Singleton<GStreamerServerPlayer>::instance();
}

GStreamerServerPlayer::GStreamerServerPlayer()
    : mTrace(sTracePlayerSm.value())
{
    connectWrapper();
    mMachine = std::make_unique<MediaServerMachineSM>(this, Qt::AutoConnection);
    mMachine->goState(mMachine->state(MediaServerMachineSM::NoMedia), QStringLiteral("initializing"));
}

GStreamerServerPlayer::~GStreamerServerPlayer()
{
    disconnect(&mPlayer, nullptr, this, nullptr);
}

void GStreamerServerPlayer::connectWrapper()
{
    LOG_ASSERT(connect(&mPlayer, &CachingGStreamerWrapper::bufferProgress, this, &GStreamerServerPlayer::streamingMediaBufferProgress),
               QStringLiteral("Connect failed"));
    LOG_ASSERT(connect(&mPlayer, &CachingGStreamerWrapper::mediaStatusChanged, this, &GStreamerServerPlayer::gstreamerMediaStatusChanged),
               QStringLiteral("Connect failed"));
    LOG_ASSERT(connect(&mPlayer, &CachingGStreamerWrapper::metaDataChanged, this, &GStreamerServerPlayer::gstreamerMetadataChanged),
               QStringLiteral("Connect failed"));
    LOG_ASSERT(connect(&mPlayer, &CachingGStreamerWrapper::positionChanged, this, &GStreamerServerPlayer::gstreamerPositionChanged),
               QStringLiteral("Connect failed"));
    LOG_ASSERT(connect(&mPlayer, &CachingGStreamerWrapper::stateChanged, this, &GStreamerServerPlayer::gstreamerStateChanged),
               QStringLiteral("Connect failed"));
}

MediaServerMachineState* GStreamerServerPlayer::state() const
{
    return mMachine->currentState();
}

MediaServerState GStreamerServerPlayer::machineStateToState(int machineState)
{
    return ServerStateRules::machineStateToState(machineState);
}

MediaServerState GStreamerServerPlayer::currentState() const
{
    return machineStateToState(state()->state_id());
}

qint64 GStreamerServerPlayer::currentDurationMs() const
{
    const qint64 engineMs = mPlayer.getDuration() / 1000000;   // the engine counts nanoseconds
    if (engineMs > 0)
        return engineMs;
    return currentItem().duration > 0 ? currentItem().duration : -1;
}

double GStreamerServerPlayer::volume() const
{
    return mPlayer.volumeLevel();
}

void GStreamerServerPlayer::setVolume(double volume)
{
    mPlayer.setVolumeLevel(volume);
}

bool GStreamerServerPlayer::isTrace() const
{
    return mTrace;
}

// Buffering has ended without the client asking for anything: playback goes on by itself.
void GStreamerServerPlayer::machineStateChanged()
{
    const MediaServerState published = currentState();
    const auto engine = ServerStateRules::EngineState(mPlayer.getState());
    MEDIA2_serverState.setState(published, ServerStateRules::errorForState(published, engine));
    const int entered = state()->state_id();
    if (entered == MediaServerMachineSM::Loaded && mPlayWhenLoaded >= 0)
        playHeldRequest();
    else if (entered != MediaServerMachineSM::Loading)
        mPlayWhenLoaded = -1;
    if (entered != MediaServerMachineSM::Buffered)
        return;
    if (mPlayer.isPlaying())
        state()->alreadyPlaying();
    else
        play(0);
}

void GStreamerServerPlayer::playHeldRequest()
{
    const qint64 pos = mPlayWhenLoaded;
    mPlayWhenLoaded = -1;
    LOG_INFO << "item loaded, playing from " << pos;
    if (!startPlaying(pos))
        LOG_WARN << "the play held while the item loaded failed";
}

void GStreamerServerPlayer::onStop()
{
    if (mPendingMetadata.valid) {
        LOG_INFO << "metadata valid -> loadMedia";
        const MediaPlaybackMetadata current = mPendingMetadata;
        mPendingMetadata = MediaPlaybackMetadata();
        loadMedia(current, mPendingOnDeckMetadata);
        return;
    }
    LOG_INFO << "metadata invalid";
    mPendingMetadata = MediaPlaybackMetadata();
}

void GStreamerServerPlayer::resetBroadcastedState()
{
    MEDIA2_elapsedTime.setValue(0);
    MEDIA2_nowPlayingTitle.setValue(QString());
    MEDIA2_streamBitRate.setValue(0);
}

void GStreamerServerPlayer::play(qint64 milliSecondsPos)
{
    ASSERT_MAIN_THREAD();
    if (currentState() == Playing) {
        LOG_INFO << "already playing";
        emit playComplete(true);
        return;
    }
    if (currentState() == Loading) {
        // The engine still holds the previous item (or nothing) until this one is loaded.
        LOG_INFO << "held until the item is loaded";
        mPlayWhenLoaded = qMax<qint64>(0, milliSecondsPos);
        emit playComplete(true);
        return;
    }
    emit playComplete(startPlaying(milliSecondsPos));
}

// Answers nothing: play() answers a request, and a held play was answered when it was held.
bool GStreamerServerPlayer::startPlaying(qint64 milliSecondsPos)
{
    LOG_INFO << "playing";
    state()->play();
    if (mPlayer.isPlaying()) {
        state()->playSucceeded();
        return true;
    }
    if (!mPlayer.play(startFrom(milliSecondsPos))) {
        LOG_WARN << "play refused: the engine could not start playing in state " << MediaServerUtils::nameForState(currentState())
                 << " (load an item first; the engine's reason is logged above)";
        state()->playFailed();
        return false;
    }
    return true;   // the engine's Playing state sends playSucceeded
}

void GStreamerServerPlayer::pause()
{
    ASSERT_MAIN_THREAD();
    if (currentState() == Paused) {
        LOG_INFO << "already paused";
        emit pauseComplete(true);
        return;
    }
    if (currentState() == Loading) {
        // Nothing of this item plays yet, and the engine still holds the previous one.
        LOG_INFO << "nothing to pause while the item loads";
        mPlayWhenLoaded = -1;
        emit pauseComplete(true);
        return;
    }
    LOG_INFO << "pausing";
    state()->pause();
    if (mPlayer.isPaused()) {
        emit pauseComplete(true);
        state()->pauseSucceeded();
    } else if (!mPlayer.pause()) {
        LOG_WARN << "pause refused: the engine could not pause (its reason is logged above)";
        emit pauseComplete(false);
        state()->pauseFailed();
    } else {
        emit pauseComplete(true);
    }
}

// Outside Playing and Paused the request is deliberately left unanswered: the client's call
// times out, as clients of this service have always seen it.
void GStreamerServerPlayer::seek(int milliSecondsPos)
{
    ASSERT_MAIN_THREAD();
    LOG_INFO << "position " << milliSecondsPos;
    const MediaServerState published = currentState();
    if (published != Playing && published != Paused) {
        LOG_ERROR << "can't seek in current state: " << MediaServerUtils::nameForState(published) << ", must be playing or paused";
        return;
    }
    state()->seek();
    mItemStartMs = 0;
    if (!mPlayer.seek(milliSecondsPos)) {
        LOG_WARN << "seek refused: the engine could not seek to " << milliSecondsPos << " ms (its reason is logged above)";
        emit seekComplete(false);
        state()->seekFailed();
        return;
    }
    gstreamerPositionChanged(milliSecondsPos);   // the elapsed time jumps before the engine reports
    emit seekComplete(true);
    state()->seekSucceeded();
}

// A client's stop also discards a load waiting for the stop.
void GStreamerServerPlayer::stop()
{
    ASSERT_MAIN_THREAD();
    internalStop(MediaPlaybackMetadata());
}

void GStreamerServerPlayer::internalStop(const MediaPlaybackMetadata& item)
{
    if (currentState() == NoMedia) {
        LOG_INFO << "already stopped";
        emit stopComplete(true);
        return;
    }
    LOG_INFO << "stopping";
    state()->stop();
    mPendingMetadata = item;
    if (mPlayer.isStopped()) {
        emit stopComplete(true);
        state()->stopSucceeded();
    } else if (!mPlayer.stop()) {
        LOG_WARN << "stop refused: the engine could not stop (its reason is logged above)";
        emit stopComplete(false);
        state()->stopFailed();
    } else {
        emit stopComplete(true);
    }
    resetBroadcastedState();
}

void GStreamerServerPlayer::loadMedia(MediaPlaybackMetadata metadata, MediaPlaybackMetadata onDeckMetadata)
{
    ASSERT_MAIN_THREAD();
    LOG_INFO << "uri: " << metadata.url;
    LOG_INFO << "metadata: " << metadata.toJSON();
    // Not refused: clients have always had the load accepted and the error published after.
    if (metadata.url.isEmpty())
        LOG_WARN << "the item has no url, so it will end in an error: send a JSON object with \"url\"";
    mPendingOnDeckMetadata = onDeckMetadata;
    const MediaServerState published = currentState();
    if (published != NoMedia && published != PlaybackComplete) {
        internalStop(metadata);   // onStop() loads the pair once NoMedia is entered
        return;
    }
    state()->load();
    resetBroadcastedState();
    if (!mPlayer.setMedia(metadata, onDeckMetadata)) {
        LOG_WARN << "load refused: the engine could not open " << metadata.url << " (its reason is logged above)";
        emit loadMediaComplete(false);
        state()->loadFailed();
        return;
    }
    MEDIA2_elapsedTime.setValue(int(metadata.startPosition));
    mItemStartMs = qMax<qint64>(0, metadata.startPosition);
    emit loadMediaComplete(true);
}

// Position 0 asks for no particular place: the item's own start position (a resumed episode),
// once. A later play after a pause resumes where playback stands.
qint64 GStreamerServerPlayer::startFrom(qint64 requestedMs)
{
    const qint64 from = requestedMs > 0 ? requestedMs : mItemStartMs;
    mItemStartMs = 0;
    return from;
}

void GStreamerServerPlayer::playMediaFile(QString fileName)
{
    const bool result = mPlayer.playMediaFile(fileName);
    LogLine(Logger::Info, nullptr) << "playMediaFile() " << result << ": " << fileName;
    MEDIA2_playingCustomMedia.setValue(result);
}

void GStreamerServerPlayer::stopMediaFile()
{
    LOG_INFO << "";
    mPlayer.stopMediaFile();
    MEDIA2_playingCustomMedia.setValue(false);
}

void GStreamerServerPlayer::gstreamerStateChanged(GStreamerPlayer::State engineState)
{
    switch (engineState) {
    case GStreamerPlayer::Stopped:
        state()->stopSucceeded();
        break;
    case GStreamerPlayer::Playing:
        state()->playSucceeded();
        break;
    case GStreamerPlayer::Paused:
        state()->pauseSucceeded();
        break;
    case GStreamerPlayer::Error:
    case GStreamerPlayer::ErrorTimeout:
    case GStreamerPlayer::ErrorForbidden:
        state()->error();
        break;
    }
}

// Each event is taken only by the states that handle it: Invalid is a failed load while
// loading and a failed buffering while buffering.
void GStreamerServerPlayer::gstreamerMediaStatusChanged(GStreamerPlayer::MediaStatus status)
{
    switch (status) {
    case GStreamerPlayer::Loaded:
        state()->loadSucceeded();
        break;
    case GStreamerPlayer::Buffering:
        state()->buffer();
        break;
    case GStreamerPlayer::Buffered:
        state()->bufferingSucceeded();
        break;
    case GStreamerPlayer::EndOfMedia:
        if (MEDIA2_playingCustomMedia.value())
            MEDIA2_playingCustomMedia.setValue(false);
        state()->playbackComplete();
        break;
    case GStreamerPlayer::Invalid:
        state()->loadFailed();
        state()->bufferingFailed();
        break;
    case GStreamerPlayer::None:
    case GStreamerPlayer::Loading:
        LOG_INFO << "media status " << int(status);
        break;
    }
}

void GStreamerServerPlayer::gstreamerPositionChanged(qint64 msPos)
{
    MEDIA2_elapsedTime.setValue(int(msPos));
}

void GStreamerServerPlayer::gstreamerMetadataChanged()
{
    const GStreamerMediaMetadata metadata = mPlayer.getAvailableMetadata();
    MEDIA2_nowPlayingTitle.setValue(metadata.title.trimmed());
    MEDIA2_streamBitRate.setValue(int(metadata.bitrate));
}

void GStreamerServerPlayer::streamingMediaBufferProgress(qreal percent, qint64 downloadedBytes, qint64 totalBytes)
{
    MEDIA2_bufferProgress.setValue(percent);
    MEDIA2_downloadedBytes.setValue(quint64(downloadedBytes));
    MEDIA2_totalBytes.setValue(quint64(totalBytes));
}

} // namespace MediaV2
