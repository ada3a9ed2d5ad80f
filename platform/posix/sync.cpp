// Semaphores and events: a word in the object, changed with atomics only.
// A semaphore's word is its count of units; an event's is 1 while set.
#include "platform/posix/posix_internal.h"

#include <climits>

namespace zk::os {

using namespace posix;

Handle SemaphoreCreate(int32_t initialCount, int32_t maximumCount) {
    if (initialCount < 0 || maximumCount <= 0 || initialCount > maximumCount) return nullptr;
    Object* o = ObjectTake(Kind::Semaphore);
    if (!o) return nullptr;
    o->maximum = maximumCount;
    o->word.store(initialCount, std::memory_order_release);
    return o;
}

bool SemaphoreRelease(Handle semaphore, int32_t count) {
    if (count <= 0) return false;
    Object* o = ObjectFromHandle(semaphore, Kind::Semaphore);
    if (!o) return false;
    int32_t units = o->word.load(std::memory_order_relaxed);
    do {
        // Compared as a difference so that a huge count cannot overflow.
        if (count > o->maximum - units) return false;
    } while (!o->word.compare_exchange_weak(units, units + count, std::memory_order_seq_cst,
                                            std::memory_order_relaxed));
    ObjectSignalled(o, count);
    return true;
}

Handle EventCreate(bool manualReset, bool initiallySet) {
    Object* o = ObjectTake(Kind::Event);
    if (!o) return nullptr;
    o->manualReset = manualReset;
    o->word.store(initiallySet ? 1 : 0, std::memory_order_release);
    return o;
}

void EventSet(Handle event) {
    Object* o = ObjectFromHandle(event, Kind::Event);
    if (!o || o->word.exchange(1, std::memory_order_seq_cst) != 0) return;
    // An auto-reset event is taken by exactly one waiter: waking one is enough
    // (a woken waiter that finds it taken sleeps again).
    ObjectSignalled(o, o->manualReset ? INT_MAX : 1);
}

void EventReset(Handle event) {
    Object* o = ObjectFromHandle(event, Kind::Event);
    if (o) o->word.store(0, std::memory_order_seq_cst);
}

} // namespace zk::os
