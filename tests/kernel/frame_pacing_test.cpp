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

TEST(PeriodWait, EndsOneTickAfterThePeriodStart) {
    ScriptedVblank vblank{{10, 10, 11}, {}};
    uint32_t lastStart = 10;
    EXPECT_EQ(vblank.Wait(lastStart, 1), 1);
    EXPECT_EQ(lastStart, 11u);
    EXPECT_EQ(vblank.waits, 2u);
    EXPECT_EQ(vblank.blockingNotices, 1) << "the idle work runs once per blocking wait";
}

TEST(PeriodWait, AnOverrunFrameStartsTheNextAtOnceWithoutCatchingUp) {
    ScriptedVblank vblank{{14}, {}};
    uint32_t lastStart = 10;
    EXPECT_EQ(vblank.Wait(lastStart, 1), 1);
    EXPECT_EQ(lastStart, 14u);
    EXPECT_EQ(vblank.waits, 0u);
    EXPECT_EQ(vblank.blockingNotices, 0);
}

TEST(PeriodWait, AMessageReturnsZeroAndKeepsThePeriodStart) {
    ScriptedVblank vblank{{10, 11}, {true}};
    uint32_t lastStart = 10;
    EXPECT_EQ(vblank.Wait(lastStart, 1), 0);
    EXPECT_EQ(lastStart, 10u);
    // The next call waits for the same period.
    EXPECT_EQ(vblank.Wait(lastStart, 1), 1);
    EXPECT_EQ(lastStart, 11u);
}

TEST(PeriodWait, CountBelowThePeriodStartMeansANewPeriod) {
    // The timer restarted (or the count wrapped) since the period began.
    ScriptedVblank vblank{{3}, {}};
    uint32_t lastStart = 500;
    EXPECT_EQ(vblank.Wait(lastStart, 1), 1);
    EXPECT_EQ(lastStart, 3u);
    EXPECT_EQ(vblank.waits, 0u);
}

TEST(PeriodWait, WrapAroundEndsWhenTheCountReachesZero) {
    // lastStart 0xFFFFFFFF and one tick: the end wraps to 0.
    ScriptedVblank vblank{{0xFFFFFFFFu, 0xFFFFFFFFu, 0u}, {}};
    uint32_t lastStart = 0xFFFFFFFFu;
    EXPECT_EQ(vblank.Wait(lastStart, 1), 1);
    EXPECT_EQ(lastStart, 0u);
    EXPECT_EQ(vblank.waits, 2u);
}

TEST(PeriodWait, WrapAroundGivesZeroForAMessage) {
    ScriptedVblank vblank{{0xFFFFFFFFu, 0u}, {true}};
    uint32_t lastStart = 0xFFFFFFFFu;
    EXPECT_EQ(vblank.Wait(lastStart, 1), 0);
    EXPECT_EQ(lastStart, 0xFFFFFFFFu);
}

TEST(PeriodWait, ZeroLengthRecordsTheCountWithoutWaiting) {
    ScriptedVblank vblank{{42}, {}};
    uint32_t lastStart = 42;
    EXPECT_EQ(vblank.Wait(lastStart, 0), 1);
    EXPECT_EQ(lastStart, 42u);
    EXPECT_EQ(vblank.waits, 0u);
}

// ---- the real timer -------------------------------------------------------------------

TEST_F(LibraryTest, WaitVblankReturnsAfterTheNextTick) {
    uint32_t before = zkGetVblankCount();
    EXPECT_EQ(zkWaitVblank(), 1u);
    EXPECT_GT(zkGetVblankCount(), before);
}

TEST_F(LibraryTest, WaitVblankExModeTwoReturnsOnEvenCounts) {
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(zkWaitVblankEx(2), 1u);
        // Read right at the wake-up, a whole tick before the next one.
        uint32_t count = zkGetVblankCount();
        EXPECT_EQ(count % 2, 0u) << "mode 2 woke on the odd count " << count;
    }
}

TEST_F(LibraryTest, WaitVblankExModeTwoTakesOneOrTwoTicks) {
    zkWaitVblank(); // start right after a tick
    uint32_t before = zkGetVblankCount();
    zkWaitVblankEx(2);
    uint32_t after = zkGetVblankCount();
    uint32_t expected = (before + 1) % 2 == 0 ? before + 1 : before + 2;
    EXPECT_GE(after, expected);
    EXPECT_LE(after, expected + 1) << "a tick may pass between the wake and the read";
}

TEST_F(LibraryTest, OtherModesBehaveAsModeOne) {
    uint32_t before = zkGetVblankCount();
    EXPECT_EQ(zkWaitVblankEx(7), 1u);
    EXPECT_GT(zkGetVblankCount(), before);
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
