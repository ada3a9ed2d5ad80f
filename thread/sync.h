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

// A condition object: a critical section, a wake semaphore (maximum 128
// waiters) and the number of threads waiting. Callers wait in a loop that
// re-tests their condition: a wake-up only says something changed.
//
// WakeAll releases exactly one unit per counted waiter and, still inside the
// critical section, waits until each of them has taken its unit (each woken
// waiter answers on a second semaphore before it enters again). A thread can
// only count itself while inside, so one that counts itself after the wake
// can never take a unit meant for a waiter counted before it: no wake-up is
// stolen, and a waiter whose condition came true is never left asleep.
class Monitor {
public:
    int32_t Initialize();
    void Destroy();
    void Enter() { cs_.Enter(); }
    void Leave() { cs_.Leave(); }
    // Called while entered: counts itself, leaves, waits for a unit, enters again.
    void Wait();
    // Called while entered: releases one unit per counted waiter.
    void WakeAll();

private:
    uint32_t waiters_ = 0;
    CriticalSection cs_;
    os::Handle wake_ = nullptr;
    os::Handle woken_ = nullptr; // one unit per waiter that took its wake unit
};

} // namespace zk

#endif // ZK_THREAD_SYNC_H
