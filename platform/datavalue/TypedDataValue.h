#pragma once

#include "platform/datavalue/DataValue.h"

#include <cmath>

namespace DataValueEquality {

// Whether a write leaves the value as it is. A double's NaN is unequal to itself, so a plain ==
// would broadcast every write of NaN; for a data value NaN is one value like any other.
template <class T>
bool same(const T& a, const T& b)
{
    return a == b;
}

inline bool same(double a, double b)
{
    return a == b || (std::isnan(a) && std::isnan(b));
}

} // namespace DataValueEquality

// The shared shape of the typed data values: T is the value type (copyable, with ==) and
// Traits converts it to and from its variant form and to text (see IntDataValue and its
// siblings). Locking, commit and broadcast rules are DataValue's.
//
// Thread: every member is safe from any thread; mValue is guarded by mStateLock, mPending by
// the event lock.
template <class T, class Traits>
class TypedDataValue : public DataValue
{
public:
    TypedDataValue(const QString& name, bool externallyWritable = false, int broadcastPolicy = 1,
                   const T& initial = T(), bool initiallyValid = false)
        : DataValue(name, externallyWritable, broadcastPolicy)
        , mValue(initial)
        , mPending(initial)
    {
        if (initiallyValid) {
            EventLocker guard(this);
            setValueNoLock(initial);
        }
    }

    T value() const
    {
        ConditionalLocker guard(this);
        return mValue;
    }
    // The committed value; the caller holds a ConditionalLocker.
    const T& valueNoLock() const { return mValue; }

    void setValue(const T& value)
    {
        EventLocker guard(this);
        setValueNoLock(value);
    }

    // The set for protected values, made on behalf of the value's owner.
    void setProtectedValue(const T& value)
    {
        EventLocker guard(this);
        setSetByListenerNoLock(true);
        setValueNoLock(value);
        setSetByListenerNoLock(false);
    }

    // The caller holds an EventLocker on this value.
    void setValueNoLock(const T& value)
    {
        checkProtectionNoLock();
        if (!isValidNoLock() || !DataValueEquality::same(value, mValue)) {
            mPending = value;
            setPendingValidNoLock(true);
            setChangePendingNoLock(true);
        } else if (changePendingNoLock()) {
            mPending = value;
            setPendingValidNoLock(true);
            setChangePendingNoLock(false);
        }
    }

    QVariant variantNoLock() const override { return Traits::toVariant(mValue); }
    QString toStringNoLock() const override { return Traits::toString(mValue); }

    bool setFromVariant(const QVariant& variant) override
    {
        T converted = value();
        if (!Traits::fromVariant(variant, &converted))
            return false;
        setValue(converted);
        return true;
    }

protected:
    void commitPendingNoLock() override { mValue = mPending; }
    // What the value will be when the event lock is released; the caller holds it.
    const T& pendingValueNoLock() const { return changePendingNoLock() ? mPending : mValue; }

private:
    T mValue;     // guarded by mStateLock
    T mPending;   // guarded by the event lock
};
