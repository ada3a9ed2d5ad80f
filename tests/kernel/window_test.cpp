// The main window: visibility, references, the close request, the hook chain.
#include "support/library_test.h"

#include <vector>

namespace {

using zktest::LibraryTest;

using zktest::StartLibrary;
using zktest::StopLibrary;
constexpr uint32_t kArena = zktest::kArenaSize;
constexpr uint32_t kProbeMessage = 0x0401; // WM_USER + 1

TEST_F(LibraryTest, MainWindowIsHiddenUntilShown) {
    Window* window = zkGetMainWindow();
    ASSERT_NE(window, nullptr);
    zkNativeHandle handle = nullptr;
    zkGetWindowNativeHandle(window, &handle);
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(zkIsWindowVisible(window), 0);
    zkSetWindowVisibility(window, 1);
    EXPECT_EQ(zkIsWindowVisible(window), 1);
    zkSetWindowVisibility(window, 0);
    EXPECT_EQ(zkIsWindowVisible(window), 0);
}

TEST_F(LibraryTest, NullWindowsAreIgnored) {
    zkSetWindowVisibility(nullptr, 1);
    EXPECT_EQ(zkReleaseWindow(nullptr), 0);
    EXPECT_EQ(zkIsWindowVisible(nullptr), 0);
    zkNativeHandle handle = reinterpret_cast<zkNativeHandle>(1);
    zkGetWindowNativeHandle(nullptr, &handle);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(zkPostWindowMessage(nullptr, kProbeMessage, 0, 0), ZK_ERR_INVALID_HANDLE);
}

TEST_F(LibraryTest, CreateMainWindowAddsAReference) {
    Window* window = zkGetMainWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(zkCreateMainWindow(), window);
    EXPECT_EQ(zkReleaseWindow(window), 0);
    zkNativeHandle handle = nullptr;
    zkGetWindowNativeHandle(window, &handle);
    EXPECT_NE(handle, nullptr) << "one reference remains: the window lives";
    zkSetWindowVisibility(window, 1);
    EXPECT_EQ(zkIsWindowVisible(window), 1);

    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkGetMainWindow(), nullptr);
    zkGetWindowNativeHandle(window, &handle);
    EXPECT_EQ(handle, nullptr) << "termination's release destroyed the window";
}

TEST(MainWindow, TitleAfterBeginNamesTheWindowClass) {
    // The class is registered under the name, so a process level with another
    // name gets a window of its own class; overlong names are cut and work.
    std::string longName(400, 'n');
    for (const char* name : {"ZkWindowTestClass", longName.c_str()}) {
        ASSERT_EQ(zkBeginProcess(0), 0);
        EXPECT_EQ(zkSetTitle(nullptr, "Caption only"), 0);
        EXPECT_EQ(zkSetTitle(name, name == longName.c_str() ? name : nullptr), 0);
        ASSERT_EQ(zkInitializeEx(kArena, 1024), 0);
        EXPECT_NE(zkGetMainWindow(), nullptr);
        EXPECT_EQ(zkTerminate(), 0);
        EXPECT_EQ(zkEndProcess(), 0);
    }
}

// ---- hooks ------------------------------------------------------------------------------
// Hooks cannot be removed; every hook here acts only while its test switches
// it on, so that later windows pass through them untouched.

struct HookRecord {
    bool active = false;
    bool firstHandlesProbe = false;
    bool secondHandlesProbe = false;
    bool blockClose = false;
    std::vector<zkAddr> probeCalls{}; // user values of the hooks that saw the probe
    int closeSeen = 0;
};
HookRecord g_hooks;

int ZK_CALL ProbeHook(zkNativeHandle, uint32_t message, zkAddr, zkSAddr, zkSAddr* result,
                      zkAddr user) {
    if (!g_hooks.active) return 0;
    if (message == kProbeMessage) {
        g_hooks.probeCalls.push_back(user);
        bool handles =
            (user == 1 && g_hooks.firstHandlesProbe) || (user == 2 && g_hooks.secondHandlesProbe);
        if (handles) *result = 77;
        return handles ? 1 : 0;
    }
    if (message == ZK_WM_CLOSE && user == 3) {
        ++g_hooks.closeSeen;
        if (g_hooks.blockClose) {
            *result = 0;
            return 1;
        }
    }
    return 0;
}

