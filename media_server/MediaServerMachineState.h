#pragma once

#include <QObject>
#include <QString>

namespace MediaV2 {

class MediaServerMachineOwner;
class MediaServerMachineSM;

// The events the server player sends to the current state, in their fixed order.
#define MEDIA_SERVER_MACHINE_EVENTS(X)                                                               \
    X(load) X(loadSucceeded) X(loadFailed) X(play) X(playSucceeded) X(playFailed) X(pause)          \
    X(pauseSucceeded) X(pauseFailed) X(seek) X(seekSucceeded) X(seekFailed) X(stop) X(stopSucceeded) \
    X(stopFailed) X(buffer) X(bufferingSucceeded) X(bufferingFailed) X(playbackComplete) X(error)   \
    X(alreadyPlaying) X(notPlaying) X(timeout)

enum class MachineEvent {
#define CABIN_EVENT_ENUM(name) name,
    MEDIA_SERVER_MACHINE_EVENTS(CABIN_EVENT_ENUM)
#undef CABIN_EVENT_ENUM
};

// One state of the playback state machine. Each event returns whether the state took it; a
// state takes exactly the events of its rows in the machine's transition table (see
// MediaServerMachineStates.cpp) and moves the machine to the row's state with the row's
// reason. Any other event is refused: it is logged (when tracing) and changes nothing.
//
// Thread: the machine's thread. Owned by the machine.
class MediaServerMachineState : public QObject
{
    Q_OBJECT
public:
    explicit MediaServerMachineState(MediaServerMachineSM* machine);

    virtual QString name() const = 0;
    virtual int state_id() const = 0;
    virtual int group_id() const = 0;
    // Every state tells the owner it was entered.
    virtual void enter();
    virtual void leave();
    virtual int timeoutSecs() const;

#define CABIN_EVENT_DECLARATION(name) virtual bool name();
    MEDIA_SERVER_MACHINE_EVENTS(CABIN_EVENT_DECLARATION)
#undef CABIN_EVENT_DECLARATION

    // Called after enter().
    virtual void entered();

    MediaServerMachineOwner* manager() const;
    bool isTrace() const;

    static const char* eventName(MachineEvent event);

protected:
    MediaServerMachineSM* machine() const { return mMachine; }

private:
    bool handle(MachineEvent event);

    MediaServerMachineSM* mMachine;
};

} // namespace MediaV2
