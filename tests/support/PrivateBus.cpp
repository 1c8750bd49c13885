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

QByteArray PrivateBus::systemConfigWith(const QString& policyFile)
{
    return QStringLiteral(
               "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>system</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>\n"
               "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\"/>"
               "<allow receive_sender=\"*\"/></policy>\n<include>%1</include></busconfig>\n")
        .arg(policyFile)
        .toUtf8();
}
