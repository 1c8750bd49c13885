#include "media_server/CallbackTargets.h"

#include <QMutexLocker>

namespace MediaV2 {

namespace {

// Never destroyed: a pipeline still alive while static destructors run may call in.
struct Table {
    QMutex lock;
    QHash<quintptr, QObject*> targets;   // guarded by lock
    quintptr nextId = 1;                 // guarded by lock
};

Table& table()
{
    static Table* const instance = new Table;
    return *instance;
}

} // namespace

quintptr CallbackTargets::add(QObject* target)
{
    QMutexLocker lock(&table().lock);
    const quintptr id = table().nextId++;
    table().targets.insert(id, target);
    return id;
}

void CallbackTargets::remove(quintptr id)
{
    QMutexLocker lock(&table().lock);
    table().targets.remove(id);
}

bool CallbackTargets::reach(quintptr id, const std::function<void(QObject*)>& call)
{
    QMutexLocker lock(&table().lock);
    QObject* target = table().targets.value(id);
    if (!target)
        return false;
    call(target);
    return true;
}

} // namespace MediaV2
