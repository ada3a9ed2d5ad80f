// Application threads: the table of 32 records, handles that outlive their
// record, starting, waiting and releasing.
#include "support/library_test.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace {

using zktest::Codes;

// Each run logs its start, lingers long enough for an overlap to show, logs its end.
std::mutex g_logMutex;
std::vector<int> g_log;
struct LoggedRun {
    int id;
    std::atomic<int> finished{0};
};

void ZK_CALL Log(void* argument) {
    LoggedRun* run = static_cast<LoggedRun*>(argument);
    for (int event : {run->id * 10, run->id * 10 + 1}) {
        if (event % 10) zkSleep(30);
        std::lock_guard<std::mutex> guard(g_logMutex);
        g_log.push_back(event);
    }
    run->finished.store(1);
}

TEST(ThreadTable, ThirtyThirdCreateFailsUntilOneIsReleased) {
    std::vector<ThreadRecord*> records;
    for (int i = 0; i < 32; ++i)
        ASSERT_NE(records.emplace_back(zkCreateThread(0)), nullptr) << "record " << i;
    EXPECT_EQ(zkCreateThread(0), nullptr);
    ASSERT_EQ(zkReleaseThread(records[7]), 0);
    ASSERT_NE(records[7] = zkCreateThread(0), nullptr); // the released record, a new handle
    EXPECT_EQ(zkCreateThread(0), nullptr);
    for (ThreadRecord* record : records)
        EXPECT_EQ(zkReleaseThread(record), 0);
}

TEST(ThreadTable, NullForeignReleasedAndStaleHandlesAreRefused) {
    std::atomic<int> ran{0};
    auto count = [](void* a) { static_cast<std::atomic<int>*>(a)->fetch_add(1); };
    ThreadRecord* stale = zkCreateThread(0);
    ASSERT_NE(stale, nullptr);
    EXPECT_EQ(zkStartThread(stale, nullptr, &ran), ZK_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(zkIsThreadRunning(stale), 0); // the refused start left it idle
    ASSERT_EQ(zkReleaseThread(stale), 0);
    // Null, never given out, released, and released with its record handed
    // out again: every call refuses the handle, and the procedure never runs.
    static uint64_t foreign[64];
    ThreadRecord* const refused[] = {nullptr, reinterpret_cast<ThreadRecord*>(foreign), stale,
                                     stale};
    ThreadRecord* owner = nullptr;
    for (ThreadRecord* handle : refused) {
        EXPECT_EQ(zkStartThread(handle, count, &ran), ZK_ERR_INVALID_HANDLE);
        EXPECT_EQ(zkReleaseThread(handle), ZK_ERR_INVALID_HANDLE);
        EXPECT_EQ(zkIsThreadRunning(handle), 0);
        zkWaitForThread(handle);
        if (handle == stale && !owner) {
            ASSERT_NE(owner = zkCreateThread(0), nullptr);
        }
    }
    ASSERT_EQ(zkStartThread(owner, count, &ran), 0);
    zkWaitForThread(stale); // does not wait for the new owner's run
    EXPECT_EQ(zkReleaseThread(owner), 0);
    EXPECT_EQ(ran.load(), 1);
}

TEST(Thread, RunsOfOneRecordNeverOverlapAndReleaseWaits) {
    LoggedRun first{1}, second{2}, third{3};
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    zkWaitForThread(thread); // never started: nothing to wait for
    ASSERT_EQ(zkStartThread(thread, Log, &first), 0);
    EXPECT_EQ(zkIsThreadRunning(thread), 1);
    ASSERT_EQ(zkStartThread(thread, Log, &second), 0);
    EXPECT_EQ(first.finished.load(), 1); // the second start waited for the first run
    zkWaitForThread(thread);
    EXPECT_EQ(Codes({second.finished.load(), zkIsThreadRunning(thread)}), Codes({1, 0}));
    ASSERT_EQ(zkStartThread(thread, Log, &third), 0);
    EXPECT_EQ(zkReleaseThread(thread), 0);
    EXPECT_EQ(third.finished.load(), 1);
    EXPECT_EQ(g_log, (std::vector<int>{10, 11, 20, 21, 30, 31}));
}

} // namespace
