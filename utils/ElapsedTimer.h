#pragma once

#include <QElapsedTimer>

// A monotonic stopwatch that reads as "not started" until start() is called, so that rates and
// durations computed from a timer that never ran come out as zero instead of garbage.
//
// Thread: not shared; each owner uses its own instance from one thread.
class ElapsedTimer
{
public:
    void start();
    void invalidate();
    bool isRunning() const;
    // Milliseconds since start(), or 0 when the timer never started.
    qint64 elapsedMs() const;
    double elapsedSeconds() const;

private:
    QElapsedTimer mTimer;
};
