#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QHash>

class ServiceCallContext;
class ServiceInterface;
struct ServiceMethod;
namespace NetStats {
class ConnectionUsageDataValue;
}

// Serves one ServiceInterface at its object path (and hands a companion's interface to it): checks each message's interface itself,
// answers Introspect from the method table, refuses unknown methods and badly typed arguments
// with D-Bus's own errors, turns the arguments into a server context, hands it to the service
// and sends the answer when the context is answered, now or later.
//
// Thread: main thread (QtDBus delivers messages there). Owns the server contexts it creates:
// each is deleted after its answer is sent, or once twice the method's time-out has passed
// without one; the caller then gets the error com.kelvramotors.Error.NoAnswer, so it does not
// wait out its own, longer time-out. Does not own the service.
//
// Traffic: once given the process's traffic statistics, each request adds the bytes of its
// arguments as received and each answer the bytes of its results or error text as sent, under
// NetStats::kServiceTraffic. The status publishers' messages are not counted: the traffic
// message would then report its own sending and go out again every second on an idle server.
class DBusServiceObject : public QDBusVirtualObject
{
    Q_OBJECT
public:
    DBusServiceObject(ServiceInterface* service, const QDBusConnection& connection, QObject* parent = nullptr);

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;
    // Another object served at the same path: calls to its D-Bus interface (and calls without
    // an interface to a method the service lacks) go to it, and introspection shows both. One
    // companion; not owned.
    void addCompanion(QDBusVirtualObject* companion, const QString& dbusInterface);
    // Counts requests and answers into `usage` from now on (not owned; may be null).
    void setConnectionUsage(NetStats::ConnectionUsageDataValue* usage) { mUsage = usage; }

private slots:
    void sendAnswer(ServiceCallContext* context);

private:
    bool handleIntrospection(const QDBusMessage& message);
    void dispatch(const QDBusMessage& message, const ServiceMethod& method);
    void forgetUnanswered(ServiceCallContext* context);
    void sendError(const QDBusMessage& message, const QString& name, const QString& text);
    void sendReply(const QDBusMessage& reply);

    ServiceInterface* mService;
    QDBusConnection mConnection;
    QString mDBusInterface;
    QHash<ServiceCallContext*, QDBusMessage> mPending;   // contexts waiting for their answer
    bool mInDispatch = false;   // a request is being handed to the service right now
    QDBusVirtualObject* mCompanion = nullptr;
    QString mCompanionInterface;
    NetStats::ConnectionUsageDataValue* mUsage = nullptr;
};
