#include "platform/service/DBusServiceObject.h"

#include "platform/datavalue/ConnectionUsageDataValue.h"
#include "platform/log/LogLine.h"
#include "platform/service/DBusArguments.h"
#include "platform/service/DBusInterfaceXml.h"
#include "platform/service/DBusNames.h"
#include "platform/service/ServiceCallContext.h"
#include "platform/service/ServiceInterface.h"

#include <QTimer>

DBusServiceObject::DBusServiceObject(ServiceInterface* service, const QDBusConnection& connection, QObject* parent)
    : QDBusVirtualObject(parent)
    , mService(service)
    , mConnection(connection)
    , mDBusInterface(DBusNames::interfaceName(service->interfaceName()))
{
}

QString DBusServiceObject::introspect(const QString& path) const
{
    const QString own = DBusInterfaceXml::interfaceXml(mDBusInterface, mService->methodTable());
    return mCompanion ? own + mCompanion->introspect(path) : own;
}

void DBusServiceObject::addCompanion(QDBusVirtualObject* companion, const QString& dbusInterface)
{
    mCompanion = companion;
    mCompanionInterface = dbusInterface;
}

bool DBusServiceObject::handleMessage(const QDBusMessage& message, const QDBusConnection& connection)
{
    if (message.type() != QDBusMessage::MethodCallMessage)
        return false;
    if (handleIntrospection(message))
        return true;
    if (mCompanion && (message.interface() == mCompanionInterface
                       || (message.interface().isEmpty() && !findServiceMethod(mService->methodTable(), message.member()))))
        return mCompanion->handleMessage(message, connection);
    if (!message.interface().isEmpty() && message.interface() != mDBusInterface) {
        sendError(message, QStringLiteral("org.freedesktop.DBus.Error.UnknownInterface"),
                  QStringLiteral("no interface %1 at %2").arg(message.interface(), message.path()));
        return true;
    }
    const ServiceMethod* method = findServiceMethod(mService->methodTable(), message.member());
    if (!method) {
        sendError(message, QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
                  QStringLiteral("%1 has no method %2").arg(mDBusInterface, message.member()));
        return true;
    }
    dispatch(message, *method);
    return true;
}

bool DBusServiceObject::handleIntrospection(const QDBusMessage& message)
{
    if (message.interface() != QLatin1String("org.freedesktop.DBus.Introspectable")
        || message.member() != QLatin1String("Introspect"))
        return false;
    mConnection.send(message.createReply(DBusInterfaceXml::nodeXml(introspect(message.path()))));
    return true;
}

void DBusServiceObject::dispatch(const QDBusMessage& message, const ServiceMethod& method)
{
    QVariantMap arguments;
    QString error;
    if (!DBusArguments::toNamedArguments(message, method, &arguments, &error)) {
        sendError(message, QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"), error);
        return;
    }
    if (mUsage)
        mUsage->addTraffic(NetStats::kServiceTraffic, quint64(DBusArguments::payloadBytes(arguments)), 0);
    auto* context = new ServiceCallContext(ServiceCallContext::Server, method.name, this);
    context->setArguments(arguments);
    message.setDelayedReply(true);
    mPending.insert(context, message);
    connect(context, &ServiceCallContext::answered, this, &DBusServiceObject::sendAnswer);
    mInDispatch = true;
    mService->processRequest(context);
    mInDispatch = false;
    if (context->isAnswered())
        delete context;   // answered on the spot: nothing can refer to it any more
    else
        QTimer::singleShot(2 * mService->timeout(method.name), context, [this, context] { forgetUnanswered(context); });
}

void DBusServiceObject::sendAnswer(ServiceCallContext* context)
{
    const QDBusMessage message = mPending.take(context);
    const ServiceMethod* method = findServiceMethod(mService->methodTable(), context->method());
    mService->statistics().recordRequest(context->ageMs());
    if (context->error() != ServiceCallContext::NoError) {
        const bool notImplemented = context->error() == ServiceCallContext::NotImplemented;
        sendError(message,
                  notImplemented ? QStringLiteral("com.kelvramotors.Error.NotImplemented") : QString::fromLatin1(DBusNames::failedError()),
                  context->errorMessage());
    } else if (method && method->resultType == QMetaType::Bool) {
        sendReply(message.createReply(context->results().value(QStringLiteral("_rval_")).toBool()));
    } else if (method && method->resultType == QMetaType::QString) {
        sendReply(message.createReply(QString::fromUtf8(context->responseBody())));
    } else {
        sendReply(message.createReply());
    }
    if (!mInDispatch)
        context->deleteLater();
}

// The service never answered: the caller is told so now rather than waiting out its own
// time-out, which for a generic client is far longer than the method's.
void DBusServiceObject::forgetUnanswered(ServiceCallContext* context)
{
    disconnect(context, nullptr, this, nullptr);   // a late answer has nobody to go to
    const QString text = QStringLiteral("%1 gave no answer to %2 within %3 ms")
                             .arg(mDBusInterface, context->method())
                             .arg(context->ageMs());
    LOG_WARN << text;
    sendError(mPending.take(context), QLatin1String(DBusNames::noAnswerError()), text);
    context->deleteLater();
}

void DBusServiceObject::sendError(const QDBusMessage& message, const QString& name, const QString& text)
{
    sendReply(message.createErrorReply(name, text));
}

void DBusServiceObject::sendReply(const QDBusMessage& reply)
{
    if (mUsage) {
        qint64 bytes = 0;
        if (reply.type() == QDBusMessage::ErrorMessage)
            bytes = reply.errorMessage().toUtf8().size();
        else
            for (const QVariant& result : reply.arguments())
                bytes += DBusArguments::payloadBytes(result);
        mUsage->addTraffic(NetStats::kServiceTraffic, 0, quint64(bytes));
    }
    mConnection.send(reply);
}
