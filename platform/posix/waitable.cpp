// The waitable objects (semaphores, events, threads, named mutexes) and the
// two calls common to every handle: Wait and CloseHandle.
//
// Each kind has a pool of objects in static storage with a free list; a
// handle is the address of its object, so Wait and CloseHandle serve every
// kind. Only taking and giving back an object lock its pool; waiting and
// signalling work on the object's atomics alone.
//
// A waiter first tries to take the signal in user space (and spins briefly
// when the object is busy), then counts itself a sleeper and sleeps on the
// object's wake sequence. A signal changes the object's word and, only when
// sleepers are counted, bumps the wake sequence and wakes them. Counting
// comes before the last test and the change before the count is read (both
// sequentially consistent), so either the sleeper sees the signal or the
// signaller sees the sleeper.
//
// Closing a handle while threads wait on it: the generation changes, the wake
// sequence is bumped and every sleeper is woken; each sees the new generation
// and returns WaitResult::Failed. The closer never waits for them, and the
// object may be taken again at once (its atomics stay valid storage).
#include "platform/posix/posix_internal.h"

#include <linux/futex.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace zk::os::posix {
namespace {

struct Pool {
    Kind kind;
    uint32_t first; // index range in gObjects
    uint32_t count;
    pthread_mutex_t lock;
    Object* free;
    bool built;
};

constexpr uint32_t kSemaphores = 512;
constexpr uint32_t kEvents = 256;
constexpr uint32_t kThreads = 256;
constexpr uint32_t kNamedMutexes = 64;
constexpr uint32_t kObjects = kSemaphores + kEvents + kThreads + kNamedMutexes;

Object gObjects[kObjects];
Pool gPools[] = {
    {Kind::Semaphore, 0, kSemaphores, PTHREAD_MUTEX_INITIALIZER, nullptr, false},
    {Kind::Event, kSemaphores, kEvents, PTHREAD_MUTEX_INITIALIZER, nullptr, false},
    {Kind::Thread, kSemaphores + kEvents, kThreads, PTHREAD_MUTEX_INITIALIZER, nullptr, false},
    {Kind::NamedMutex, kSemaphores + kEvents + kThreads, kNamedMutexes, PTHREAD_MUTEX_INITIALIZER,
     nullptr, false},
};

Pool& PoolOf(Kind kind) {
    return gPools[static_cast<uint32_t>(kind) - 1];
}

// How often a waiter re-tests a busy object before it sleeps: a guard held
// for a few instructions by another core is usually free again by then.
constexpr int kSpins = 200;

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
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

bool FutexWait(std::atomic<uint32_t>* word, uint32_t expected, int64_t deadline) {
    timespec ts;
    timespec* until = nullptr;
    if (deadline >= 0) {
        ts = ToTimespec(deadline);
        until = &ts;
    }
    long r = syscall(SYS_futex, reinterpret_cast<uint32_t*>(word),
                     FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected, until, nullptr,
                     FUTEX_BITSET_MATCH_ANY);
    return !(r != 0 && errno == ETIMEDOUT);
}

void FutexWake(std::atomic<uint32_t>* word, int32_t count) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count,
            nullptr, nullptr, 0);
}

Object* ObjectTake(Kind kind) {
    Pool& pool = PoolOf(kind);
    pthread_mutex_lock(&pool.lock);
    if (!pool.built) {
        for (uint32_t i = 0; i < pool.count; ++i)
            gObjects[pool.first + i].link =
                i + 1 < pool.count ? &gObjects[pool.first + i + 1] : nullptr;
        pool.free = &gObjects[pool.first];
        pool.built = true;
    }
    Object* o = pool.free;
    if (o) {
        pool.free = o->link;
        o->link = nullptr;
    }
    pthread_mutex_unlock(&pool.lock);
    if (!o) return nullptr;
    o->word.store(0, std::memory_order_relaxed);
    o->maximum = 0;
    o->manualReset = false;
    o->refs.store(1, std::memory_order_relaxed);
    o->resumed.store(0, std::memory_order_relaxed);
    o->tid.store(0, std::memory_order_relaxed);
    o->priority.store(kThreadPriorityNormal, std::memory_order_relaxed);
    o->entry = nullptr;
    o->parameter = nullptr;
    o->stackSize = 0;
    o->reusable = false;
    o->parkedGate = nullptr;
    o->fd = -1;
    o->kind.store(kind, std::memory_order_relaxed);
    // Publishes the cleared state with the handle.
    o->open.store(1, std::memory_order_release);
    return o;
}

