#pragma once

#include <QDBusConnection>
#include <QList>
#include <QObject>

#include <memory>

class DBusServiceClient;
class DataValueBusObject;
class ServiceInterface;
namespace NetStats {
class ConnectionUsageDataValue;
}

// Hosts the process's services on D-Bus: connects to the bus named by "service/bus", creates
// every service registered with ServiceManagerRegistrar, serves each at its object path, serves
// the data values at /DataValues, and owns the services' bus names. Also the client end for
// calling services of other processes.
//
// Thread: main thread. Owns the service objects, the bus objects and the client. Failure:
// start() returns false after logging one line that names the bus or the bus name and what to
// do; nothing is served then. Losing the bus while serving is logged in one line and ends the
// event loop with status 1, so that the service manager starts the server again.
class ServiceManager : public QObject
{
    Q_OBJECT
public:
    static ServiceManager* instance();
    ~ServiceManager() override;

    // Connects to the configured bus (once); false with a one-line reason.
    bool connectBus(QString* error);
    bool start();

    ServiceInterface* findServer(const QString& serviceName, const QString& interfaceName) const;
    QDBusConnection connection() const { return mConnection; }
    // A human-readable name of the configured bus, for messages.
    QString busDescription() const;
    // The client end; connects the bus on first use.
    DBusServiceClient* client();

    // The process's traffic statistics, held here so that services can reach them.
    void setConnectionUsage(NetStats::ConnectionUsageDataValue* usage) { mConnectionUsage = usage; }
    NetStats::ConnectionUsageDataValue* connectionUsage() const { return mConnectionUsage; }

private slots:
    void busDisconnected();

private:
    friend class ServiceManagerSingleton;
    ServiceManager() = default;
    bool createServers();
    bool exportObjects(QString* error);
    bool ownNames(QString* error);
    void watchForBusLoss();

    QDBusConnection mConnection{QString()};
    QString mConnectionName;
    QList<ServiceInterface*> mServers;
    std::unique_ptr<DataValueBusObject> mDataValues;
    std::unique_ptr<DBusServiceClient> mClient;
    NetStats::ConnectionUsageDataValue* mConnectionUsage = nullptr;
};
