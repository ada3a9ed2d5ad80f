// Semaphores, events, waits, handles and critical sections of the POSIX backend.
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

using zk::os::Handle;
using zk::os::kInfinite;
using zk::os::WaitResult;
using Codes = std::vector<int>;
constexpr WaitResult kSig = WaitResult::Signaled, kOut = WaitResult::Timeout;

TEST(Wait, SemaphoreCountsAndEventStates) {
    for (auto counts : {std::pair{-1, 1}, std::pair{0, 0}, std::pair{3, 2}})
        EXPECT_EQ(zk::os::SemaphoreCreate(counts.first, counts.second), nullptr);
    Handle s = zk::os::SemaphoreCreate(0, 2);
    EXPECT_EQ(Codes({zk::os::SemaphoreRelease(s, 3), zk::os::SemaphoreRelease(s, 0),
                     zk::os::SemaphoreRelease(s, 2), zk::os::SemaphoreRelease(s, 1)}),
              Codes({0, 0, 1, 0})); // the last: at the maximum
    Handle manual = zk::os::EventCreate(true, true), automatic = zk::os::EventCreate(false, true);
    const struct {
        Handle h;
        uint32_t timeout;
        WaitResult result;
    } steps[] = {{s, 0, kSig},         {s, kInfinite, kSig}, {s, 0, kOut},
                 {s, 10, kOut},        {manual, 0, kSig},    {manual, kInfinite, kSig},
                 {automatic, 0, kSig}, {automatic, 0, kOut}}; // an auto-reset event is taken once
    for (const auto& step : steps)
        EXPECT_EQ(zk::os::Wait(step.h, step.timeout), step.result) << &step - steps;
    zk::os::EventReset(manual);
    zk::os::EventSet(automatic);
    zk::os::EventSet(automatic); // a second set of a set event adds nothing
    for (auto [h, result] : {std::pair{manual, kOut}, {automatic, kSig}, {automatic, kOut}})
        EXPECT_EQ(zk::os::Wait(h, 5), result);
    for (Handle h : {s, manual, automatic})
        zk::os::CloseHandle(h);
}

TEST(Wait, BadAndClosedHandlesFailAndPoolsArePerKind) {
    int local = 0;
    EXPECT_TRUE(zk::os::Wait(nullptr, 0) == WaitResult::Failed &&
                zk::os::Wait(&local, 0) == WaitResult::Failed);
    zk::os::CloseHandle(&local); // ignored
    std::vector<Handle> events;
    while (Handle h = zk::os::EventCreate(false, true))
        events.push_back(h);
    Handle s = zk::os::SemaphoreCreate(0, 1);
    EXPECT_NE(s, nullptr) << "events used up do not starve semaphores";
    events.push_back(s);
    std::for_each(events.begin(), events.end(), zk::os::CloseHandle);
    EXPECT_EQ(zk::os::Wait(events[0], 0), WaitResult::Failed); // closed
}

// Setting a manual-reset event wakes every thread asleep on it, not just one.
TEST(Wait, ManualResetEventWakesEveryWaiter) {
    Handle e = zk::os::EventCreate(true, false);
    std::atomic<int> asleep{0}, woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { ++asleep, woken += zk::os::Wait(e, kInfinite) == kSig; });
    while (asleep < 4)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(30)); // lets them fall asleep
    zk::os::EventSet(e);
    for (int i = 0; i < 2000 && woken < 4; ++i) // a hang guard of 10 s, not a measurement
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(woken, 4);
    zk::os::CloseHandle(e); // ends any wait left, so that the threads can be joined
    for (std::thread& t : waiters)
        t.join();
}

// ---- stress (also run under ThreadSanitizer) --------------------------------

TEST(PlatformStress, AutoResetEventHandsEachSetToExactlyOneWaiter) {
    constexpr int kSets = 3000;
    Handle e = zk::os::EventCreate(false, false);
    std::atomic<int> taken{0};
    std::vector<std::future<void>> waiters;
    for (int i = 0; i < 6; ++i) // each ends when the event is closed
        waiters.push_back(std::async(std::launch::async, [&, i] {
            for (WaitResult r; (r = zk::os::Wait(e, i % 2 ? kInfinite : 2)) != WaitResult::Failed;)
                taken += r == kSig;
        }));
    int overshoot = 0;
    for (int set = 1; set <= kSets; ++set) {
        zk::os::EventSet(e);
        while (taken < set)
            std::this_thread::yield();
        overshoot += taken > set;
    }
    zk::os::CloseHandle(e);
    for (auto& w : waiters)
        w.get();
    EXPECT_EQ(overshoot, 0);
    EXPECT_EQ(taken, kSets);
}

} // namespace
