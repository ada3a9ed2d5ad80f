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
// normal thread) and, for every level below normal, the batch policy, whose
// wake-ups never preempt a running thread: below-normal threads (the
// library's loading threads among them) then take a core from a normal one
// only at a tick, never the moment they wake. A thread cannot return to a
// smaller nice value unprivileged; such a change is left as it is. The
// number given is what CurrentThreadPriority reports.
//
// A priority given while the thread is still suspended is applied by the
// thread itself before it waits to be resumed (or by the setter once the
// thread has published its id), so the thread never runs user code, nor
// wakes from its resume, at the creator's priority.
//
// Reusable threads (the library's loaders) park when their entry returns: a
// parked thread waits in one of 32 slots, with its stack size and nice value,
// for a creator that asks for the same two. Taking it is a compare-and-swap
// on the slot and resuming it one futex wake, where a new thread would cost
// the creator a clone and, while the new thread still runs at the creator's
// priority, often its core. When none is parked, a new reusable thread below
// normal is cloned by the spawner, a thread at that priority itself, so the
// clone never runs at the creator's; it is started with the file system and
// runs until process end. A thread parked for ten seconds, or released at
// process end, ends.
// Before parking a thread drops its message queue; its other thread-local
// state is the entry's to leave clean.
#include "platform/posix/posix_internal.h"

#include <cerrno>
#include <climits>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

