// Synchronisation building blocks used across the library: the critical
// section wrapper, the library-wide lock and the monitor.
//
// LibraryLock: one critical section for the whole library. It guards taking
// and giving back records of every fixed table and the lock counts of memory
// blocks, and only for that step. It is a leaf lock: nothing else is locked
// and no callback runs while it is held.
#ifndef ZK_THREAD_SYNC_H
#define ZK_THREAD_SYNC_H

#include "platform/platform.h"

#include <atomic>
#include <cstdint>

namespace zk {

class CriticalSection {
public:
    int32_t Initialize();
    void Delete();
    void Enter() { os::CriticalSectionEnter(&cs_); }
    void Leave() { os::CriticalSectionLeave(&cs_); }

private:
    friend class Monitor;
    os::CriticalSection cs_{};
};

// Enters on construction, leaves on destruction; works with any lock that
// has Enter and Leave.
template <typename Lock> class ScopedLock {
public:
    explicit ScopedLock(Lock& lock) : lock_(lock) { lock_.Enter(); }
    ~ScopedLock() { lock_.Leave(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    Lock& lock_;
};

// The library-wide lock. Initialised at process begin, deleted at process end;
// it is also initialised on first use so that tables used before process begin
// (by tests, or by applications that skip it) still lock.
CriticalSection& LibraryLock();
void LibraryLockInitialize();
void LibraryLockDelete();

// A condition object: a critical section, a condition variable and the number
// of threads waiting. Callers wait in a loop that re-tests their condition: a
// wake-up only says something changed.
//
// A waiter counts itself and falls asleep in one step with respect to the
// critical section (the condition variable leaves it only once the thread is
// queued to sleep), and WakeAll is called inside it: every thread counted
// before a wake is woken by it, none is left asleep, and nobody waits for the
// woken threads to answer. WakeAll with nobody counted does nothing.
class Monitor {
public:
    int32_t Initialize();
    void Destroy();
    void Enter() { cs_.Enter(); }
    void Leave() { cs_.Leave(); }
    // Called while entered: counts itself, leaves, sleeps, enters again.
    void Wait();
    // Called while entered: wakes every counted waiter.
    void WakeAll();
    // Called while entered: sleeps on a condition variable of the caller's
    // own instead of the shared one (leaves, sleeps, enters again), so that a
    // wake meant for this one thread (os::ConditionVariableWakeAll on that
    // variable, made while entered) reaches nobody else. Not counted.
    void WaitOn(os::ConditionVariable* own) { os::ConditionVariableWait(own, &cs_.cs_); }

private:
    uint32_t waiters_ = 0;
    CriticalSection cs_;
    os::ConditionVariable wake_{};
};

// A lock for short, hot sections that are never re-entered by the thread
// holding them (a memory pool's engine steps): an atomic word taken and given
// back in user space, so an uncontended Enter/Leave pair is two atomic
// operations and no system call. A thread that finds it taken spins briefly,
// then sleeps on a monitor until the holder gives it back.
//
// The word is 0 (free), 1 (taken, nobody asleep) or 2 (taken, someone may be
// asleep). A sleeper marks the word 2 before it sleeps, inside the monitor,
// and the holder that gives back a 2 wakes the monitor's sleepers: either
// the sleeper's mark came first, and the holder wakes it, or the holder's
// release came first, and the sleeper's mark took the lock instead. A thread
// that took the lock by marking it 2 keeps the mark, so its own Leave wakes
// whoever may still sleep.
//
// Not recursive: Enter by the thread that holds the lock deadlocks.
class LightLock {
public:
    int32_t Initialize();
    void Delete();
    void Enter() {
        int expected = 0;
        if (!state_.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                            std::memory_order_relaxed))
            EnterContended();
    }
    void Leave() {
        if (state_.exchange(0, std::memory_order_release) == 2) WakeSleepers();
    }

private:
    void EnterContended();
    void WakeSleepers();

    std::atomic<int> state_{0};
    Monitor sleepers_;
};

} // namespace zk

#endif // ZK_THREAD_SYNC_H
