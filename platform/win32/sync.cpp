// Critical sections, condition variables and the waitable objects:
// semaphores, events and the one wait and close operations that serve every
// handle of this layer.
//
// A semaphore is a count in user space in front of a kernel semaphore (made
// with CreateSemaphoreA): the count is the units available, or, below zero,
// minus the threads that need a kernel unit. Waiting takes a unit with one
// atomic step and goes to the kernel only when none is left; releasing adds
// units and releases the kernel semaphore only for threads counted as
// waiting. The maximum is kept in user space; the kernel semaphore, created
// once per record with the largest maximum, stays with its record.
//
// Closing a semaphore while threads wait on it: its count becomes the closed
// mark, one kernel unit is released for each counted waiter, and each returns
// WaitResult::Failed when it sees the changed generation. The closer never
// waits; the record goes back to the free list when the last thread that was
// inside a slow wait has left. Semaphore handles are record addresses with the
// low bit set, which no kernel handle has, so Wait and CloseHandle tell them
// apart.
#include "platform/platform.h"

#include <windows.h>

#include <atomic>
#include <climits>

namespace zk::os {

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(CriticalSection::storage),
              "a CRITICAL_SECTION must fit the embedded storage");
static_assert(alignof(CRITICAL_SECTION) <= alignof(CriticalSection),
              "the embedded storage must be aligned for a CRITICAL_SECTION");

namespace {
CRITICAL_SECTION* Native(CriticalSection* cs) {
    return reinterpret_cast<CRITICAL_SECTION*>(cs->storage);
}
} // namespace

void CriticalSectionInit(CriticalSection* cs) {
    InitializeCriticalSection(Native(cs));
}
void CriticalSectionDelete(CriticalSection* cs) {
    DeleteCriticalSection(Native(cs));
}
void CriticalSectionEnter(CriticalSection* cs) {
    EnterCriticalSection(Native(cs));
}
void CriticalSectionLeave(CriticalSection* cs) {
    LeaveCriticalSection(Native(cs));
}

static_assert(sizeof(CONDITION_VARIABLE) <= sizeof(ConditionVariable::storage),
              "a CONDITION_VARIABLE must fit the embedded storage");

namespace {
CONDITION_VARIABLE* Native(ConditionVariable* cv) {
    return reinterpret_cast<CONDITION_VARIABLE*>(cv->storage);
}
} // namespace

void ConditionVariableInit(ConditionVariable* cv) {
    InitializeConditionVariable(Native(cv));
}
void ConditionVariableDelete(ConditionVariable*) {}
void ConditionVariableWait(ConditionVariable* cv, CriticalSection* cs) {
    SleepConditionVariableCS(Native(cv), Native(cs), INFINITE);
}
void ConditionVariableWakeAll(ConditionVariable* cv) {
    WakeAllConditionVariable(Native(cv));
}

namespace {

constexpr int32_t kClosed = INT32_MIN / 2; // the count of a closed semaphore
constexpr uint32_t kSemaphores = 512;

struct Semaphore {
    std::atomic<int32_t> count;
    std::atomic<uint32_t> generation;
    std::atomic<uint32_t> open;
    std::atomic<uint32_t> inside;   // threads in a slow wait
    std::atomic<uint32_t> returned; // 1 once given back to the free list
    int32_t maximum;
    HANDLE kernel;
    Semaphore* link;
};

Semaphore gSemaphores[kSemaphores];
Semaphore* gFreeSemaphores = nullptr;
bool gSemaphoresBuilt = false;
SRWLOCK gSemaphoreLock = SRWLOCK_INIT; // taking and giving back records only

Handle HandleOf(Semaphore* s) {
    return reinterpret_cast<Handle>(reinterpret_cast<uintptr_t>(s) | 1u);
}

Semaphore* SemaphoreOf(Handle handle) {
    auto address = reinterpret_cast<uintptr_t>(handle);
    if ((address & 1u) == 0) return nullptr;
    address &= ~uintptr_t(1);
    auto base = reinterpret_cast<uintptr_t>(&gSemaphores[0]);
    if (address < base || address >= base + sizeof(gSemaphores) ||
        (address - base) % sizeof(Semaphore) != 0)
        return nullptr;
    return reinterpret_cast<Semaphore*>(address);
}

void GiveBack(Semaphore* s) {
    uint32_t no = 0;
    if (!s->returned.compare_exchange_strong(no, 1, std::memory_order_acq_rel)) return;
    AcquireSRWLockExclusive(&gSemaphoreLock);
    s->link = gFreeSemaphores;
    gFreeSemaphores = s;
    ReleaseSRWLockExclusive(&gSemaphoreLock);
}

WaitResult LeaveSlowWait(Semaphore* s, WaitResult result) {
    if (s->inside.fetch_sub(1, std::memory_order_acq_rel) == 1 &&
        !s->open.load(std::memory_order_acquire))
        GiveBack(s);
    return result;
}

// The kernel gave a unit: the waiter's own, or, once the semaphore was
// closed, one of the close's.
WaitResult KernelUnitTaken(Semaphore* s, uint32_t generation) {
    return s->generation.load(std::memory_order_acquire) == generation ? WaitResult::Signaled
                                                                       : WaitResult::Failed;
}

WaitResult SemaphoreWait(Semaphore* s, uint32_t timeoutMilliseconds) {
    // Fast path: a unit is there, taken in user space.
    int32_t count = s->count.load(std::memory_order_acquire);
    while (count > 0)
        if (s->count.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel))
            return WaitResult::Signaled;
    if (count <= kClosed / 2 || !s->open.load(std::memory_order_acquire)) return WaitResult::Failed;
    if (timeoutMilliseconds == 0) return WaitResult::Timeout;

