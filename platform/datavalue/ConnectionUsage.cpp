#include "platform/datavalue/ConnectionUsage.h"

#include "platform/datavalue/VariantConversion.h"

namespace NetStats {

quint64 ConnectionUsage::totalReceived() const
{
    quint64 total = 0;
    for (const Counts& counts : categories)
        total += counts.received;
    return total;
}

quint64 ConnectionUsage::totalSent() const
{
    quint64 total = 0;
    for (const Counts& counts : categories)
        total += counts.sent;
    return total;
}

bool ConnectionUsage::operator==(const ConnectionUsage& other) const
{
    return linkState == other.linkState && categories == other.categories;
}

QVariant ConnectionUsage::toVariant() const
{
    QVariantMap perCategory;
    for (auto it = categories.constBegin(); it != categories.constEnd(); ++it) {
        QVariantMap counts;
        counts.insert(QStringLiteral("received"), QVariant::fromValue<quint64>(it->received));
        counts.insert(QStringLiteral("sent"), QVariant::fromValue<quint64>(it->sent));
        perCategory.insert(QString::number(it.key()), counts);
    }
    QVariantMap map;
    map.insert(QStringLiteral("linkState"), linkState);
    map.insert(QStringLiteral("received"), QVariant::fromValue<quint64>(totalReceived()));
    map.insert(QStringLiteral("sent"), QVariant::fromValue<quint64>(totalSent()));
    map.insert(QStringLiteral("categories"), perCategory);
    return map;
}

bool ConnectionUsage::setFromVariant(const QVariant& variant)
{
    if (variant.userType() != QMetaType::QVariantMap)
        return false;
    const QVariantMap map = variant.toMap();
    ConnectionUsage parsed;
    if (map.contains(QStringLiteral("linkState")) && !VariantConversion::toInt(map.value(QStringLiteral("linkState")), &parsed.linkState))
        return false;
    const QVariantMap perCategory = map.value(QStringLiteral("categories")).toMap();
    for (auto it = perCategory.constBegin(); it != perCategory.constEnd(); ++it) {
        bool ok = false;
        const Category category = it.key().toInt(&ok);
        const QVariantMap counts = it.value().toMap();
        Counts parsedCounts;
        if (!ok || !VariantConversion::toUInt64(counts.value(QStringLiteral("received")), &parsedCounts.received)
            || !VariantConversion::toUInt64(counts.value(QStringLiteral("sent")), &parsedCounts.sent))
            return false;
        parsed.categories.insert(category, parsedCounts);
    }
    *this = parsed;
    return true;
}

QString ConnectionUsage::toString() const
{
    return QStringLiteral("link %1, received %2 B, sent %3 B").arg(linkState).arg(totalReceived()).arg(totalSent());
}

} // namespace NetStats
