// The single-instance check across two processes, and the interrupt of a
// console program's frame loop.
#include "support/library_test.h"
#include "support/process.h"

#include <string>

namespace {

constexpr uint32_t kArena = zktest::kArenaSize;

// A name no other run of the suite (another build leg running at the same
// time) uses.
std::string UniqueApplicationName() {
    char name[64];
    std::snprintf(name, sizeof(name), "ZkInstanceTest-%u-%d", zkGetTickCount(), zkGetTimeSec());
    return name;
}

TEST(InstanceCheck, FirstProcessGetsZeroSecondGetsOneAndLosesItsWindow) {
    const std::string name = UniqueApplicationName();
    ASSERT_EQ(zkBeginProcess(0), 0);
    zkSetTitle(name.c_str(), name.c_str());
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    ASSERT_NE(zkGetMainWindow(), nullptr);

    EXPECT_EQ(zkCheckMultipleInstances(ZK_INSTANCE_GLOBAL | ZK_INSTANCE_ACTIVATE), 0u);
    EXPECT_NE(zkGetMainWindow(), nullptr) << "the first instance keeps its window";
    // A check under another name takes that name too and keeps the first.
    const std::string other = name + "-other";
    zkSetTitle(other.c_str(), nullptr);
    EXPECT_EQ(zkCheckMultipleInstances(ZK_INSTANCE_GLOBAL | ZK_INSTANCE_ACTIVATE), 0u);
    EXPECT_EQ(zktest::RunChildProgram("instance_child", {name, "second"}), 0);
    EXPECT_EQ(zktest::RunChildProgram("instance_child", {other, "second"}), 0);

    // A second check in the same process finds the mutex of the first.
    EXPECT_EQ(zkCheckMultipleInstances(ZK_INSTANCE_GLOBAL), 1u);
    EXPECT_EQ(zkGetMainWindow(), nullptr);
    EXPECT_EQ(zktest::RunChildProgram("instance_child", {other, "second"}), 0);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);

    // Process end closed both mutexes: the names are free again.
    EXPECT_EQ(zktest::RunChildProgram("instance_child", {name, "first"}), 0);
    EXPECT_EQ(zktest::RunChildProgram("instance_child", {other, "first"}), 0);
}

TEST(InstanceCheck, NamesWithoutTheGlobalPrefixAreCheckedToo) {
    const std::string name = UniqueApplicationName() + "-local";
    ASSERT_EQ(zkBeginProcess(0), 0);
    zkSetTitle(name.c_str(), nullptr);
    EXPECT_EQ(zkCheckMultipleInstances(0), 0u);
    EXPECT_EQ(zkCheckMultipleInstances(0), 1u);
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
