#include "utils/ElapsedTimer.h"

void ElapsedTimer::start()
{
    mTimer.start();
}

void ElapsedTimer::invalidate()
{
    mTimer.invalidate();
}

bool ElapsedTimer::isRunning() const
{
    return mTimer.isValid();
}

qint64 ElapsedTimer::elapsedMs() const
{
    return mTimer.isValid() ? mTimer.elapsed() : 0;
}

double ElapsedTimer::elapsedSeconds() const
{
    return elapsedMs() / 1000.0;
}
