#include "tools/mediactl/DataPublisherClient.h"

namespace {

const char kInterface[] = "com.kelvramotors.DataPublisher";

// The network statistics have a service (bus name and path) of their own; the rest are the
// media server's.
QString serviceOf(const QString& message)
{
    return message == QLatin1String("MediaServer2NetStats") ? QStringLiteral("MediaServer2Stats") : QStringLiteral("MediaServer2");
}

} // namespace

DataPublisherClient::DataPublisherClient(const QDBusConnection& connection, QObject* parent)
    : QObject(parent)
    , mConnection(connection)
{
}

bool DataPublisherClient::assemble(const QString& message, QByteArray* body)
{
    const QString service = serviceOf(message);
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("com.kelvramotors.") + service, QLatin1Char('/') + service,
                                                       QLatin1String(kInterface), QStringLiteral("Assemble"));
    call.setArguments({message});
    const QDBusMessage reply = mConnection.call(call, QDBus::Block, kTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        mError = reply.errorMessage() + QStringLiteral(" (") + reply.errorName() + QLatin1Char(')');
        mErrorName = reply.errorName();
        return false;
    }
    *body = reply.arguments().value(0).toByteArray();
    return true;
}

// Matched on interface and member only: both publishers send the same signal from their own
// paths and bus names.
bool DataPublisherClient::subscribe()
{
    if (mConnection.connect(QString(), QString(), QLatin1String(kInterface), QStringLiteral("Message"), this,
                            SLOT(onMessage(QDBusMessage))))
        return true;
    mError = QStringLiteral("cannot follow the status messages: ") + mConnection.lastError().message();
    return false;
}

void DataPublisherClient::onMessage(const QDBusMessage& message)
{
    emit arrived(message.arguments().value(0).toString(), message.arguments().value(1).toByteArray());
}
