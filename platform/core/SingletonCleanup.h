#pragma once

// Destroys the process's singletons (see utils/Singleton.h) as one step of the platform's
// finalisation. The step is registered when the platform library loads, before anything else
// can register, so it runs last: every other finaliser may still use singletons.
//
// Thread: run() from the main thread during Finalizer::finalize().
class SingletonCleanup
{
public:
    SingletonCleanup();
    static void run();
};
