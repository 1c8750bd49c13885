#include "tests/support/PrivateBus.h"

PrivateBus::PrivateBus()
{
    mDaemon.start(QStringLiteral("dbus-daemon"),
                  {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                   QStringLiteral("--print-address"), QStringLiteral("--address=unix:tmpdir=/tmp")});
    if (!mDaemon.waitForStarted(10000))
        return;
    while (!mDaemon.canReadLine() && mDaemon.waitForReadyRead(10000)) {
    }
    mAddress = QString::fromUtf8(mDaemon.readLine()).trimmed();
}

PrivateBus::~PrivateBus()
{
    mDaemon.terminate();
    if (!mDaemon.waitForFinished(5000))
        mDaemon.kill();
}
