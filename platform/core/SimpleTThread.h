#pragma once

#include <QObject>
#include <QThread>

// A named thread that runs an event loop for the objects moved onto it (the stream cache, file
// writers). The name shows in the log and in the OS thread list.
//
// Thread: created, started and stopped from its owner's thread (normally the main thread).
// Owns nothing but the OS thread and a small object on it that carries the stop request: objects
// moved onto it belong to whoever moved them and must be deleted (deleteLater) before the thread
// stops. With stopAtShutdown the thread stops itself in the platform's finalisation, so its
// objects never outlive the event loop that serves them.
class SimpleTThread : public QThread
{
    Q_OBJECT
public:
    explicit SimpleTThread(const QString& name, bool stopAtShutdown = false, QObject* parent = nullptr);
    // Stops the event loop as stop() does and waits for the thread.
    ~SimpleTThread() override;

    // Ends the event loop after the events already queued and waits for the thread to end.
    // The request travels as one more queued event behind them, so a write asked for before
    // shutdown is never dropped (QThread::quit() alone leaves queued events undelivered).
    void stop();

protected:
    void run() override;

private:
    QObject mStopRequests;   // lives on this thread; receives the queued stop request
};
