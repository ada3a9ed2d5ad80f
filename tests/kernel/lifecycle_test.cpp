// Levels of lifetime and the frame loop of zkMain.
#include "support/library_test.h"

#include "zk_version.h"

#include <string>
#include <vector>

namespace {

using zktest::LibraryTest;
using zktest::TraceCapture;

constexpr uint32_t kArena = zktest::kArenaSize;

// State shared with the callbacks of one zkMain run.
struct LoopRecord {
    std::vector<uint32_t> loopCounts; // zkGetLoopCount() seen by each frame
    int initCalls = 0;
    int termCalls = 0;
    int initResult = 1;
    uint32_t endAfter = 3;     // frames before returning ZK_FRAME_END
    uint32_t quitAtFrame = 0;  // frame that posts WM_QUIT
    uint32_t closeAtFrame = 0; // frame that posts WM_CLOSE to the main window
    uint32_t resetAtFrame = 0; // frame that resets the loop count
    bool mainWindowAtTerm = false;
};
LoopRecord g_loop;

int ZK_CALL InitStartsLibrary() {
    ++g_loop.initCalls;
    if (g_loop.initResult == 0) return 0;
    return zkInitializeEx(kArena, 1024) >= 0 ? 1 : 0;
}

uint32_t ZK_CALL RecordingFrame() {
    g_loop.loopCounts.push_back(zkGetLoopCount());
    uint32_t frame = static_cast<uint32_t>(g_loop.loopCounts.size());
    if (frame == g_loop.quitAtFrame) zkPostQuitMessage(0);
    if (frame == g_loop.closeAtFrame) {
        EXPECT_EQ(zkPostWindowMessage(zkGetMainWindow(), ZK_WM_CLOSE, 0, 0), 0);
    }
    if (frame == g_loop.resetAtFrame) zkResetLoopCount();
    // A safety net so that a loop that fails to end cannot hang the suite.
    if (frame >= 200) return ZK_FRAME_END;
    return frame >= g_loop.endAfter ? ZK_FRAME_END : 0;
}

void ZK_CALL TermStopsLibrary() {
    ++g_loop.termCalls;
    g_loop.mainWindowAtTerm = zkGetMainWindow() != nullptr;
    zkTerminate();
}

int32_t RunMain(const LoopRecord& setup) {
    g_loop = setup;
    return zkMain(InitStartsLibrary, RecordingFrame, TermStopsLibrary, 0);
}

LoopRecord Loop(uint32_t endAfter, int initResult = 1, uint32_t quitAt = 0, uint32_t closeAt = 0,
                uint32_t resetAt = 0) {
    LoopRecord r;
    r.endAfter = endAfter;
    r.initResult = initResult;
    r.quitAtFrame = quitAt;
    r.closeAtFrame = closeAt;
    r.resetAtFrame = resetAt;
    return r;
}

TEST(FrameLoop, LoopCountsAndEndingRules) {
    struct Case {
        const char* what;
        LoopRecord setup;
        int32_t result;
        std::vector<uint32_t> counts; // loop count seen by each frame
        int termCalls;
    } cases[] = {
        {"count raised before each frame", Loop(3), 0, {1, 2, 3}, 1},
        {"frame-end marker runs exactly one frame", Loop(1), 0, {1}, 1},
        {"failed init: no frame, no term", Loop(3, 0), -1, {}, 0},
        {"WM_QUIT ends the loop after that frame", Loop(50, 1, 2), 0, {1, 2}, 1},
        {"WM_CLOSE to the main window ends the loop", Loop(50, 1, 0, 1), 0, {1}, 1},
        {"reset in a frame: the next frame sees 1", Loop(5, 1, 0, 0, 3), 0, {1, 2, 3, 1, 2}, 1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RunMain(c.setup), c.result) << c.what;
        EXPECT_EQ(g_loop.loopCounts, c.counts) << c.what;
        EXPECT_EQ(g_loop.initCalls, 1) << c.what;
        EXPECT_EQ(g_loop.termCalls, c.termCalls) << c.what;
        EXPECT_EQ(g_loop.mainWindowAtTerm, c.termCalls == 1) << c.what;
    }
}

TEST(FrameLoop, ProcessEndRunsEvenWhenInitFails) {
    // initProc starts the library and then gives up: process end still stops
    // the timer and releases the main window.
    struct Local {
        static int ZK_CALL StartThenFail() {
            EXPECT_EQ(zkInitializeEx(kArena, 1024), 0);
            EXPECT_NE(zkGetMainWindow(), nullptr);
            return 0;
        }
    };
    EXPECT_EQ(zkMain(Local::StartThenFail, RecordingFrame, TermStopsLibrary, 0), -1);
    EXPECT_EQ(zkGetMainWindow(), nullptr);
    EXPECT_EQ(zkGetVblankCount(), 0u);
    zkSleep(40);
    EXPECT_EQ(zkGetVblankCount(), 0u) << "the vblank timer still runs after process end";
}

TEST(FrameLoop, FramesFollowTheVblankCount) {
    // With pacing on, every frame starts in a later tick than the one before.
    static std::vector<uint32_t> vblanks;
    vblanks.clear();
    struct Local {
        static uint32_t ZK_CALL Frame() {
            vblanks.push_back(zkGetVblankCount());
            return vblanks.size() >= 6 ? ZK_FRAME_END : 0;
        }
    };
    ASSERT_EQ(zkMain(InitStartsLibrary, Local::Frame, TermStopsLibrary, 0), 0);
    ASSERT_EQ(vblanks.size(), 6u);
    for (size_t i = 1; i < vblanks.size(); ++i)
        EXPECT_GT(vblanks[i], vblanks[i - 1]);
}

TEST(FrameLoop, PeriodWaitInsideAFrameReturnsZeroForAMessage) {
    static int32_t waitResult = -1;
    struct Local {
        static uint32_t ZK_CALL Frame() {
            if (zkGetLoopCount() == 1) {
                // Line up with a fresh period first, so that the next wait has
                // to block; the posted message then cuts it short.
                int32_t lineUp = 0;
                for (int i = 0; i < 100 && lineUp == 0; ++i)
                    lineUp = zkWaitForPeriodStart();
                EXPECT_EQ(lineUp, 1);
                EXPECT_EQ(zkPostWindowMessage(zkGetMainWindow(), 0x0400, 0, 0), 0);
                waitResult = zkWaitForPeriodStart();
                return 0;
            }
            return ZK_FRAME_END;
        }
    };
    ASSERT_EQ(zkMain(InitStartsLibrary, Local::Frame, TermStopsLibrary, 0), 0);
    EXPECT_EQ(waitResult, 0);
}

TEST(FrameLoop, LoopWithoutInitialisationStillRunsFrames) {
    // No zkInitialize: no timer and no window. The waits return at once and
    // the frames still run in order.
    struct Local {
        static int ZK_CALL Init() { return 1; }
        static uint32_t ZK_CALL Frame() { return zkGetLoopCount() >= 4 ? ZK_FRAME_END : 0; }
        static void ZK_CALL Term() {}
    };
    EXPECT_EQ(zkMain(Local::Init, Local::Frame, Local::Term, 0), 0);
    EXPECT_EQ(zkGetLoopCount(), 4u);
}

// ---- levels of lifetime -------------------------------------------------------------

TEST(Lifecycle, BannerIsTheFirstTraceOfInitialisation) {
    TraceCapture capture;
    ASSERT_EQ(zkBeginProcess(0), 0);
    EXPECT_TRUE(capture.Lines().empty()) << "process begin prints nothing";
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    std::vector<std::string> lines = capture.Lines();
    ASSERT_GE(lines.size(), 2u);
    char expected[96];
    std::snprintf(expected, sizeof(expected), "QAX Kernel Library %u.%u.%u.%u\n", ZK_VERSION_MAJOR,
                  ZK_VERSION_MINOR, ZK_VERSION_BUILD, ZK_VERSION_REVISION);
    EXPECT_EQ(lines[0], expected);
    EXPECT_EQ(lines[1].rfind("    ", 0), 0u);
    EXPECT_GT(lines[1].size(), 5u);
    EXPECT_EQ(lines[1].back(), '\n');
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(Lifecycle, SecondInitialisationIsRefusedWithoutSideEffects) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    Window* mainWindow = zkGetMainWindow();
    ASSERT_NE(mainWindow, nullptr);
    {
        TraceCapture capture;
        EXPECT_EQ(zkInitializeEx(kArena, 1024), ZK_ERR_NOT_SUPPORTED);
        EXPECT_TRUE(capture.Lines().empty()) << "a refused initialisation prints no banner";
    }
    EXPECT_EQ(zkGetMainWindow(), mainWindow);
    EXPECT_EQ(zkTerminate(), 0);
    // After termination the library can be started again in the same process level.
    EXPECT_EQ(zkInitializeEx(kArena, 1024), 0);
    EXPECT_NE(zkGetMainWindow(), nullptr);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(Lifecycle, TerminateTwiceThenEndProcessIsHarmless) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkGetMainWindow(), nullptr);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(Lifecycle, InitialiseWithoutBeginPerformsTheBeginSteps) {
    ASSERT_EQ(zkEndProcess(), 0);
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    EXPECT_NE(zkGetMainWindow(), nullptr);
    EXPECT_GE(zkGetAppArgCount(), 1u);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(Lifecycle, EveryTimerStartRestartsTheVblankCount) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    EXPECT_EQ(zkGetVblankCount(), 0u);
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    // Move the period start well up the count.
    constexpr uint32_t kTicks = 30;
    for (int guard = 0; guard < 1000 && zkGetVblankCount() < kTicks; ++guard)
        zkWaitForPeriodStart();
    ASSERT_GE(zkGetVblankCount(), kTicks);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkGetVblankCount(), 0u);
    // After a restart the count starts again below the old period start: the
    // first period wait returns at once instead of waiting for the old count
    // to come round again, and pacing goes on from the new count.
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    EXPECT_EQ(zkWaitForPeriodStart(), 1);
    EXPECT_LT(zkGetVblankCount(), kTicks);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST_F(LibraryTest, ApplicationInstanceAndTickCount) {
    EXPECT_NE(zkGetApplicationInstance(), nullptr);
    uint32_t before = zkGetTickCount();
    zkSleep(30);
    EXPECT_GE(zkGetTickCount() - before, 15u);
}

TEST(Stubs, DoNothingExportsReturnZero) {
    EXPECT_EQ(zkExecute(), 0);
    EXPECT_EQ(zkEnableInterrupt(), 0);
    EXPECT_EQ(zkDisableInterrupt(), 0);
    EXPECT_EQ(zkInitializeDevice(), 0);
    zkTrace2();
    zkTerminateDevice();
    zkSkipLoadModule();
    zkReleaseOverlay();
    zkSetDisplayFrequency();
}

} // namespace
