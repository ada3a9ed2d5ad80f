// Threads, priorities and the thread-local slot of the POSIX backend.
#include "platform/platform.h"
#include "platform/posix/posix_internal.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>

namespace {

using zk::os::Handle;
using zk::os::WaitResult;

struct Probe {
    std::atomic<bool> ran{false};
    int32_t priority = 99;
    int nice = 99;
    void* slotSeen = reinterpret_cast<void*>(1);
    Handle release = zk::os::SemaphoreCreate(0, 1); // the entry waits for it
};

uint32_t ProbeEntry(void* parameter) {
    auto* probe = static_cast<Probe*>(parameter);
    probe->priority = zk::os::CurrentThreadPriority();
    probe->nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    probe->slotSeen = zk::os::CurrentThreadSlotGet();
    zk::os::CurrentThreadSlotSet(probe);
    probe->ran = true;
    zk::os::Wait(probe->release, zk::os::kInfinite);
    return 0;
}

// Suspended until resumed, signalled once its entry has returned; the priority
// it reports is the one given, and lowers its nice value (raising needs privileges).
TEST(Thread, RunsAtItsPriorityAfterResumeAndIsSignalledAtItsEnd) {
    EXPECT_EQ(zk::os::ThreadCreateSuspended(0, nullptr, nullptr), nullptr);
    const int base = zk::os::posix::BaseNiceValue();
    const int32_t priorities[] = {-1, -2, -15, 0, 2};
    const int niceOffsets[] = {1, 2, 19, 0, 0};
    int mine = 0;
    zk::os::CurrentThreadSlotSet(&mine);
    for (int i = 0; i < 5; ++i) {
        Probe probe;
        Handle t = zk::os::ThreadCreateSuspended(64 * 1024, &ProbeEntry, &probe);
        zk::os::ThreadSetPriority(t, priorities[i]);
        zk::os::Sleep(5);
        EXPECT_FALSE(probe.ran) << "suspended until resumed";
        zk::os::ThreadResume(t);
        while (!probe.ran)
            zk::os::Sleep(1);
        EXPECT_EQ(zk::os::Wait(t, 0), WaitResult::Timeout); // blocked in its entry
        zk::os::SemaphoreRelease(probe.release, 1);
        EXPECT_EQ(zk::os::Wait(t, zk::os::kInfinite), WaitResult::Signaled);
        EXPECT_EQ(zk::os::Wait(t, 0), WaitResult::Signaled); // stays signalled
        EXPECT_EQ(probe.priority, priorities[i]);
        EXPECT_EQ(probe.nice, std::min(base + niceOffsets[i], 19)) << priorities[i];
        EXPECT_EQ(probe.slotSeen, nullptr); // a new thread's slot starts empty
        zk::os::CloseHandle(t);
        zk::os::CloseHandle(probe.release);
    }
    EXPECT_EQ(zk::os::CurrentThreadSlotGet(), &mine); // the threads' sets did not touch ours
    EXPECT_EQ(zk::os::CurrentThreadPriority(), zk::os::kThreadPriorityNormal);
    zk::os::CurrentThreadSlotSet(nullptr);
}

} // namespace
