// The vertical-blank timer, the frame period and the vblank handler table.
#include "support/library_test.h"

#include "kernel/period_wait.h"

#include <atomic>
#include <cstring>
#include <vector>

namespace {

using zktest::LibraryTest;

// ---- the period-wait rule, driven by a scripted count -------------------------------

// Plays a list of counts: each read returns the current one, each tick wait
// moves to the next (or reports a message when the script says so).
struct ScriptedVblank {
    std::vector<uint32_t> counts;
    std::vector<bool> messageBeforeTick; // per tick wait: true = a message wakes it
    size_t position = 0;
    size_t waits = 0;
    int blockingNotices = 0;

    int32_t Wait(uint32_t& lastStart, uint32_t waitLength) {
        return zk::WaitForPeriodStart(
            lastStart, waitLength, [this]() { return counts[position]; },
            [this]() {
                size_t wait = waits++;
                if (wait < messageBeforeTick.size() && messageBeforeTick[wait]) return false;
                if (position + 1 < counts.size()) ++position;
                return true;
            },
            [this]() { ++blockingNotices; });
    }
};

TEST(PeriodWait, EndsAtTheFirstCountPastThePeriod) {
    struct Case {
        const char* what;
        std::vector<uint32_t> counts;
        uint32_t lastStart, length, endStart;
        size_t waits;
        int notices;
    } cases[] = {
        {"one tick after the start", {10, 10, 11}, 10, 1, 11, 2, 1},
        {"overrun: next starts at once, no catching up", {14}, 10, 1, 14, 0, 0},
        {"count below the start (timer restarted)", {3}, 500, 1, 3, 0, 0},
        {"wrap: the end is count 0", {0xFFFFFFFFu, 0xFFFFFFFFu, 0u}, 0xFFFFFFFFu, 1, 0, 2, 1},
        {"zero length records the count", {42}, 42, 0, 42, 0, 0},
    };
    for (const Case& c : cases) {
        ScriptedVblank vblank{c.counts, {}};
        uint32_t lastStart = c.lastStart;
        EXPECT_EQ(vblank.Wait(lastStart, c.length), 1) << c.what;
        EXPECT_EQ(lastStart, c.endStart) << c.what;
        EXPECT_EQ(vblank.waits, c.waits) << c.what;
        EXPECT_EQ(vblank.blockingNotices, c.notices)
            << c.what << ": idle work once per blocking wait";
    }
}

TEST(PeriodWait, AMessageReturnsZeroAndKeepsThePeriodStart) {
    for (uint32_t start : {10u, 0xFFFFFFFFu}) {
        ScriptedVblank vblank{{start, start + 1}, {true}};
        uint32_t lastStart = start;
        EXPECT_EQ(vblank.Wait(lastStart, 1), 0);
        EXPECT_EQ(lastStart, start);
        // The next call waits for the same period.
        EXPECT_EQ(vblank.Wait(lastStart, 1), 1);
        EXPECT_EQ(lastStart, start + 1);
    }
}

// ---- the real timer -------------------------------------------------------------------

TEST_F(LibraryTest, WaitVblankAndUnknownModesReturnAfterTheNextTick) {
    uint32_t before = zkGetVblankCount();
    EXPECT_EQ(zkWaitVblank(), 1u);
    EXPECT_GT(zkGetVblankCount(), before);
    before = zkGetVblankCount();
    EXPECT_EQ(zkWaitVblankEx(7), 1u);
    EXPECT_GT(zkGetVblankCount(), before);
}

TEST_F(LibraryTest, WaitVblankExModeTwoWakesOnTheNextEvenCount) {
    for (int i = 0; i < 6; ++i) {
        zkWaitVblank(); // start right after a tick
        uint32_t before = zkGetVblankCount();
        EXPECT_EQ(zkWaitVblankEx(2), 1u);
        // Read right at the wake-up, a whole tick before the next one.
        uint32_t after = zkGetVblankCount();
        EXPECT_EQ(after % 2, 0u) << "mode 2 woke on the odd count " << after;
        uint32_t expected = (before + 1) % 2 == 0 ? before + 1 : before + 2;
        EXPECT_GE(after, expected);
        EXPECT_LE(after, expected + 1) << "a tick may pass between the wake and the read";
    }
}

TEST_F(LibraryTest, DisplayFrequencyIsFixed) {
    float frequency = zkGetDisplayFrequency();
    uint32_t bits = 0;
    std::memcpy(&bits, &frequency, sizeof(bits));
    EXPECT_EQ(bits, 0x426FC28Fu);
    zkSetDisplayFrequency();
    EXPECT_EQ(zkGetDisplayFrequency(), frequency);
}

// Outside zkMain nothing pumps the queue, and the system may post messages to
// the main window's thread at any time: a wait that a message cut short is
// simply repeated.
int32_t WaitForPeriodStartPastMessages() {
    int32_t result = 0;
    for (int i = 0; i < 100 && result == 0; ++i)
        result = zkWaitForPeriodStart();
    return result;
}

TEST_F(LibraryTest, PeriodIntervalOtherThanOneSwitchesPacingOff) {
    for (uint32_t interval : {0u, 2u}) {
        zkSetPeriodInterval(interval);
        // Without pacing every wait returns 1 at once: many in a row do not
        // need as many ticks.
        uint32_t before = zkGetVblankCount();
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(zkWaitForPeriodStart(), 1);
        EXPECT_LT(zkGetVblankCount() - before, 50u) << "interval " << interval;
    }
    zkSetPeriodInterval(1);
    uint32_t before = zkGetVblankCount();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(WaitForPeriodStartPastMessages(), 1);
    EXPECT_GE(zkGetVblankCount() - before, 2u) << "pacing is back: each period needs a tick";
}

TEST(Vblank, WaitsWithTheTimerStoppedReturnAtOnce) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    EXPECT_EQ(zkWaitVblank(), 1u);
    EXPECT_EQ(zkWaitVblankEx(2), 1u);
    EXPECT_EQ(zkWaitForPeriodStart(), 1);
    EXPECT_EQ(zkGetVblankCount(), 0u);
    EXPECT_EQ(zkEndProcess(), 0);
}

