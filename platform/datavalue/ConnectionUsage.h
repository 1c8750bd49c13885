#pragma once

#include <QMap>
#include <QString>
#include <QVariant>

namespace NetStats {

// The network-statistics category a download is counted under (the media item's
// "statscategory"); 0 is traffic nobody attributed.
using Category = int;

// The calls to the process's own services and their answers, kept apart from any item's traffic
// so that a reader can tell what the media moved from what the service framework did.
constexpr Category kServiceTraffic = -1;

// Bytes moved over the network per category, and the state of the link they went over.
// A plain value type (any thread); its variant form is a string-keyed map:
// {"linkState": int, "received": total, "sent": total,
//  "categories": {"<category>": {"received": n, "sent": n}}}.
struct ConnectionUsage
{
    struct Counts
    {
        quint64 received = 0;
        quint64 sent = 0;
        bool operator==(const Counts& other) const { return received == other.received && sent == other.sent; }
    };

    QMap<Category, Counts> categories;
    int linkState = -1;   // -1 until the link-state value has been seen

    quint64 totalReceived() const;
    quint64 totalSent() const;
    bool operator==(const ConnectionUsage& other) const;

    QVariant toVariant() const;
    bool setFromVariant(const QVariant& variant);
    QString toString() const;
};

} // namespace NetStats
