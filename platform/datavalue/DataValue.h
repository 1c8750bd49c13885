#pragma once

#include <QObject>
#include <QRecursiveMutex>
#include <QString>
#include <QVariant>

// A named, typed value of the process's state that other components and other processes read
// by name (see DataValueManager), with a valid/invalid state ("no value yet" is not zero).
//
// Writing and reading use two locks:
// - the event lock (EventLocker) serialises writers. A writer changes the pending value; when
//   the outermost EventLocker is released the pending change is committed and valueChanged()
//   is emitted once, so several writes under one lock make one broadcast. Writing the value
//   the value already has never broadcasts, and undoes a pending change back to it.
// - the state lock (ConditionalLocker) guards the committed value; readers on any thread take
//   it (the plain getters do so themselves; the ...NoLock getters expect the caller to hold it).
// Commit takes the state lock inside the event lock, never the other way round.
//
// Thread: lives on the thread that constructed it (normally main, at static initialisation);
// reads and writes are safe from any thread; valueChanged() is emitted on the writer's thread
// after both locks are released.
//
// Construction flags: externallyWritable marks the values other processes may set (through the
// bus); broadcastPolicy 1 broadcasts every committed change, 0 never broadcasts.
class DataValue : public QObject
{
    Q_OBJECT
public:
    DataValue(const QString& name, bool externallyWritable = false, int broadcastPolicy = 1);
    ~DataValue() override;

    QString name() const { return mName; }
    bool isExternallyWritable() const { return mExternallyWritable; }

    bool isValid() const;
    bool isValidNoLock() const { return mValid; }
    // The committed value's variant form; a null QVariant while the value is invalid.
    QVariant variant() const;
    virtual QVariant variantNoLock() const = 0;
    // Sets the value from its variant form (under the event lock); false, and nothing changed,
    // when the variant does not convert to this value's type.
    virtual bool setFromVariant(const QVariant& value) = 0;
    // The committed value as text for logs; "invalid" while invalid.
    QString toString() const;
    virtual QString toStringNoLock() const = 0;
    // Marks the value invalid (committed and broadcast like any change).
    void setInvalid();

    // A protected value may only be set through setProtectedValue(); other sets are reported
    // through Logger::logAssert (and still made).
    bool isProtected() const { return mProtected; }
    void setProtected(bool isProtected) { mProtected = isProtected; }
    bool setByListenerNoLock() const { return mSetByListener; }

    // Holds the event lock; releasing the outermost one commits and broadcasts.
    class EventLocker
    {
    public:
        explicit EventLocker(DataValue* value);
        ~EventLocker();
        EventLocker(const EventLocker&) = delete;
        EventLocker& operator=(const EventLocker&) = delete;

    private:
        DataValue* mValue;
    };

    // Holds the state lock while `condition` is true at construction.
    class ConditionalLocker
    {
    public:
        explicit ConditionalLocker(const DataValue* value, bool condition = true);
        ~ConditionalLocker();
        ConditionalLocker(const ConditionalLocker&) = delete;
        ConditionalLocker& operator=(const ConditionalLocker&) = delete;

    private:
        const DataValue* mValue;
    };

signals:
    void valueChanged(DataValue* value);

protected:
    // Emits valueChanged(this); subclasses add their own typed signal.
    virtual void broadcastChange();
    // Copies the pending value into the committed one. Called with both locks held.
    virtual void commitPendingNoLock() = 0;

    // For writers holding the event lock: record that the pending value differs from the
    // committed one (or, with false, that it no longer does).
    void setChangePendingNoLock(bool pending) { mChangePending = pending; }
    bool changePendingNoLock() const { return mChangePending; }
    void setPendingValidNoLock(bool valid) { mPendingValid = valid; }
    // Reports a write to a protected value that did not come through setProtectedValue().
    void checkProtectionNoLock() const;
    void setSetByListenerNoLock(bool byListener) { mSetByListener = byListener; }

    mutable QRecursiveMutex mStateLock;

private:
    void lockEvent();
    void unlockEvent();
    bool commitNoLock();

    const QString mName;
    const bool mExternallyWritable;
    const int mBroadcastPolicy;
    QRecursiveMutex mEventLock;
    int mEventDepth = 0;           // guarded by mEventLock
    bool mChangePending = false;   // guarded by mEventLock
    bool mPendingValid = false;    // guarded by mEventLock
    bool mSetByListener = false;   // guarded by mEventLock
    bool mProtected = false;       // set once at set-up, before other threads use the value
    bool mValid = false;           // guarded by mStateLock; written only under mEventLock too
};
