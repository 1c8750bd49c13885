#include "platform/service/DBusNames.h"

namespace DBusNames {

QString busName(const QString& serviceName)
{
    return QStringLiteral("com.kelvramotors.") + serviceName;
}

QString objectPath(const QString& interfaceName)
{
    return QLatin1Char('/') + interfaceName;
}

QString interfaceName(const QString& interfaceName)
{
    return QStringLiteral("com.kelvramotors.") + interfaceName;
}

} // namespace DBusNames
