#include "platform/service/DataValueBusObject.h"

#include "platform/datavalue/DataValue.h"
#include "platform/datavalue/DataValueManager.h"
#include "platform/service/DBusInterfaceXml.h"
#include "platform/service/DBusNames.h"
#include "platform/service/DBusValueForm.h"

#include <QDBusMessage>
#include <QDBusVariant>

namespace {

const char kInterface[] = "com.kelvramotors.DataValues";

QVariantList validAndValue(const DataValue* value)
{
    const QVariant variant = value->variant();
    return QVariantList{variant.isValid(), QVariant::fromValue(QDBusVariant(DBusValueForm::toDBus(variant)))};
}

} // namespace

DataValueBusObject::DataValueBusObject(const QDBusConnection& connection, QObject* parent)
    : QDBusVirtualObject(parent)
    , mConnection(connection)
{
    for (const QString& name : DataValueManager::instance()->names())
        connect(DataValueManager::instance()->find(name), &DataValue::valueChanged, this, &DataValueBusObject::valueChanged);
}

QString DataValueBusObject::introspect(const QString&) const
{
    return QStringLiteral(
        "  <interface name=\"com.kelvramotors.DataValues\">\n"
        "    <method name=\"Get\">\n"
        "      <arg name=\"name\" type=\"s\" direction=\"in\"/>\n"
        "      <arg name=\"valid\" type=\"b\" direction=\"out\"/>\n"
        "      <arg name=\"value\" type=\"v\" direction=\"out\"/>\n"
        "    </method>\n"
        "    <method name=\"List\">\n"
        "      <arg name=\"names\" type=\"as\" direction=\"out\"/>\n"
        "    </method>\n"
        "    <method name=\"Set\">\n"
        "      <arg name=\"name\" type=\"s\" direction=\"in\"/>\n"
        "      <arg name=\"value\" type=\"v\" direction=\"in\"/>\n"
        "    </method>\n"
        "    <signal name=\"Changed\">\n"
        "      <arg name=\"name\" type=\"s\"/>\n"
        "      <arg name=\"valid\" type=\"b\"/>\n"
        "      <arg name=\"value\" type=\"v\"/>\n"
        "    </signal>\n"
        "  </interface>\n");
}

bool DataValueBusObject::handleMessage(const QDBusMessage& message, const QDBusConnection& connection)
{
    if (message.type() != QDBusMessage::MethodCallMessage)
        return false;
    if (DBusInterfaceXml::answerIntrospectOrForeignInterface(message, connection, QLatin1String(kInterface), introspect(message.path())))
        return true;
    const QString member = message.member();
    if (member == QLatin1String("Get") && message.signature() == QLatin1String("s"))
        get(message);
    else if (member == QLatin1String("List") && message.signature().isEmpty())
        mConnection.send(message.createReply(DataValueManager::instance()->names()));
    else if (member == QLatin1String("Set") && message.signature() == QLatin1String("sv"))
        set(message);
    else
        DBusInterfaceXml::answerUnknownMethod(message, connection, QLatin1String(kInterface));
    return true;
}

DataValue* DataValueBusObject::findOrRefuse(const QDBusMessage& message)
{
    const QString name = message.arguments().value(0).toString();
    DataValue* value = DataValueManager::instance()->find(name);
    if (!value)
        mConnection.send(message.createErrorReply(QLatin1String(DBusNames::unknownValueError()),
                                                  QStringLiteral("no data value named %1").arg(name)));
    return value;
}

void DataValueBusObject::get(const QDBusMessage& message)
{
    if (DataValue* value = findOrRefuse(message))
        mConnection.send(message.createReply(validAndValue(value)));
}

void DataValueBusObject::set(const QDBusMessage& message)
{
    DataValue* value = findOrRefuse(message);
    if (!value)
        return;
    if (!value->isExternallyWritable()) {
        mConnection.send(message.createErrorReply(QLatin1String(DBusNames::readOnlyError()),
                                                  QStringLiteral("%1 is read-only: only its owner sets it").arg(value->name())));
        return;
    }
    const QVariant newValue = DBusValueForm::fromDBus(message.arguments().value(1));
    if (!value->setFromVariant(newValue)) {
        mConnection.send(message.createErrorReply(QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"),
                                                  QStringLiteral("%1 cannot hold the value %2").arg(value->name(), newValue.toString())));
        return;
    }
    mConnection.send(message.createReply());
}

void DataValueBusObject::valueChanged(DataValue* value)
{
    QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/DataValues"), QLatin1String(kInterface), QStringLiteral("Changed"));
    signal.setArguments(QVariantList{value->name()} + validAndValue(value));
    mConnection.send(signal);
}
