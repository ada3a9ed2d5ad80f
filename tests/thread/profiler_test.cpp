// Profilers and the performance counter through the exports, on the real
// counter: lifecycle and the report's shape. The report's arithmetic, on a
// counter the test drives, is in internal/profiler_report_test.cpp.
#include "support/library_test.h"

#include <regex>

namespace {

using ProfilerTest = zktest::LibraryTest;

// Spins for a measurable span on the counter.
void Busy(double milliseconds) {
    double frequency = zkGetPerformanceFrequency();
    uint32_t start = zkGetPerformanceCounter();
    while ((zkGetPerformanceCounter() - start) / frequency * 1000.0 < milliseconds) {
    }
}

TEST(PerformanceCounter, CountsForwardAndResetStartsItAgain) {
    EXPECT_GT(zkGetPerformanceFrequency(), 0.0); // usable before initialisation
    uint32_t a = zkGetPerformanceCounter();
    Busy(5.0);
    uint32_t b = zkGetPerformanceCounter();
    EXPECT_TRUE(b - a > 0 && b - a < 0x80000000u); // 5 ms is far less than 2^31 counts
    EXPECT_NE(zkResetPerformanceCounter(), 0);
    EXPECT_LT(zkGetPerformanceCounter(), b); // 5 ms passed before the reset
}

TEST(ProfilerLifecycle, InitialisedOncePerLibraryStart) {
    EXPECT_EQ(zkInitializeProfiler(4, 0), ZK_ERR_NO_MEMORY); // no system pool
    for (int start = 0; start < 2; ++start) {
        ASSERT_EQ(zkBeginProcess(0), 0);
        ASSERT_EQ(zkInitializeEx(8u << 20, 256), 0);
        EXPECT_EQ(
            zktest::Codes({zkInitializeProfiler(8, 0), zkInitializeProfiler(8, 0),
                           zkInitializeSystemProfiler(2, 0), zkInitializeSystemProfiler(2, 0)}),
            zktest::Codes({0, ZK_ERR_NOT_SUPPORTED, 0, ZK_ERR_NOT_SUPPORTED}))
            << "start " << start;
        EXPECT_EQ(zkTerminate(), 0);
        EXPECT_EQ(zkEndProcess(), 0);
    }
}

TEST_F(ProfilerTest, EveryUpdateReportsWithIntervalZero) {
    zktest::TraceCapture trace;
    ASSERT_EQ(zkInitializeProfiler(3, 0), 0);
    ASSERT_EQ(zkInitializeSystemProfiler(2, 0), 0);
    zkSetProfileInterval(0), zkSetSystemProfileInterval(0);
    zkSetProfileName(1, "busy"), zkSetSystemProfileName(0, "system slot");
    zkBeginProfile(1), Busy(2.0), zkEndProfile(1);
    zkBeginSystemProfile(0), zkEndSystemProfile(0);
    zkBeginSystemProfile(1); // begun, never ended: measures nothing
    zkUpdateAllProfilers();

    std::vector<std::string> lines = trace.Lines();
    ASSERT_GE(lines.size(), 1u);
    // The user profiler reports first, and only the slots that measured something.
    const std::regex user(
        R"(QaxKrnl : \[001\] busy           : [ 0-9]{2}[0-9]+\.[0-9]{2} \(msec\) [0-9]+\.[0-9]{2} \(percent\) 1 \(calls\)\n)");
    EXPECT_TRUE(std::regex_match(lines[0], user)) << lines[0];
    EXPECT_LE(lines.size(), 2u);

    // The report cleared the slot: the next update prints nothing for it.
    trace.Clear();
    zkUpdateAllProfilers();
    EXPECT_TRUE(trace.Lines().empty()) << trace.Text();
}

} // namespace
