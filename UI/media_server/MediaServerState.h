#pragma once

#include <QString>

// The server state the media server publishes, shared with its clients: the numbers and names
// are part of the external interface and never change meaning.
namespace MediaV2 {

enum MediaServerState {
    NoMedia = 0,
    Loading = 1,
    Loaded = 2,
    TryingToPlay = 3,
    TryingToPause = 4,
    Seeking = 5,
    Playing = 6,
    Paused = 7,
    Buffering = 8,
    Stopping = 9,
    PlaybackComplete = 10,
    PlaybackError = 11,
    MediaFetchError = 12
};

// Unrecoverable errors are never produced today; clients that know them keep working.
enum MediaServerError {
    NoError = 0,
    RecoverablePlaybackError = 1,
    UnrecoverablePlaybackError = 2,
    RecoverableFetchError = 3,
    UnrecoverableFetchError = 4,
    TimeoutFetchError = 5,
    ForbiddenFetchError = 6
};

} // namespace MediaV2

// Names of the states and errors as clients and logs show them. A number outside the
// enumeration is a programming error: it is reported through Logger::logAssert and named
// "Unknown". Thread: any.
namespace MediaServerUtils {

QString nameForState(MediaV2::MediaServerState state);
QString nameForError(MediaV2::MediaServerError error);

} // namespace MediaServerUtils