namespace zk::os::posix {
namespace {

thread_local Object* tCurrentThread = nullptr;

// The slots of parked threads. A slot goes Empty -> Filling -> Idle (a thread
// waits in it) -> Claimed (a creator took it; the thread still waits) -> Go
// (resumed) -> Empty; or Idle -> Empty when the thread leaves, or Idle ->
// Leave -> Empty when the process ends.
enum : uint32_t { kSlotEmpty = 0, kSlotFilling, kSlotIdle, kSlotClaimed, kSlotGo, kSlotLeave };
constexpr uint32_t kParkedSlots = 32;
constexpr int64_t kParkedNanoseconds = 10'000'000'000;

struct ParkedSlot {
    std::atomic<uint32_t> state{kSlotEmpty};
    std::atomic<uint32_t> stackSize{0};
    std::atomic<int> nice{0};
    std::atomic<pid_t> tid{0};
    std::atomic<Object*> object{nullptr};
};

ParkedSlot gParked[kParkedSlots];

// New reusable threads below normal are cloned by a spawner thread of their
// own policy, not by their creator: a clone first runs at its parent's
// priority, and one cloned by a normal thread takes that thread's core. The
// spawner is started ahead (ThreadsPrepareReusable), or else by the first
// such thread, and runs until the process end releases it.
pthread_mutex_t gSpawnLock = PTHREAD_MUTEX_INITIALIZER;
Object* gSpawnList = nullptr;           // objects waiting for a thread, through link
bool gSpawnerRunning = false;           // under gSpawnLock
std::atomic<uint32_t> gSpawnWake{0};    // futex word the spawner sleeps on
std::atomic<bool> gSpawnerLeave{false}; // process end: leave once nothing waits

// The stack a thread gets for stackSize: 0 (the default), or at least the
// system's minimum, whole pages.
uint32_t StackBytes(uint32_t stackSize) {
    if (!stackSize) return 0;
    const size_t least = static_cast<size_t>(PTHREAD_STACK_MIN);
    size_t size = stackSize < least ? least : size_t(stackSize);
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size = (size + page - 1) / page * page;
    return size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
}

void ApplyPriority(pid_t tid, int32_t priority) {
    if (tid <= 0) return;
    // Below normal is also the batch policy, whose wake-ups never preempt a
    // running normal thread (the tick alone shares the core). A real-time
    // policy set elsewhere is left alone.
    const int policy = sched_getscheduler(tid);
    const int wanted = priority < kThreadPriorityNormal ? SCHED_BATCH : SCHED_OTHER;
    if ((policy == SCHED_OTHER || policy == SCHED_BATCH) && policy != wanted) {
        sched_param param{};
        sched_setscheduler(tid, wanted, &param);
    }
    setpriority(PRIO_PROCESS, static_cast<id_t>(tid), NiceForPriority(priority, BaseNiceValue()));
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

// One run of an entry on the calling thread, from the resume to the handle's
// signal. o may be gone afterwards.
void RunEntry(Object* o) {
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
}

// Waits in a free slot for the next thread object to run; null when no slot
// is free, after the idle time, or at process end: the thread then ends.
Object* Park(uint32_t stackSize) {
    QueueReleaseForReuse();
    const pid_t tid = gettid();
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
    if (errno != 0) return nullptr;
    for (ParkedSlot& slot : gParked) {
        uint32_t state = kSlotEmpty;
        if (!slot.state.compare_exchange_strong(state, kSlotFilling, std::memory_order_acq_rel))
            continue;
        slot.stackSize.store(stackSize, std::memory_order_relaxed);
        slot.nice.store(nice, std::memory_order_relaxed);
        slot.tid.store(tid, std::memory_order_relaxed);
        slot.object.store(nullptr, std::memory_order_relaxed);
        slot.state.store(kSlotIdle, std::memory_order_release);
        const int64_t deadline = MonotonicNanoseconds() + kParkedNanoseconds;
        for (;;) {
            state = slot.state.load(std::memory_order_acquire);
            if (state == kSlotGo) {
                Object* o = slot.object.load(std::memory_order_relaxed);
                slot.state.store(kSlotEmpty, std::memory_order_release);
                return o;
            }
            if (state == kSlotClaimed) {
                FutexWait(&slot.state, kSlotClaimed, -1);
                continue;
            }
            // Idle or Leave: leave when told or when the idle time is over,
            // unless a creator claims the slot first.
            if (state == kSlotLeave || MonotonicNanoseconds() >= deadline) {
                if (slot.state.compare_exchange_strong(state, kSlotEmpty,
                                                       std::memory_order_acq_rel))
                    return nullptr;
                continue;
            }
            FutexWait(&slot.state, kSlotIdle, deadline);
        }
    }
    return nullptr;
}

void* ThreadMain(void* argument) {
    auto* o = static_cast<Object*>(argument);
    while (o) {
        const bool reusable = o->reusable;
        const uint32_t stackSize = o->stackSize;
        RunEntry(o);
        o = reusable ? Park(stackSize) : nullptr;
    }
    return nullptr;
}

// Hands o to a parked thread of the stack size and nice value; false when
// none waits.
bool Unpark(Object* o, int nice) {
    for (ParkedSlot& slot : gParked) {
        uint32_t state = kSlotIdle;
        if (slot.state.load(std::memory_order_relaxed) != kSlotIdle ||
            !slot.state.compare_exchange_strong(state, kSlotClaimed, std::memory_order_acq_rel))
            continue;
        if (slot.stackSize.load(std::memory_order_relaxed) != o->stackSize ||
            slot.nice.load(std::memory_order_relaxed) != nice) {
            slot.state.store(kSlotIdle, std::memory_order_release); // not this one
            continue;
        }
        slot.object.store(o, std::memory_order_relaxed); // published by the resume
        o->tid.store(slot.tid.load(std::memory_order_relaxed), std::memory_order_release);
        o->parkedGate = &slot.state;
        return true;
    }
    return false;
}

bool StartPthread(uint32_t stackSize, void* (*main)(void*), void* argument) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (stackSize) pthread_attr_setstacksize(&attr, stackSize);
    pthread_t thread;
    const int failed = pthread_create(&thread, &attr, main, argument);
    pthread_attr_destroy(&attr);
    return failed == 0;
}

// Starts a new thread for o (suspended at its gate); false when the system
// refuses one.
bool StartThread(Object* o) {
    return StartPthread(o->stackSize, &ThreadMain, o);
}

// A thread the system refused after its handle was given out: it ends
// without running its entry, as if the entry had returned at once.
void EndUnstarted(Object* o) {
    o->word.store(1, std::memory_order_seq_cst);
    ObjectSignalled(o, INT_MAX);
    ObjectRelease(o);
}

void* SpawnerMain(void*) {
    ApplyPriority(gettid(), kThreadPriorityBelowNormal);
    for (;;) {
        const uint32_t seen = gSpawnWake.load(std::memory_order_acquire);
        pthread_mutex_lock(&gSpawnLock);
        Object* list = gSpawnList;
        gSpawnList = nullptr;
        if (!list && gSpawnerLeave.load(std::memory_order_acquire)) {
            gSpawnerRunning = false;
            pthread_mutex_unlock(&gSpawnLock);
            return nullptr;
        }
        pthread_mutex_unlock(&gSpawnLock);
        if (!list) {
            FutexWait(&gSpawnWake, seen, -1);
            continue;
        }
        while (list) {
            Object* o = list;
            list = o->link;
            o->link = nullptr;
            if (!StartThread(o)) EndUnstarted(o);
        }
    }
}

// Hands o (null: nothing) to the spawner, starting it when none runs; false
// when the system refuses the spawner (o is then not queued).
bool Spawn(Object* o) {
    pthread_mutex_lock(&gSpawnLock);
    const bool start = !gSpawnerRunning;
    if (start) gSpawnerLeave.store(false, std::memory_order_relaxed);
    if (o) {
        o->link = gSpawnList;
        gSpawnList = o;
    }
    gSpawnerRunning = true;
    pthread_mutex_unlock(&gSpawnLock);
    if (!start) {
        if (!o) return true;
        gSpawnWake.fetch_add(1, std::memory_order_release);
        FutexWake(&gSpawnWake, 1);
        return true;
    }
    if (StartPthread(0, &SpawnerMain, nullptr)) return true;
    pthread_mutex_lock(&gSpawnLock);
    // Nothing else can have been queued meanwhile without a running spawner
    // being assumed; those are given back to their creators' failure too.
    Object* list = gSpawnList;
    gSpawnList = nullptr;
    gSpawnerRunning = false;
    pthread_mutex_unlock(&gSpawnLock);
    for (Object* other = list; other;) {
        Object* next = other->link;
        other->link = nullptr;
        if (other != o) EndUnstarted(other);
        other = next;
    }
    return false;
}

// A thread object for entry, held by its handle and by the thread to come;
// null when the entry is missing or the pool is empty.
Object* TakeThreadObject(uint32_t stackSize, ThreadEntry entry, void* parameter) {
    if (!entry) return nullptr;
    Object* o = ObjectTake(Kind::Thread);
    if (!o) return nullptr;
    o->entry = entry;
    o->parameter = parameter;
    o->stackSize = StackBytes(stackSize);
    o->refs.store(2, std::memory_order_release); // the handle and the running thread
    return o;
}

// Gives back an object whose thread the system refused; null for the caller.
Handle GiveUpThreadObject(Object* o) {
    o->refs.store(1, std::memory_order_relaxed);
    CloseHandle(o);
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
    Object* o = TakeThreadObject(stackSize, entry, parameter);
    if (!o) return nullptr;
    return StartThread(o) ? o : GiveUpThreadObject(o);
}

Handle ThreadCreateReusable(uint32_t stackSize, int32_t priority, ThreadEntry entry,
                            void* parameter) {
    Object* o = TakeThreadObject(stackSize, entry, parameter);
    if (!o) return nullptr;
    o->reusable = true;
    o->priority.store(priority, std::memory_order_relaxed);
    if (Unpark(o, NiceForPriority(priority, BaseNiceValue()))) return o;
    if (priority < kThreadPriorityNormal ? Spawn(o) : StartThread(o)) return o;
    return GiveUpThreadObject(o);
}

void ThreadsPrepareReusable() {
    Spawn(nullptr);
}

void ThreadsReleaseParked() {
    gSpawnerLeave.store(true, std::memory_order_release);
    gSpawnWake.fetch_add(1, std::memory_order_release);
    FutexWake(&gSpawnWake, 1);
    for (ParkedSlot& slot : gParked) {
        uint32_t state = kSlotIdle;
        if (slot.state.compare_exchange_strong(state, kSlotLeave, std::memory_order_acq_rel))
            FutexWake(&slot.state, 1);
    }
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
    if (std::atomic<uint32_t>* gate = o->parkedGate) {
        gate->store(kSlotGo, std::memory_order_release);
        FutexWake(gate, 1);
    } else {
        FutexWake(&o->resumed, 1);
    }
}

void CurrentThreadSetBulk() {
    if (sched_getscheduler(0) != SCHED_OTHER) return;
    sched_param param{};
    sched_setscheduler(0, SCHED_BATCH, &param);
}

uint32_t CurrentProcessor() {
    const int cpu = sched_getcpu();
    return cpu >= 0 ? static_cast<uint32_t>(cpu) : kUnknownProcessor;
}

int32_t CurrentThreadPriority() {
    Object* o = tCurrentThread;
    return o ? o->priority.load(std::memory_order_relaxed) : kThreadPriorityNormal;
}

} // namespace zk::os
