#include "platform/service/ServiceManager.h"

#include "platform/config/ConfigStringValue.h"
#include "platform/log/LogLine.h"
#include "platform/service/DBusNames.h"
#include "platform/service/DBusServiceClient.h"
#include "platform/service/DBusServiceObject.h"
#include "platform/service/DataPublisherBusObject.h"
#include "platform/service/DataValueBusObject.h"
#include "platform/service/ServiceDataPublisher.h"
#include "platform/service/ServiceInterface.h"
#include "platform/service/ServiceManagerRegistrar.h"
#include "utils/Singleton.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QMetaObject>

namespace {

// "session", "system", or a bus address such as "unix:path=/run/x".
ConfigStringValue sBus("service/bus", QStringLiteral("session"), "the bus to serve on: session, system, or a bus address");

} // namespace

// Lets Singleton create the manager through its private constructor.
class ServiceManagerSingleton : public ServiceManager
{
};

ServiceManager* ServiceManager::instance()
{
    return Singleton<ServiceManagerSingleton>::instance();
}

ServiceManager::~ServiceManager()
{
    for (ServiceInterface* server : mServers)
        mConnection.unregisterObject(DBusNames::objectPath(server->interfaceName()));
    if (mDataValues)
        mConnection.unregisterObject(QStringLiteral("/DataValues"));
    for (const auto& object : mPublisherObjects)
        if (!mServiceObjects.contains(object->path()))
            mConnection.unregisterObject(object->path());
    mPublisherObjects.clear();
    qDeleteAll(mPublishers);
    qDeleteAll(mServers);
    if (!mConnectionName.isEmpty())
        QDBusConnection::disconnectFromBus(mConnectionName);
}

QString ServiceManager::busDescription() const
{
    const QString bus = sBus.value();
    if (bus == QLatin1String("session")) {
        const QString address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
        return QStringLiteral("the session bus (%1)")
            .arg(address.isEmpty() ? QStringLiteral("DBUS_SESSION_BUS_ADDRESS is not set") : address);
    }
    if (bus == QLatin1String("system"))
        return QStringLiteral("the system bus");
    return QStringLiteral("the bus at %1").arg(bus);
}

bool ServiceManager::connectBus(QString* error)
{
    if (mConnection.isConnected())
        return true;
    const QString bus = sBus.value();
    if (bus == QLatin1String("session")) {
        mConnection = QDBusConnection::sessionBus();
    } else if (bus == QLatin1String("system")) {
        mConnection = QDBusConnection::systemBus();
    } else {
        mConnectionName = QStringLiteral("cabin-") + bus;
        mConnection = QDBusConnection::connectToBus(bus, mConnectionName);
    }
    if (mConnection.isConnected())
        return true;
    *error = QStringLiteral("cannot reach %1: %2; start a bus there or choose another one")
                 .arg(busDescription(), mConnection.lastError().message());
    return false;
}

bool ServiceManager::start()
{
    QString error;
    if (!connectBus(&error) || !createServers() || !exportObjects(&error) || !ownNames(&error)) {
        if (!error.isEmpty())
            LOG_ERROR << error;
        return false;
    }
    watchForBusLoss();
    LOG_INFO << "serving " << mServers.size() << " services and " << mPublishers.size() << " publishers on "
             << busDescription();
    for (ServiceDataPublisher* publisher : mPublishers)
        publisher->publishNonBroadcastValues();
    return true;
}

bool ServiceManager::createServers()
{
    for (const ServiceManagerRegistrar::Registration& registration : ServiceManagerRegistrar::registrations()) {
        if (registration.instanceType != ServerInstance || findServer(registration.serviceName, registration.interfaceName))
            continue;
        const QMetaObject* metaObject = ServiceManagerRegistrar::implementationOf(registration.metaObject);
        if (metaObject->inherits(&ServiceDataPublisher::staticMetaObject)) {
            if (!createPublisher(metaObject))
                return false;
            continue;
        }
        auto* server = qobject_cast<ServiceInterface*>(metaObject->newInstance());
        if (!server) {
            LOG_ERROR << "cannot create the service " << registration.serviceName << " (class "
                      << metaObject->className() << " has no invokable constructor without arguments)";
            return false;
        }
        mServers.append(server);
    }
    return true;
}

bool ServiceManager::createPublisher(const QMetaObject* metaObject)
{
    auto* publisher = qobject_cast<ServiceDataPublisher*>(metaObject->newInstance());
    if (!publisher) {
        LOG_ERROR << "cannot create the publisher " << metaObject->className() << " (no invokable constructor without arguments)";
        return false;
    }
    mPublishers.append(publisher);
    return true;
}

