// Threads: created suspended, given a priority, resumed; the handle is a
// waitable object signalled when the entry has returned.
//
// The pthread is created detached and at once blocks on its object until
// ThreadResume, so no user code runs before. The object holds two references,
// the handle's and the running thread's; whichever is dropped last frees it.
//
// Priorities are Windows numbers. Without privileges Linux only lets a thread
// lower itself, so they map onto the thread's nice value relative to the
// process's normal one: below normal (-1) +1, lowest (-2) +2, idle (-15) +19;
// normal and everything above it keep the normal nice value. A thread cannot
// return to a smaller nice value unprivileged; such a change is left as it is.
// The number given is what CurrentThreadPriority reports.
#include "platform/posix/posix_internal.h"

#include <limits.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace zk::os::posix {
namespace {

thread_local Object* tCurrentThread = nullptr;

void ApplyPriority(pid_t tid, int32_t priority) {
    if (tid > 0)
        setpriority(PRIO_PROCESS, static_cast<id_t>(tid),
                    NiceForPriority(priority, BaseNiceValue()));
}

void* ThreadMain(void* argument) {
    auto* o = static_cast<Object*>(argument);
    tCurrentThread = o;
    pthread_mutex_lock(&BackendLock());
    o->tid = gettid();
    while (!o->resumed)
        pthread_cond_wait(&o->cond, &BackendLock());
    ApplyPriority(o->tid, o->priority.load(std::memory_order_relaxed));
    ThreadEntry entry = o->entry;
    void* parameter = o->parameter;
    pthread_mutex_unlock(&BackendLock());

    entry(parameter);

    pthread_mutex_lock(&BackendLock());
    o->ended = true;
    ObjectSignalledLocked(o, true);
    tCurrentThread = nullptr;
    ObjectReleaseLocked(o);
    pthread_mutex_unlock(&BackendLock());
    return nullptr;
}

} // namespace

int NiceForPriority(int32_t priority, int baseNice) {
    int offset = 0;
    if (priority <= -15)
        offset = 19; // idle
    else if (priority <= -2)
        offset = 2;
    else if (priority == -1)
        offset = 1;
    int nice = baseNice + offset;
    return nice > 19 ? 19 : nice;
}

} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

Handle ThreadCreateSuspended(uint32_t stackSize, ThreadEntry entry, void* parameter) {
    if (!entry) return nullptr;
    Object* o = ObjectTake(Kind::Thread);
    if (!o) return nullptr;
    {
        BackendGuard guard;
        o->entry = entry;
        o->parameter = parameter;
        o->refs = 2; // the handle and the running thread
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (stackSize) {
        size_t size = stackSize < PTHREAD_STACK_MIN ? PTHREAD_STACK_MIN : stackSize;
        size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size = (size + page - 1) / page * page;
        pthread_attr_setstacksize(&attr, size);
    }
    pthread_t thread;
    int failed = pthread_create(&thread, &attr, &ThreadMain, o);
    pthread_attr_destroy(&attr);
    if (failed) {
        BackendGuard guard;
        o->refs = 1;
        ObjectReleaseLocked(o);
        return nullptr;
    }
    return o;
}

void ThreadSetPriority(Handle thread, int32_t priority) {
    BackendGuard guard;
    Object* o = ObjectFromHandleLocked(thread, Kind::Thread);
    if (!o) return;
    o->priority.store(priority, std::memory_order_relaxed);
    // A suspended thread applies it itself when resumed.
    if (o->resumed && !o->ended) ApplyPriority(o->tid, priority);
}

void ThreadResume(Handle thread) {
    BackendGuard guard;
    Object* o = ObjectFromHandleLocked(thread, Kind::Thread);
    if (!o || o->resumed) return;
    o->resumed = true;
    pthread_cond_broadcast(&o->cond);
}

int32_t CurrentThreadPriority() {
    Object* o = tCurrentThread;
    return o ? o->priority.load(std::memory_order_relaxed) : kThreadPriorityNormal;
}

} // namespace zk::os
