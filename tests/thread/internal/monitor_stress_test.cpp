// Monitors under many threads: no wake-up is lost, no item is lost.
#include "thread/sync.h"

#include <gtest/gtest.h>

#include <atomic>
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

TEST(MonitorStress, ProducersAndConsumersLoseNoItem) {
    constexpr int kThreads = 4, kItems = 2000;
    zk::Monitor monitor;
    ASSERT_EQ(monitor.Initialize(), 0);
    int available = 0, produced = 0, consumed = 0; // guarded by the monitor
    std::atomic<int> started{0};
    OnThreads(2 * kThreads, [&] {
        const bool producer = started++ % 2 != 0;
        for (int n = 0; n < kItems || !producer; ++n) {
            monitor.Enter();
            if (producer) {
                ++available, ++produced;
            } else {
                while (available == 0 && produced < kThreads * kItems)
                    monitor.Wait();
                if (available == 0) return monitor.Leave();
                --available, ++consumed;
            }
            monitor.WakeAll();
            monitor.Leave();
        }
    });
    EXPECT_EQ(consumed, kThreads * kItems);
    monitor.Destroy();
}

} // namespace
