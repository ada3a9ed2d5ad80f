// The main window: visibility, references, the close request, the hook chain.
#include "support/library_test.h"

namespace {

using zktest::LibraryTest;

constexpr uint32_t kProbeMessage = 0x0401; // WM_USER + 1

zkNativeHandle NativeHandle(Window* window) {
    zkNativeHandle handle = reinterpret_cast<zkNativeHandle>(1);
    zkGetWindowNativeHandle(window, &handle);
    return handle;
}

TEST_F(LibraryTest, MainWindowIsHiddenUntilShownAndLivesUntilItsLastRelease) {
    Window* window = zkGetMainWindow();
    ASSERT_NE(NativeHandle(window), nullptr);
    // A second reference, released: the window lives; termination's release destroys it.
    zktest::Codes got{zkIsWindowVisible(window), zkCreateMainWindow() == window,
                      zkReleaseWindow(window)};
    zkSetWindowVisibility(window, 1);
    got.insert(got.end(), {zkIsWindowVisible(window), zkTerminate(), zkGetMainWindow() != nullptr,
                           NativeHandle(window) != nullptr});
    EXPECT_EQ(got, zktest::Codes({0, 1, 0, 1, 0, 0, 0}));
}

// ---- hooks ------------------------------------------------------------------------------
// Hooks cannot be removed; the hooks here act only while the test switches
// them on, so that later windows pass through them untouched.

struct HookRun {
    uint32_t message;            // posted to the main window in the first frame
    zkAddr handledBy;            // user value of the hook that handles it, 0 for none
    std::vector<zkAddr> calls{}; // user values of the hooks that saw it
    uint32_t frames = 0;
    bool windowAlive = false;
};
HookRun g_run;
bool g_hooksActive = false;

int ZK_CALL Hook(zkNativeHandle, uint32_t message, zkAddr, zkSAddr, zkSAddr* result, zkAddr user) {
    if (!g_hooksActive || message != g_run.message) return 0;
    g_run.calls.push_back(user);
    *result = 0;
    return user == g_run.handledBy ? 1 : 0;
}

uint32_t ZK_CALL HookFrame() {
    g_run.frames = zkGetLoopCount();
    g_run.windowAlive = NativeHandle(zkGetMainWindow()) != nullptr;
    if (g_run.frames == 1) zkPostWindowMessage(zkGetMainWindow(), g_run.message, 0, 0);
    return g_run.frames >= 4 ? ZK_FRAME_END : 0;
}

TEST(WindowHooks, ChainRunsInOrderStopsAtTheFirstHandlerAndHoldsSixteen) {
    static bool ranBefore = false;
    if (ranBefore) GTEST_SKIP() << "hooks cannot be removed: this runs once per process";
    ranBefore = true;
    EXPECT_EQ(zkAddWindowHook(nullptr, 0), ZK_ERR_INVALID_ARGUMENT);
    for (zkAddr user : {1, 2, 3})
        ASSERT_EQ(zkAddWindowHook(Hook, user), 0);
    // clang-format off
    struct Case { uint32_t message; zkAddr handledBy; std::vector<zkAddr> calls; uint32_t frames; } cases[] = {
        {kProbeMessage, 0, {1, 2, 3}, 4}, // nobody handles it: all, in order of addition
        {kProbeMessage, 2, {1, 2}, 4},    // the second handles it: the third is not called
        {kProbeMessage, 1, {1}, 4},
        {ZK_WM_CLOSE, 3, {1, 2, 3}, 4}, // a handled close keeps the loop and the window
        {ZK_WM_CLOSE, 0, {1, 2, 3}, 1}, // unhandled, it ends the loop after the first frame
    };
    // clang-format on
    for (const Case& c : cases) {
        g_run = HookRun{c.message, c.handledBy};
        g_hooksActive = true;
        ASSERT_EQ(zkMain(zktest::StartLibrary, HookFrame, zktest::StopLibrary, 0), 0);
        g_hooksActive = false;
        EXPECT_EQ(g_run.calls, c.calls) << c.message << " " << c.handledBy;
        EXPECT_EQ(g_run.frames, c.frames) << c.message << " " << c.handledBy;
        EXPECT_TRUE(g_run.windowAlive);
    }
    // Fill the table: 16 hooks at most, the 17th is refused.
    int added = 3;
    while (zkAddWindowHook(Hook, 99) == 0)
        ++added;
    EXPECT_EQ(added, 16);
    EXPECT_EQ(zkAddWindowHook(Hook, 99), ZK_ERR_NO_SLOT);
}

} // namespace
