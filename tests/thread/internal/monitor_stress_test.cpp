// The library lock and monitors under many threads.
#include "thread/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(MonitorStress, WakeAllReachesEveryWaiterOfEveryRound) {
    constexpr int kWaiters = 12;
    constexpr int kRounds = 400;
    zk::Monitor monitor;
    ASSERT_EQ(monitor.Initialize(), 0);
    int generation = 0;   // guarded by the monitor
    int acknowledged = 0; // waiters that saw the current generation
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&]() {
            for (int round = 1; round <= kRounds; ++round) {
                monitor.Enter();
                while (generation < round)
                    monitor.Wait();
                ++acknowledged;
                monitor.WakeAll();
                monitor.Leave();
            }
        });
    }
    for (int round = 1; round <= kRounds; ++round) {
        monitor.Enter();
        acknowledged = 0;
        generation = round;
        monitor.WakeAll();
        // The announcer waits on the same monitor for every acknowledgement.
        while (acknowledged < kWaiters)
            monitor.Wait();
        monitor.Leave();
    }
    for (std::thread& waiter : waiters)
        waiter.join();
    monitor.Enter();
    EXPECT_EQ(generation, kRounds);
    EXPECT_EQ(acknowledged, kWaiters);
    // Nobody waits any more: a wake changes nothing.
    monitor.WakeAll();
    monitor.Leave();
    monitor.Destroy();
}

TEST(MonitorStress, ProducersAndConsumersLoseNoItem) {
    constexpr int kProducers = 4;
    constexpr int kConsumers = 4;
    constexpr int kItemsPerProducer = 2000;
    zk::Monitor monitor;
    ASSERT_EQ(monitor.Initialize(), 0);
    int available = 0; // guarded by the monitor
    int produced = 0;
    std::atomic<int> consumed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kConsumers; ++i) {
        threads.emplace_back([&]() {
            for (;;) {
                monitor.Enter();
                while (available == 0 && produced < kProducers * kItemsPerProducer)
                    monitor.Wait();
                if (available == 0) {
                    monitor.Leave();
                    return;
                }
                --available;
                monitor.Leave();
                consumed.fetch_add(1);
            }
        });
    }
    for (int i = 0; i < kProducers; ++i) {
        threads.emplace_back([&]() {
            for (int n = 0; n < kItemsPerProducer; ++n) {
                monitor.Enter();
                ++available;
                ++produced;
                monitor.WakeAll();
                monitor.Leave();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(consumed.load(), kProducers * kItemsPerProducer);
    monitor.Destroy();
}

TEST(LibraryLockStress, GuardsACounterAcrossThreads) {
    constexpr int kThreads = 8;
    constexpr int kIncrements = 20000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&]() {
            for (int n = 0; n < kIncrements; ++n) {
                zk::ScopedLock guard(zk::LibraryLock());
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kIncrements);
}

} // namespace
