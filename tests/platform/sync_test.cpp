// Semaphores, events, waits, handles and critical sections of the POSIX backend.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

using zk::os::Handle;
using zk::os::kInfinite;
using zk::os::WaitResult;

TEST(Semaphore, CountsAndMaximum) {
    EXPECT_EQ(zk::os::SemaphoreCreate(-1, 1), nullptr);
    EXPECT_EQ(zk::os::SemaphoreCreate(0, 0), nullptr);
    EXPECT_EQ(zk::os::SemaphoreCreate(3, 2), nullptr);
    Handle s = zk::os::SemaphoreCreate(0, 2);
    ASSERT_NE(s, nullptr);
    EXPECT_FALSE(zk::os::SemaphoreRelease(s, 3));
    EXPECT_FALSE(zk::os::SemaphoreRelease(s, 0));
    EXPECT_TRUE(zk::os::SemaphoreRelease(s, 2));
    EXPECT_FALSE(zk::os::SemaphoreRelease(s, 1)); // at the maximum
    const WaitResult expected[] = {WaitResult::Signaled, WaitResult::Signaled, WaitResult::Timeout,
                                   WaitResult::Timeout};
    const uint32_t timeouts[] = {0, kInfinite, 0, 10};
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(zk::os::Wait(s, timeouts[i]), expected[i]) << i;
    zk::os::CloseHandle(s);
}

TEST(Event, ManualStaysSetAutoResetIsTakenOnce) {
    Handle manual = zk::os::EventCreate(true, false);
    Handle automatic = zk::os::EventCreate(false, true);
    EXPECT_EQ(zk::os::Wait(manual, 0), WaitResult::Timeout);
    zk::os::EventSet(manual);
    EXPECT_EQ(zk::os::Wait(manual, 0), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(manual, kInfinite), WaitResult::Signaled);
    zk::os::EventReset(manual);
    EXPECT_EQ(zk::os::Wait(manual, 5), WaitResult::Timeout);
    EXPECT_EQ(zk::os::Wait(automatic, 0), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(automatic, 0), WaitResult::Timeout);
    zk::os::EventSet(automatic);
    zk::os::EventSet(automatic); // a second set of a set event adds nothing
    EXPECT_EQ(zk::os::Wait(automatic, 0), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(automatic, 0), WaitResult::Timeout);
    zk::os::CloseHandle(automatic);
    zk::os::CloseHandle(manual);
}

TEST(Wait, BadAndClosedHandlesFailAndPoolsArePerKind) {
    int local = 0;
    EXPECT_EQ(zk::os::Wait(nullptr, 0), WaitResult::Failed);
    EXPECT_EQ(zk::os::Wait(&local, 0), WaitResult::Failed);
    zk::os::CloseHandle(&local); // ignored
    std::vector<Handle> events;
    while (Handle h = zk::os::EventCreate(false, true))
        events.push_back(h);
    EXPECT_GE(events.size(), 64u);
    Handle s = zk::os::SemaphoreCreate(0, 1);
    EXPECT_NE(s, nullptr) << "events used up do not starve semaphores";
    zk::os::CloseHandle(s);
    for (Handle h : events)
        zk::os::CloseHandle(h);
    EXPECT_EQ(zk::os::Wait(events[0], 0), WaitResult::Failed); // closed
}

// A close wakes every thread waiting on the handle, with a failure, and does not wait for them.
TEST(CloseConcurrency, ClosingEndsEveryWaitOnTheHandle) {
    for (bool semaphore : {true, false}) {
        Handle h = semaphore ? zk::os::SemaphoreCreate(0, 1) : zk::os::EventCreate(false, false);
        std::atomic<int> started{0};
        std::vector<std::future<WaitResult>> waiters;
        for (int i = 0; i < 4; ++i)
            waiters.push_back(std::async(std::launch::async, [&, i] {
                ++started;
                return zk::os::Wait(h, i % 2 ? kInfinite : 60000);
            }));
        while (started < 4)
            std::this_thread::yield();
        zk::os::Sleep(20); // lets them fall asleep
        zk::os::CloseHandle(h);
        for (auto& w : waiters) {
            ASSERT_EQ(w.wait_for(std::chrono::seconds(20)), std::future_status::ready);
            EXPECT_EQ(w.get(), WaitResult::Failed);
        }
    }
}

TEST(CriticalSection, IsReentrantAndExcludesOtherThreads) {
    zk::os::CriticalSection cs;
    zk::os::CriticalSectionInit(&cs);
    zk::os::CriticalSectionEnter(&cs);
    zk::os::CriticalSectionEnter(&cs); // the owner may enter again
    std::atomic<bool> entered{false};
    std::thread other([&] {
        zk::os::CriticalSectionEnter(&cs);
        entered = true;
        zk::os::CriticalSectionLeave(&cs);
    });
    zk::os::CriticalSectionLeave(&cs);
    zk::os::Sleep(20);
    EXPECT_FALSE(entered); // still held once
    zk::os::CriticalSectionLeave(&cs);
    other.join();
    EXPECT_TRUE(entered);
    zk::os::CriticalSectionDelete(&cs);
}

// ---- stress (also run under ThreadSanitizer) --------------------------------

TEST(PlatformStress, SemaphoreUnitsAreNeitherLostNorInvented) {
    constexpr int kThreads = 4, kUnits = 5000;
    Handle s = zk::os::SemaphoreCreate(0, 16);
    std::vector<std::thread> threads;
    std::atomic<int> taken{0};
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < kUnits; ++n)
                while (!zk::os::SemaphoreRelease(s, 1))
                    zk::os::Sleep(0); // at the maximum: retry
        });
        threads.emplace_back([&] {
            for (int n = 0; n < kUnits; ++n) {
                WaitResult r; // blocking, timed and polling waits in turn
                do
                    r = zk::os::Wait(s, n % 3 == 0 ? kInfinite : (n % 3 == 1 ? 1 : 0));
                while (r == WaitResult::Timeout);
                taken += r == WaitResult::Signaled;
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(taken, kThreads * kUnits);
    EXPECT_EQ(zk::os::Wait(s, 0), WaitResult::Timeout);
    zk::os::CloseHandle(s);
}

TEST(PlatformStress, AutoResetEventHandsEachSetToExactlyOneWaiter) {
    constexpr int kWaiters = 6, kSets = 3000;
    Handle e = zk::os::EventCreate(false, false);
    std::atomic<int> taken{0};
    std::vector<std::future<void>> waiters;
    for (int i = 0; i < kWaiters; ++i)
        waiters.push_back(std::async(std::launch::async, [&, i] {
            // Ends when the event is closed.
            for (WaitResult r; (r = zk::os::Wait(e, i % 2 ? kInfinite : 2)) != WaitResult::Failed;)
                taken += r == WaitResult::Signaled;
        }));
    int overshoot = 0;
    for (int set = 1; set <= kSets; ++set) {
        zk::os::EventSet(e);
        while (taken < set)
            std::this_thread::yield();
        overshoot += taken > set;
    }
    EXPECT_EQ(overshoot, 0);
    zk::os::CloseHandle(e);
    for (auto& w : waiters)
        w.get();
    EXPECT_EQ(taken, kSets);
}

} // namespace