    s->inside.fetch_add(1, std::memory_order_acq_rel);
    const uint32_t generation = s->generation.load(std::memory_order_acquire);
    if (!s->open.load(std::memory_order_acquire)) return LeaveSlowWait(s, WaitResult::Failed);
    int32_t before = s->count.fetch_sub(1, std::memory_order_acq_rel);
    if (before > 0) return LeaveSlowWait(s, WaitResult::Signaled);
    if (before <= kClosed / 2) return LeaveSlowWait(s, WaitResult::Failed); // the mark absorbs it
    if (WaitForSingleObject(s->kernel, timeoutMilliseconds) == WAIT_OBJECT_0)
        return LeaveSlowWait(s, KernelUnitTaken(s, generation));
    // Timed out: withdraw from the count, unless a release or the close has
    // already counted this thread, in which case its kernel unit is on its way.
    count = s->count.load(std::memory_order_acquire);
    for (;;) {
        if (count >= 0 || count <= kClosed / 2) {
            WaitForSingleObject(s->kernel, INFINITE);
            return LeaveSlowWait(s, KernelUnitTaken(s, generation));
        }
        if (s->count.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel))
            return LeaveSlowWait(s, WaitResult::Timeout);
    }
}

void SemaphoreClose(Semaphore* s) {
    uint32_t wasOpen = 1;
    if (!s->open.compare_exchange_strong(wasOpen, 0, std::memory_order_acq_rel)) return;
    s->generation.fetch_add(1, std::memory_order_acq_rel);
    int32_t count = s->count.exchange(kClosed, std::memory_order_acq_rel);
    if (count < 0) ReleaseSemaphore(s->kernel, -count, nullptr);
    if (s->inside.load(std::memory_order_acquire) == 0) GiveBack(s);
}

} // namespace

WaitResult Wait(Handle object, uint32_t timeoutMilliseconds) {
    if (!object) return WaitResult::Failed;
    if (Semaphore* s = SemaphoreOf(object)) return SemaphoreWait(s, timeoutMilliseconds);
    switch (WaitForSingleObject(object, timeoutMilliseconds)) {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED: // a mutex whose holder died: the caller owns it now
        return WaitResult::Signaled;
    case WAIT_TIMEOUT:
        return WaitResult::Timeout;
    default:
        return WaitResult::Failed;
    }
}

void CloseHandle(Handle object) {
    if (!object) return;
    if (Semaphore* s = SemaphoreOf(object))
        SemaphoreClose(s);
    else
        ::CloseHandle(object);
}

Handle SemaphoreCreate(int32_t initialCount, int32_t maximumCount) {
    if (initialCount < 0 || maximumCount <= 0 || initialCount > maximumCount) return nullptr;
    AcquireSRWLockExclusive(&gSemaphoreLock);
    if (!gSemaphoresBuilt) {
        for (uint32_t i = 0; i < kSemaphores; ++i)
            gSemaphores[i].link = i + 1 < kSemaphores ? &gSemaphores[i + 1] : nullptr;
        gFreeSemaphores = &gSemaphores[0];
        gSemaphoresBuilt = true;
    }
    Semaphore* s = gFreeSemaphores;
    if (s) gFreeSemaphores = s->link;
    ReleaseSRWLockExclusive(&gSemaphoreLock);
    if (!s) return nullptr;
    s->returned.store(0, std::memory_order_relaxed);
    if (!s->kernel) s->kernel = CreateSemaphoreA(nullptr, 0, LONG_MAX, nullptr);
    if (!s->kernel) {
        GiveBack(s);
        return nullptr;
    }
    s->link = nullptr;
    s->maximum = maximumCount;
    s->count.store(initialCount, std::memory_order_relaxed);
    s->open.store(1, std::memory_order_release);
    return HandleOf(s);
}

bool SemaphoreRelease(Handle semaphore, int32_t count) {
    Semaphore* s = SemaphoreOf(semaphore);
    if (!s || count <= 0 || !s->open.load(std::memory_order_acquire)) return false;
    int32_t before = s->count.load(std::memory_order_acquire);
    do {
        if (before <= kClosed / 2) return false;
        if (int64_t(before) + count > s->maximum) return false;
    } while (!s->count.compare_exchange_weak(before, before + count, std::memory_order_acq_rel));
    // Threads counted below zero are asleep (or about to be): one kernel unit each.
    if (before < 0) ReleaseSemaphore(s->kernel, -before < count ? -before : count, nullptr);
    return true;
}

Handle EventCreate(bool manualReset, bool initiallySet) {
    return CreateEventA(nullptr, manualReset, initiallySet, nullptr);
}

void EventSet(Handle event) {
    if (event) SetEvent(event);
}

void EventReset(Handle event) {
    if (event) ResetEvent(event);
}

} // namespace zk::os
