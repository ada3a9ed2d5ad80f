// Critical sections, the library lock and monitors over the platform layer.
#include "thread/sync.h"

#include <atomic>

namespace zk {

int32_t CriticalSection::Initialize() {
    os::CriticalSectionInit(&cs_);
    return 0;
}

void CriticalSection::Delete() { os::CriticalSectionDelete(&cs_); }

namespace {
CriticalSection g_libraryLock;
std::atomic<bool> g_libraryLockReady{false};
} // namespace

void LibraryLockInitialize() {
    if (!g_libraryLockReady.exchange(true)) g_libraryLock.Initialize();
}

void LibraryLockDelete() {
    if (g_libraryLockReady.exchange(false)) g_libraryLock.Delete();
}

CriticalSection& LibraryLock() {
    LibraryLockInitialize();
    return g_libraryLock;
}

int32_t Monitor::Initialize() {
    waiters_ = 0;
    cs_.Initialize();
    wake_ = os::SemaphoreCreate(0, 128);
    return 0;
}

void Monitor::Destroy() {
    if (wake_) {
        os::CloseHandle(wake_);
        wake_ = nullptr;
    }
    cs_.Delete();
}

void Monitor::Wait() {
    ++waiters_;
    cs_.Leave();
    os::Wait(wake_, os::kInfinite);
    cs_.Enter();
}

void Monitor::WakeAll() {
    if (waiters_ > 0) {
        os::SemaphoreRelease(wake_, static_cast<int32_t>(waiters_));
        waiters_ = 0;
    }
}

} // namespace zk
