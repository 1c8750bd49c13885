#include "platform/core/SignalNotifier.h"

#include "platform/log/LogLine.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstring>
#include <unistd.h>

SignalNotifier::SignalNotifier(int readFd, QObject* parent)
    : QObject(parent)
    , mReadFd(readFd)
    , mNotifier(new QSocketNotifier(readFd, QSocketNotifier::Read, this))
{
    connect(mNotifier, &QSocketNotifier::activated, this, &SignalNotifier::readSignals);
}

void SignalNotifier::readSignals()
{
    unsigned char signalNumber = 0;
    bool quit = false;
    while (::read(mReadFd, &signalNumber, 1) == 1) {
        // A closing terminal or a careless "kill -HUP" must not end a service silently; the
        // settings are read once at start, so a reload is a restart.
        if (signalNumber == SIGHUP) {
            LOG_WARN << "received SIGHUP, ignored: settings are read at start only; restart the server to apply new ones";
            continue;
        }
        LOG_INFO << "received SIG" << sigabbrev_np(signalNumber) << ", shutting down";
        quit = true;
    }
    if (quit)
        QCoreApplication::quit();
}
