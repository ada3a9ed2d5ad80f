// Threads, priorities and the thread-local slot of the POSIX backend.
#include "platform/platform.h"
#include "platform/posix/posix_internal.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace {

using zk::os::Handle;
using zk::os::kInfinite;
using zk::os::WaitResult;

struct Probe {
    std::atomic<bool> ran{false};
    std::atomic<int32_t> reportedPriority{99};
    std::atomic<int> nice{99};
    Handle release = nullptr; // a semaphore the entry waits for, when set
    void* slotSeen = reinterpret_cast<void*>(1);
};

uint32_t ProbeEntry(void* parameter) {
    auto* probe = static_cast<Probe*>(parameter);
    probe->ran = true;
    probe->reportedPriority = zk::os::CurrentThreadPriority();
    errno = 0;
    probe->nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    probe->slotSeen = zk::os::CurrentThreadSlotGet();
    zk::os::CurrentThreadSlotSet(probe);
    if (probe->release) zk::os::Wait(probe->release, kInfinite);
    return 0;
}

TEST(Thread, RunsAfterResumeAndIsSignalledWhenItsEntryHasReturned) {
    EXPECT_EQ(zk::os::ThreadCreateSuspended(0, nullptr, nullptr), nullptr);
    Probe probe;
    probe.release = zk::os::SemaphoreCreate(0, 1);
    Handle t = zk::os::ThreadCreateSuspended(64 * 1024, &ProbeEntry, &probe);
    ASSERT_NE(t, nullptr);
    zk::os::Sleep(50);
    EXPECT_FALSE(probe.ran);
    EXPECT_EQ(zk::os::Wait(t, 0), WaitResult::Timeout);
    zk::os::ThreadResume(t);
    for (int i = 0; i < 5000 && !probe.ran; ++i)
        zk::os::Sleep(1);
    ASSERT_TRUE(probe.ran);
    EXPECT_EQ(zk::os::Wait(t, 20), WaitResult::Timeout); // blocked in its entry
    zk::os::SemaphoreRelease(probe.release, 1);
    EXPECT_EQ(zk::os::Wait(t, kInfinite), WaitResult::Signaled);
    EXPECT_EQ(zk::os::Wait(t, 0), WaitResult::Signaled); // stays signalled
    zk::os::CloseHandle(t);
    zk::os::CloseHandle(probe.release);
}

TEST(Thread, HandleClosedBeforeTheThreadEndsIsHarmless) {
    Probe probe;
    probe.release = zk::os::SemaphoreCreate(0, 1);
    Handle t = zk::os::ThreadCreateSuspended(0, &ProbeEntry, &probe);
    zk::os::ThreadResume(t);
    zk::os::CloseHandle(t); // the running thread keeps its object until it ends
    zk::os::SemaphoreRelease(probe.release, 1);
    for (int i = 0; i < 5000 && !probe.ran; ++i)
        zk::os::Sleep(1);
    EXPECT_TRUE(probe.ran);
    zk::os::Sleep(20);
    zk::os::CloseHandle(probe.release);
}

int32_t RunAtPriority(int32_t priority, int* nice) {
    Probe probe;
    Handle t = zk::os::ThreadCreateSuspended(0, &ProbeEntry, &probe);
    zk::os::ThreadSetPriority(t, priority);
    zk::os::ThreadResume(t);
    zk::os::Wait(t, kInfinite);
    zk::os::CloseHandle(t);
    *nice = probe.nice;
    return probe.reportedPriority;
}

TEST(Thread, PriorityIsReportedAsGivenAndLowersTheNiceValue) {
    int base = zk::os::posix::BaseNiceValue();
    int nice = 0;
    EXPECT_EQ(RunAtPriority(zk::os::kThreadPriorityBelowNormal, &nice), -1);
    EXPECT_EQ(nice, base + 1 > 19 ? 19 : base + 1);
    EXPECT_EQ(RunAtPriority(-2, &nice), -2);
    EXPECT_EQ(nice, base + 2 > 19 ? 19 : base + 2);
    EXPECT_EQ(RunAtPriority(2, &nice), 2); // cannot be raised unprivileged: stays normal
    EXPECT_EQ(nice, base);
    EXPECT_EQ(RunAtPriority(zk::os::kThreadPriorityNormal, &nice), 0);
    EXPECT_EQ(nice, base);
}

TEST(Thread, ThreadsNotCreatedHereReportNormal) {
    EXPECT_EQ(zk::os::CurrentThreadPriority(), zk::os::kThreadPriorityNormal);
    int32_t seen = 99;
    std::thread([&] { seen = zk::os::CurrentThreadPriority(); }).join();
    EXPECT_EQ(seen, zk::os::kThreadPriorityNormal);
}

TEST(Thread, NiceMapping) {
    using zk::os::posix::NiceForPriority;
    EXPECT_EQ(NiceForPriority(0, 0), 0);
    EXPECT_EQ(NiceForPriority(-1, 0), 1);
    EXPECT_EQ(NiceForPriority(-2, 0), 2);
    EXPECT_EQ(NiceForPriority(-15, 0), 19); // idle
    EXPECT_EQ(NiceForPriority(1, 5), 5);
    EXPECT_EQ(NiceForPriority(15, 5), 5);   // time critical
    EXPECT_EQ(NiceForPriority(-2, 18), 19); // clamped
}

TEST(ThreadSlot, IsPerThread) {
    int mine = 0;
    zk::os::CurrentThreadSlotSet(&mine);
    Probe probe;
    Handle t = zk::os::ThreadCreateSuspended(0, &ProbeEntry, &probe);
    zk::os::ThreadResume(t);
    zk::os::Wait(t, kInfinite);
    zk::os::CloseHandle(t);
    EXPECT_EQ(probe.slotSeen, nullptr);               // a new thread starts empty
    EXPECT_EQ(zk::os::CurrentThreadSlotGet(), &mine); // its set did not touch ours
    zk::os::CurrentThreadSlotSet(nullptr);
}

} // namespace
