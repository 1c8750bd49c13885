#include "platform/service/DBusValueForm.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusVariant>

namespace DBusValueForm {

namespace {

bool isIntList(const QVariantList& list)
{
    for (const QVariant& item : list)
        if (item.userType() != QMetaType::Int)
            return false;
    return true;
}

QVariant listToDBus(const QVariantList& list)
{
    if (isIntList(list)) {
        QList<int> ints;
        for (const QVariant& item : list)
            ints.append(item.toInt());
        return QVariant::fromValue(ints);
    }
    QVariantList converted;
    for (const QVariant& item : list)
        converted.append(QVariant::fromValue(QDBusVariant(toDBus(item))));
    return converted;
}

QVariant argumentFromDBus(const QDBusArgument& argument)
{
    const QString signature = argument.currentSignature();
    if (signature == QLatin1String("ai")) {
        QVariantList list;
        for (int item : qdbus_cast<QList<int>>(argument))
            list.append(item);
        return list;
    }
    if (signature == QLatin1String("as"))
        return qdbus_cast<QStringList>(argument);
    if (signature == QLatin1String("a{sv}")) {
        QVariantMap map = qdbus_cast<QVariantMap>(argument);
        for (auto it = map.begin(); it != map.end(); ++it)
            it.value() = fromDBus(it.value());
        return map;
    }
    return QVariant();
}

} // namespace

QVariant toDBus(const QVariant& value)
{
    if (!value.isValid())
        return QString();
    if (value.userType() == QMetaType::QVariantList)
        return listToDBus(value.toList());
    if (value.userType() == QMetaType::QVariantMap) {
        QVariantMap map = value.toMap();
        for (auto it = map.begin(); it != map.end(); ++it)
            it.value() = toDBus(it.value());
        return map;
    }
    return value;
}

QVariant fromDBus(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return fromDBus(value.value<QDBusVariant>().variant());
    if (value.userType() == qMetaTypeId<QDBusArgument>())
        return argumentFromDBus(value.value<QDBusArgument>());
    return value;
}

} // namespace DBusValueForm
