#pragma once

class QTimer;

// Starting and stopping QTimers from code that may not run on the timer's own thread (a QTimer
// can only be started by the thread it lives on; anywhere else the start is queued to it).
//
// Thread: any. Failure: a null timer is reported through Logger::logAssert and ignored.
namespace TimerUtils {

// Starts (or restarts) the timer with the interval in milliseconds; negative counts as 0.
void startTimer(QTimer* timer, int msec);
void stopTimer(QTimer* timer);

} // namespace TimerUtils
