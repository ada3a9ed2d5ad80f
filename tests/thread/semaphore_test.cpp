// Application semaphores: counts and the table of 128, many threads, waits that
// end because what they wait on is closed, and records that requests cannot starve.
#include "support/library_test.h"

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

// A hang guard, not a measurement: a call that deadlocks never becomes ready.
bool Returns(std::future<void>& call) {
    return call.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

// Runs body on n threads and joins them.
template <typename Body> void OnThreads(int n, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back(body, i);
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Semaphore, CountsStayWithinZeroAndTheMaximumAndTheTableHolds128) {
    std::vector<SemaphoreRecord*> all;
    while (SemaphoreRecord* semaphore = zkCreateSemaphore(1, 2))
        all.push_back(semaphore);
    ASSERT_EQ(all.size(), 128u); // no 129th
    SemaphoreRecord* s = all[17];
    zkSignalSemaphore(s), zkSignalSemaphore(s); // the second refused: it would be 3
    zkWaitSemaphore(s);                         // takes an available unit at once
    EXPECT_EQ(zktest::Codes({zkPollSemaphore(s), zkPollSemaphore(s)}), zktest::Codes({1, 0}));
    zkReleaseSemaphore(s), zkReleaseSemaphore(s); // twice is harmless
    // A released record is the next one taken, and holds the new semaphore.
    EXPECT_EQ(zkCreateSemaphore(0, 1), s);
    EXPECT_EQ(zkPollSemaphore(s), 0);
    for (SemaphoreRecord* semaphore : all)
        zkReleaseSemaphore(semaphore);
}

TEST(SemaphoreStress, UnitsBalanceAndRecordsStayTheirHolders) {
    constexpr int kUnits = 500;
    SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1 << 20);
    std::atomic<int> taken{0}, failures{0};
    OnThreads(12, [&](int i) {
        for (int n = 0; n < kUnits; ++n) {
            if (i < 8) // waiters
                zkWaitSemaphore(semaphore), ++taken;
            else // signallers
                zkSignalSemaphore(semaphore), zkSignalSemaphore(semaphore);
            SemaphoreRecord* mine = zkCreateSemaphore(1, 1); // the table from many threads
            failures += !mine || zkPollSemaphore(mine) != 1;
            zkReleaseSemaphore(mine);
        }
    });
    EXPECT_EQ(taken.load(), 8 * kUnits);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(zkPollSemaphore(semaphore), 0) << "no unit left over";
    zkReleaseSemaphore(semaphore);
}

// Closing what threads wait on ends their waits, and the closer does not block.
TEST(CloseConcurrency, ReleasingASemaphoreEndsItsWaits) {
    SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1);
    std::atomic<int> waiting{0};
    std::future<void> waiters[3];
    for (auto& waiter : waiters)
        waiter = std::async(std::launch::async, [&] { ++waiting, zkWaitSemaphore(semaphore); });
    while (waiting.load() < 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // lets them fall asleep
    auto closer = std::async(std::launch::async, [&] { zkReleaseSemaphore(semaphore); });
    ASSERT_TRUE(Returns(closer));
    EXPECT_TRUE(Returns(waiters[0]) && Returns(waiters[1]) && Returns(waiters[2]));
    SemaphoreRecord* again = zkCreateSemaphore(1, 1); // the table still works
    EXPECT_EQ(zkPollSemaphore(again), 1);
    zkReleaseSemaphore(again);
}

using CloseConcurrencyLibrary = zktest::LibraryTest;

TEST_F(CloseConcurrencyLibrary, TerminationEndsAVblankWait) {
    std::atomic<int> waits{0};
    auto waiter = std::async(std::launch::async, [&] {
        while (waits.load() >= 0 && zkWaitVblank())
            ++waits;
    });
    while (waits.load() < 2)
        std::this_thread::yield();
    auto terminate = std::async(std::launch::async, [] { zkTerminate(); });
    ASSERT_TRUE(Returns(terminate));
    ASSERT_TRUE((waits = -1000, Returns(waiter)));
    ASSERT_EQ(zkInitializeEx(zktest::kArenaSize, zktest::kDescriptors), 0); // for the tear-down
}

} // namespace
