#pragma once

#include "tests/support/PrivateBus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

// The real cabin-media-server on a private bus of its own, with settings and caches in a
// temporary home, and a D-Bus connection to it: requests to its MediaServer2 object, reads of
// its data values, and its log as it is written.
//
// Thread: the test's main thread. Owns the bus, the process and the home folder; the process is
// killed if still running when the object goes. With CABIN_SERVER_LOG set, the server's whole
// log is written to that file at the end.
class ServerProcess
{
public:
    ServerProcess();
    ~ServerProcess();

    // Starts the server with `--set` overrides ("key=value") and waits until it serves.
    bool start(const QStringList& settings);
    // SIGTERM, then waits for the exit; true when it exited normally with status 0.
    bool terminate();
    bool isRunning() const { return mProcess.state() == QProcess::Running; }

    // Calls a MediaServer2 method without blocking the caller's event loop (a loopback media
    // server in the test process keeps serving); the reply, an error, or NoReply after timeoutMs.
    QDBusMessage request(const QString& method, const QVariantList& args = {}, int timeoutMs = 10000);
    // The value's (valid, value) as the server publishes it.
    QVariantList value(const QString& name);
    // MEDIA2_serverState as "State, Error" names read from the log's last change; empty before.
    QString publishedPair() const;
    // Every published pair in the log from line `from` on, e.g. "Playing, NoError".
    QStringList pairsSince(int from) const;

    QStringList logLines() const;
    int logLineCount() const { return int(logLines().size()); }
    bool logHas(const QString& fragment, int from = 0) const;
    QString home() const { return mHome.path(); }
    // The test's connection to the server's bus, for signals and other objects.
    QDBusConnection connection() const { return mConnection; }
    // The bus's address, for tools run against the server (DBUS_SESSION_BUS_ADDRESS).
    QString busAddress() const { return mBus.address(); }

private:
    void readLog();

    PrivateBus mBus;
    QTemporaryDir mHome;
    QProcess mProcess;
    QByteArray mLog;
    QDBusConnection mConnection;
};
