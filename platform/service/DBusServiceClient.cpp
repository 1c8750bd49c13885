#include "platform/service/DBusServiceClient.h"

#include "platform/service/DBusNames.h"
#include "platform/service/ServiceCallContext.h"
#include "platform/service/ServiceInterface.h"

#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QPointer>

DBusServiceClient::DBusServiceClient(const QDBusConnection& connection)
    : mConnection(connection)
{
}

bool DBusServiceClient::buildMessage(ServiceInterface* service, ServiceCallContext* context, QDBusMessage* message,
                                     const ServiceMethod** method)
{
    *method = findServiceMethod(service->methodTable(), context->method());
    if (!*method) {
        context->setError(ServiceCallContext::UnknownMethod,
                          QStringLiteral("%1 has no method %2").arg(service->interfaceName(), context->method()));
        return false;
    }
    *message = QDBusMessage::createMethodCall(DBusNames::busName(service->serviceName()),
                                              DBusNames::objectPath(service->interfaceName()),
                                              DBusNames::interfaceName(service->interfaceName()), context->method());
    QVariantList arguments;
    for (const ServiceArgument& argument : (*method)->arguments) {
        QVariant value = context->arguments().value(argument.name);
        if (!value.convert(QMetaType(argument.type)))
            value = QVariant(QMetaType(argument.type));
        arguments.append(value);
    }
    message->setArguments(arguments);
    message->setAutoStartService(false);
    return true;
}

bool DBusServiceClient::readReply(const QDBusMessage& reply, const ServiceMethod& method, ServiceCallContext* context)
{
    if (reply.type() == QDBusMessage::ErrorMessage) {
        const bool timedOut = reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.NoReply")
            || reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.Timeout");
        context->setError(timedOut ? ServiceCallContext::Timeout : ServiceCallContext::RemoteError,
                          reply.errorName() + QStringLiteral(": ") + reply.errorMessage());
        return false;
    }
    const QVariant first = reply.arguments().value(0);
    if (method.resultType == QMetaType::Bool)
        context->results().insert(QStringLiteral("_rval_"), first.toBool());
    else if (method.resultType == QMetaType::QString)
        context->setResponseBody(first.toString().toUtf8(), QStringLiteral("application/json"));
    return true;
}

bool DBusServiceClient::call(ServiceInterface* service, ServiceCallContext* context)
{
    QDBusMessage message;
    const ServiceMethod* method = nullptr;
    bool ok = buildMessage(service, context, &message, &method);
    if (ok) {
        const int timeout = context->timeoutMs() > 0 ? context->timeoutMs() : service->timeout(context->method());
        ok = readReply(mConnection.call(message, QDBus::Block, timeout), *method, context);
    }
    context->setInUse(false);
    return ok;
}

bool DBusServiceClient::callAsync(ServiceInterface* service, ServiceCallContext* context)
{
    QDBusMessage message;
    const ServiceMethod* method = nullptr;
    if (!buildMessage(service, context, &message, &method)) {
        context->setInUse(false);
        return false;
    }
    if (context->noReply()) {
        message.setDelayedReply(false);
        const bool sent = mConnection.send(message);
        context->deleteLater();
        return sent;
    }
    const int timeout = context->timeoutMs() > 0 ? context->timeoutMs() : service->timeout(context->method());
    auto* watcher = new QDBusPendingCallWatcher(mConnection.asyncCall(message, timeout), service);
    const ServiceMethod methodCopy = *method;
    QPointer<ServiceInterface> guardedService(service);
    QPointer<ServiceCallContext> guardedContext(context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, service,
                     [watcher, methodCopy, guardedService, guardedContext] {
                         watcher->deleteLater();
                         if (!guardedService || !guardedContext)
                             return;
                         readReply(watcher->reply(), methodCopy, guardedContext);
                         guardedContext->setInUse(false);
                         guardedService->processResponse(guardedContext);
                         guardedContext->deleteLater();
                     });
    return true;
}
