#include "platform/datavalue/DataValue.h"

#include "platform/datavalue/DataValueManager.h"
#include "platform/log/Logger.h"

DataValue::DataValue(const QString& name, bool externallyWritable, int broadcastPolicy)
    : mName(name)
    , mExternallyWritable(externallyWritable)
    , mBroadcastPolicy(broadcastPolicy)
{
    setObjectName(name);
    DataValueManager::instance()->registerValue(this);
}

DataValue::~DataValue()
{
    DataValueManager::instance()->unregisterValue(this);
}

bool DataValue::isValid() const
{
    ConditionalLocker guard(this);
    return mValid;
}

QVariant DataValue::variant() const
{
    ConditionalLocker guard(this);
    return mValid ? variantNoLock() : QVariant();
}

QString DataValue::toString() const
{
    ConditionalLocker guard(this);
    return mValid ? toStringNoLock() : QStringLiteral("invalid");
}

void DataValue::setInvalid()
{
    EventLocker guard(this);
    checkProtectionNoLock();
    mPendingValid = false;
    mChangePending = mValid;
}

void DataValue::broadcastChange()
{
    emit valueChanged(this);
}

void DataValue::checkProtectionNoLock() const
{
    if (!(setByListenerNoLock() || !isProtected()))
        Logger::logAssert("setByListenerNoLock() || !isProtected()",
                          QStringLiteral("Protected data value %1 not set with setProtectedValue").arg(objectName()),
                          __FILE__, __LINE__);
}

void DataValue::lockEvent()
{
    mEventLock.lock();
    ++mEventDepth;
}

void DataValue::unlockEvent()
{
    const bool outermost = --mEventDepth == 0;
    const bool committed = outermost && commitNoLock();
    mEventLock.unlock();
    if (committed && mBroadcastPolicy != 0)
        broadcastChange();
}

// Called with the event lock held.
bool DataValue::commitNoLock()
{
    if (!mChangePending)
        return false;
    {
        ConditionalLocker guard(this);
        commitPendingNoLock();
        mValid = mPendingValid;
    }
    mChangePending = false;
    return true;
}

DataValue::EventLocker::EventLocker(DataValue* value)
    : mValue(value)
{
    mValue->lockEvent();
}

DataValue::EventLocker::~EventLocker()
{
    mValue->unlockEvent();
}

DataValue::ConditionalLocker::ConditionalLocker(const DataValue* value, bool condition)
    : mValue(condition ? value : nullptr)
{
    if (mValue)
        mValue->mStateLock.lock();
}

DataValue::ConditionalLocker::~ConditionalLocker()
{
    if (mValue)
        mValue->mStateLock.unlock();
}
