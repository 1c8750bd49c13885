#pragma once

#include "platform/core/SimpleTThread.h"

// The thread every threaded file writer of the process works on, so disk latency (a slow SD
// card, a full journal) never holds up the main thread. Created and started on first use,
// stopped by the platform's finalisation.
//
// Thread: thread() may be called from any thread; the first call should come from the main
// thread, which then owns the thread object.
class FileWriterThread : public SimpleTThread
{
    Q_OBJECT
public:
    FileWriterThread();

    // The running writer thread.
    static QThread* thread();
};
