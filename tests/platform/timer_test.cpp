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
    if (++ticks->count == ticks->killAt) zk::os::TimerKill(ticks->id);
}

TEST(Timer, TicksUntilKilledAndNeverAfter) {
    EXPECT_EQ(zk::os::TimerStartPeriodic(16, 1, nullptr, nullptr), 0u);
    Ticks a, b;
    b.killAt = 5;
    uint32_t id = zk::os::TimerStartPeriodic(2, 1, &CountTick, &a);
    b.id = zk::os::TimerStartPeriodic(1, 1, &CountTick, &b);
    ASSERT_TRUE(id != 0 && b.id != 0 && b.id != id);
    while (a.count < 20 || b.count < 5)
        zk::os::Sleep(1);
    zk::os::TimerKill(id);
    int atKill = a.count;
    zk::os::Sleep(20);
    EXPECT_EQ(a.count, atKill);
    EXPECT_EQ(b.count, 5) << "killed from its own callback";
    zk::os::TimerKill(id); // a second kill does nothing
}

TEST(TimerPacing, NextDeadlineKeepsTheGridAndSkipsMissedTicks) {
    using zk::os::posix::NextTimerDeadline;
    const int64_t cases[][4] = {
        // previous, period, now, next
        {1000, 16, 1000, 1016}, // on time
        {1000, 16, 1010, 1016}, // late by less than a period: the grid stays
        {1000, 16, 1020, 1016}, // due at once
        {1000, 16, 1100, 1096}, // 1016..1080 missed: one tick now, no burst
        {1096, 16, 1100, 1112}, // then the grid goes on
    };
    for (const auto& c : cases)
        EXPECT_EQ(NextTimerDeadline(c[0], c[1], c[2]), c[3]) << c[2];
}

} // namespace
