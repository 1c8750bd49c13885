#pragma once

namespace MediaV2 {

// What the playback state machine needs of the object that owns and drives it (the server
// player): to hear that a state was entered, to finish a stop, and whether to trace.
//
// Thread: all calls come from the machine's thread (the main thread).
class MediaServerMachineOwner
{
public:
    virtual ~MediaServerMachineOwner() = default;
    // Called by every state's enter(); the owner reads the new state and acts on it.
    virtual void machineStateChanged() = 0;
    // Called after machineStateChanged() when the machine enters NoMedia: a load that had to
    // wait for a stop goes on from here.
    virtual void onStop() = 0;
    // Whether transitions and refused events are logged.
    virtual bool isTrace() const = 0;
};

} // namespace MediaV2
