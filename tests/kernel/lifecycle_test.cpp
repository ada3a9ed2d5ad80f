// Levels of lifetime and the frame loop of zkMain.
#include "support/library_test.h"

#include "zk_version.h"

namespace {

using zktest::Codes;
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

// Why each loop ended, as the frame loop's end event reports it.
std::vector<zkAddr> g_endReasons;
void ZK_CALL RecordEnd(uint32_t event, zkAddr data) {
    if (event == ZK_EVENT_LOOP_END) g_endReasons.push_back(data);
}
const bool g_recorderAdded = zkAddEventCallback(RecordEnd) == 0;

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
    ASSERT_TRUE(g_recorderAdded);
    constexpr zkAddr kFrame = ZK_LOOP_END_FRAME, kQuit = ZK_LOOP_END_QUIT,
                     kClose = ZK_LOOP_END_CLOSE, kNone = 0xFFFF;
    // end: the reason reported, kNone when no loop ran; counts: the loop count
    // each frame saw; paced: a main window and a running timer.
    // clang-format off
    struct Case { const char* what; LoopRecord setup; zkAddr end; std::vector<uint32_t> counts;
                  bool paced; } cases[] = {
        {"count raised before each frame", {}, kFrame, {1, 2, 3}, true},
        {"frame-end marker runs exactly one frame", {.endAfter = 1}, kFrame, {1}, true},
        {"failed init: no frame, no term", {.init = kFail}, kNone, {}, false},
        {"started, then failed init", {.init = kStartThenFail}, kNone, {}, false},
        {"WM_QUIT ends after its frame", {.endAfter = 50, .quitAt = 2}, kQuit, {1, 2}, true},
        {"WM_CLOSE ends the loop", {.endAfter = 50, .closeAt = 1}, kClose, {1}, true},
        {"reset: next sees 1", {.endAfter = 5, .resetAt = 3}, kFrame, {1, 2, 3, 1, 2}, true},
        {"no initialisation: no window, no pacing", {.init = kNoStart}, kFrame, {1, 2, 3}, false},
        {"a message cuts a period wait short", {.endAfter = 2, .waitAt = 1}, kFrame, {1, 2}, true},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        g_loop = c.setup;
        g_endReasons.clear();
        const int32_t result = zkMain(Init, Frame, Term, 0);
        EXPECT_EQ(g_endReasons, c.end == kNone ? std::vector<zkAddr>{} : std::vector{c.end});
        EXPECT_EQ(g_loop.loopCounts, c.counts);
        for (size_t i = 1; c.paced && i < g_loop.vblanks.size(); ++i)
            EXPECT_GT(g_loop.vblanks[i], g_loop.vblanks[i - 1]) << "a tick per frame";
        // {result, term calls, window at term, wait result}; then process end
        // ran whatever happened: no window, and the timer stopped.
        zkSleep(20);
        EXPECT_EQ(Codes({result, g_loop.termCalls, g_loop.mainWindowAtTerm, g_loop.waitResult,
                         zkGetMainWindow() != nullptr, zkGetVblankCount()}),
                  Codes({c.end == kNone ? -1 : 0, c.end != kNone, c.paced, c.setup.waitAt ? 0 : -1,
                         0, 0}));
    }
}

// ---- levels of lifetime -------------------------------------------------------------

TEST(Lifecycle, BannerFirstSecondStartRefusedRestartCountsAnew) {
    // Initialisation without a process level performs the begin steps.
    ASSERT_EQ(zkEndProcess(), 0);
    zktest::TraceCapture capture;
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    char banner[96];
    std::snprintf(banner, sizeof(banner), "QAX Kernel Library %u.%u.%u.%u\n", ZK_VERSION_MAJOR,
                  ZK_VERSION_MINOR, ZK_VERSION_BUILD, ZK_VERSION_REVISION);
    EXPECT_EQ(capture.Lines().at(0), banner);
    Window* mainWindow = zkGetMainWindow();
    // A second start is refused, prints nothing and keeps the window.
    EXPECT_EQ(Codes({zkGetAppArgCount() >= 1, mainWindow != nullptr, zkInitializeEx(kArena, 1024),
                     int64_t(capture.Lines().size()), zkGetMainWindow() == mainWindow}),
              Codes({1, 1, ZK_ERR_NOT_SUPPORTED, 2, 1}));
    constexpr uint32_t kTicks = 30; // move the period start well up the count
    for (int guard = 0; guard < 1000 && zkGetVblankCount() < kTicks; ++guard)
        zkWaitForPeriodStart();
    ASSERT_GE(zkGetVblankCount(), kTicks);
    // Terminating twice is harmless and stops the count.
    EXPECT_EQ(
        Codes({zkTerminate() + zkTerminate(), zkGetVblankCount(), zkGetMainWindow() != nullptr}),
        Codes({0, 0, 0}));
    // A restart in the same process level registers the class under the new
    // name (an overlong one is cut), and its first period wait returns at once
    // instead of waiting for the old count to come round again.
    const std::string longName(400, 'n');
    EXPECT_EQ(zkSetTitle(longName.c_str(), longName.c_str()), 0);
    ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
    EXPECT_EQ(
        Codes({zkGetMainWindow() != nullptr, zkWaitForPeriodStart(), zkGetVblankCount() < kTicks,
               zkEndProcess() + zkEndProcess(), zkGetMainWindow() != nullptr}),
        Codes({1, 1, 1, 0, 0}));
}

} // namespace
