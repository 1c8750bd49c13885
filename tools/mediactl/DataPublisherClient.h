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
// D-Bus error's text and name) and errorName() to the D-Bus error's name.
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
    QString errorName() const { return mErrorName; }
    // The server answers these calls from its main loop at once; longer than this, it is stuck.
    static constexpr int kTimeoutMs = 5000;

signals:
    void arrived(const QString& message, const QByteArray& body);

private slots:
    void onMessage(const QDBusMessage& message);

private:
    QDBusConnection mConnection;
    QString mError;
    QString mErrorName;
};
