// The single-instance check across two processes, and the interrupt of a
// console program's frame loop.
#include "support/library_test.h"
#include "support/process.h"

namespace {

int RunInstance(const std::string& name, const char* which) {
    return zktest::RunChildProgram("instance_child", {name, which});
}

TEST(InstanceCheck, EveryNameTakenStaysTakenUntilProcessEnd) {
    // A name no other run of the suite (another build leg at the same time) uses.
    const std::string name = "ZkInstanceTest-" + std::to_string(zkGetTickCount()) + "-" +
                             std::to_string(zkGetTimeSec()),
                      other = name + "-other";
    ASSERT_EQ(zkBeginProcess(0), 0);
    zkSetTitle(name.c_str(), name.c_str());
    ASSERT_EQ(zkInitializeEx(zktest::kArenaSize, 1024), 0);
    EXPECT_EQ(zkCheckMultipleInstances(ZK_INSTANCE_GLOBAL | ZK_INSTANCE_ACTIVATE), 0u);
    EXPECT_NE(zkGetMainWindow(), nullptr) << "the first instance keeps its window";
    // A check under another name takes that name too and keeps the first.
    zkSetTitle(other.c_str(), nullptr);
    EXPECT_EQ(zkCheckMultipleInstances(ZK_INSTANCE_ACTIVATE), 0u);
    EXPECT_EQ(RunInstance(name, "second"), 0);
    // A second check in the same process finds its own mutex.
    EXPECT_EQ(zkCheckMultipleInstances(0), 1u);
    EXPECT_EQ(zkGetMainWindow(), nullptr);
    EXPECT_EQ(RunInstance(name, "second"), 0);
    EXPECT_EQ(zkEndProcess(), 0);
    // Process end closed both mutexes: the names are free again (the second
    // one was taken without the global prefix).
    EXPECT_EQ(RunInstance(name, "first"), 0);
    ASSERT_EQ(zkBeginProcess(0), 0);
    zkSetTitle(other.c_str(), nullptr);
    EXPECT_EQ(zkCheckMultipleInstances(0), 0u);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(Interrupt, SigintEndsTheFrameLoopAndRunsTermProc) {
#if defined(_WIN32)
    GTEST_SKIP() << "console interrupts are not routed to the main window on Windows";
#else
    EXPECT_EQ(zktest::RunChildProgram("interrupt_child", {}), 0);
#endif
}

} // namespace
