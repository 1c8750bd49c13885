#pragma once

#include <QDBusConnection>
#include <QDBusMessage>

class ServiceCallContext;
class ServiceInterface;
struct ServiceMethod;

// The client end of the bus: turns a prepared client context into a D-Bus method call to the
// service (positional arguments in the order of the method table) and the reply back into the
// context's result map ("_rval_") or response body. The call waits at most the context's
// time-out, else the interface's timeout(method).
//
// Thread: main thread. Failure: false with the context's error and message set (unknown
// method, transport failure, time-out, the service's own error).
class DBusServiceClient
{
public:
    explicit DBusServiceClient(const QDBusConnection& connection);

    bool call(ServiceInterface* service, ServiceCallContext* context);
    // The answer is handed to service->processResponse(context) when it arrives; the context
    // (created by the async operation) is deleted afterwards, or at once when no reply is
    // expected.
    bool callAsync(ServiceInterface* service, ServiceCallContext* context);

    QDBusConnection connection() const { return mConnection; }

private:
    bool buildMessage(ServiceInterface* service, ServiceCallContext* context, QDBusMessage* message,
                      const ServiceMethod** method);
    static bool readReply(const QDBusMessage& reply, const ServiceMethod& method, ServiceCallContext* context);

    QDBusConnection mConnection;
};
