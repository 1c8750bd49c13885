#include "media_server/ServerStateRules.h"

#include "platform/log/Logger.h"

#include <array>

namespace MediaV2::ServerStateRules {

MediaServerState machineStateToState(int machineState)
{
    static const std::array<MediaServerState, 15> published = {
        NoMedia,         // NoMedia
        Loading,         // Loading
        Loaded,          // Loaded
        TryingToPlay,    // DoPlay
        TryingToPause,   // DoPause
        Seeking,         // DoPlayingSeek
        Seeking,         // DoPausedSeek
        Playing,         // Playing
        Paused,          // Paused
        Buffering,       // Buffering
        Buffering,       // Buffered
        Stopping,        // Stopping
        PlaybackComplete,
        PlaybackError,
        MediaFetchError,
    };
    if (machineState >= 0 && size_t(machineState) < published.size())
        return published[size_t(machineState)];
    Logger::logAssert("false", QStringLiteral("machineStateToState(): unknown state: %1").arg(machineState), __FILE__, __LINE__);
    return NoMedia;
}

MediaServerError errorForState(MediaServerState state, EngineState engineState)
{
    if (state == PlaybackError)
        return RecoverablePlaybackError;
    if (state != MediaFetchError)
        return NoError;
    if (engineState == EngineErrorTimeout)
        return TimeoutFetchError;
    if (engineState == EngineErrorForbidden)
        return ForbiddenFetchError;
    return RecoverableFetchError;
}

} // namespace MediaV2::ServerStateRules
