// Semaphores, events, waits, handles and critical sections of the POSIX backend.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using zk::os::Handle;
using zk::os::kInfinite;
using zk::os::WaitResult;

// Polls until done() holds or about five seconds have passed.
template <typename Done> bool Eventually(Done done) {
    for (int i = 0; i < 5000; ++i) {
        if (done()) return true;
        zk::os::Sleep(1);
    }
    return done();
}

TEST(Semaphore, BadCountsAndReleasesBeyondTheMaximumAreRefused) {
    EXPECT_EQ(zk::os::SemaphoreCreate(-1, 1), nullptr);
    EXPECT_EQ(zk::os::SemaphoreCreate(0, 0), nullptr);
    EXPECT_EQ(zk::os::SemaphoreCreate(3, 2), nullptr);
    Handle s = zk::os::SemaphoreCreate(0, 2);
    ASSERT_NE(s, nullptr);
    EXPECT_FALSE(zk::os::SemaphoreRelease(s, 3));
    EXPECT_EQ(zk::os::Wait(s, 0), WaitResult::Timeout); // the refused release added nothing
    EXPECT_TRUE(zk::os::SemaphoreRelease(s, 2));
    EXPECT_FALSE(zk::os::SemaphoreRelease(s, 1)); // at the maximum
    EXPECT_FALSE(zk::os::SemaphoreRelease(s, 0));
    EXPECT_EQ(zk::os::Wait(s, 0), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(s, 0), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(s, 0), WaitResult::Timeout);
    EXPECT_EQ(zk::os::Wait(s, 10), WaitResult::Timeout);
    zk::os::CloseHandle(s);
}

TEST(Semaphore, ReleaseWakesABlockedWaiter) {
    Handle s = zk::os::SemaphoreCreate(0, 1);
    std::atomic<bool> woke{false};
    std::thread waiter([&] {
        EXPECT_EQ(zk::os::Wait(s, kInfinite), WaitResult::Signaled);
        woke = true;
    });
    zk::os::Sleep(20);
    EXPECT_FALSE(woke);
    EXPECT_TRUE(zk::os::SemaphoreRelease(s, 1));
    waiter.join();
    EXPECT_TRUE(woke);
    zk::os::CloseHandle(s);
}

TEST(Event, ManualResetStaysSetUntilResetAutoResetUntilOneWaitTakesIt) {
    Handle manual = zk::os::EventCreate(true, false);
    ASSERT_NE(manual, nullptr);
    EXPECT_EQ(zk::os::Wait(manual, 0), WaitResult::Timeout);
    zk::os::EventSet(manual);
    EXPECT_EQ(zk::os::Wait(manual, 0), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(manual, kInfinite), WaitResult::Signaled);
    zk::os::EventReset(manual);
    EXPECT_EQ(zk::os::Wait(manual, 5), WaitResult::Timeout);
    Handle automatic = zk::os::EventCreate(false, true);
    EXPECT_EQ(zk::os::Wait(automatic, 0), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(automatic, 0), WaitResult::Timeout);
    zk::os::EventSet(automatic);
    zk::os::EventSet(automatic); // a second set of a set event adds nothing
    EXPECT_EQ(zk::os::Wait(automatic, 0), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(automatic, 0), WaitResult::Timeout);
    zk::os::CloseHandle(automatic);
    zk::os::CloseHandle(manual);
}

TEST(Event, AutoResetReleasesOneWaiterPerSet) {
    Handle e = zk::os::EventCreate(false, false);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            EXPECT_EQ(zk::os::Wait(e, kInfinite), WaitResult::Signaled);
            ++released;
        });
    zk::os::Sleep(20);
    for (int set = 1; set <= 3; ++set) {
        zk::os::EventSet(e);
        ASSERT_TRUE(Eventually([&] { return released >= set; }));
        zk::os::Sleep(20);
        EXPECT_EQ(released, set);
    }
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(zk::os::Wait(e, 0), WaitResult::Timeout);
    zk::os::CloseHandle(e);
}

TEST(Wait, FailsForHandlesThatAreNotObjects) {
    int local = 0;
    EXPECT_EQ(zk::os::Wait(nullptr, 0), WaitResult::Failed);
    EXPECT_EQ(zk::os::Wait(&local, 0), WaitResult::Failed);
    Handle e = zk::os::EventCreate(true, true);
    zk::os::CloseHandle(e);
    EXPECT_EQ(zk::os::Wait(e, 0), WaitResult::Failed); // closed
    zk::os::CloseHandle(nullptr);
    zk::os::CloseHandle(&local); // ignored
}

TEST(Wait, ObjectTableIsFixedAndReusable) {
    std::vector<Handle> handles;
    for (int i = 0; i < 2000; ++i) {
        Handle h = zk::os::EventCreate(false, false);
        if (!h) break;
        handles.push_back(h);
    }
    EXPECT_GE(handles.size(), 1000u);
    EXPECT_LE(handles.size(), 1024u);
    EXPECT_EQ(zk::os::SemaphoreCreate(0, 1), nullptr); // full for every kind
    for (Handle h : handles)
        zk::os::CloseHandle(h);
    Handle again = zk::os::SemaphoreCreate(0, 1);
    EXPECT_NE(again, nullptr);
    zk::os::CloseHandle(again);
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
    constexpr int kThreads = 4;
    constexpr int kUnits = 5000;
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
                // Alternate blocking, timed and polling waits.
                WaitResult r;
                do {
                    r = zk::os::Wait(s, n % 3 == 0 ? kInfinite : (n % 3 == 1 ? 1 : 0));
                } while (r == WaitResult::Timeout);
                ASSERT_EQ(r, WaitResult::Signaled);
                ++taken;
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
    constexpr int kWaiters = 6;
    constexpr int kSets = 3000;
    Handle e = zk::os::EventCreate(false, false);
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::atomic<int> running{kWaiters};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i)
        waiters.emplace_back([&, i] {
            while (!stop) {
                if (zk::os::Wait(e, i % 2 ? kInfinite : 2) == WaitResult::Signaled && !stop)
                    ++taken;
            }
            --running;
        });
    int overshoot = 0;
    for (int set = 1; set <= kSets; ++set) {
        zk::os::EventSet(e);
        while (taken < set)
            zk::os::Sleep(0);
        if (taken > set) ++overshoot;
    }
    EXPECT_EQ(overshoot, 0);
    stop = true;
    while (running > 0) {
        zk::os::EventSet(e); // sets of a set event collapse: keep setting until all have left
        zk::os::Sleep(1);
    }
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(taken, kSets);
    zk::os::CloseHandle(e);
}

} // namespace
