#pragma once

#include <QList>
#include <QMutex>
#include <QString>

#include <functional>

// The process's list of things to do once at shutdown (stop threads, destroy singletons),
// run by finalize() after the event loop has returned, newest registration first: whatever
// was set up last depends on what was set up before it.
//
// Thread: add() from any thread; finalize() from the main thread once no other thread uses
// what the finalisers tear down. mLock guards mEntries and is not held while a finaliser runs.
class Finalizer
{
public:
    static Finalizer* instance();

    void add(const QString& name, std::function<void()> finalizer);
    // Runs every registered finaliser once; finalisers added while it runs are run too.
    void finalize();
    int pendingCount() const;

private:
    Finalizer() = default;
    struct Entry
    {
        QString name;
        std::function<void()> run;
    };
    bool takeNewest(Entry* entry);

    mutable QMutex mLock;
    QList<Entry> mEntries;   // guarded by mLock
};
