// Levels of lifetime and the frame loop of zkMain.
#include "support/library_test.h"

#include "zk_version.h"

#include <string>
#include <vector>

namespace {

using zktest::TraceCapture;

constexpr uint32_t kArena = zktest::kArenaSize;

enum InitMode { kStart, kFail, kStartThenFail, kNoStart };

// State shared with the callbacks of one zkMain run. Frame numbers at which
// a frame acts; 0 for never.
struct LoopRecord {
    InitMode init = kStart;
    uint32_t endAfter = 3;                         // frames before returning ZK_FRAME_END
    uint32_t quitAt = 0, closeAt = 0, resetAt = 0; // WM_QUIT, WM_CLOSE, loop count reset
    uint32_t waitAt = 0; // a period wait cut short by a message, result in waitResult
    int32_t waitResult = -1;
    std::vector<uint32_t> loopCounts{}, vblanks{}; // seen by each frame
    int termCalls = 0;
    bool mainWindowAtTerm = false;
};
LoopRecord g_loop;

int ZK_CALL Init() {
    if (g_loop.init == kFail) return 0;
    if (g_loop.init == kNoStart) return 1;
    bool started = zkInitializeEx(kArena, 1024) == 0 && zkGetMainWindow() != nullptr;
    return g_loop.init == kStart && started ? 1 : 0;
}

uint32_t ZK_CALL Frame() {
    g_loop.loopCounts.push_back(zkGetLoopCount());
    g_loop.vblanks.push_back(zkGetVblankCount());
    uint32_t frame = static_cast<uint32_t>(g_loop.loopCounts.size());
    if (frame == g_loop.quitAt) zkPostQuitMessage(0);
    if (frame == g_loop.closeAt) zkPostWindowMessage(zkGetMainWindow(), ZK_WM_CLOSE, 0, 0);
    if (frame == g_loop.resetAt) zkResetLoopCount();
    if (frame == g_loop.waitAt) {
        // Line up with a fresh period first, so that the next wait has to
        // block; the posted message then cuts it short.
        for (int i = 0; i < 100 && zkWaitForPeriodStart() == 0; ++i)
            continue;
        zkPostWindowMessage(zkGetMainWindow(), 0x0400, 0, 0);
        g_loop.waitResult = zkWaitForPeriodStart();
    }
    // A safety net so that a loop that fails to end cannot hang the suite.
    return frame >= g_loop.endAfter || frame >= 200 ? ZK_FRAME_END : 0;
}

void ZK_CALL Term() {
    ++g_loop.termCalls;
    g_loop.mainWindowAtTerm = zkGetMainWindow() != nullptr;
    zkTerminate();
}

TEST(FrameLoop, LoopCountsEndingRulesAndProcessEnd) {
    struct Case {
        const char* what;
        LoopRecord setup;
        int32_t result;
        std::vector<uint32_t> counts; // loop count seen by each frame
        bool paced;                   // a main window and a running timer
    } cases[] = {
        {"count raised before each frame", {}, 0, {1, 2, 3}, true},
        {"frame-end marker runs exactly one frame", {.endAfter = 1}, 0, {1}, true},
        {"failed init: no frame, no term", {.init = kFail}, -1, {}, false},
        {"started, then failed init", {.init = kStartThenFail}, -1, {}, false},
        {"WM_QUIT ends after its frame", {.endAfter = 50, .quitAt = 2}, 0, {1, 2}, true},
        {"WM_CLOSE ends the loop", {.endAfter = 50, .closeAt = 1}, 0, {1}, true},
        {"reset: next sees 1", {.endAfter = 5, .resetAt = 3}, 0, {1, 2, 3, 1, 2}, true},
        {"no initialisation: no window, no pacing", {.init = kNoStart}, 0, {1, 2, 3}, false},
        {"a message cuts a period wait short", {.endAfter = 2, .waitAt = 1}, 0, {1, 2}, true},
    };
    for (const Case& c : cases) {
        g_loop = c.setup;
        EXPECT_EQ(zkMain(Init, Frame, Term, 0), c.result) << c.what;
        EXPECT_EQ(g_loop.loopCounts, c.counts) << c.what;
        EXPECT_EQ(g_loop.termCalls, c.result == 0 ? 1 : 0) << c.what;
        EXPECT_EQ(g_loop.mainWindowAtTerm, c.paced) << c.what;
        EXPECT_EQ(g_loop.waitResult, c.setup.waitAt ? 0 : -1) << c.what;
        for (size_t i = 1; c.paced && i < g_loop.vblanks.size(); ++i)
            EXPECT_GT(g_loop.vblanks[i], g_loop.vblanks[i - 1]) << c.what << ": a tick per frame";
        // Process end ran whatever happened: no window, and the timer stopped.
        EXPECT_EQ(zkGetMainWindow(), nullptr) << c.what;
        zkSleep(20);
        EXPECT_EQ(zkGetVblankCount(), 0u) << c.what;
    }
}

// ---- levels of lifetime -------------------------------------------------------------

TEST(Lifecycle, BannerIsTheFirstTraceAndASecondStartIsRefused) {
    TraceCapture capture;
    ASSERT_EQ(zkBeginProcess(0), 0);
    EXPECT_TRUE(capture.Lines().empty()) << "process begin prints nothing";
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    char banner[96];
    std::snprintf(banner, sizeof(banner), "QAX Kernel Library %u.%u.%u.%u\n", ZK_VERSION_MAJOR,
                  ZK_VERSION_MINOR, ZK_VERSION_BUILD, ZK_VERSION_REVISION);
    EXPECT_EQ(capture.Lines().at(0), banner);
    EXPECT_EQ(capture.Lines().size(), 2u);

    Window* mainWindow = zkGetMainWindow();
    EXPECT_EQ(zkInitializeEx(kArena, 1024), ZK_ERR_NOT_SUPPORTED);
    EXPECT_EQ(capture.Lines().size(), 2u) << "a refused initialisation prints no banner";
    EXPECT_EQ(zkGetMainWindow(), mainWindow);
    // Terminating twice is harmless; the library then starts again in the
    // same process level.
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkGetMainWindow(), nullptr);
    EXPECT_EQ(zkInitializeEx(kArena, 1024), 0);
    EXPECT_NE(zkGetMainWindow(), nullptr);
    EXPECT_EQ(zkEndProcess(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
    EXPECT_EQ(zkGetMainWindow(), nullptr);
}

TEST(Lifecycle, InitialiseWithoutBeginPerformsTheBeginSteps) {
    ASSERT_EQ(zkEndProcess(), 0);
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    EXPECT_NE(zkGetMainWindow(), nullptr);
    EXPECT_GE(zkGetAppArgCount(), 1u);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(Lifecycle, EveryTimerStartRestartsTheVblankCount) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    constexpr uint32_t kTicks = 30; // move the period start well up the count
    for (int guard = 0; guard < 1000 && zkGetVblankCount() < kTicks; ++guard)
        zkWaitForPeriodStart();
    ASSERT_GE(zkGetVblankCount(), kTicks);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkGetVblankCount(), 0u);
    // After a restart the first period wait returns at once instead of waiting
    // for the old count to come round again.
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    EXPECT_EQ(zkWaitForPeriodStart(), 1);
    EXPECT_LT(zkGetVblankCount(), kTicks);
    EXPECT_EQ(zkEndProcess(), 0);
}

} // namespace
