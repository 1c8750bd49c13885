#include "utils/SingletonRegistry.h"

#include <mutex>
#include <vector>

namespace {

std::mutex& registryLock()
{
    static std::mutex lock;
    return lock;
}

std::vector<std::function<void()>>& destroyers()   // guarded by registryLock()
{
    static std::vector<std::function<void()>> list;
    return list;
}

bool popNewest(std::function<void()>* destroy)
{
    std::lock_guard<std::mutex> guard(registryLock());
    if (destroyers().empty())
        return false;
    *destroy = std::move(destroyers().back());
    destroyers().pop_back();
    return true;
}

} // namespace

void SingletonRegistry::add(std::function<void()> destroy)
{
    std::lock_guard<std::mutex> guard(registryLock());
    destroyers().push_back(std::move(destroy));
}

void SingletonRegistry::destroyAll()
{
    // The lock is not held while a destructor runs: destructors may create or look up other
    // singletons.
    std::function<void()> destroy;
    while (popNewest(&destroy))
        destroy();
}

int SingletonRegistry::count()
{
    std::lock_guard<std::mutex> guard(registryLock());
    return int(destroyers().size());
}
