#include "platform/service/DataPublisherBusObject.h"

#include "platform/service/DBusInterfaceXml.h"
#include "platform/service/DBusNames.h"
#include "platform/service/ServiceDataPublisher.h"

#include <QDBusMessage>

DataPublisherBusObject::DataPublisherBusObject(ServiceDataPublisher* publisher, const QDBusConnection& connection,
                                               QObject* parent)
    : QDBusVirtualObject(parent)
    , mPublisher(publisher)
    , mConnection(connection)
    , mPath(DBusNames::objectPath(publisher->serviceName()))
{
    connect(publisher, &ServiceDataPublisher::messagePublished, this, &DataPublisherBusObject::sendSignal);
}

QString DataPublisherBusObject::introspect(const QString&) const
{
    return QStringLiteral(
        "  <interface name=\"%1\">\n"
        "    <method name=\"Assemble\">\n"
        "      <arg name=\"name\" type=\"s\" direction=\"in\"/>\n"
        "      <arg name=\"body\" type=\"ay\" direction=\"out\"/>\n"
        "    </method>\n"
        "    <method name=\"PublishAll\"/>\n"
        "    <signal name=\"Message\">\n"
        "      <arg name=\"name\" type=\"s\"/>\n"
        "      <arg name=\"body\" type=\"ay\"/>\n"
        "    </signal>\n"
        "  </interface>\n")
        .arg(QLatin1String(interfaceName()));
}

bool DataPublisherBusObject::handleMessage(const QDBusMessage& message, const QDBusConnection& connection)
{
    if (message.type() != QDBusMessage::MethodCallMessage)
        return false;
    const QString dbusInterface = QLatin1String(interfaceName());
    if (DBusInterfaceXml::answerIntrospectOrForeignInterface(message, connection, dbusInterface, introspect(message.path())))
        return true;
    if (message.member() == QLatin1String("Assemble") && message.signature() == QLatin1String("s"))
        assemble(message);
    else if (message.member() == QLatin1String("PublishAll") && message.signature().isEmpty())
        publishAll(message);
    else
        DBusInterfaceXml::answerUnknownMethod(message, connection, dbusInterface);
    return true;
}

void DataPublisherBusObject::assemble(const QDBusMessage& message)
{
    const QString name = message.arguments().value(0).toString();
    QByteArray body;
    if (mPublisher->assemble(name, &body)) {
        mConnection.send(message.createReply(body));
        return;
    }
    mConnection.send(message.createErrorReply(
        QLatin1String(DBusNames::unknownMessageError()),
        QStringLiteral("%1 publishes no message \"%2\"; it publishes %3")
            .arg(mPublisher->serviceName(), name, mPublisher->messageNames().join(QStringLiteral(", ")))));
}

void DataPublisherBusObject::publishAll(const QDBusMessage& message)
{
    mPublisher->publishNonBroadcastValues();
    mConnection.send(message.createReply());
}

void DataPublisherBusObject::sendSignal(const QString& name, const QByteArray& body)
{
    QDBusMessage signal = QDBusMessage::createSignal(mPath, QLatin1String(interfaceName()), QStringLiteral("Message"));
    signal << name << body;
    mConnection.send(signal);
}
