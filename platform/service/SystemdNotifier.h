#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>

class DataValue;

// Tells systemd how the service is doing, through libsystemd's notify socket: READY=1 once it
// serves, a STATUS= line that follows a data value, STOPPING=1 at shutdown, and WATCHDOG=1 at
// half the period the service manager asked for (WATCHDOG_USEC). The watchdog is kicked from a
// timer of the event loop, so a main loop that blocks stops the kicks and systemd restarts the
// service. Without NOTIFY_SOCKET (started by hand, or by a service manager that does not listen)
// nothing is sent and no timer runs.
//
// Thread: main thread. Owns the watchdog timer; does not own the value it follows. Failure: a
// notification that cannot be sent is logged once; the service runs on.
class SystemdNotifier : public QObject
{
    Q_OBJECT
public:
    explicit SystemdNotifier(QObject* parent = nullptr);

    // Whether a service manager listens for notifications.
    static bool listening();

    // READY=1 with `status`, and the watchdog from now on when one was asked for.
    void ready(const QString& status);
    void setStatus(const QString& status);
    void stopping();
    // STATUS=<prefix><the value as text> on each change of the value.
    void followStatus(DataValue* value, const QString& prefix);
    // The watchdog's kick period in ms; 0 when there is no watchdog.
    int watchdogIntervalMs() const { return mWatchdog.isActive() ? mWatchdog.interval() : 0; }

private slots:
    void kickWatchdog();
    void statusValueChanged(DataValue* value);

private:
    void notify(const QByteArray& state);

    QTimer mWatchdog;
    QString mStatusPrefix;
    bool mFailureLogged = false;
};
