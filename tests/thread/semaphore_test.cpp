// Application semaphores: counts and the table of 128, many threads, waits that
// end because what they wait on is closed, and records that requests cannot starve.
#include "support/library_test.h"

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// A hang guard, not a measurement: a call that deadlocks never becomes ready.
constexpr auto kHang = 20s;

TEST(Semaphore, CountsStayWithinZeroAndTheMaximum) {
    SemaphoreRecord* semaphore = zkCreateSemaphore(1, 2);
    ASSERT_NE(semaphore, nullptr);
    zkSignalSemaphore(semaphore);
    zkSignalSemaphore(semaphore); // refused: would be 3
    zkWaitSemaphore(semaphore);   // takes an available unit at once
    EXPECT_EQ(zkPollSemaphore(semaphore), 1);
    EXPECT_EQ(zkPollSemaphore(semaphore), 0);
    zkReleaseSemaphore(semaphore);
    // Null handles do nothing.
    zkWaitSemaphore(nullptr);
    zkSignalSemaphore(nullptr);
    zkReleaseSemaphore(nullptr);
    EXPECT_EQ(zkPollSemaphore(nullptr), 0);
}

TEST(Semaphore, TableHolds128AndRefusedCountsGiveTheRecordBack) {
    EXPECT_EQ(zkCreateSemaphore(2, 1), nullptr) << "initial above maximum";
    EXPECT_EQ(zkCreateSemaphore(-1, 1), nullptr);
    std::vector<SemaphoreRecord*> all;
    for (int i = 0; i < 128; ++i) {
        all.push_back(zkCreateSemaphore(0, 1));
        ASSERT_NE(all.back(), nullptr) << "record " << i;
    }
    EXPECT_EQ(zkCreateSemaphore(0, 1), nullptr) << "the 129th";
    SemaphoreRecord* freed = all[17];
    zkReleaseSemaphore(freed);
    EXPECT_EQ(zkCreateSemaphore(1, 1), freed) << "a released record is the next one taken";
    EXPECT_EQ(zkPollSemaphore(freed), 1) << "the record holds the new semaphore";
    for (SemaphoreRecord* semaphore : all)
        zkReleaseSemaphore(semaphore);
    zkReleaseSemaphore(freed); // twice is harmless
}

TEST(SemaphoreStress, ManyWaitersAndSignallersBalance) {
    constexpr int kWaiters = 8, kSignallers = 4, kUnitsPerWaiter = 500;
    SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1 << 20);
    ASSERT_NE(semaphore, nullptr);
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kWaiters; ++i)
        threads.emplace_back([&]() {
            for (int n = 0; n < kUnitsPerWaiter; ++n) {
                zkWaitSemaphore(semaphore);
                taken.fetch_add(1);
            }
        });
    for (int i = 0; i < kSignallers; ++i)
        threads.emplace_back([&]() {
            for (int n = 0; n < kWaiters * kUnitsPerWaiter / kSignallers; ++n)
                zkSignalSemaphore(semaphore);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(taken.load(), kWaiters * kUnitsPerWaiter);
    EXPECT_EQ(zkPollSemaphore(semaphore), 0) << "no unit left over";
    zkReleaseSemaphore(semaphore);
}

TEST(SemaphoreStress, TableTakeAndGiveBackFromManyThreads) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&]() {
            for (int r = 0; r < 300; ++r) {
                SemaphoreRecord* mine[8];
                for (SemaphoreRecord*& semaphore : mine)
                    semaphore = zkCreateSemaphore(1, 1);
                // Each record is this thread's alone while it holds it.
                for (SemaphoreRecord* semaphore : mine)
                    failures += !semaphore || zkPollSemaphore(semaphore) != 1;
                for (SemaphoreRecord* semaphore : mine)
                    zkReleaseSemaphore(semaphore);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}

// Closing what threads wait on ends their waits, and the closer does not block.
TEST(CloseConcurrency, ReleasingASemaphoreEndsItsWaits) {
    SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1);
    ASSERT_NE(semaphore, nullptr);
    std::atomic<int> waiting{0};
    std::vector<std::future<void>> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.push_back(std::async(std::launch::async, [&]() {
            ++waiting;
            zkWaitSemaphore(semaphore);
        }));
    while (waiting.load() < 3)
        std::this_thread::yield();
    std::this_thread::sleep_for(20ms); // lets them fall asleep
    auto closer = std::async(std::launch::async, [&]() { zkReleaseSemaphore(semaphore); });
    ASSERT_EQ(closer.wait_for(kHang), std::future_status::ready);
    for (auto& waiter : waiters)
        ASSERT_EQ(waiter.wait_for(kHang), std::future_status::ready);
    // The backend still works afterwards.
    SemaphoreRecord* again = zkCreateSemaphore(1, 1);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(zkPollSemaphore(again), 1);
    zkReleaseSemaphore(again);
}

using CloseConcurrencyLibrary = zktest::LibraryTest;

TEST_F(CloseConcurrencyLibrary, TerminationEndsAVblankWait) {
    std::atomic<int> waits{0};
    std::atomic<bool> stop{false};
    auto waiter = std::async(std::launch::async, [&]() {
        while (!stop.load()) {
            zkWaitVblank();
            ++waits;
        }
    });
    while (waits.load() < 2)
        std::this_thread::yield();
    auto terminate = std::async(std::launch::async, []() { return zkTerminate(); });
    ASSERT_EQ(terminate.wait_for(kHang), std::future_status::ready);
    EXPECT_EQ(terminate.get(), 0);
    stop = true;
    ASSERT_EQ(waiter.wait_for(kHang), std::future_status::ready);
    ASSERT_EQ(zkInitializeEx(zktest::kArenaSize, zktest::kDescriptors), 0); // for the tear-down
}

// Live requests hold no semaphore records, thread objects or ring buffers.
TEST_F(CloseConcurrencyLibrary, SixHundredRequestsStarveNothing) {
    ASSERT_EQ(zkInitializeRequest(600), 0);
    std::vector<Request*> requests;
    for (int i = 0; i < 600; ++i) {
        requests.push_back(zkCreateRequest());
        ASSERT_NE(requests.back(), nullptr) << i;
    }
    SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1);
    EXPECT_NE(semaphore, nullptr);
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(zkStartThread(thread, [](void* s) { zkSignalSemaphore(static_cast<SemaphoreRecord*>(s)); },
                            semaphore),
              0);
    EXPECT_EQ(zkReleaseThread(thread), 0);
    EXPECT_EQ(zkPollSemaphore(semaphore), 1) << "the thread ran";
    unsigned char storage[16];
    RingBuffer* ring = zkCreateRingBuffer(storage, sizeof(storage));
    EXPECT_NE(ring, nullptr);
    zkReleaseRingBuffer(ring);
    zkReleaseSemaphore(semaphore);
    for (Request* request : requests)
        EXPECT_EQ(zkReleaseRequest(request), 0);
}

} // namespace