int ZK_CALL UnusedHook(zkNativeHandle, uint32_t, zkAddr, zkSAddr, zkSAddr*, zkAddr) {
    return 0;
}

struct ProbeFrames {
    static uint32_t ZK_CALL Frame() {
        if (zkGetLoopCount() == 1) {
            EXPECT_EQ(zkPostWindowMessage(zkGetMainWindow(), kProbeMessage, 0, 0), 0);
            return 0;
        }
        return ZK_FRAME_END;
    }
};

struct CloseFrames {
    static uint32_t frames;
    static bool windowAliveAtEnd;
    static uint32_t ZK_CALL Frame() {
        frames = zkGetLoopCount();
        if (frames == 1) {
            EXPECT_EQ(zkPostWindowMessage(zkGetMainWindow(), ZK_WM_CLOSE, 0, 0), 0);
        }
        if (frames < 4) return 0;
        zkNativeHandle handle = nullptr;
        zkGetWindowNativeHandle(zkGetMainWindow(), &handle);
        windowAliveAtEnd = handle != nullptr;
        return ZK_FRAME_END;
    }
};
uint32_t CloseFrames::frames = 0;
bool CloseFrames::windowAliveAtEnd = false;

TEST(WindowHooks, ChainRunsInOrderStopsAtTheFirstHandlerAndHoldsSixteen) {
    static bool ranBefore = false;
    if (ranBefore) GTEST_SKIP() << "hooks cannot be removed: this runs once per process";
    ranBefore = true;
    EXPECT_EQ(zkAddWindowHook(nullptr, 0), ZK_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(zkAddWindowHook(ProbeHook, 1), 0);
    ASSERT_EQ(zkAddWindowHook(ProbeHook, 2), 0);
    ASSERT_EQ(zkAddWindowHook(ProbeHook, 3), 0);

    auto run = [](HookRecord setup, uint32_t(ZK_CALL * frame)()) {
        g_hooks = setup;
        g_hooks.active = true;
        ASSERT_EQ(zkMain(StartLibrary, frame, StopLibrary, 0), 0);
    };
    // Nobody handles the probe: all three see it, in order of addition.
    run({}, ProbeFrames::Frame);
    EXPECT_EQ(g_hooks.probeCalls, (std::vector<zkAddr>{1, 2, 3}));
    // The second handles it: the third is not called.
    run({.secondHandlesProbe = true}, ProbeFrames::Frame);
    EXPECT_EQ(g_hooks.probeCalls, (std::vector<zkAddr>{1, 2}));
    // The first handles it: only the first is called.
    run({.firstHandlesProbe = true}, ProbeFrames::Frame);
    EXPECT_EQ(g_hooks.probeCalls, (std::vector<zkAddr>{1}));
    // A hook that handles WM_CLOSE keeps both the loop and the window.
    run({.blockClose = true}, CloseFrames::Frame);
    EXPECT_EQ(g_hooks.closeSeen, 1);
    EXPECT_EQ(CloseFrames::frames, 4u);
    EXPECT_TRUE(CloseFrames::windowAliveAtEnd);
    // Unhandled, the same close ends the loop after the first frame.
    run({}, CloseFrames::Frame);
    EXPECT_EQ(g_hooks.closeSeen, 1);
    EXPECT_EQ(CloseFrames::frames, 1u);
    g_hooks.active = false;

    // Fill the table: 16 hooks at most, the 17th is refused.
    int added = 3;
    while (zkAddWindowHook(UnusedHook, 0) == 0)
        ++added;
    EXPECT_EQ(added, 16);
    EXPECT_EQ(zkAddWindowHook(UnusedHook, 0), ZK_ERR_NO_SLOT);
}

} // namespace
