// Idle handlers and event callbacks, and when the frame loop calls them.
#include "support/library_test.h"

#include <utility>

namespace {

// The idle handler's record.
std::vector<std::pair<zkAddr, uint32_t>> g_idle; // user value and loop count per call
void ZK_CALL RecordIdle(zkAddr user) {
    g_idle.emplace_back(user, zkGetLoopCount());
}
void ZK_CALL NoIdle(zkAddr) {}
void ZK_CALL NoEvent(uint32_t, zkAddr) {}

uint32_t ZK_CALL FiveFrames() {
    return zkGetLoopCount() >= 5 ? ZK_FRAME_END : 0;
}

TEST(IdleHandlers, TableHoldsThirtyTwoAndTheLoopCallsThemOncePerWait) {
    std::vector<IdleHandlerSlot*> slots(32);
    for (IdleHandlerSlot*& slot : slots)
        ASSERT_NE(slot = zkAddIdleHandler(NoIdle, 0), nullptr);
    EXPECT_EQ(zkAddIdleHandler(NoIdle, 99), nullptr);
    zkRemoveIdleHandler(slots[5]);
    EXPECT_EQ(zkAddIdleHandler(RecordIdle, 0xABC), slots[5]) << "the freed slot is reused";
    for (int i = 0; i < 32; ++i)
        if (i != 5) zkRemoveIdleHandler(slots[i]);
    // Frames far shorter than a tick: the loop waits before most frames, and
    // the handler runs at most once before each.
    ASSERT_EQ(zkMain(zktest::StartLibrary, FiveFrames, zktest::StopLibrary, 0), 0);
    EXPECT_TRUE(g_idle.size() >= 1 && g_idle.size() <= 5) << g_idle.size();
    for (size_t i = 0; i < g_idle.size(); ++i)
        EXPECT_TRUE(g_idle[i].first == 0xABC && (i == 0 || g_idle[i].second > g_idle[i - 1].second))
            << "once per wait, call " << i;
    zkRemoveIdleHandler(slots[5]);
    g_idle.clear();
    ASSERT_EQ(zkMain(zktest::StartLibrary, FiveFrames, zktest::StopLibrary, 0), 0);
    EXPECT_TRUE(g_idle.empty()) << "a removed handler is not called";
}

TEST(EventCallbacks, TableHoldsThirtyTwoAndNullTakesNoSlot) {
    // Callbacks cannot be removed: fill what is left of the table, once.
    static bool ranBefore = false;
    if (ranBefore) GTEST_SKIP() << "callbacks cannot be removed: this runs once per process";
    ranBefore = true;
    EXPECT_EQ(zkAddEventCallback(nullptr), 0);
    int added = 0;
    while (zkAddEventCallback(NoEvent) == 0)
        ++added;
    EXPECT_EQ(added, 32 - 1) << "one slot holds the frame-loop test's recorder; null took none";
    EXPECT_EQ(zkAddEventCallback(nullptr), ZK_ERR_CALLBACKS_FULL);
}

} // namespace
