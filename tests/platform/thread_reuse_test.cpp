// Reusable threads of the POSIX backend: a parked thread runs the next entry
// that asks for its stack size and priority, starts clean, and never serves a
// creator that wants a priority it cannot return to; and the file cache-ahead
// and its cached check leave a file's position where it was.
#include "platform/file.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using zk::os::Handle;

// Two observed values side by side, so a failure prints both.
std::pair<long long, long long> Codes(long long a, long long b) {
    return {a, b};
}

// What one entry saw of the thread it ran on.
struct EntryRun {
    int runsOnThisThread = 0; // 1 on a new thread, more on a reused one
    int32_t priority = 99;
    int policy = -1;
    bool queueWasEmpty = false;
    bool leaveQuit = false; // post a WM_QUIT to itself and leave it queued
};

thread_local int tRuns = 0;

uint32_t Record(void* parameter) {
    EntryRun* run = static_cast<EntryRun*>(parameter);
    run->runsOnThisThread = ++tRuns;
    run->priority = zk::os::CurrentThreadPriority();
    run->policy = sched_getscheduler(0);
    zk::os::Message message{};
    run->queueWasEmpty = !zk::os::MessagePeek(&message);
    if (run->leaveQuit) zk::os::MessagePostQuit(7);
    return 0;
}

