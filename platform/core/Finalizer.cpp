#include "platform/core/Finalizer.h"

Finalizer* Finalizer::instance()
{
    static Finalizer finalizer;
    return &finalizer;
}

void Finalizer::add(const QString& name, std::function<void()> finalizer)
{
    QMutexLocker guard(&mLock);
    mEntries.append(Entry{name, std::move(finalizer)});
}

void Finalizer::finalize()
{
    Entry entry;
    while (takeNewest(&entry))
        entry.run();
}

int Finalizer::pendingCount() const
{
    QMutexLocker guard(&mLock);
    return int(mEntries.size());
}

bool Finalizer::takeNewest(Entry* entry)
{
    QMutexLocker guard(&mLock);
    if (mEntries.isEmpty())
        return false;
    *entry = mEntries.takeLast();
    return true;
}
