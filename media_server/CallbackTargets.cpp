#include "media_server/CallbackTargets.h"

#include <QMutexLocker>

namespace MediaV2 {

namespace {

QMutex sLock;
QHash<quintptr, QObject*> sTargets;   // guarded by sLock
quintptr sNextId = 1;                 // guarded by sLock

} // namespace

quintptr CallbackTargets::add(QObject* target)
{
    QMutexLocker lock(&sLock);
    const quintptr id = sNextId++;
    sTargets.insert(id, target);
    return id;
}

void CallbackTargets::remove(quintptr id)
{
    QMutexLocker lock(&sLock);
    sTargets.remove(id);
}

bool CallbackTargets::reach(quintptr id, const std::function<void(QObject*)>& call)
{
    QMutexLocker lock(&sLock);
    QObject* target = sTargets.value(id);
    if (!target)
        return false;
    call(target);
    return true;
}

} // namespace MediaV2