bool ServiceManager::exportObjects(QString* error)
{
    for (ServiceInterface* server : mServers) {
        const QString path = DBusNames::objectPath(server->interfaceName());
        auto* object = new DBusServiceObject(server, mConnection, server);
        object->setConnectionUsage(mConnectionUsage);
        if (!mConnection.registerVirtualObject(path, object)) {
            *error = QStringLiteral("cannot serve %1 on %2").arg(path, busDescription());
            return false;
        }
        mServiceObjects.insert(path, object);
    }
    if (!exportPublishers(error))
        return false;
    mDataValues = std::make_unique<DataValueBusObject>(mConnection);
    if (!mConnection.registerVirtualObject(QStringLiteral("/DataValues"), mDataValues.get())) {
        *error = QStringLiteral("cannot serve /DataValues on %1").arg(busDescription());
        return false;
    }
    return true;
}

void ServiceManager::reportPublishers() const
{
    for (ServiceDataPublisher* publisher : mPublishers) {
        const ServiceDataPublisher::Usage usage = publisher->usage();
        LOG_INFO << publisher->serviceName() << ": " << usage.messages << " messages, " << usage.bytes << " bytes, "
                 << QString::number(double(usage.cpuNs) / 1e6, 'f', 3) << " ms CPU";
    }
}

// A publisher shares its path with the service of the same name (/MediaServer2 serves both the
// requests and the messages); alone, it has the path to itself.
bool ServiceManager::exportPublishers(QString* error)
{
    for (ServiceDataPublisher* publisher : mPublishers) {
        mPublisherObjects.push_back(std::make_unique<DataPublisherBusObject>(publisher, mConnection));
        DataPublisherBusObject* object = mPublisherObjects.back().get();
        if (DBusServiceObject* service = mServiceObjects.value(object->path())) {
            service->addCompanion(object, QLatin1String(DataPublisherBusObject::interfaceName()));
        } else if (!mConnection.registerVirtualObject(object->path(), object)) {
            *error = QStringLiteral("cannot serve %1 on %2").arg(object->path(), busDescription());
            return false;
        }
    }
    return true;
}

bool ServiceManager::ownNames(QString* error)
{
    QStringList names;
    for (ServiceInterface* server : mServers)
        if (!names.contains(DBusNames::busName(server->serviceName())))
            names.append(DBusNames::busName(server->serviceName()));
    for (ServiceDataPublisher* publisher : mPublishers)
        if (!names.contains(DBusNames::busName(publisher->serviceName())))
            names.append(DBusNames::busName(publisher->serviceName()));
    for (const QString& name : names) {
        const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply = mConnection.interface()->registerService(
            name, QDBusConnectionInterface::DontQueueService, QDBusConnectionInterface::DontAllowReplacement);
        if (!reply.isValid()) {
            *error = QStringLiteral("not allowed to own the bus name %1 on %2 (%3); check the bus policy")
                         .arg(name, busDescription(), reply.error().message());
            return false;
        }
        if (reply.value() != QDBusConnectionInterface::ServiceRegistered) {
            *error = QStringLiteral("the bus name %1 is already owned on %2; stop the process that owns it first")
                         .arg(name, busDescription());
            return false;
        }
    }
    return true;
}

// A connection that is gone stays gone: QtDBus does not reconnect, so the process would live on
// unreachable. libdbus reports the loss as this local signal.
void ServiceManager::watchForBusLoss()
{
    mConnection.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"), QStringLiteral("org.freedesktop.DBus.Local"),
                        QStringLiteral("Disconnected"), this, SLOT(busDisconnected()));
}

void ServiceManager::busDisconnected()
{
    LOG_ERROR << "lost the connection to " << busDescription() << "; exiting so that the server can be started again";
    QCoreApplication::exit(1);
}

ServiceInterface* ServiceManager::findServer(const QString& serviceName, const QString& interfaceName) const
{
    for (ServiceInterface* server : mServers)
        if (server->serviceName() == serviceName && server->interfaceName() == interfaceName)
            return server;
    return nullptr;
}

DBusServiceClient* ServiceManager::client()
{
    if (!mClient) {
        QString error;
        connectBus(&error);
        mClient = std::make_unique<DBusServiceClient>(mConnection);
    }
    return mClient.get();
}
