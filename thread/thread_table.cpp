// The table of application threads: 32 ThreadRecords in static storage and
// the five thread exports.
//
// Records are taken and given back under the library lock (RecordTable); a
// record's own fields are driven by one controlling thread at a time and are
// not locked. Each started record runs its procedure on a Thread of its own
// at below-normal priority.
#include "thread/record_table.h"
#include "thread/thread.h"

#include <zk/result.h>
#include <zk/thread.h>

// One exported thread: a Runnable whose Run() calls procedure(argument).
struct ThreadRecord final : zk::Runnable {
    void Run() override { procedure(argument); }

    zk::Thread thread;
    ThreadProc procedure = nullptr;
    void* argument = nullptr;
    ThreadRecord* link = nullptr;
};

namespace zk {
namespace {

using ThreadTable = RecordTable<ThreadRecord, 32>;

ThreadTable& Threads() {
    static ThreadTable table;
    return table;
}

} // namespace
} // namespace zk

extern "C" ZK_API ThreadRecord* ZK_CALL zkCreateThread(uint32_t stackSize) {
    ThreadRecord* record = zk::Threads().Take();
    if (!record) return nullptr;
    record->thread.Initialize(record, stackSize, zk::os::kThreadPriorityBelowNormal);
    return record;
}

extern "C" ZK_API int32_t ZK_CALL zkStartThread(ThreadRecord* thread, ThreadProc proc,
                                                void* argument) {
    if (!thread) return ZK_ERR_INVALID_HANDLE;
    if (!proc) return ZK_ERR_INVALID_ARGUMENT;
    // Runs of one record never overlap: a previous run ends first.
    thread->thread.Wait();
    thread->procedure = proc;
    thread->argument = argument;
    return thread->thread.Start();
}

extern "C" ZK_API void ZK_CALL zkWaitForThread(ThreadRecord* thread) {
    if (thread) thread->thread.Wait();
}

extern "C" ZK_API int32_t ZK_CALL zkIsThreadRunning(ThreadRecord* thread) {
    return thread ? thread->thread.IsRunning() : 0;
}

extern "C" ZK_API int32_t ZK_CALL zkReleaseThread(ThreadRecord* thread) {
    if (!thread) return ZK_ERR_INVALID_HANDLE;
    thread->thread.Release();
    zk::Threads().Give(thread);
    return 0;
}
