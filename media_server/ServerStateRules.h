#pragma once

#include "UI/media_server/MediaServerState.h"

// How the published server state pair is derived from the playback state machine: which
// published state each machine state shows, and which error goes with it.
//
// Thread: pure functions, any thread.
namespace MediaV2::ServerStateRules {

// The engine's own states, numbered as the engine numbers them: an error state of the engine
// tells a timed-out or forbidden fetch from any other.
enum EngineState { EngineStopped = 0, EnginePlaying, EnginePaused, EngineError, EngineErrorTimeout, EngineErrorForbidden };

// Machine state 0..14 to the published state. Both seek states show Seeking, and Buffered
// still shows Buffering: a client sees buffering end only when playback starts. An unknown
// number is reported through Logger::logAssert and shows NoMedia.
MediaServerState machineStateToState(int machineState);

// The error published with `state`: RecoverablePlaybackError for PlaybackError; for
// MediaFetchError the engine's reason (time-out, forbidden, else recoverable); otherwise none.
// The unrecoverable errors are never chosen: they stay in the vocabulary for clients that know
// them.
MediaServerError errorForState(MediaServerState state, EngineState engineState);

} // namespace MediaV2::ServerStateRules
