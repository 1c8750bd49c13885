#include "platform/datavalue/ConnectionUsageDataValue.h"

#include "platform/datavalue/VariantConversion.h"

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

} // namespace NetStats
