#pragma once

#include <functional>

// Remembers how to destroy every singleton created through Singleton<T>, so that process
// shutdown can destroy them in the reverse order of their creation (a singleton created later
// may use one created earlier, never the other way round).
//
// Thread: any; the list is guarded by an internal mutex. destroyAll() must run when no other
// thread uses the singletons any more (the shutdown sequence runs it from the main thread).
class SingletonRegistry
{
public:
    static void add(std::function<void()> destroy);
    // Runs every registered destroyer once, newest first; destroyers registered while this
    // runs are run too. Safe to call more than once.
    static void destroyAll();
    static int count();
};
