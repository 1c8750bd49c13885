#include "tools/mediactl/DataValuesClient.h"

#include "UI/media_server/MediaServerState.h"
#include "platform/service/DBusValueForm.h"

#include <QDBusMessage>
#include <QDBusVariant>

namespace {

const char kService[] = "com.kelvramotors.MediaServer2";
const char kPath[] = "/DataValues";
const char kInterface[] = "com.kelvramotors.DataValues";

QString stateText(const QVariantList& pair)
{
    const auto state = MediaV2::MediaServerState(pair.value(0).toInt());
    const auto error = MediaV2::MediaServerError(pair.value(1).toInt());
    return QStringLiteral("%1,%2 (%3, %4)")
        .arg(int(state))
        .arg(int(error))
        .arg(MediaServerUtils::nameForState(state), MediaServerUtils::nameForError(error));
}

} // namespace

DataValuesClient::DataValuesClient(const QDBusConnection& connection, QObject* parent)
    : QObject(parent)
    , mConnection(connection)
{
}

bool DataValuesClient::call(const QString& method, const QVariantList& arguments, QDBusMessage* reply)
{
    QDBusMessage message = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
                                                          QLatin1String(kInterface), method);
    message.setArguments(arguments);
    *reply = mConnection.call(message, QDBus::Block, kTimeoutMs);
    if (reply->type() == QDBusMessage::ErrorMessage) {
        mError = reply->errorMessage() + QStringLiteral(" (") + reply->errorName() + QLatin1Char(')');
        mErrorName = reply->errorName();
        return false;
    }
    return true;
}

bool DataValuesClient::get(const QString& name, bool* valid, QVariant* value)
{
    QDBusMessage reply;
    if (!call(QStringLiteral("Get"), {name}, &reply))
        return false;
    *valid = reply.arguments().value(0).toBool();
    *value = DBusValueForm::fromDBus(reply.arguments().value(1));
    return true;
}

bool DataValuesClient::list(QStringList* names)
{
    QDBusMessage reply;
    if (!call(QStringLiteral("List"), {}, &reply))
        return false;
    *names = reply.arguments().value(0).toStringList();
    return true;
}

bool DataValuesClient::set(const QString& name, const QVariant& value)
{
    QDBusMessage reply;
    return call(QStringLiteral("Set"), {name, QVariant::fromValue(QDBusVariant(value))}, &reply);
}

bool DataValuesClient::subscribe()
{
    if (mConnection.connect(QLatin1String(kService), QLatin1String(kPath), QLatin1String(kInterface),
                            QStringLiteral("Changed"), this, SLOT(onChanged(QDBusMessage))))
        return true;
    mError = QStringLiteral("cannot follow the changes of the data values: ") + mConnection.lastError().message();
    return false;
}

void DataValuesClient::onChanged(const QDBusMessage& message)
{
    const QVariantList arguments = message.arguments();
    emit changed(arguments.value(0).toString(), arguments.value(1).toBool(), DBusValueForm::fromDBus(arguments.value(2)));
}

QString DataValuesClient::text(const QString& name, bool valid, const QVariant& value)
{
    return valid ? text(name, value) : QStringLiteral("-");
}

QString DataValuesClient::text(const QString& name, const QVariant& value)
{
    if (name == QLatin1String("MEDIA2_serverState") && value.userType() == QMetaType::QVariantList)
        return stateText(value.toList());
    if (value.userType() == QMetaType::QVariantList || value.userType() == QMetaType::QStringList)
        return value.toStringList().join(QLatin1Char(','));
    if (value.userType() == QMetaType::QVariantMap) {
        QStringList pairs;
        const QVariantMap map = value.toMap();
        for (auto it = map.constBegin(); it != map.constEnd(); ++it)
            pairs.append(it.key() + QLatin1Char('=') + text(it.key(), it.value()));
        return QLatin1Char('{') + pairs.join(QStringLiteral(", ")) + QLatin1Char('}');
    }
    return value.toString();
}
