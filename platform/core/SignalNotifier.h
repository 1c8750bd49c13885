#pragma once

#include <QObject>

class QSocketNotifier;

// The main-thread end of the quit signals' self-pipe: the signal handler writes the signal
// number into the pipe, this object reads it on the event loop, logs it and quits the loop
// (SIGTERM, SIGINT) or goes on (SIGHUP).
//
// Thread: main thread (child of the QCoreApplication). Owns the socket notifier; the pipe's
// descriptors live for the rest of the process because a handler may write at any moment.
class SignalNotifier : public QObject
{
    Q_OBJECT
public:
    SignalNotifier(int readFd, QObject* parent);

private slots:
    void readSignals();

private:
    int mReadFd;
    QSocketNotifier* mNotifier;
};
