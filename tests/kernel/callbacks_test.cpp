// Idle handlers and event callbacks, and when the frame loop calls them.
#include "support/library_test.h"

#include <vector>

namespace {

using zktest::StartLibrary;
using zktest::StopLibrary;

// ---- an event recorder, registered before any test can fill the table ----------------

struct EventLog {
    bool recording = false;
    std::vector<std::pair<uint32_t, zkAddr>> events;
};
EventLog g_events;

void ZK_CALL RecordEvent(uint32_t event, zkAddr data) {
    if (g_events.recording) g_events.events.emplace_back(event, data);
}

const bool g_recorderAdded = zkAddEventCallback(RecordEvent) == 0;

void ZK_CALL NoEvent(uint32_t, zkAddr) {}

// ---- idle handlers ---------------------------------------------------------------------

struct IdleLog {
    std::vector<zkAddr> users;
    std::vector<uint32_t> loopCounts;
};
IdleLog g_idle;

void ZK_CALL RecordIdle(zkAddr user) {
    g_idle.users.push_back(user);
    g_idle.loopCounts.push_back(zkGetLoopCount());
}

void ZK_CALL NoIdle(zkAddr) {}

uint32_t ZK_CALL FiveFrames() {
    return zkGetLoopCount() >= 5 ? ZK_FRAME_END : 0;
}
uint32_t ZK_CALL QuitAtTwo() {
    if (zkGetLoopCount() == 2) zkPostQuitMessage(0);
    return 0;
}

TEST(IdleHandlers, TableHoldsThirtyTwoAndRemovalFreesTheSlot) {
    EXPECT_EQ(zkAddIdleHandler(nullptr, 0), nullptr);
    std::vector<IdleHandlerSlot*> slots;
    for (int i = 0; i < 32; ++i) {
        IdleHandlerSlot* slot = zkAddIdleHandler(NoIdle, static_cast<zkAddr>(i));
        ASSERT_NE(slot, nullptr) << i;
        slots.push_back(slot);
    }
    EXPECT_EQ(zkAddIdleHandler(NoIdle, 99), nullptr);
    zkRemoveIdleHandler(slots[5]);
    EXPECT_EQ(zkAddIdleHandler(NoIdle, 5), slots[5]);
    zkRemoveIdleHandler(nullptr);
    for (IdleHandlerSlot* slot : slots)
        zkRemoveIdleHandler(slot);
    // All free again: the next addition takes slot 0.
    IdleHandlerSlot* again = zkAddIdleHandler(NoIdle, 0);
    EXPECT_EQ(again, slots[0]);
    zkRemoveIdleHandler(again);
}

TEST(IdleHandlers, FrameLoopCallsThemBeforeWaitingForAPeriod) {
    g_idle = IdleLog{};
    IdleHandlerSlot* slot = zkAddIdleHandler(RecordIdle, 0xABC);
    ASSERT_NE(slot, nullptr);
    ASSERT_EQ(zkMain(StartLibrary, FiveFrames, StopLibrary, 0), 0);
    zkRemoveIdleHandler(slot);
    // At most once before each frame; with frames far shorter than a tick the
    // loop waits before most of them.
    ASSERT_GE(g_idle.users.size(), 1u);
    EXPECT_LE(g_idle.users.size(), 5u);
    for (zkAddr user : g_idle.users)
        EXPECT_EQ(user, static_cast<zkAddr>(0xABC));
    for (size_t i = 1; i < g_idle.loopCounts.size(); ++i)
        EXPECT_GT(g_idle.loopCounts[i], g_idle.loopCounts[i - 1]) << "once per wait";

    // Removed: the next loop does not call it.
    g_idle = IdleLog{};
    ASSERT_EQ(zkMain(StartLibrary, FiveFrames, StopLibrary, 0), 0);
    EXPECT_TRUE(g_idle.users.empty());
}

TEST(EventCallbacks, FrameLoopReportsItsStartAndWhyItEnded) {
    ASSERT_TRUE(g_recorderAdded);
    g_events = EventLog{};
    g_events.recording = true;
    ASSERT_EQ(zkMain(StartLibrary, FiveFrames, StopLibrary, 0), 0);
    ASSERT_EQ(zkMain(StartLibrary, QuitAtTwo, StopLibrary, 0), 0);
    struct Local {
        static int ZK_CALL Fail() { return 0; }
    };
    EXPECT_EQ(zkMain(Local::Fail, FiveFrames, StopLibrary, 0), -1); // reports nothing
    g_events.recording = false;
    using Event = std::pair<uint32_t, zkAddr>;
    EXPECT_EQ(g_events.events, (std::vector<Event>{{ZK_EVENT_LOOP_START, 0},
                                                   {ZK_EVENT_LOOP_END, ZK_LOOP_END_FRAME},
                                                   {ZK_EVENT_LOOP_START, 0},
                                                   {ZK_EVENT_LOOP_END, ZK_LOOP_END_QUIT}}));
}

TEST(EventCallbacks, TableHoldsThirtyTwoAndNullTakesNoSlot) {
    // The table cannot be emptied; this test fills what is left of it.
    static bool ranBefore = false;
    if (ranBefore) GTEST_SKIP() << "callbacks cannot be removed: this runs once per process";
    ranBefore = true;
    EXPECT_EQ(zkAddEventCallback(nullptr), 0);
    int added = 0;
    while (zkAddEventCallback(NoEvent) == 0)
        ++added;
    EXPECT_EQ(added, 32 - 1) << "one slot holds the recorder";
    EXPECT_EQ(zkAddEventCallback(NoEvent), ZK_ERR_CALLBACKS_FULL);
    EXPECT_EQ(zkAddEventCallback(nullptr), ZK_ERR_CALLBACKS_FULL) << "no free slot to store it in";
}

} // namespace