void ObjectRelease(Object* o) {
    if (o->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    Pool& pool = PoolOf(o->kind.load(std::memory_order_relaxed));
    pthread_mutex_lock(&pool.lock);
    o->link = pool.free;
    pool.free = o;
    pthread_mutex_unlock(&pool.lock);
}

Object* ObjectFromHandle(Handle handle, Kind kind) {
    auto address = reinterpret_cast<uintptr_t>(handle);
    auto base = reinterpret_cast<uintptr_t>(&gObjects[0]);
    if (address < base || address >= base + sizeof(gObjects)) return nullptr;
    if ((address - base) % sizeof(Object) != 0) return nullptr;
    auto* o = static_cast<Object*>(handle);
    if (o->open.load(std::memory_order_acquire) == 0) return nullptr;
    if (kind != Kind::Free && o->kind.load(std::memory_order_relaxed) != kind) return nullptr;
    return o;
}

bool ObjectTryTake(Object* o) {
    switch (o->kind.load(std::memory_order_relaxed)) {
    case Kind::Semaphore: {
        int32_t units = o->word.load(std::memory_order_relaxed);
        while (units > 0)
            if (o->word.compare_exchange_weak(units, units - 1, std::memory_order_seq_cst,
                                              std::memory_order_relaxed))
                return true;
        return false;
    }
    case Kind::Event: {
        if (o->manualReset) return o->word.load(std::memory_order_seq_cst) != 0;
        int32_t set = 1;
        return o->word.load(std::memory_order_relaxed) == 1 &&
               o->word.compare_exchange_strong(set, 0, std::memory_order_seq_cst);
    }
    case Kind::Thread:
        return o->word.load(std::memory_order_seq_cst) != 0;
    default:
        return false;
    }
}

void ObjectSignalled(Object* o, int32_t count) {
    if (o->sleepers.load(std::memory_order_seq_cst) != 0) {
        o->wake.fetch_add(1, std::memory_order_seq_cst);
        FutexWake(&o->wake, count);
    }
    if (o->watchers.load(std::memory_order_seq_cst) != 0) QueuesWakeWatchers(o);
}

} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

WaitResult Wait(Handle object, uint32_t timeoutMilliseconds) {
    Object* o = ObjectFromHandle(object, Kind::Free);
    if (!o) return WaitResult::Failed;
    const uint32_t generation = o->generation.load(std::memory_order_seq_cst);
    if (o->open.load(std::memory_order_seq_cst) == 0) return WaitResult::Failed;
    if (o->kind.load(std::memory_order_relaxed) == Kind::NamedMutex)
        return WaitNamedMutex(o->fd, timeoutMilliseconds);
    if (ObjectTryTake(o)) return WaitResult::Signaled;
    if (timeoutMilliseconds == 0) return WaitResult::Timeout;
    for (int spin = 0; spin < kSpins; ++spin) {
        CpuRelax();
        if (o->generation.load(std::memory_order_relaxed) != generation) return WaitResult::Failed;
        if (ObjectTryTake(o)) return WaitResult::Signaled;
    }
    int64_t deadline = -1;
    if (timeoutMilliseconds != kInfinite)
        deadline = MonotonicNanoseconds() + static_cast<int64_t>(timeoutMilliseconds) * 1000000LL;
    o->sleepers.fetch_add(1, std::memory_order_seq_cst);
    WaitResult result;
    for (;;) {
        uint32_t wake = o->wake.load(std::memory_order_seq_cst);
        if (o->generation.load(std::memory_order_seq_cst) != generation) {
            result = WaitResult::Failed;
            break;
        }
        if (ObjectTryTake(o)) {
            result = WaitResult::Signaled;
            break;
        }
        // On a timeout the state is tested once more: a signal that raced the
        // timeout is taken rather than lost.
        if (!FutexWait(&o->wake, wake, deadline)) {
            result = o->generation.load(std::memory_order_seq_cst) != generation
                         ? WaitResult::Failed
                     : ObjectTryTake(o) ? WaitResult::Signaled
                                        : WaitResult::Timeout;
            break;
        }
    }
    o->sleepers.fetch_sub(1, std::memory_order_relaxed);
    return result;
}

void CloseHandle(Handle object) {
    if (!object) return;
    Object* o = ObjectFromHandle(object, Kind::Free);
    if (!o) return;
    uint32_t wasOpen = 1;
    if (!o->open.compare_exchange_strong(wasOpen, 0, std::memory_order_seq_cst)) return;
    if (o->kind.load(std::memory_order_relaxed) == Kind::NamedMutex && o->fd >= 0) {
        close(o->fd); // releases the lock if this handle held it
        o->fd = -1;
    }
    // Every thread still waiting on the handle wakes and fails.
    o->generation.fetch_add(1, std::memory_order_seq_cst);
    o->wake.fetch_add(1, std::memory_order_seq_cst);
    FutexWake(&o->wake, INT_MAX);
    if (o->watchers.load(std::memory_order_seq_cst) != 0) QueuesWakeWatchers(o);
    ObjectRelease(o);
}

} // namespace zk::os
