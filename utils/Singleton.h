#pragma once

#include "utils/SingletonRegistry.h"

#include <mutex>

// One process-wide instance of T, created on first use by instance() and destroyed by the
// shutdown sequence (SingletonRegistry::destroyAll, run by the platform's finaliser).
//
// Thread: instance() may be called from any thread; creation happens once, on the thread of
// the first caller (QObject singletons therefore belong to that thread: call instance() first
// from the thread that should own the object). After destruction instance() creates a new one.
template <class T>
class Singleton
{
public:
    static T* instance()
    {
        std::lock_guard<std::recursive_mutex> guard(lock());
        if (!object()) {
            object() = new T;
            SingletonRegistry::add(&Singleton<T>::destroy);
        }
        return object();
    }

    static bool exists()
    {
        std::lock_guard<std::recursive_mutex> guard(lock());
        return object() != nullptr;
    }

    static void destroy()
    {
        T* doomed = nullptr;
        {
            std::lock_guard<std::recursive_mutex> guard(lock());
            doomed = object();
            object() = nullptr;
        }
        delete doomed;
    }

private:
    static std::recursive_mutex& lock()
    {
        static std::recursive_mutex mutex;
        return mutex;
    }
    static T*& object()   // guarded by lock()
    {
        static T* instance = nullptr;
        return instance;
    }
};
