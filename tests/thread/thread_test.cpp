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
    records[7] = zkCreateThread(0); // the released record, a new handle
    EXPECT_EQ(Codes({records[7] != nullptr, zkCreateThread(0) != nullptr}), Codes({1, 0}));
    for (ThreadRecord* record : records)
        EXPECT_EQ(zkReleaseThread(record), 0);
}

TEST(ThreadTable, NullForeignReleasedAndStaleHandlesAreRefused) {
    std::atomic<int> ran{0};
    auto count = [](void* a) { static_cast<std::atomic<int>*>(a)->fetch_add(1); };
    ThreadRecord* stale = zkCreateThread(0);
    // A start without a procedure is refused and leaves the record idle.
    EXPECT_EQ(Codes({stale != nullptr, zkStartThread(stale, nullptr, &ran),
                     zkIsThreadRunning(stale), zkReleaseThread(stale)}),
              Codes({1, ZK_ERR_INVALID_ARGUMENT, 0, 0}));
    // Null, never given out, released, and released with its record handed
    // out again: every call refuses the handle, and the procedure never runs.
    static uint64_t foreign[64];
    ThreadRecord* const refused[] = {nullptr, reinterpret_cast<ThreadRecord*>(foreign), stale,
                                     stale};
    ThreadRecord* owner = nullptr;
    for (ThreadRecord* handle : refused) {
        EXPECT_EQ(Codes({zkStartThread(handle, count, &ran), zkReleaseThread(handle),
                         zkIsThreadRunning(handle)}),
                  Codes({ZK_ERR_INVALID_HANDLE, ZK_ERR_INVALID_HANDLE, 0}));
        zkWaitForThread(handle);
        if (handle == stale && !owner) owner = zkCreateThread(0);
    }
    ASSERT_EQ(zkStartThread(owner, count, &ran), 0); // fails when owner is null
    zkWaitForThread(stale);                          // does not wait for the new owner's run
    EXPECT_EQ(zkReleaseThread(owner), 0);
    EXPECT_EQ(ran.load(), 1);
}

TEST(Thread, RunsOfOneRecordNeverOverlapAndReleaseWaits) {
    LoggedRun first{1}, second{2}, third{3};
    ThreadRecord* thread = zkCreateThread(0);
    zkWaitForThread(thread); // never started: nothing to wait for
    // The second start waits for the first run; release waits for the third.
    Codes got{zkStartThread(thread, Log, &first), zkIsThreadRunning(thread),
              zkStartThread(thread, Log, &second), first.finished.load()};
    zkWaitForThread(thread);
    got.insert(got.end(), {second.finished.load(), zkIsThreadRunning(thread),
                           zkStartThread(thread, Log, &third), zkReleaseThread(thread),
                           third.finished.load()});
    EXPECT_EQ(got, Codes({0, 1, 0, 1, 1, 0, 0, 0, 1}));
    EXPECT_EQ(g_log, (std::vector<int>{10, 11, 20, 21, 30, 31}));
}

} // namespace
