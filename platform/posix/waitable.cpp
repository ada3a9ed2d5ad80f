// The table of waitable objects (semaphores, events, threads, named mutexes),
// the backend lock, and the two calls common to every handle: Wait and
// CloseHandle.
//
// 1024 objects in static storage with a free list; a handle is the address of
// its object, tagged with its kind, so Wait and CloseHandle serve every kind.
// Closing a handle while another thread still waits on it is not supported.
#include "platform/posix/posix_internal.h"

#include <sys/file.h>
#include <unistd.h>

namespace zk::os::posix {
namespace {

pthread_mutex_t gBackendLock = PTHREAD_MUTEX_INITIALIZER;
Object gObjects[kObjectCount];
Object* gFreeObjects = nullptr;
bool gObjectsBuilt = false;

void BuildObjectsLocked() {
    for (uint32_t i = 0; i < kObjectCount; ++i) {
        gObjects[i].kind = Kind::Free;
        gObjects[i].link = (i + 1 < kObjectCount) ? &gObjects[i + 1] : nullptr;
    }
    gFreeObjects = &gObjects[0];
    gObjectsBuilt = true;
}

// A named mutex is a lock file: waiting on it takes the lock, polling every
// millisecond when a timeout is given.
WaitResult WaitNamedMutex(int fd, uint32_t timeoutMilliseconds) {
    if (timeoutMilliseconds == kInfinite)
        return flock(fd, LOCK_EX) == 0 ? WaitResult::Signaled : WaitResult::Failed;
    int64_t deadline =
        MonotonicNanoseconds() + static_cast<int64_t>(timeoutMilliseconds) * 1000000LL;
    for (;;) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) return WaitResult::Signaled;
        if (MonotonicNanoseconds() >= deadline) return WaitResult::Timeout;
        Sleep(1);
    }
}

} // namespace

pthread_mutex_t& BackendLock() {
    return gBackendLock;
}

Object* ObjectTake(Kind kind) {
    BackendGuard guard;
    if (!gObjectsBuilt) BuildObjectsLocked();
    Object* o = gFreeObjects;
    if (!o) return nullptr;
    gFreeObjects = o->link;
    o->link = nullptr;
    o->kind = kind;
    o->refs = 1;
    o->watchers = 0;
    o->count = o->maximum = 0;
    o->manualReset = o->set = false;
    o->resumed = o->ended = false;
    o->tid = 0;
    o->priority.store(kThreadPriorityNormal, std::memory_order_relaxed);
    o->entry = nullptr;
    o->parameter = nullptr;
    o->fd = -1;
    ConditionInit(&o->cond);
    return o;
}

void ObjectReleaseLocked(Object* o) {
    if (--o->refs != 0) return;
    pthread_cond_destroy(&o->cond);
    o->kind = Kind::Free;
    o->link = gFreeObjects;
    gFreeObjects = o;
}

Object* ObjectFromHandleLocked(Handle handle, Kind kind) {
    auto* o = static_cast<Object*>(handle);
    if (o < &gObjects[0] || o >= &gObjects[0] + kObjectCount) return nullptr;
    if ((reinterpret_cast<uintptr_t>(o) - reinterpret_cast<uintptr_t>(&gObjects[0])) %
            sizeof(Object) !=
        0)
        return nullptr;
    if (o->kind == Kind::Free) return nullptr;
    if (kind != Kind::Free && o->kind != kind) return nullptr;
    return o;
}

bool ObjectTryTakeLocked(Object* o) {
    switch (o->kind) {
    case Kind::Semaphore:
        if (o->count <= 0) return false;
        --o->count;
        return true;
    case Kind::Event:
        if (!o->set) return false;
        if (!o->manualReset) o->set = false;
        return true;
    case Kind::Thread:
        return o->ended;
    default:
        return false;
    }
}

void ObjectSignalledLocked(Object* o, bool wakeAll) {
    if (wakeAll)
        pthread_cond_broadcast(&o->cond);
    else
        pthread_cond_signal(&o->cond);
    if (o->watchers) QueuesWakeWatchersLocked(o);
}

} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

WaitResult Wait(Handle object, uint32_t timeoutMilliseconds) {
    pthread_mutex_lock(&BackendLock());
    Object* o = ObjectFromHandleLocked(object, Kind::Free);
    if (!o) {
        pthread_mutex_unlock(&BackendLock());
        return WaitResult::Failed;
    }
    if (o->kind == Kind::NamedMutex) {
        int fd = o->fd;
        pthread_mutex_unlock(&BackendLock());
        return WaitNamedMutex(fd, timeoutMilliseconds);
    }
    int64_t deadline = -1;
    if (timeoutMilliseconds != kInfinite)
        deadline = MonotonicNanoseconds() + static_cast<int64_t>(timeoutMilliseconds) * 1000000LL;
    WaitResult result = WaitResult::Signaled;
    while (!ObjectTryTakeLocked(o)) {
        if (timeoutMilliseconds == 0) {
            result = WaitResult::Timeout;
            break;
        }
        // On a timeout the state is tested once more: a signal that raced the
        // timeout is taken rather than lost.
        if (!ConditionWait(&o->cond, &BackendLock(), deadline)) {
            result = ObjectTryTakeLocked(o) ? WaitResult::Signaled : WaitResult::Timeout;
            break;
        }
    }
    pthread_mutex_unlock(&BackendLock());
    return result;
}

void CloseHandle(Handle object) {
    if (!object) return;
    BackendGuard guard;
    Object* o = ObjectFromHandleLocked(object, Kind::Free);
    if (!o) return;
    if (o->kind == Kind::NamedMutex && o->fd >= 0) {
        close(o->fd); // releases the lock if this handle held it
        o->fd = -1;
    }
    ObjectReleaseLocked(o);
}

} // namespace zk::os
