// The profilers' arithmetic and report lines on a counter the test drives:
// 1 count per microsecond, moved by hand between the calls.
#include "support/library_test.h"

#include "kernel/profiler.h"

#include <cstdio>
#include <utility>

namespace {

class SteppedCounter final : public zk::PerformanceCounter {
public:
    SteppedCounter() { frequency_ = 1000000; }
    int64_t Read() const override { return now; }
    void AdvanceMs(double ms) { now += static_cast<int64_t>(ms * 1000.0 + 0.5); }
    int64_t now = 1000000000;
};

class ProfilerReport : public zktest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        trace_.Clear();
        ASSERT_EQ(profiler_.Initialize(4, &counter_), 0);
    }
    void TearDown() override {
        Forget();
        LibraryTest::TearDown();
    }
    void Forget() { zkFree(profiler_.Slots()), profiler_.Forget(); }
    // The trace texts since the profiler started, one per call.
    std::vector<std::string> Lines() const { return trace_.Lines(); }
    // One 16.6 ms frame in which slot 0 runs `pairs` times for `ms` each.
    void Frame(uint32_t slot, int pairs, double ms) {
        counter_.AdvanceMs(1.0);
        for (int i = 0; i < pairs; ++i)
            profiler_.Begin(slot), counter_.AdvanceMs(ms), profiler_.End(slot);
        counter_.AdvanceMs(16.6 - 1.0 - pairs * ms);
        profiler_.Update();
    }

    zktest::TraceCapture trace_;
    SteppedCounter counter_;
    zk::Profiler profiler_;
};

// Frames of one slot's pairs: the report comes on the frame that reaches the
// interval (5000 ms by default, 301 frames of 16.6 ms being 4996.6 ms).
TEST_F(ProfilerReport, ReportLineWhenTheIntervalIsReached) {
    struct Case {
        uint32_t interval, slot;
        const char* name;
        int pairs;
        double ms;
        int framesBefore;
        const char* line;
    } const cases[] = {
        {990, 0, "draw", 1, 1.5, 59,
         "QaxKrnl : [000] draw           :   1.50 (msec) 9.04 (percent) 1 (calls)\n"},
        {990, 2, "twice", 2, 0.25, 59,
         "QaxKrnl : [002] twice          :   0.50 (msec) 3.01 (percent) 2 (calls)\n"},
        {1000, 1, nullptr, 1, 2.0, 60, // 61 frames are 1012.6 ms
         "QaxKrnl : [001]                :   2.00 (msec) 12.05 (percent) 1 (calls)\n"},
        {0xFFFFFFFF, 0, nullptr, 1, 1.0, 301,
         "QaxKrnl : [000]                :   1.00 (msec) 6.02 (percent) 1 (calls)\n"},
    };
    for (const Case& c : cases) {
        Forget(); // a fresh profiler for each case
        ASSERT_EQ(profiler_.Initialize(4, &counter_), 0);
        trace_.Clear();
        if (c.interval != 0xFFFFFFFF) profiler_.SetInterval(c.interval);
        if (c.name) profiler_.SetName(c.slot, c.name);
        // Twice: the window starts again after each report.
        for (int window = 1; window <= 2; ++window) {
            for (int frame = 0; frame < c.framesBefore; ++frame)
                Frame(c.slot, c.pairs, c.ms);
            EXPECT_EQ(Lines().size(), window - 1u) << c.line;
            Frame(c.slot, c.pairs, c.ms);
            EXPECT_EQ(Lines(), std::vector<std::string>(window, c.line));
        }
    }
}

TEST_F(ProfilerReport, OnlySlotsThatMeasuredAnythingReportInSlotOrder) {
    profiler_.SetInterval(990);
    profiler_.SetName(3, "a name of twenty ch"); // cut to 15 characters
    for (int frame = 0; frame < 60; ++frame) {
        counter_.AdvanceMs(1.0);
        for (auto [slot, ms] : {std::pair{3u, 10.0}, {1u, 0.6}})
            profiler_.Begin(slot), counter_.AdvanceMs(ms), profiler_.End(slot);
        profiler_.Begin(0); // begun, never ended: total stays 0
        counter_.AdvanceMs(5.0);
        profiler_.Update();
    }
    ASSERT_EQ(Lines().size(), 2u);
    EXPECT_EQ(Lines()[0],
              "QaxKrnl : [001]                :   0.60 (msec) 3.61 (percent) 1 (calls)\n");
    EXPECT_EQ(Lines()[1],
              "QaxKrnl : [003] a name of twent:  10.00 (msec) 60.24 (percent) 1 (calls)\n");
    // Slot 0 printed nothing and kept its calls for the next window.
    EXPECT_EQ(profiler_.Slots()[0].calls + profiler_.Slots()[1].calls, 60u);
    EXPECT_EQ(profiler_.Slots()[3].total, 0);
}

TEST_F(ProfilerReport, SwitchedOffStillMeasuresButDoesNotReport) {
    profiler_.SetInterval(100);
    profiler_.SetName(0, "kept?");
    profiler_.SetSwitch(0);
    for (int frame = 0; frame < 20; ++frame)
        Frame(0, 1, 1.0);
    profiler_.SetSwitch(0); // the same value: nothing changes
    EXPECT_TRUE(Lines().empty());
    EXPECT_EQ(profiler_.Slots()[0].calls + profiler_.Slots()[0].total, 20u + 20000);
    // Switching on clears the slots, names included.
    profiler_.SetSwitch(1);
    EXPECT_EQ(profiler_.Slots()[0].calls + profiler_.Slots()[0].total, 0);
    EXPECT_STREQ(profiler_.Slots()[0].name, "");
    for (int frame = 0; frame < 7; ++frame)
        Frame(0, 1, 1.0); // 116.2 ms
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_EQ(Lines()[0],
              "QaxKrnl : [000]                :   1.00 (msec) 6.02 (percent) 1 (calls)\n");
    // Any other value resets as well.
    profiler_.SetName(0, "x");
    profiler_.SetSwitch(2);
    EXPECT_STREQ(profiler_.Slots()[0].name, "");
}

} // namespace
