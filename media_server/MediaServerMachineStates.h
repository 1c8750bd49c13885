#pragma once

#include "media_server/MediaServerMachineSM.h"
#include "media_server/MediaServerMachineState.h"

// The fifteen states of the playback state machine. They differ only in their number, their
// name and the rows of the transition table they take (MediaServerMachineStates.cpp), so they
// are declared together; NoMediaState alone adds behaviour (it finishes a stop on entry).
//
// Thread: the machine's thread. Owned by the machine.
namespace MediaV2 {

// One row of the transition table: in `state`, `event` moves the machine to `next`.
struct MachineTransition
{
    int state;
    MachineEvent event;
    int next;
    const char* reason;
};

// The row for the pair, or null when the state does not take the event.
const MachineTransition* findMachineTransition(int state, MachineEvent event);

#define CABIN_MACHINE_STATE(Class, id)                                                        \
    class Class : public MediaServerMachineState                                              \
    {                                                                                         \
    public:                                                                                   \
        explicit Class(MediaServerMachineSM* machine) : MediaServerMachineState(machine) {}   \
        QString name() const override { return QStringLiteral(#Class); }                      \
        int state_id() const override { return id; }                                          \
        int group_id() const override { return 0; }                                           \
        CABIN_MACHINE_STATE_EXTRA_##Class                                                     \
    };

#define CABIN_MACHINE_STATE_EXTRA_NoMediaState void enter() override;
#define CABIN_MACHINE_STATE_EXTRA_LoadingState
#define CABIN_MACHINE_STATE_EXTRA_LoadedState
#define CABIN_MACHINE_STATE_EXTRA_DoPlayState
#define CABIN_MACHINE_STATE_EXTRA_DoPauseState
#define CABIN_MACHINE_STATE_EXTRA_DoPlayingSeekState
#define CABIN_MACHINE_STATE_EXTRA_DoPausedSeekState
#define CABIN_MACHINE_STATE_EXTRA_PlayingState
#define CABIN_MACHINE_STATE_EXTRA_PausedState
#define CABIN_MACHINE_STATE_EXTRA_BufferingState
#define CABIN_MACHINE_STATE_EXTRA_BufferedState
#define CABIN_MACHINE_STATE_EXTRA_StoppingState
#define CABIN_MACHINE_STATE_EXTRA_PlaybackCompleteState
#define CABIN_MACHINE_STATE_EXTRA_PlaybackErrorState
#define CABIN_MACHINE_STATE_EXTRA_MediaFetchErrorState

CABIN_MACHINE_STATE(NoMediaState, MediaServerMachineSM::NoMedia)
CABIN_MACHINE_STATE(LoadingState, MediaServerMachineSM::Loading)
CABIN_MACHINE_STATE(LoadedState, MediaServerMachineSM::Loaded)
CABIN_MACHINE_STATE(DoPlayState, MediaServerMachineSM::DoPlay)
CABIN_MACHINE_STATE(DoPauseState, MediaServerMachineSM::DoPause)
CABIN_MACHINE_STATE(DoPlayingSeekState, MediaServerMachineSM::DoPlayingSeek)
CABIN_MACHINE_STATE(DoPausedSeekState, MediaServerMachineSM::DoPausedSeek)
CABIN_MACHINE_STATE(PlayingState, MediaServerMachineSM::Playing)
CABIN_MACHINE_STATE(PausedState, MediaServerMachineSM::Paused)
CABIN_MACHINE_STATE(BufferingState, MediaServerMachineSM::Buffering)
CABIN_MACHINE_STATE(BufferedState, MediaServerMachineSM::Buffered)
CABIN_MACHINE_STATE(StoppingState, MediaServerMachineSM::Stopping)
CABIN_MACHINE_STATE(PlaybackCompleteState, MediaServerMachineSM::PlaybackComplete)
CABIN_MACHINE_STATE(PlaybackErrorState, MediaServerMachineSM::PlaybackError)
CABIN_MACHINE_STATE(MediaFetchErrorState, MediaServerMachineSM::MediaFetchError)

#undef CABIN_MACHINE_STATE

} // namespace MediaV2
