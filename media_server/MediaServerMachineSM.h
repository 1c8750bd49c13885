#pragma once

#include <QElapsedTimer>
#include <QObject>

#include <array>
#include <memory>

class QTimer;

namespace MediaV2 {

class MediaServerMachineOwner;
class MediaServerMachineState;

// The playback state machine: fifteen states, of which one is current; the owner (the server
// player) sends events to the current state, and a taken event moves the machine with a reason
// that goes into the trace log. On every entry the new state tells the owner, which derives
// the published server state from it.
//
// The state timer is part of the machine but no state arms it today (every timeoutSecs() is 0).
//
// Thread: main thread (the owner's). Owns the fifteen states and the timer; not the owner.
class MediaServerMachineSM : public QObject
{
    Q_OBJECT
public:
    // The state numbers the owner reads (state_id()).
    enum StateId {
        NoMedia = 0, Loading, Loaded, DoPlay, DoPause, DoPlayingSeek, DoPausedSeek, Playing, Paused,
        Buffering, Buffered, Stopping, PlaybackComplete, PlaybackError, MediaFetchError, StateCount
    };

    MediaServerMachineSM(MediaServerMachineOwner* player, Qt::ConnectionType type);
    ~MediaServerMachineSM() override;

    // Always true. Leaves the current state (if any), logs the transition, enters `next`.
    bool goState(MediaServerMachineState* next, const QString& reason);
    void startTimer(int value);
    void stopTimer();

    // Null before the first transition.
    MediaServerMachineState* currentState() const { return mCurrent; }
    MediaServerMachineState* state(int id) const;
    MediaServerMachineOwner* player() const { return mPlayer; }

public slots:
    void stateTimerExpired();

private:
    void trace(const QString& text) const;

    MediaServerMachineOwner* mPlayer;
    MediaServerMachineState* mCurrent = nullptr;
    QTimer* mTimer;
    QElapsedTimer mTimeInState;
    std::array<std::unique_ptr<MediaServerMachineState>, StateCount> mStates;
};

} // namespace MediaV2
