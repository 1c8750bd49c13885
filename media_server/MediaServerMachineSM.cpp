#include "media_server/MediaServerMachineSM.h"

#include "media_server/MediaServerMachineOwner.h"
#include "media_server/MediaServerMachineStates.h"
#include "platform/core/TimerUtils.h"
#include "platform/log/Logger.h"

#include <QTimer>

namespace MediaV2 {

MediaServerMachineSM::MediaServerMachineSM(MediaServerMachineOwner* player, Qt::ConnectionType type)
    : mPlayer(player)
    , mTimer(new QTimer(this))
{
    connect(mTimer, &QTimer::timeout, this, &MediaServerMachineSM::stateTimerExpired, type);
    mStates[NoMedia] = std::make_unique<NoMediaState>(this);
    mStates[Loading] = std::make_unique<LoadingState>(this);
    mStates[Loaded] = std::make_unique<LoadedState>(this);
    mStates[DoPlay] = std::make_unique<DoPlayState>(this);
    mStates[DoPause] = std::make_unique<DoPauseState>(this);
    mStates[DoPlayingSeek] = std::make_unique<DoPlayingSeekState>(this);
    mStates[DoPausedSeek] = std::make_unique<DoPausedSeekState>(this);
    mStates[Playing] = std::make_unique<PlayingState>(this);
    mStates[Paused] = std::make_unique<PausedState>(this);
    mStates[Buffering] = std::make_unique<BufferingState>(this);
    mStates[Buffered] = std::make_unique<BufferedState>(this);
    mStates[Stopping] = std::make_unique<StoppingState>(this);
    mStates[PlaybackComplete] = std::make_unique<PlaybackCompleteState>(this);
    mStates[PlaybackError] = std::make_unique<PlaybackErrorState>(this);
    mStates[MediaFetchError] = std::make_unique<MediaFetchErrorState>(this);
}

MediaServerMachineSM::~MediaServerMachineSM() = default;

MediaServerMachineState* MediaServerMachineSM::state(int id) const
{
    return id >= 0 && id < StateCount ? mStates[size_t(id)].get() : nullptr;
}

bool MediaServerMachineSM::goState(MediaServerMachineState* next, const QString& reason)
{
    stopTimer();
    if (!mCurrent) {
        trace(QStringLiteral("Transition to initial state ") + next->name() + QStringLiteral(" because ") + reason + QLatin1Char('\n'));
    } else {
        mCurrent->leave();
        trace(QStringLiteral("Transition ") + mCurrent->name() + QStringLiteral(" -> ") + next->name() + QStringLiteral(" because ")
              + reason + QStringLiteral(" # ") + QString::number(mTimeInState.elapsed()) + QLatin1Char('\n'));
    }
    mCurrent = next;
    mTimeInState.restart();
    startTimer(next->timeoutSecs());
    next->enter();
    next->entered();
    return true;
}

// The value goes to the timer as it is; no state asks for a timer today.
void MediaServerMachineSM::startTimer(int value)
{
    if (value == 0)
        return;
    TimerUtils::startTimer(mTimer, value);
    trace(mCurrent->name() + QStringLiteral(" starting ") + QString::number(value) + QStringLiteral(" millisecond timer\n"));
}

void MediaServerMachineSM::stopTimer()
{
    mTimer->stop();
}

void MediaServerMachineSM::stateTimerExpired()
{
    if (mCurrent)
        mCurrent->timeout();
}

void MediaServerMachineSM::trace(const QString& text) const
{
    if (mPlayer->isTrace())
        Logger::write(Logger::Info, "MediaServerMachineSM", text);
}

} // namespace MediaV2
