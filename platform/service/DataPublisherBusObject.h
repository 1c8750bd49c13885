#pragma once

#include <QDBusConnection>
#include <QDBusVirtualObject>

class ServiceDataPublisher;

// A status publisher on the bus, at its service's object path, interface
// com.kelvramotors.DataPublisher:
//   Assemble(s name) -> ay           a freshly assembled body; an unknown name is the error
//                                    com.kelvramotors.Error.UnknownMessage, naming it
//   PublishAll()                     every message goes out once more as a signal (each still
//                                    within its rate limit), so a subscriber that has just
//                                    arrived hears the whole state without calling Assemble
//   signal Message(s name, ay body)  every message the publisher sends
// Where a service is already served at that path, its bus object hands this interface's calls
// here (DBusServiceObject::addCompanion) and this object is not registered itself.
//
// Thread: main thread. Does not own the publisher.
class DataPublisherBusObject : public QDBusVirtualObject
{
    Q_OBJECT
public:
    static const char* interfaceName() { return "com.kelvramotors.DataPublisher"; }

    DataPublisherBusObject(ServiceDataPublisher* publisher, const QDBusConnection& connection, QObject* parent = nullptr);

    QString path() const { return mPath; }
    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private slots:
    void sendSignal(const QString& name, const QByteArray& body);

private:
    void assemble(const QDBusMessage& message);
    void publishAll(const QDBusMessage& message);

    ServiceDataPublisher* mPublisher;
    QDBusConnection mConnection;
    QString mPath;
};
