// The periodic timer of the POSIX backend.
#include "platform/platform.h"
#include "platform/posix/posix_internal.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

struct Ticks {
    std::atomic<int> count{0};
    std::atomic<uint32_t> id{0};
    int killAt = 0; // kill from inside the callback on this tick
};

void CountTick(void* user) {
    auto* ticks = static_cast<Ticks*>(user);
    int n = ++ticks->count;
    if (n == ticks->killAt) zk::os::TimerKill(ticks->id);
}

TEST(Timer, CapsAndRefusedArguments) {
    zk::os::TimerCaps caps{};
    ASSERT_TRUE(zk::os::TimerGetCaps(&caps));
    EXPECT_EQ(caps.minPeriod, 1u);
    EXPECT_EQ(caps.maxPeriod, 1000000u);
    EXPECT_FALSE(zk::os::TimerGetCaps(nullptr));
    Ticks ticks;
    EXPECT_EQ(zk::os::TimerStartPeriodic(0, 1, &CountTick, &ticks), 0u);
    EXPECT_EQ(zk::os::TimerStartPeriodic(16, 1, nullptr, &ticks), 0u);
    zk::os::TimerKill(0);      // ignored
    zk::os::TimerKill(0x1234); // no such timer: ignored
}

TEST(Timer, TicksUntilKilledAndNeverAfter) {
    Ticks ticks;
    zk::os::TimerBeginPeriod(1);
    uint32_t id = zk::os::TimerStartPeriodic(2, 1, &CountTick, &ticks);
    ASSERT_NE(id, 0u);
    for (int i = 0; i < 5000 && ticks.count < 20; ++i)
        zk::os::Sleep(1);
    EXPECT_GE(ticks.count, 20);
    zk::os::TimerKill(id);
    int atKill = ticks.count;
    zk::os::Sleep(20);
    EXPECT_EQ(ticks.count, atKill);
    zk::os::TimerKill(id); // a second kill does nothing
    zk::os::TimerEndPeriod(1);
}

TEST(Timer, DoesNotRunAheadOfItsDeadlines) {
    // Absolute deadlines: the number of ticks never exceeds the periods that
    // have passed (plus the one that may be running as the count is read).
    Ticks ticks;
    int64_t start = zk::os::PerformanceCounter();
    uint32_t id = zk::os::TimerStartPeriodic(5, 1, &CountTick, &ticks);
    for (int i = 0; i < 5000 && ticks.count < 20; ++i)
        zk::os::Sleep(1);
    int count = ticks.count;
    int64_t elapsed = zk::os::PerformanceCounter() - start;
    zk::os::TimerKill(id);
    EXPECT_GE(count, 20);
    EXPECT_LE(count, static_cast<int>(elapsed / 5000000) + 1);
}

TEST(Timer, CanBeKilledFromItsOwnCallback) {
    Ticks ticks;
    ticks.killAt = 5;
    ticks.id = zk::os::TimerStartPeriodic(1, 1, &CountTick, &ticks);
    ASSERT_NE(ticks.id, 0u);
    for (int i = 0; i < 5000 && ticks.count < 5; ++i)
        zk::os::Sleep(1);
    zk::os::Sleep(30);
    EXPECT_EQ(ticks.count, 5);
}

TEST(Timer, SeveralRunAtOnceWithDistinctIds) {
    Ticks a, b;
    uint32_t ida = zk::os::TimerStartPeriodic(1, 1, &CountTick, &a);
    uint32_t idb = zk::os::TimerStartPeriodic(1, 1, &CountTick, &b);
    ASSERT_NE(ida, 0u);
    ASSERT_NE(idb, 0u);
    EXPECT_NE(ida, idb);
    for (int i = 0; i < 5000 && (a.count < 5 || b.count < 5); ++i)
        zk::os::Sleep(1);
    zk::os::TimerKill(ida);
    int stopped = a.count;
    for (int i = 0; i < 5000 && b.count < stopped + 10; ++i)
        zk::os::Sleep(1);
    EXPECT_EQ(a.count, stopped);
    EXPECT_GE(b.count, stopped + 10);
    zk::os::TimerKill(idb);
    // A killed id does not stop a timer that later takes the same slot.
    Ticks c;
    uint32_t idc = zk::os::TimerStartPeriodic(1, 1, &CountTick, &c);
    zk::os::TimerKill(ida);
    for (int i = 0; i < 5000 && c.count < 3; ++i)
        zk::os::Sleep(1);
    EXPECT_GE(c.count, 3);
    zk::os::TimerKill(idc);
}

TEST(TimerPacing, NextDeadlineKeepsTheGridAndSkipsMissedTicks) {
    using zk::os::posix::NextTimerDeadline;
    // On time or late by less than a period: no drift, the grid stays.
    EXPECT_EQ(NextTimerDeadline(1000, 16, 1000), 1016);
    EXPECT_EQ(NextTimerDeadline(1000, 16, 1010), 1016);
    EXPECT_EQ(NextTimerDeadline(1000, 16, 1020), 1016); // due at once
    int64_t deadline = 0;
    for (int i = 0; i < 1000; ++i)
        deadline = NextTimerDeadline(deadline, 16, deadline + 3);
    EXPECT_EQ(deadline, 16000);
    // 100 late: 1016..1096 were missed; the next is the last one already due
    // (one tick now, no burst), then the grid goes on.
    EXPECT_EQ(NextTimerDeadline(1000, 16, 1100), 1096);
    EXPECT_EQ(NextTimerDeadline(1096, 16, 1100), 1112);
}

} // namespace
