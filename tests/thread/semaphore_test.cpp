// Application semaphores: the table of 128, poll and signal, and many threads.
#include "support/library_test.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(Semaphore, CountsStayWithinZeroAndTheMaximum) {
    SemaphoreRecord* semaphore = zkCreateSemaphore(1, 2);
    ASSERT_NE(semaphore, nullptr);
    zkSignalSemaphore(semaphore);
    zkSignalSemaphore(semaphore); // refused: would be 3
    EXPECT_EQ(zkPollSemaphore(semaphore), 1);
    zkWaitSemaphore(semaphore); // takes the available unit at once
    EXPECT_EQ(zkPollSemaphore(semaphore), 0);
    zkSignalSemaphore(semaphore);
    EXPECT_EQ(zkPollSemaphore(semaphore), 1);
    EXPECT_EQ(zkPollSemaphore(semaphore), 0);
    zkReleaseSemaphore(semaphore);
}

TEST(Semaphore, NullHandlesDoNothing) {
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
        SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1);
        ASSERT_NE(semaphore, nullptr) << "record " << i;
        all.push_back(semaphore);
    }
    EXPECT_EQ(zkCreateSemaphore(0, 1), nullptr) << "the 129th";
    // A released record is the next one taken.
    SemaphoreRecord* freed = all[17];
    zkReleaseSemaphore(freed);
    EXPECT_EQ(zkCreateSemaphore(1, 1), freed);
    EXPECT_EQ(zkPollSemaphore(freed), 1) << "the record holds the new semaphore";
    for (SemaphoreRecord* semaphore : all)
        zkReleaseSemaphore(semaphore);
    // Releasing twice is harmless, and the table is whole again.
    zkReleaseSemaphore(freed);
    for (int i = 0; i < 128; ++i) {
        SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1);
        ASSERT_NE(semaphore, nullptr);
        all[static_cast<size_t>(i)] = semaphore;
    }
    for (SemaphoreRecord* semaphore : all)
        zkReleaseSemaphore(semaphore);
}

TEST(SemaphoreStress, ManyWaitersAndSignallersBalance) {
    constexpr int kWaiters = 8;
    constexpr int kSignallers = 4;
    constexpr int kUnitsPerWaiter = 500;
    SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1 << 20);
    ASSERT_NE(semaphore, nullptr);
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&]() {
            for (int n = 0; n < kUnitsPerWaiter; ++n) {
                zkWaitSemaphore(semaphore);
                taken.fetch_add(1);
            }
        });
    }
    for (int i = 0; i < kSignallers; ++i) {
        threads.emplace_back([&]() {
            for (int n = 0; n < kWaiters * kUnitsPerWaiter / kSignallers; ++n)
                zkSignalSemaphore(semaphore);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(taken.load(), kWaiters * kUnitsPerWaiter);
    EXPECT_EQ(zkPollSemaphore(semaphore), 0) << "no unit left over";
    zkReleaseSemaphore(semaphore);
}

TEST(SemaphoreStress, TableTakeAndGiveBackFromManyThreads) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 300;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&]() {
            for (int r = 0; r < kRounds; ++r) {
                SemaphoreRecord* mine[8];
                for (SemaphoreRecord*& semaphore : mine) {
                    semaphore = zkCreateSemaphore(1, 1);
                    if (!semaphore) failures.fetch_add(1);
                }
                // Each record is this thread's alone while it holds it.
                for (SemaphoreRecord* semaphore : mine)
                    if (semaphore && zkPollSemaphore(semaphore) != 1) failures.fetch_add(1);
                for (SemaphoreRecord* semaphore : mine)
                    zkReleaseSemaphore(semaphore);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    // All 128 records came back.
    std::vector<SemaphoreRecord*> all;
    for (int i = 0; i < 128; ++i)
        all.push_back(zkCreateSemaphore(0, 1));
    for (SemaphoreRecord* semaphore : all)
        EXPECT_NE(semaphore, nullptr);
    for (SemaphoreRecord* semaphore : all)
        zkReleaseSemaphore(semaphore);
}

} // namespace
