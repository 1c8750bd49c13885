#pragma once

#include "platform/datavalue/ConnectionUsage.h"
#include "platform/datavalue/TypedDataValue.h"

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
// Thread: addTraffic() from any thread (under the event lock, so concurrent downloads never
// lose a count). The link-state follower runs on this object's thread.
class ConnectionUsageDataValue : public TypedDataValue<ConnectionUsage, ConnectionUsageTraits>
{
public:
    explicit ConnectionUsageDataValue(const QString& name);

    void addTraffic(Category category, quint64 receivedBytes, quint64 sentBytes);
    // Follows the link state held by `link` (an int data value) from now on.
    void setLinkStateValue(DataValue* link);

private:
    void linkStateChanged(DataValue* link);

    QMetaObject::Connection mLinkConnection;   // main thread only
};

} // namespace NetStats
