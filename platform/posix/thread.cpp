// Threads: created suspended, given a priority, resumed; the handle is a
// waitable object signalled when the entry has returned.
//
// The pthread is created detached and at once blocks on its object until
// ThreadResume, so no user code runs before. The object holds two references,
// the handle's and the running thread's; whichever is dropped last frees it.
//
// Priorities are Windows numbers. Without privileges Linux only lets a thread
// lower itself, so they map onto the thread's nice value relative to the
// process's normal one: below normal (-1) +5, lowest (-2) +10, idle (-15)
// +19; normal and everything above it keep the normal nice value. Windows
// runs a lower level only when no higher thread is ready; the nearest the
// fair scheduler comes is a clearly smaller share (+5 weighs a third of a
// normal thread), so that below-normal threads (the library's loading
// threads among them) rarely take a core from a normal one when they wake.
// +1 would weigh four fifths and let a waking loader preempt the frame
// thread. A thread cannot return to a smaller nice value unprivileged; such a
// change is left as it is. The number given is what CurrentThreadPriority
// reports.
//
// A priority given while the thread is still suspended is applied by the
// thread itself before it waits to be resumed (or by the setter once the
// thread has published its id), so the thread never runs user code, nor
// wakes from its resume, at the creator's priority.
#include "platform/posix/posix_internal.h"

#include <climits>
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

// Applies the priority asked for, again if it changed meanwhile, so that a
// change racing the thread's start is not lost.
void ApplyCurrentPriority(Object* o) {
    int32_t applied;
    do {
        applied = o->priority.load(std::memory_order_acquire);
        ApplyPriority(o->tid.load(std::memory_order_relaxed), applied);
    } while (o->priority.load(std::memory_order_acquire) != applied);
}

void* ThreadMain(void* argument) {
    auto* o = static_cast<Object*>(argument);
    tCurrentThread = o;
    o->tid.store(gettid(), std::memory_order_release);
    ApplyCurrentPriority(o);
    while (o->resumed.load(std::memory_order_acquire) == 0)
        FutexWait(&o->resumed, 0, -1);
    ApplyCurrentPriority(o);
    ThreadEntry entry = o->entry;
    void* parameter = o->parameter;

    entry(parameter);

    o->word.store(1, std::memory_order_seq_cst); // ended
    ObjectSignalled(o, INT_MAX);
    tCurrentThread = nullptr;
    ObjectRelease(o);
    return nullptr;
}

} // namespace

int NiceForPriority(int32_t priority, int baseNice) {
    int offset = 0;
    if (priority <= -15)
        offset = 19; // idle
    else if (priority <= -2)
        offset = 10;
    else if (priority == -1)
        offset = 5;
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
    o->entry = entry;
    o->parameter = parameter;
    o->refs.store(2, std::memory_order_release); // the handle and the running thread
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (stackSize) {
        const size_t least = static_cast<size_t>(PTHREAD_STACK_MIN);
        size_t size = stackSize < least ? least : size_t(stackSize);
        size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size = (size + page - 1) / page * page;
        pthread_attr_setstacksize(&attr, size);
    }
    pthread_t thread;
    int failed = pthread_create(&thread, &attr, &ThreadMain, o);
    pthread_attr_destroy(&attr);
    if (failed) {
        o->refs.store(1, std::memory_order_relaxed);
        CloseHandle(o);
        return nullptr;
    }
    return o;
}

void ThreadSetPriority(Handle thread, int32_t priority) {
    Object* o = ObjectFromHandle(thread, Kind::Thread);
    if (!o) return;
    o->priority.store(priority, std::memory_order_release);
    // A thread that has not published its id yet applies it itself when it
    // starts; one that has ended has no priority left to change.
    if (o->tid.load(std::memory_order_acquire) > 0 && o->word.load(std::memory_order_acquire) == 0)
        ApplyCurrentPriority(o);
}

void ThreadResume(Handle thread) {
    Object* o = ObjectFromHandle(thread, Kind::Thread);
    if (!o || o->resumed.exchange(1, std::memory_order_acq_rel) != 0) return;
    FutexWake(&o->resumed, 1);
}

int32_t CurrentThreadPriority() {
    Object* o = tCurrentThread;
    return o ? o->priority.load(std::memory_order_relaxed) : kThreadPriorityNormal;
}

} // namespace zk::os
