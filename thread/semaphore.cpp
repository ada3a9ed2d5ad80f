// Counting semaphores for applications: a fixed table of 128 records, each
// holding one platform semaphore. Records are taken and given back under the
// library lock (inside RecordTable); the semaphore operations themselves run
// unlocked on any thread, and while a unit is there, or no thread sleeps, a
// wait or a signal is one atomic step in user space on both backends.
//
// Releasing a semaphore that threads wait on ends their waits: each returns
// from zkWaitSemaphore without a unit, and the release does not wait for them.
#include "thread/record_table.h"

#include <zk/semaphore.h>

#include <atomic>

struct SemaphoreRecord {
    // Null when none. Atomic: a release clears it while other threads may
    // still be reading it on their way into a wait.
    std::atomic<zk::os::Handle> handle;
    SemaphoreRecord* link; // next free record; null while in use
};

namespace zk {

namespace {

class SemaphoreTable {
public:
    static constexpr std::size_t kSemaphores = 128;

    SemaphoreRecord* Create(int32_t initialCount, int32_t maximumCount) {
        SemaphoreRecord* record = records_.Take();
        if (!record) return nullptr;
        record->handle.store(os::SemaphoreCreate(initialCount, maximumCount),
                             std::memory_order_release);
        if (!record->handle.load(std::memory_order_relaxed)) {
            records_.Give(record);
            return nullptr;
        }
        return record;
    }

    void Release(SemaphoreRecord* record) {
        if (!records_.InUse(record)) return;
        os::CloseHandle(record->handle.exchange(nullptr, std::memory_order_acq_rel));
        records_.Give(record);
    }

private:
    RecordTable<SemaphoreRecord, kSemaphores> records_;
};

SemaphoreTable g_semaphores;

os::Handle HandleOf(const SemaphoreRecord* semaphore) {
    return semaphore ? semaphore->handle.load(std::memory_order_acquire) : nullptr;
}

} // namespace
} // namespace zk

extern "C" ZK_API SemaphoreRecord* ZK_CALL zkCreateSemaphore(int32_t initialCount,
                                                             int32_t maximumCount) {
    return zk::g_semaphores.Create(initialCount, maximumCount);
}

extern "C" ZK_API void ZK_CALL zkReleaseSemaphore(SemaphoreRecord* semaphore) {
    if (!semaphore) return;
    zk::g_semaphores.Release(semaphore);
}

extern "C" ZK_API void ZK_CALL zkWaitSemaphore(SemaphoreRecord* semaphore) {
    zk::os::Handle handle = zk::HandleOf(semaphore);
    if (handle) zk::os::Wait(handle, zk::os::kInfinite);
}

extern "C" ZK_API int32_t ZK_CALL zkPollSemaphore(SemaphoreRecord* semaphore) {
    zk::os::Handle handle = zk::HandleOf(semaphore);
    if (!handle) return 0;
    return zk::os::Wait(handle, 0) == zk::os::WaitResult::Timeout ? 0 : 1;
}

extern "C" ZK_API void ZK_CALL zkSignalSemaphore(SemaphoreRecord* semaphore) {
    zk::os::Handle handle = zk::HandleOf(semaphore);
    if (handle) zk::os::SemaphoreRelease(handle, 1);
}
