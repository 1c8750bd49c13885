#pragma once

#include <QByteArray>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>

// The client end of the server's status publishers (interface com.kelvramotors.DataPublisher
// at /MediaServer2 and /MediaServer2Stats): ask one for a freshly assembled message, or follow
// every message either sends.
//
// Thread: main thread. Failure: every call returns false with error() set to one line (the
// D-Bus error's text and name).
class DataPublisherClient : public QObject
{
    Q_OBJECT
public:
    explicit DataPublisherClient(const QDBusConnection& connection, QObject* parent = nullptr);

    // The body of `message` as its publisher assembles it now.
    bool assemble(const QString& message, QByteArray* body);
    // Emits arrived() for every Message signal on the bus from now on, whichever path sent it.
    bool subscribe();
    QString error() const { return mError; }

signals:
    void arrived(const QString& message, const QByteArray& body);

private slots:
    void onMessage(const QDBusMessage& message);

private:
    QDBusConnection mConnection;
    QString mError;
};
