// Monitors and light locks under many threads: no wake-up is lost, no two
// threads hold a light lock at once.
#include "thread/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

// Runs body on n threads and joins them.
template <typename Body> void OnThreads(int n, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back(body);
    for (std::thread& thread : threads)
        thread.join();
}

TEST(MonitorStress, WakeAllReachesEveryWaiterOfEveryRound) {
    constexpr int kWaiters = 12, kRounds = 400;
    zk::Monitor monitor;
    ASSERT_EQ(monitor.Initialize(), 0);
    int generation = 0, acknowledged = 0; // guarded by the monitor
    std::thread announcer([&] {           // waits on the same monitor as the waiters
        for (int round = 1; round <= kRounds; ++round) {
            monitor.Enter();
            acknowledged = 0;
            generation = round;
            monitor.WakeAll();
            while (acknowledged < kWaiters)
                monitor.Wait();
            monitor.Leave();
        }
    });
    OnThreads(kWaiters, [&] {
        for (int round = 1; round <= kRounds; ++round) {
            monitor.Enter();
            while (generation < round)
                monitor.Wait();
            ++acknowledged;
            monitor.WakeAll();
            monitor.Leave();
        }
    });
    announcer.join();
    EXPECT_EQ(acknowledged, kWaiters);
    monitor.Destroy();
}

// Each thread adds to a plain counter under the lock; every hundredth hold
// yields the core while holding it, so others spin out and go to sleep.
TEST(LightLockStress, HoldersExcludeEachOtherAndSleepersWake) {
    constexpr int kThreads = 6, kHolds = 20000;
    zk::LightLock lock;
    ASSERT_EQ(lock.Initialize(), 0);
    long counter = 0; // guarded by the lock
    std::atomic<int> inside{0}, overlaps{0};
    OnThreads(kThreads, [&] {
        for (int n = 0; n < kHolds; ++n) {
            zk::ScopedLock guard(lock);
            if (inside.fetch_add(1) != 0) ++overlaps;
            ++counter;
            if (n % 100 == 0) std::this_thread::yield();
            inside.fetch_sub(1);
        }
    });
    EXPECT_EQ(counter, long{kThreads} * kHolds);
    EXPECT_EQ(overlaps.load(), 0);
    lock.Delete();
}

// Threads that arrive while the lock is held for a long time sleep; the one
// give-back wakes them and each gets its turn.
TEST(LightLockStress, LongHoldReleasesEverySleeper) {
    constexpr int kThreads = 4;
    zk::LightLock lock;
    ASSERT_EQ(lock.Initialize(), 0);
    std::atomic<int> arrived{0}, done{0};
    lock.Enter();
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] { ++arrived, lock.Enter(), ++done, lock.Leave(); });
    while (arrived.load() < kThreads)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(30)); // past every spin
    EXPECT_EQ(done.load(), 0);
    lock.Leave();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(done.load(), kThreads);
    lock.Delete();
}

} // namespace
