// The periodic timer of the POSIX backend.
#include "platform/platform.h"
#include "platform/posix/posix_internal.h"

#include <gtest/gtest.h>

namespace {

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
