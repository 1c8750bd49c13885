#pragma once

#include <QDBusConnection>
#include <QHash>
#include <QList>
#include <QObject>

#include <memory>
#include <vector>

class DBusServiceClient;
class DBusServiceObject;
class DataPublisherBusObject;
class DataValueBusObject;
class ServiceDataPublisher;
class ServiceInterface;
namespace NetStats {
class ConnectionUsageDataValue;
}

// Hosts the process's services on D-Bus: connects to the bus named by "service/bus", creates
// every service and status publisher registered with ServiceManagerRegistrar, serves each at
// its object path (a publisher beside the service of its name, if there is one), serves the
// data values at /DataValues, owns the services' and publishers' bus names, and has every
// publisher send each of its messages once when serving starts. Also the client end for
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
    // One log line per publisher: what it sent and the CPU time it took.
    void reportPublishers() const;
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
    bool createPublisher(const QMetaObject* metaObject);
    bool exportObjects(QString* error);
    bool exportPublishers(QString* error);
    bool ownNames(QString* error);
    void watchForBusLoss();

    QDBusConnection mConnection{QString()};
    QString mConnectionName;
    QList<ServiceInterface*> mServers;
    QHash<QString, DBusServiceObject*> mServiceObjects;   // by object path; owned by their services
    QList<ServiceDataPublisher*> mPublishers;
    std::vector<std::unique_ptr<DataPublisherBusObject>> mPublisherObjects;
    std::unique_ptr<DataValueBusObject> mDataValues;
    std::unique_ptr<DBusServiceClient> mClient;
    NetStats::ConnectionUsageDataValue* mConnectionUsage = nullptr;
};