// Starts a reusable thread, waits for it, and gives the thread a moment to
// park again (it signals its end before it parks).
void RunReusable(uint32_t stackSize, int32_t priority, EntryRun* run) {
    Handle thread = zk::os::ThreadCreateReusable(stackSize, priority, &Record, run);
    ASSERT_NE(thread, nullptr);
    zk::os::ThreadResume(thread);
    ASSERT_EQ(zk::os::Wait(thread, zk::os::kInfinite), zk::os::WaitResult::Signaled);
    zk::os::CloseHandle(thread);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// A stack size no other test asks for, so that each test starts with no
// thread of its own parked.
uint32_t FreshStack(uint32_t pages) {
    return pages * 4096 + 256 * 1024;
}

TEST(ReusableThread, AParkedThreadRunsTheNextEntryCleanAndAtItsPolicy) {
    const uint32_t stack = FreshStack(1);
    EntryRun first, second;
    first.leaveQuit = true;
    RunReusable(stack, zk::os::kThreadPriorityBelowNormal, &first);
    RunReusable(stack, zk::os::kThreadPriorityBelowNormal, &second);
    EXPECT_EQ(first.runsOnThisThread, 1);
    EXPECT_EQ(second.runsOnThisThread, 2) << "the parked thread was not reused";
    for (const EntryRun* run : {&first, &second}) {
        EXPECT_EQ(run->priority, zk::os::kThreadPriorityBelowNormal);
        EXPECT_EQ(run->policy, SCHED_BATCH);
        EXPECT_TRUE(run->queueWasEmpty); // the first run's WM_QUIT went with its queue
    }
}

TEST(ReusableThread, OnlyTheSameStackAndPriorityTakeAParkedThread) {
    const uint32_t stack = FreshStack(2);
    EntryRun parked, otherStack, normal, plain;
    RunReusable(stack, zk::os::kThreadPriorityBelowNormal, &parked);
    RunReusable(FreshStack(3), zk::os::kThreadPriorityBelowNormal, &otherStack);
    // A below-normal thread cannot return to normal without privileges, so a
    // normal creator must get a thread of its own.
    RunReusable(stack, zk::os::kThreadPriorityNormal, &normal);
    EXPECT_EQ(Codes(otherStack.runsOnThisThread, normal.runsOnThisThread), Codes(1, 1));
    EXPECT_EQ(normal.priority, zk::os::kThreadPriorityNormal);
    EXPECT_EQ(normal.policy, SCHED_OTHER);
    // A thread made the ordinary way is never parked: it ends.
    Handle thread = zk::os::ThreadCreateSuspended(stack, &Record, &plain);
    ASSERT_NE(thread, nullptr);
    zk::os::ThreadResume(thread);
    ASSERT_EQ(zk::os::Wait(thread, zk::os::kInfinite), zk::os::WaitResult::Signaled);
    zk::os::CloseHandle(thread);
    EXPECT_EQ(plain.runsOnThisThread, 1);
}

TEST(ReusableThread, ABurstOfMoreThreadsThanSlotsRunsEveryEntryOnce) {
    constexpr int kThreads = 48; // more than can park
    std::vector<EntryRun> runs(kThreads);
    std::vector<Handle> handles;
    for (EntryRun& run : runs) {
        Handle thread = zk::os::ThreadCreateReusable(
            FreshStack(4), zk::os::kThreadPriorityBelowNormal, &Record, &run);
        ASSERT_NE(thread, nullptr);
        zk::os::ThreadResume(thread);
        handles.push_back(thread);
    }
    for (Handle thread : handles) {
        ASSERT_EQ(zk::os::Wait(thread, 10000), zk::os::WaitResult::Signaled);
        zk::os::CloseHandle(thread);
    }
    for (const EntryRun& run : runs) {
        EXPECT_GE(run.runsOnThisThread, 1);
        EXPECT_EQ(run.policy, SCHED_BATCH);
    }
    // Released at process end, parked threads end within a short while.
    auto tasks = [] {
        size_t n = 0;
        for (auto it = std::filesystem::directory_iterator("/proc/self/task");
             it != std::filesystem::directory_iterator(); ++it)
            ++n;
        return n;
    };
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // every thread parked
    const size_t before = tasks();
    zk::os::ThreadsReleaseParked();
    size_t after = before;
    for (int i = 0; i < 200 && after > 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        after = tasks();
        if (after + 20 <= before) break;
    }
    EXPECT_LE(after + 20, before) << "parked threads did not end";
}

uint32_t MarkBulk(void* parameter) {
    zk::os::CurrentThreadSetBulk();
    auto* seen = static_cast<std::pair<long long, long long>*>(parameter);
    *seen = {sched_getscheduler(0), zk::os::CurrentThreadPriority()};
    return 0;
}

TEST(BulkThread, KeepsItsPriorityUnderTheBatchPolicy) {
    std::pair<long long, long long> seen{-1, 99};
    Handle thread = zk::os::ThreadCreateSuspended(0, &MarkBulk, &seen);
    ASSERT_NE(thread, nullptr);
    zk::os::ThreadResume(thread);
    ASSERT_EQ(zk::os::Wait(thread, zk::os::kInfinite), zk::os::WaitResult::Signaled);
    zk::os::CloseHandle(thread);
    EXPECT_EQ(seen, Codes(SCHED_BATCH, zk::os::kThreadPriorityNormal));
}

TEST(FileCacheAhead, LeavesThePositionWhereItWas) {
    const std::string path =
        (std::filesystem::temp_directory_path() / "zk_cache_ahead.bin").string();
    {
        std::ofstream out(path, std::ios::binary);
        for (int i = 0; i < 300000; ++i)
            out.put(static_cast<char>(i % 251));
    }
    zk::os::File file = zk::os::FileOpen(path.c_str(), zk::os::kFileAccessRead, false);
    ASSERT_NE(file, zk::os::kInvalidFile);
    char bytes[4];
    uint32_t got = 0;
    ASSERT_TRUE(zk::os::FileRead(file, bytes, 4, &got));
    zk::os::FileCacheAhead(file, 1u << 20); // past the end: nothing to fail
    // Whether the rest looks cached depends on the file system (some cannot
    // answer without waiting and say no); either way asking moves nothing.
    zk::os::FileLooksCached(file, 300000 - 4);
    EXPECT_FALSE(zk::os::FileLooksCached(file, 0)); // no range
    ASSERT_TRUE(zk::os::FileRead(file, bytes, 4, &got));
    EXPECT_EQ(Codes(got, bytes[0]), Codes(4, 4));
    // After a positioning that the backend holds back until the next read.
    ASSERT_TRUE(zk::os::FileSeekFromStart(file, 260000));
    zk::os::FileCacheAhead(file, 4096);
    ASSERT_TRUE(zk::os::FileRead(file, bytes, 4, &got));
    EXPECT_EQ(Codes(got, static_cast<unsigned char>(bytes[0])), Codes(4, 260000 % 251));
    zk::os::FileClose(file);
    std::remove(path.c_str());
}

} // namespace
