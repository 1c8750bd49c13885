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
        LOG_INFO << "received SIG" << sigabbrev_np(signalNumber) << ", shutting down";
        quit = true;
    }
    if (quit)
        QCoreApplication::quit();
}
