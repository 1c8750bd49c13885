#include "UI/media_server/MediaServerState.h"

#include "platform/log/Logger.h"

#include <array>

namespace MediaServerUtils {

namespace {

const std::array<const char*, 13> kStateNames = {
    "NoMedia", "Loading", "Loaded", "TryingToPlay", "TryingToPause", "Seeking", "Playing",
    "Paused", "Buffering", "Stopping", "PlaybackComplete", "PlaybackError", "MediaFetchError"};

const std::array<const char*, 7> kErrorNames = {
    "NoError", "RecoverablePlaybackError", "UnrecoverablePlaybackError", "RecoverableFetchError",
    "UnrecoverableFetchError", "TimeoutFetchError", "ForbiddenFetchError"};

template <size_t N>
QString nameOrUnknown(const std::array<const char*, N>& names, int value, const char* unknownMessage)
{
    if (value >= 0 && size_t(value) < N)
        return QString::fromLatin1(names[size_t(value)]);
    Logger::logAssert("false", QString::fromLatin1(unknownMessage).arg(value), __FILE__, __LINE__);
    return QStringLiteral("Unknown");
}

} // namespace

QString nameForState(MediaV2::MediaServerState state)
{
    return nameOrUnknown(kStateNames, int(state), "MediaServerUtils::nameForState(): unknown state: %1");
}

QString nameForError(MediaV2::MediaServerError error)
{
    return nameOrUnknown(kErrorNames, int(error), "MediaServerUtils::nameForError(): unknown error: %1");
}

} // namespace MediaServerUtils
