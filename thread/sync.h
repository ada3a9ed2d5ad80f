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

// Enters on construction, leaves on destruction.
class ScopedLock {
public:
    explicit ScopedLock(CriticalSection& cs) : cs_(cs) { cs_.Enter(); }
    ~ScopedLock() { cs_.Leave(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    CriticalSection& cs_;
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

private:
    uint32_t waiters_ = 0;
    CriticalSection cs_;
    os::ConditionVariable wake_{};
};

} // namespace zk

#endif // ZK_THREAD_SYNC_H
