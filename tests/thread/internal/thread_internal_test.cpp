// The current-thread slot and the priority of exported threads, seen from
// inside the library.
#include "library_fixture.h"

#include "kernel/context.h"
#include "platform/platform.h"
#include "thread/thread.h"

namespace {

TEST(MainThreadRecord, SetAsTheInitialisingThreadsCurrentThread) {
    zk::os::CurrentThreadSlotSet(nullptr);
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(8u << 20, 256), 0);
    void* slot = zk::os::CurrentThreadSlotGet();
    EXPECT_NE(slot, nullptr);
    EXPECT_EQ(slot, zk::Kernel().mainThread);
    EXPECT_EQ(static_cast<zk::Thread*>(slot)->GetRunnable(), nullptr);
    EXPECT_EQ(static_cast<zk::Thread*>(slot)->IsRunning(), 0);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zk::os::CurrentThreadSlotGet(), nullptr);
    EXPECT_EQ(zk::Kernel().mainThread, nullptr);
    EXPECT_EQ(zkEndProcess(), 0);
}

struct Seen {
    void* slot = nullptr;
    zk::Runnable* runnable = nullptr;
    int32_t priority = 99;
};

void ZK_CALL LookAround(void* argument) {
    Seen* seen = static_cast<Seen*>(argument);
    seen->slot = zk::os::CurrentThreadSlotGet();
    if (seen->slot) seen->runnable = static_cast<zk::Thread*>(seen->slot)->GetRunnable();
    seen->priority = zk::os::CurrentThreadPriority();
}

TEST(ExportedThread, RunsBelowNormalWithItsThreadInTheSlot) {
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    Seen seen;
    ASSERT_EQ(zkStartThread(thread, LookAround, &seen), 0);
    zkWaitForThread(thread);
    EXPECT_EQ(seen.priority, zk::os::kThreadPriorityBelowNormal);
    ASSERT_NE(seen.slot, nullptr);
    // The record is the Runnable its Thread runs.
    EXPECT_EQ(static_cast<void*>(seen.runnable), static_cast<void*>(thread));
    EXPECT_EQ(zkReleaseThread(thread), 0);
}

class Counting final : public zk::Runnable {
public:
    void Run() override { ++runs; }
    int runs = 0;
};

TEST(ThreadWrapper, StartsAgainAfterWaitAndReleasesWithoutAThread) {
    Counting body;
    zk::Thread thread;
    ASSERT_EQ(thread.Initialize(&body, 0, zk::os::kThreadPriorityNormal), 0);
    thread.Release(); // nothing to wait for
    ASSERT_EQ(thread.Initialize(&body, 0, zk::os::kThreadPriorityNormal), 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(thread.Start(), 0);
        thread.Wait();
        EXPECT_EQ(thread.IsRunning(), 0);
    }
    EXPECT_EQ(body.runs, 3);
    thread.Release();
    EXPECT_EQ(thread.GetRunnable(), nullptr);
}

} // namespace
