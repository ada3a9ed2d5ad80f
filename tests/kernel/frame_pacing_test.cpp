// The vertical-blank timer, the frame period and the vblank handler table.
#include "support/library_test.h"

#include "kernel/period_wait.h"

#include <algorithm>
#include <atomic>

namespace {

using zktest::LibraryTest;

// ---- the period-wait rule, driven by a scripted count -------------------------------

TEST(PeriodWait, EndsAtTheFirstCountPastThePeriodOrAtAMessage) {
    // Each read returns the current count, each tick wait moves to the next;
    // with message set the first tick wait is woken by a message instead.
    // clang-format off
    struct Case { const char* what; std::vector<uint32_t> counts; uint32_t lastStart, length;
                  int32_t result; uint32_t endStart; size_t waits; bool message = false; };
    const Case cases[] = {
        {"one tick after the start", {10, 10, 11}, 10, 1, 1, 11, 2},
        {"overrun: next starts at once, no catching up", {14}, 10, 1, 1, 14, 0},
        {"count below the start (timer restarted)", {3}, 500, 1, 1, 3, 0},
        {"wrap: the end is count 0", {0xFFFFFFFFu, 0xFFFFFFFFu, 0u}, 0xFFFFFFFFu, 1, 1, 0, 2},
        {"zero length records the count", {42}, 42, 0, 1, 42, 0},
        {"message: 0, the period start kept", {10, 11}, 10, 1, 0, 10, 1, true},
        {"message at the wrap", {0xFFFFFFFFu, 0u}, 0xFFFFFFFFu, 1, 0, 0xFFFFFFFFu, 1, true},
    };
    // clang-format on
    for (const Case& c : cases) {
        size_t position = 0, waits = 0;
        int notices = 0;
        uint32_t lastStart = c.lastStart;
        int32_t result = zk::WaitForPeriodStart(
            lastStart, c.length, [&]() { return c.counts[position]; },
            [&]() {
                if (waits++ == 0 && c.message) return false;
                position = std::min(position + 1, c.counts.size() - 1);
                return true;
            },
            [&]() { ++notices; });
        // {result, period start, tick waits, idle notices (once per blocking wait)}
        EXPECT_EQ(zktest::Codes({result, lastStart, int64_t(waits), notices}),
                  zktest::Codes({c.result, c.endStart, int64_t(c.waits), c.waits > 0}))
            << c.what;
    }
}

// ---- the real timer -------------------------------------------------------------------

TEST_F(LibraryTest, VblankWaitsEndAtTheNextTickOrTheNextEvenCount) {
    for (uint32_t mode : {0u, 7u, 2u, 2u, 2u, 2u}) {
        zkWaitVblank(); // start right after a tick
        const uint32_t before = zkGetVblankCount();
        EXPECT_EQ(mode == 0 ? zkWaitVblank() : zkWaitVblankEx(mode), 1u);
        // Read right at the wake-up (a tick may pass before the read); mode 2
        // wakes on an even count.
        const uint32_t after = zkGetVblankCount(),
                       expected = before + 1 + (mode == 2 && before % 2 == 0);
        EXPECT_TRUE(after >= expected && after <= expected + 1 && (mode != 2 || after % 2 == 0))
            << "mode " << mode << ": " << before << " to " << after;
    }
}

TEST_F(LibraryTest, PeriodIntervalOtherThanOneSwitchesPacingOff) {
    for (uint32_t interval : {0u, 2u, 1u}) {
        zkSetPeriodInterval(interval);
        uint32_t before = zkGetVblankCount();
        // Outside zkMain nothing pumps the queue, and the system may post
        // messages to the main window's thread: a wait a message cut short
        // (result 0) is simply repeated.
        for (int i = 0, repeats = 0; i < 20 && repeats < 100; ++repeats)
            i += zkWaitForPeriodStart();
        uint32_t ticks = zkGetVblankCount() - before;
        // Paced, each of the 20 periods needs a tick; unpaced, every wait
        // returns at once.
        EXPECT_EQ(ticks >= 10, interval == 1) << "interval " << interval << ": " << ticks;
    }
}

// ---- vblank handlers ----------------------------------------------------------------

std::atomic<uint32_t> g_handlerCalls{0};
std::atomic<zkAddr> g_handlerUser{0};

void ZK_CALL CountingHandler(zkAddr user) {
    g_handlerCalls.fetch_add(1);
    g_handlerUser.store(user);
}

TEST_F(LibraryTest, VblankHandlersHoldEightReuseFreedSlotsAndRunEveryTick) {
    std::vector<VblankHandlerSlot*> slots;
    for (zkAddr i = 0; i < 8; ++i)
        slots.push_back(zkAddVblankHandler(CountingHandler, 0x5A00 + i));
    EXPECT_EQ(zkAddVblankHandler(CountingHandler, 9), nullptr);
    zkRemoveVblankHandler(slots[5]);
    EXPECT_EQ(zkAddVblankHandler(CountingHandler, 0x5A05), slots[5]) << "the freed slot is reused";
    std::for_each(slots.begin() + 1, slots.end(), zkRemoveVblankHandler);
    g_handlerCalls = 0;
    for (int i = 0; i < 3; ++i)
        zkWaitVblank();
    EXPECT_EQ(zktest::Codes({g_handlerCalls >= 3, int64_t(g_handlerUser.load())}),
              zktest::Codes({1, 0x5A00}));
    zkRemoveVblankHandler(slots[0]);
    const uint32_t calls = g_handlerCalls.load();
    zkWaitVblank(), zkWaitVblank();
    // A tick already running when the handler was removed may still call it once.
    EXPECT_LE(g_handlerCalls.load(), calls + 1);
}

} // namespace
