#include "platform/core/TimerUtils.h"

#include "platform/log/Logger.h"

#include <QMetaObject>
#include <QThread>
#include <QTimer>

#include <algorithm>

namespace TimerUtils {

void startTimer(QTimer* timer, int msec)
{
    LOG_ASSERT(timer, QStringLiteral("TimerUtils::startTimer(): no timer"));
    if (!timer)
        return;
    const int interval = std::max(0, msec);
    if (timer->thread() == QThread::currentThread()) {
        timer->start(interval);
        return;
    }
    QMetaObject::invokeMethod(timer, [timer, interval] { timer->start(interval); }, Qt::QueuedConnection);
}

void stopTimer(QTimer* timer)
{
    LOG_ASSERT(timer, QStringLiteral("TimerUtils::stopTimer(): no timer"));
    if (!timer)
        return;
    if (timer->thread() == QThread::currentThread()) {
        timer->stop();
        return;
    }
    QMetaObject::invokeMethod(timer, [timer] { timer->stop(); }, Qt::QueuedConnection);
}

} // namespace TimerUtils
