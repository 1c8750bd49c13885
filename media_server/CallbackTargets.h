#pragma once

#include <QHash>
#include <QMutex>
#include <QObject>

#include <functional>

namespace MediaV2 {

// Lets C callbacks that run on foreign threads (GStreamer's streaming threads) reach a QObject
// that the main thread may delete at any moment. The callbacks carry a number, never a
// pointer: reach() looks the number up and runs the call while holding the table's lock, and
// remove() takes the same lock, so once remove() has returned no callback can still be
// touching the object, and a number that was removed (or never added) reaches nothing. Nothing
// is allocated per registration that a late callback could read after it was freed.
//
// Thread: any. Owns nothing (the objects belong to their owners); the table itself is never
// destroyed, so a late callback at exit still finds it. Lock: one mutex guards the table;
// the call made under it must only post (QMetaObject::invokeMethod queued), never wait.
class CallbackTargets
{
public:
    // A number that reaches target until remove(); never 0 and never handed out twice.
    static quintptr add(QObject* target);
    static void remove(quintptr id);
    // Runs call(target) under the lock when id is registered; false when it is not.
    static bool reach(quintptr id, const std::function<void(QObject*)>& call);
};

} // namespace MediaV2
