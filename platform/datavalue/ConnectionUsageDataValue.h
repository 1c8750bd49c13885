#pragma once

#include "platform/datavalue/ConnectionUsage.h"
#include "platform/datavalue/TypedDataValue.h"

#include <QElapsedTimer>
#include <QMutex>

namespace NetStats {

struct ConnectionUsageTraits
{
    static QVariant toVariant(const ConnectionUsage& v) { return v.toVariant(); }
    static bool fromVariant(const QVariant& variant, ConnectionUsage* v) { return v->setFromVariant(variant); }
    static QString toString(const ConnectionUsage& v) { return v.toString(); }
};

// The process's network traffic per statistics category (variant form "a{sv}"), valid from
// the start with nothing counted. Downloads add their bytes as they move them; the value
// follows a link-state data value so a reader sees which link the traffic went over.
//
// Every byte is in the value as soon as addTraffic() returns, but valueChanged() is emitted
// at most once per kMinBroadcastIntervalMs: a download reports every chunk, and a broadcast per
// chunk would flood every listener (and the bus) for no news. A change that falls inside the
// interval is broadcast at its end (a trailing broadcast, on this object's thread), so the last
// broadcast always reads the final counts.
//
// Thread: addTraffic() from any thread (under the event lock, so concurrent downloads never
// lose a count). The trailing broadcast needs this object's thread to run an event loop. The
// link-state follower runs on this object's thread.
class ConnectionUsageDataValue : public TypedDataValue<ConnectionUsage, ConnectionUsageTraits>
{
public:
    // One broadcast a second keeps a traffic display live without a signal per chunk.
    static constexpr int kMinBroadcastIntervalMs = 1000;

    explicit ConnectionUsageDataValue(const QString& name);

    void addTraffic(Category category, quint64 receivedBytes, quint64 sentBytes);
    // Follows the link state held by `link` (an int data value) from now on.
    void setLinkStateValue(DataValue* link);

protected:
    void broadcastChange() override;

private:
    void linkStateChanged(DataValue* link);
    // Called with mThrottleLock held: whether a broadcast now would come too soon after the last.
    bool tooSoonLocked() const;
    void scheduleTrailingBroadcastLocked();
    void sendTrailingBroadcast();

    QMetaObject::Connection mLinkConnection;   // main thread only
    QMutex mThrottleLock;
    QElapsedTimer mSinceBroadcast;   // guarded by mThrottleLock; invalid until the first broadcast
    bool mTrailingScheduled = false;   // guarded by mThrottleLock
};

} // namespace NetStats
