// Semaphores and events: counters and flags in the waitable-object table,
// changed under the backend lock.
#include "platform/posix/posix_internal.h"

namespace zk::os {

using namespace posix;

Handle SemaphoreCreate(int32_t initialCount, int32_t maximumCount) {
    if (initialCount < 0 || maximumCount <= 0 || initialCount > maximumCount) return nullptr;
    Object* o = ObjectTake(Kind::Semaphore);
    if (!o) return nullptr;
    BackendGuard guard;
    o->count = initialCount;
    o->maximum = maximumCount;
    return o;
}

bool SemaphoreRelease(Handle semaphore, int32_t count) {
    if (count <= 0) return false;
    BackendGuard guard;
    Object* o = ObjectFromHandleLocked(semaphore, Kind::Semaphore);
    if (!o) return false;
    // Compared as a difference so that a huge count cannot overflow.
    if (count > o->maximum - o->count) return false;
    o->count += count;
    ObjectSignalledLocked(o, count > 1);
    return true;
}

Handle EventCreate(bool manualReset, bool initiallySet) {
    Object* o = ObjectTake(Kind::Event);
    if (!o) return nullptr;
    BackendGuard guard;
    o->manualReset = manualReset;
    o->set = initiallySet;
    return o;
}

void EventSet(Handle event) {
    BackendGuard guard;
    Object* o = ObjectFromHandleLocked(event, Kind::Event);
    if (!o || o->set) return;
    o->set = true;
    // An auto-reset event is taken by exactly one waiter: waking one is enough
    // (a woken waiter that finds it taken waits again).
    ObjectSignalledLocked(o, o->manualReset);
}

void EventReset(Handle event) {
    BackendGuard guard;
    Object* o = ObjectFromHandleLocked(event, Kind::Event);
    if (o) o->set = false;
}

} // namespace zk::os
