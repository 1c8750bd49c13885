#include "tests/support/PrivateBus.h"

PrivateBus::PrivateBus(const QString& configFile)
{
    QStringList args{QStringLiteral("--nofork"), QStringLiteral("--nopidfile"), QStringLiteral("--print-address")};
    if (configFile.isEmpty())
        args << QStringLiteral("--session") << QStringLiteral("--address=unix:tmpdir=/tmp");
    else
        args << QStringLiteral("--config-file=") + configFile;
    mDaemon.start(QStringLiteral("dbus-daemon"), args);
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