// ---- vblank handlers ----------------------------------------------------------------

std::atomic<uint32_t> g_handlerCalls{0};
std::atomic<zkAddr> g_handlerUser{0};

void ZK_CALL CountingHandler(zkAddr user) {
    g_handlerCalls.fetch_add(1);
    g_handlerUser.store(user);
}

void ZK_CALL IdleVblankHandler(zkAddr) {}

TEST(VblankHandlers, TableHoldsEightAndReusesTheLowestFreeSlot) {
    EXPECT_EQ(zkAddVblankHandler(nullptr, 1), nullptr);
    std::vector<VblankHandlerSlot*> slots;
    for (int i = 0; i < 8; ++i) {
        VblankHandlerSlot* slot = zkAddVblankHandler(IdleVblankHandler, static_cast<zkAddr>(i));
        ASSERT_NE(slot, nullptr) << "slot " << i;
        slots.push_back(slot);
    }
    EXPECT_EQ(zkAddVblankHandler(IdleVblankHandler, 9), nullptr);
    zkRemoveVblankHandler(slots[5]);
    zkRemoveVblankHandler(slots[2]);
    EXPECT_EQ(zkAddVblankHandler(IdleVblankHandler, 10), slots[2]);
    EXPECT_EQ(zkAddVblankHandler(IdleVblankHandler, 11), slots[5]);
    zkRemoveVblankHandler(nullptr);
    for (VblankHandlerSlot* slot : slots)
        zkRemoveVblankHandler(slot);
}

TEST_F(LibraryTest, VblankHandlersRunOnEveryTickWithTheirUserValue) {
    g_handlerCalls = 0;
    VblankHandlerSlot* slot = zkAddVblankHandler(CountingHandler, 0x5A5A);
    ASSERT_NE(slot, nullptr);
    for (int i = 0; i < 3; ++i)
        zkWaitVblank();
    EXPECT_GE(g_handlerCalls.load(), 3u);
    EXPECT_EQ(g_handlerUser.load(), static_cast<zkAddr>(0x5A5A));
    zkRemoveVblankHandler(slot);
    uint32_t calls = g_handlerCalls.load();
    zkWaitVblank();
    zkWaitVblank();
    // A tick already running when the handler was removed may still call it once.
    EXPECT_LE(g_handlerCalls.load(), calls + 1);
}

} // namespace
