#include "platform/service/SystemdNotifier.h"

#include "platform/datavalue/DataValue.h"
#include "platform/log/LogLine.h"

#include <systemd/sd-daemon.h>

#include <cstring>

SystemdNotifier::SystemdNotifier(QObject* parent)
    : QObject(parent)
{
    connect(&mWatchdog, &QTimer::timeout, this, &SystemdNotifier::kickWatchdog);
}

bool SystemdNotifier::listening()
{
    return !qEnvironmentVariableIsEmpty("NOTIFY_SOCKET");
}

void SystemdNotifier::ready(const QString& status)
{
    if (!listening())
        return;
    notify("READY=1\nSTATUS=" + status.toUtf8());
    uint64_t periodUs = 0;
    if (sd_watchdog_enabled(0, &periodUs) > 0) {
        // Half the period, as systemd advises: one late kick is not yet a missed one.
        mWatchdog.start(int(qBound<uint64_t>(1, periodUs / 2000, INT_MAX)));
        kickWatchdog();
    }
    LOG_INFO << "told systemd the service is ready" << (mWatchdog.isActive() ? ", watchdog kicked every " : "")
             << (mWatchdog.isActive() ? QString::number(mWatchdog.interval()) + QStringLiteral(" ms") : QString());
}

void SystemdNotifier::setStatus(const QString& status)
{
    if (listening())
        notify("STATUS=" + status.toUtf8());
}

void SystemdNotifier::stopping()
{
    mWatchdog.stop();
    if (listening())
        notify("STOPPING=1");
}

void SystemdNotifier::followStatus(DataValue* value, const QString& prefix)
{
    mStatusPrefix = prefix;
    connect(value, &DataValue::valueChanged, this, &SystemdNotifier::statusValueChanged);
}

void SystemdNotifier::statusValueChanged(DataValue* value)
{
    setStatus(mStatusPrefix + value->toString());
}

void SystemdNotifier::kickWatchdog()
{
    notify("WATCHDOG=1");
}

void SystemdNotifier::notify(const QByteArray& state)
{
    const int result = sd_notify(0, state.constData());
    if (result < 0 && !mFailureLogged) {
        mFailureLogged = true;
        LOG_WARN << "cannot notify systemd through " << qEnvironmentVariable("NOTIFY_SOCKET") << ": " << std::strerror(-result);
    }
}
