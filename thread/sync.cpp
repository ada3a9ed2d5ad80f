// Critical sections, the library lock and monitors over the platform layer.
#include "thread/sync.h"
#include "thread/spin.h"

#include <atomic>
#include <thread>

namespace zk {

int32_t CriticalSection::Initialize() {
    os::CriticalSectionInit(&cs_);
    return 0;
}

void CriticalSection::Delete() {
    os::CriticalSectionDelete(&cs_);
}

namespace {

// The library lock's state: absent, being initialised by one thread, ready.
// A thread that finds it being initialised waits until it is ready, so no
// thread ever enters a critical section that is not yet initialised.
enum LockState : int { kLockAbsent = 0, kLockInitialising = 1, kLockReady = 2 };

CriticalSection g_libraryLock;
std::atomic<int> g_libraryLockState{kLockAbsent};

} // namespace

void LibraryLockInitialize() {
    for (;;) {
        int state = g_libraryLockState.load(std::memory_order_acquire);
        if (state == kLockReady) return;
        if (state == kLockAbsent && g_libraryLockState.compare_exchange_strong(
                                        state, kLockInitialising, std::memory_order_acquire)) {
            g_libraryLock.Initialize();
            g_libraryLockState.store(kLockReady, std::memory_order_release);
            return;
        }
        std::this_thread::yield();
    }
}

void LibraryLockDelete() {
    int ready = kLockReady;
    if (g_libraryLockState.compare_exchange_strong(ready, kLockAbsent, std::memory_order_acq_rel))
        g_libraryLock.Delete();
}

CriticalSection& LibraryLock() {
    LibraryLockInitialize();
    return g_libraryLock;
}

int32_t Monitor::Initialize() {
    waiters_ = 0;
    cs_.Initialize();
    os::ConditionVariableInit(&wake_);
    return 0;
}

void Monitor::Destroy() {
    os::ConditionVariableDelete(&wake_);
    cs_.Delete();
}

void Monitor::Wait() {
    ++waiters_;
    os::ConditionVariableWait(&wake_, &cs_.cs_);
}

void Monitor::WakeAll() {
    if (waiters_ == 0) return;
    waiters_ = 0;
    os::ConditionVariableWakeAll(&wake_);
}

int32_t LightLock::Initialize() {
    state_.store(0, std::memory_order_relaxed);
    return sleepers_.Initialize();
}

void LightLock::Delete() {
    sleepers_.Destroy();
}

void LightLock::EnterContended() {
    // A holder keeps the lock for well under a microsecond: a short spin
    // usually sees it free again without going to sleep.
    for (int i = 0; i < 256; ++i) {
        int expected = 0;
        if (state_.load(std::memory_order_relaxed) == 0 &&
            state_.compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                         std::memory_order_relaxed))
            return;
        CpuPause();
    }
    sleepers_.Enter();
    while (state_.exchange(2, std::memory_order_acquire) != 0)
        sleepers_.Wait();
    sleepers_.Leave();
}

void LightLock::WakeSleepers() {
    sleepers_.Enter();
    sleepers_.WakeAll();
    sleepers_.Leave();
}

} // namespace zk
