#include "platform/datavalue/ConnectionUsageDataValue.h"

#include "platform/datavalue/VariantConversion.h"

#include <QTimer>

namespace NetStats {

ConnectionUsageDataValue::ConnectionUsageDataValue(const QString& name)
    : TypedDataValue(name, false, 1, ConnectionUsage(), true)
{
}

void ConnectionUsageDataValue::addTraffic(Category category, quint64 receivedBytes, quint64 sentBytes)
{
    if (receivedBytes == 0 && sentBytes == 0)
        return;
    EventLocker guard(this);
    ConnectionUsage next = pendingValueNoLock();
    ConnectionUsage::Counts& counts = next.categories[category];
    counts.received += receivedBytes;
    counts.sent += sentBytes;
    setValueNoLock(next);
}

void ConnectionUsageDataValue::setLinkStateValue(DataValue* link)
{
    QObject::disconnect(mLinkConnection);
    mLinkConnection = QObject::connect(link, &DataValue::valueChanged, this,
                                       [this](DataValue* changed) { linkStateChanged(changed); });
    linkStateChanged(link);
}

void ConnectionUsageDataValue::linkStateChanged(DataValue* link)
{
    int state = -1;
    if (!VariantConversion::toInt(link->variant(), &state))
        state = -1;
    EventLocker guard(this);
    ConnectionUsage next = pendingValueNoLock();
    next.linkState = state;
    setValueNoLock(next);
}

// Runs on the writer's thread after the commit, with no data value lock held.
void ConnectionUsageDataValue::broadcastChange()
{
    {
        QMutexLocker guard(&mThrottleLock);
        if (tooSoonLocked()) {
            scheduleTrailingBroadcastLocked();
            return;
        }
        mSinceBroadcast.start();
    }
    TypedDataValue::broadcastChange();
}

bool ConnectionUsageDataValue::tooSoonLocked() const
{
    return mTrailingScheduled || (mSinceBroadcast.isValid() && !mSinceBroadcast.hasExpired(kMinBroadcastIntervalMs));
}

// The writer may be a thread without an event loop, so the timer is started on this object's
// thread. One trailing broadcast covers every change made before it runs: it reads the value then.
void ConnectionUsageDataValue::scheduleTrailingBroadcastLocked()
{
    if (mTrailingScheduled)
        return;
    mTrailingScheduled = true;
    const int waitMs = int(qMax<qint64>(0, kMinBroadcastIntervalMs - mSinceBroadcast.elapsed()));
    QMetaObject::invokeMethod(
        this, [this, waitMs] { QTimer::singleShot(waitMs, this, [this] { sendTrailingBroadcast(); }); }, Qt::QueuedConnection);
}

void ConnectionUsageDataValue::sendTrailingBroadcast()
{
    {
        QMutexLocker guard(&mThrottleLock);
        mTrailingScheduled = false;
        mSinceBroadcast.start();
    }
    TypedDataValue::broadcastChange();
}

} // namespace NetStats
