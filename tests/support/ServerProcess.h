#pragma once

#include "tests/support/PrivateBus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <memory>

// The real cabin-media-server with settings and caches in a temporary home: run to its end for
// the options that print and exit, or started on a private bus of its own with a D-Bus
// connection to it (requests to its MediaServer2 object, reads of its data values) and its log
// as it is written.
//
// Thread: the test's main thread. Owns the bus (started only when the server is), the process
// and the home folder; the process is killed if still running when the object goes. With
// CABIN_SERVER_LOG set, the server's whole log is written to that file at the end.
class ServerProcess
{
public:
    // A non-empty journalStream makes the server believe systemd's journal reads its log.
    explicit ServerProcess(const QString& journalStream = QString());
    ~ServerProcess();

    // Runs the server with `args` and no bus until it ends; its standard output lands in out().
    bool run(const QStringList& args);
    // Starts the server on its bus with `--set` overrides ("key=value") and other `options`, and
    // waits until it serves. Again after an exit or a kill: the same home, caches and bus.
    bool start(const QStringList& settings = {}, const QStringList& options = {});
    // Starts the server on its bus with `arrangeStreams` run in the child before exec, and waits
    // until SIGTERM would reach its handler: the log cannot tell, stderr may be taken away.
    bool startWithStreams(const std::function<void()>& arrangeStreams);
    // SIGTERM, then waits for the exit; true when it exited normally with status 0.
    bool terminate();
    // Waits for the process to end by itself; true when it did.
    bool waitForExit(int timeoutMs = 30000);
    // Sets a variable in the server's environment for the next start (the test's own
    // NOTIFY_SOCKET and WATCHDOG_USEC never reach it).
    void setEnvironment(const QString& name, const QString& value) { mExtraEnvironment.insert(name, value); }
    // The server's bus runs this dbus-daemon configuration (set before the first start).
    void setBusConfig(const QString& file) { mBusConfig = file; }
    // The bus daemon goes away under the server.
    void stopBus() { mBus.reset(); }
    bool isRunning() const { return mProcess.state() == QProcess::Running; }
    QProcess& process() { return mProcess; }
    QString out() const { return mOut; }

    // A method call on the server's bus without blocking the caller's event loop (a loopback
    // media server in the test process keeps serving); the reply, an error, or NoReply after
    // timeoutMs.
    QDBusMessage call(const QString& path, const QString& interface, const QString& method, const QVariantList& args = {},
                      int timeoutMs = 10000);
    // A MediaServer2 request.
    QDBusMessage request(const QString& method, const QVariantList& args = {}, int timeoutMs = 10000);
    // The value's (valid, value) as the server publishes it, or (error name) when Get is refused.
    QVariantList value(const QString& name);
    // MEDIA2_serverState as "State, Error" names read from the log's last change; empty before.
    QString publishedPair() const;
    // Every published pair in the log from line `from` on, e.g. "Playing, NoError".
    QStringList pairsSince(int from) const;
    // Whether `expected` pairs were published from line `from` on in this order, others between.
    bool publishedInOrder(const QStringList& expected, int from = 0) const;
    // Waits until `state` is published now or, with `since` a log line number, was published
    // since then; false (with the pairs seen in a warning) when the wait ends first.
    bool waitForState(const QString& state, int since = -1, int timeoutMs = 60000) const;

    QStringList logLines() const;
    int logLineCount() const { return int(logLines().size()); }
    bool logHas(const QString& fragment, int from = 0) const;

    QString home() const { return mHome.path(); }
    QString cacheRoot() const { return mHome.filePath(QStringLiteral("cache/CabinMediaServer2")); }
    // Writes `content` to `name` under the home folder; its path.
    QString writeFile(const QString& name, const QByteArray& content) const;
    // The server's bus, started on first use; empty when the daemon did not start.
    QString busAddress();
    // The test's connection to the server's bus, for signals and other objects.
    QDBusConnection connection() const { return mConnection; }

private:
    void launch(const QStringList& args);
    bool waitUntil(const std::function<bool()>& ready);
    bool catchesSigterm() const;
    void readLog();

    QTemporaryDir mHome;
    const QString mJournalStream;
    std::unique_ptr<PrivateBus> mBus;
    QProcess mProcess;
    QByteArray mLog;
    QString mOut;
    const QString mConnectionName;
    QProcessEnvironment mExtraEnvironment;
    QString mBusConfig;
    QDBusConnection mConnection;
};
