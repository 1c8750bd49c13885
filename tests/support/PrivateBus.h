#pragma once

#include <QProcess>
#include <QString>

// A dbus-daemon of a test's own, so tests that own bus names never meet each other (ctest runs
// suites in parallel) nor the developer's session. The daemon ends with the object.
//
// Thread: the test's main thread.
class PrivateBus
{
public:
    // With a config file the daemon runs that configuration (it must listen on a unix tmpdir);
    // without one it is a plain session bus.
    explicit PrivateBus(const QString& configFile = QString());
    // A system bus's configuration that allows everything but what `policyFile` (included)
    // denies, for testing a shipped bus policy.
    static QByteArray systemConfigWith(const QString& policyFile);
    ~PrivateBus();

    bool isRunning() const { return !mAddress.isEmpty(); }
    // "unix:path=/tmp/dbus-...,guid=..."; empty when the daemon did not start.
    QString address() const { return mAddress; }

private:
    QProcess mDaemon;
    QString mAddress;
};
