#include "media_server/MediaServerMachineStates.h"

#include "media_server/MediaServerMachineOwner.h"

namespace MediaV2 {

namespace {

using S = MediaServerMachineSM;
using E = MachineEvent;

// Every (state, event) pair a state takes; any other pair is refused. Kept on purpose:
// - stop is refused in NoMedia and in Buffered;
// - load is taken only where nothing is loaded or the last item ended (complete or failed),
//   so a new item never replaces a loaded, playing or paused one without a stop first;
// - an error while loading or buffering is a fetch error, anywhere else a playback error;
// - a stop always passes through Stopping, and both of its outcomes end in NoMedia.
const MachineTransition kTransitions[] = {
    {S::NoMedia, E::load, S::Loading, "load"},

    {S::Loading, E::loadSucceeded, S::Loaded, "load succeeded"},
    {S::Loading, E::loadFailed, S::MediaFetchError, "load failed"},
    {S::Loading, E::error, S::MediaFetchError, "encountered error while loading"},
    {S::Loading, E::stop, S::Stopping, "stop"},

    {S::Loaded, E::play, S::DoPlay, "play"},
    {S::Loaded, E::pause, S::DoPause, "pause"},
    {S::Loaded, E::buffer, S::Buffering, "started buffering"},
    {S::Loaded, E::error, S::PlaybackError, "player reported an error"},
    {S::Loaded, E::stop, S::Stopping, "stop"},

    {S::DoPlay, E::playSucceeded, S::Playing, "play succeeded"},
    {S::DoPlay, E::playFailed, S::PlaybackError, "play failed"},
    {S::DoPlay, E::stop, S::Stopping, "stop"},

    {S::DoPause, E::pauseSucceeded, S::Paused, "pause succeeded"},
    {S::DoPause, E::pauseFailed, S::PlaybackError, "pause failed"},
    {S::DoPause, E::stop, S::Stopping, "stop"},

    {S::DoPlayingSeek, E::seekSucceeded, S::Playing, "seek succeeded"},
    {S::DoPlayingSeek, E::seekFailed, S::PlaybackError, "seek failed"},
    {S::DoPlayingSeek, E::stop, S::Stopping, "stop"},

    {S::DoPausedSeek, E::seekSucceeded, S::Paused, "seek succeeded"},
    {S::DoPausedSeek, E::seekFailed, S::PlaybackError, "seek failed"},
    {S::DoPausedSeek, E::stop, S::Stopping, "stop"},

    {S::Playing, E::pause, S::DoPause, "pause"},
    {S::Playing, E::seek, S::DoPlayingSeek, "seek"},
    {S::Playing, E::buffer, S::Buffering, "need to buffer"},
    {S::Playing, E::playbackComplete, S::PlaybackComplete, "playback complete"},
    {S::Playing, E::error, S::PlaybackError, "player reported an error"},
    {S::Playing, E::stop, S::Stopping, "stop"},

    {S::Paused, E::play, S::DoPlay, "play"},
    {S::Paused, E::seek, S::DoPausedSeek, "seek"},
    {S::Paused, E::error, S::PlaybackError, "player reported an error"},
    {S::Paused, E::stop, S::Stopping, "stop"},

    // A failed buffering and an engine error while buffering are one and the same failure.
    {S::Buffering, E::bufferingSucceeded, S::Buffered, "buffering succeeded"},
    {S::Buffering, E::bufferingFailed, S::MediaFetchError, "buffering failed"},
    {S::Buffering, E::error, S::MediaFetchError, "buffering failed"},
    {S::Buffering, E::stop, S::Stopping, "stop"},

    {S::Buffered, E::play, S::DoPlay, "not playing yet"},
    {S::Buffered, E::alreadyPlaying, S::Playing, "already playing"},
    {S::Buffered, E::error, S::PlaybackError, "player reported an error"},

    {S::Stopping, E::stopSucceeded, S::NoMedia, "stop succeeded"},
    {S::Stopping, E::stopFailed, S::NoMedia, "stop failed"},

    {S::PlaybackComplete, E::load, S::Loading, "loading new content"},
    {S::PlaybackComplete, E::stop, S::Stopping, "stop"},

    {S::PlaybackError, E::load, S::Loading, "loading new content"},
    {S::PlaybackError, E::stop, S::Stopping, "stop"},

    {S::MediaFetchError, E::load, S::Loading, "loading new content"},
    {S::MediaFetchError, E::stop, S::Stopping, "stop"},
};

} // namespace

const MachineTransition* findMachineTransition(int state, MachineEvent event)
{
    for (const MachineTransition& row : kTransitions)
        if (row.state == state && row.event == event)
            return &row;
    return nullptr;
}

// Back in NoMedia, a load that waited for the stop can go on.
void NoMediaState::enter()
{
    MediaServerMachineState::enter();
    manager()->onStop();
}

} // namespace MediaV2
