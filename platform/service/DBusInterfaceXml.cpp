#include "platform/service/DBusInterfaceXml.h"

namespace DBusInterfaceXml {

namespace {

QString argumentXml(const QString& name, const char* type, const char* direction)
{
    return QStringLiteral("      <arg name=\"%1\" type=\"%2\" direction=\"%3\"/>\n")
        .arg(name, QLatin1String(type), QLatin1String(direction));
}

QString methodXml(const ServiceMethod& method)
{
    QString xml = QStringLiteral("    <method name=\"%1\">\n").arg(method.name);
    for (const ServiceArgument& argument : method.arguments)
        xml += argumentXml(argument.name, dbusSignatureFor(argument.type), "in");
    if (method.resultType != QMetaType::Void)
        xml += argumentXml(method.resultType == QMetaType::Bool ? QStringLiteral("result") : QStringLiteral("body"),
                           dbusSignatureFor(method.resultType), "out");
    return xml + QStringLiteral("    </method>\n");
}

} // namespace

QString interfaceXml(const QString& dbusInterface, const ServiceMethodTable& table)
{
    QString xml = QStringLiteral("  <interface name=\"%1\">\n").arg(dbusInterface);
    for (const ServiceMethod& method : table)
        xml += methodXml(method);
    return xml + QStringLiteral("  </interface>\n");
}

QString nodeXml(const QString& interfaceElements)
{
    return QStringLiteral(
               "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
               "<node>\n"
               "  <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
               "    <method name=\"Introspect\">\n"
               "      <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
               "    </method>\n"
               "  </interface>\n")
        + interfaceElements + QStringLiteral("</node>\n");
}

bool answerIntrospectOrForeignInterface(const QDBusMessage& message, const QDBusConnection& connection,
                                        const QString& dbusInterface, const QString& interfaceElements)
{
    const QString interface = message.interface();
    QDBusConnection bus(connection);
    if (interface == QLatin1String("org.freedesktop.DBus.Introspectable") && message.member() == QLatin1String("Introspect")) {
        bus.send(message.createReply(nodeXml(interfaceElements)));
        return true;
    }
    if (interface.isEmpty() || interface == dbusInterface)
        return false;
    bus.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.UnknownInterface"),
                                      QStringLiteral("no interface %1 at %2").arg(interface, message.path())));
    return true;
}

void answerUnknownMethod(const QDBusMessage& message, const QDBusConnection& connection, const QString& dbusInterface)
{
    QDBusConnection(connection).send(message.createErrorReply(
        QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
        QStringLiteral("%1 has no method %2(%3)").arg(dbusInterface, message.member(), message.signature())));
}

} // namespace DBusInterfaceXml
