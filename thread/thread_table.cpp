// The table of application threads: 32 ThreadRecords in static storage and
// the five thread exports.
//
// Records are taken and given back under the library lock (RecordTable); a
// record's own fields are driven by one controlling thread at a time and are
// not locked. Each started record runs its procedure on a Thread of its own
// at below-normal priority.
//
// Handles carry a generation. Records are 64-byte aligned, and a handle is
// the record's address with the record's generation in its six low bits; the
// generation advances each time the record is given back. A handle of a
// released record, or one kept from before the record was handed out again,
// no longer matches and is refused like any handle the table never gave out.
#include "kernel/timeline.h"
#include "thread/record_table.h"
#include "thread/thread.h"

#include <zk/result.h>
#include <zk/thread.h>

// One exported thread: a Runnable whose Run() calls procedure(argument).
struct alignas(64) ThreadRecord final : zk::Runnable {
    void Run() override;

    zk::Thread thread;
    ThreadProc procedure = nullptr;
    void* argument = nullptr;
    ThreadRecord* link = nullptr;
    uint32_t generation = 0;
};

namespace zk {
namespace {

using ThreadTable = RecordTable<ThreadRecord, 32>;
constexpr uintptr_t kGenerationMask = alignof(ThreadRecord) - 1;

ThreadTable& Threads() {
    static ThreadTable table;
    return table;
}

ThreadRecord* HandleOf(ThreadRecord* record) {
    return reinterpret_cast<ThreadRecord*>(reinterpret_cast<uintptr_t>(record) |
                                           (record->generation & kGenerationMask));
}

// The record a handle names, or null when the handle is not one the table
// gave out, or its record was released since.
ThreadRecord* RecordOf(ThreadRecord* handle) {
    const uintptr_t bits = reinterpret_cast<uintptr_t>(handle);
    const uintptr_t first = reinterpret_cast<uintptr_t>(&Threads()[0]);
    const uintptr_t base = bits & ~kGenerationMask;
    if (base < first || (base - first) % sizeof(ThreadRecord) != 0) return nullptr;
    if ((base - first) / sizeof(ThreadRecord) >= ThreadTable::kCount) return nullptr;
    ThreadRecord* record = reinterpret_cast<ThreadRecord*>(base);
    if (!Threads().InUse(record)) return nullptr;
    if ((record->generation & kGenerationMask) != (bits & kGenerationMask)) return nullptr;
    return record;
}

} // namespace
} // namespace zk

// An application thread is named in a timeline by its record's number.
void ThreadRecord::Run() {
    if (zk::timeline::On()) {
        const auto number = static_cast<int32_t>(this - &zk::Threads()[0]);
        zk::timeline::NameThread("thread", number);
    }
    procedure(argument);
}

extern "C" ZK_API ThreadRecord* ZK_CALL zkCreateThread(uint32_t stackSize) {
    ThreadRecord* record = zk::Threads().Take();
    if (!record) return nullptr;
    record->thread.Initialize(record, stackSize, zk::os::kThreadPriorityBelowNormal);
    return zk::HandleOf(record);
}

ThreadRecord* zk::CreateReusableThread(uint32_t stackSize) {
    ThreadRecord* handle = zkCreateThread(stackSize);
    if (handle) RecordOf(handle)->thread.SetReusable(true);
    return handle;
}

extern "C" ZK_API int32_t ZK_CALL zkStartThread(ThreadRecord* handle, ThreadProc proc,
                                                void* argument) {
    ThreadRecord* thread = zk::RecordOf(handle);
    if (!thread) return ZK_ERR_INVALID_HANDLE;
    if (!proc) return ZK_ERR_INVALID_ARGUMENT;
    // Runs of one record never overlap: a previous run ends first.
    thread->thread.Wait();
    thread->procedure = proc;
    thread->argument = argument;
    return thread->thread.Start();
}

extern "C" ZK_API void ZK_CALL zkWaitForThread(ThreadRecord* handle) {
    if (ThreadRecord* thread = zk::RecordOf(handle)) thread->thread.Wait();
}

extern "C" ZK_API int32_t ZK_CALL zkIsThreadRunning(ThreadRecord* handle) {
    ThreadRecord* thread = zk::RecordOf(handle);
    return thread ? thread->thread.IsRunning() : 0;
}

extern "C" ZK_API int32_t ZK_CALL zkReleaseThread(ThreadRecord* handle) {
    ThreadRecord* thread = zk::RecordOf(handle);
    if (!thread) return ZK_ERR_INVALID_HANDLE;
    thread->thread.Release();
    ++thread->generation;
    zk::Threads().Give(thread);
    return 0;
}
