// What a thread sees from inside the library: exported threads run below
// normal priority with their Thread in the current-thread slot, and the
// initialising thread holds the main thread record until termination.
#include "support/library_test.h"

#include "kernel/context.h"
#include "platform/platform.h"
#include "thread/thread.h"

namespace {

struct Seen {
    void* slot = nullptr;
    int32_t priority = 99;
};

void ZK_CALL LookAround(void* argument) {
    Seen* seen = static_cast<Seen*>(argument);
    seen->slot = zk::os::CurrentThreadSlotGet();
    seen->priority = zk::os::CurrentThreadPriority();
}

TEST(ExportedThread, RunsBelowNormalWithItsThreadInTheSlot) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(8u << 20, 256), 0);
    EXPECT_EQ(zk::os::CurrentThreadSlotGet(), zk::Kernel().mainThread);
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    Seen seen;
    ASSERT_EQ(zkStartThread(thread, LookAround, &seen), 0);
    zkWaitForThread(thread);
    EXPECT_EQ(seen.priority, zk::os::kThreadPriorityBelowNormal);
    EXPECT_NE(seen.slot, nullptr);
    EXPECT_NE(seen.slot, zk::Kernel().mainThread);
    EXPECT_EQ(zkReleaseThread(thread), 0);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zk::os::CurrentThreadSlotGet(), nullptr);
    EXPECT_EQ(zkEndProcess(), 0);
}

} // namespace
