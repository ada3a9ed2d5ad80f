// Application threads: the table of 32 records, handles that outlive their
// record, starting, waiting and releasing.
#include <zk.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

namespace {

struct Gate {
    SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1);
    ~Gate() { zkReleaseSemaphore(semaphore); }
    void Open() { zkSignalSemaphore(semaphore); }
};

void ZK_CALL WaitAtGate(void* gate) {
    zkWaitSemaphore(static_cast<Gate*>(gate)->semaphore);
}

// Each run logs its start, lingers long enough for an overlap to show, logs its end.
struct LoggedRunArgs {
    std::mutex* mutex;
    std::vector<int>* log;
    int id;
    std::atomic<int> finished{0};
};

void ZK_CALL LoggedRun(void* argument) {
    LoggedRunArgs* run = static_cast<LoggedRunArgs*>(argument);
    auto add = [run](int event) {
        std::lock_guard<std::mutex> guard(*run->mutex);
        run->log->push_back(event);
    };
    add(run->id * 10);
    zkSleep(30);
    add(run->id * 10 + 1);
    run->finished.store(1);
}

TEST(ThreadTable, ThirtyThirdCreateFailsUntilOneIsReleased) {
    std::vector<ThreadRecord*> records;
    for (int i = 0; i < 32; ++i) {
        records.push_back(zkCreateThread(0));
        ASSERT_NE(records.back(), nullptr) << "record " << i;
    }
    EXPECT_EQ(zkCreateThread(0), nullptr);
    ASSERT_EQ(zkReleaseThread(records[7]), 0);
    records[7] = zkCreateThread(0); // the released record, under a new handle
    ASSERT_NE(records[7], nullptr);
    EXPECT_EQ(zkCreateThread(0), nullptr);
    for (ThreadRecord* record : records)
        EXPECT_EQ(zkReleaseThread(record), 0);
}

TEST(ThreadTable, NullReleasedAndStaleHandlesAreRefused) {
    int value = 0;
    EXPECT_EQ(zkStartThread(nullptr, WaitAtGate, &value), ZK_ERR_INVALID_HANDLE);
    EXPECT_EQ(zkReleaseThread(nullptr), ZK_ERR_INVALID_HANDLE);
    EXPECT_EQ(zkIsThreadRunning(nullptr), 0);
    zkWaitForThread(nullptr);

    ThreadRecord* stale = zkCreateThread(0);
    ASSERT_NE(stale, nullptr);
    EXPECT_EQ(zkStartThread(stale, nullptr, &value), ZK_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(zkIsThreadRunning(stale), 0); // the refused start left it idle
    ASSERT_EQ(zkReleaseThread(stale), 0);
    // Released: every call refuses the handle, and the procedure never runs.
    std::atomic<int> ran{0};
    auto count = [](void* a) { static_cast<std::atomic<int>*>(a)->fetch_add(1); };
    EXPECT_EQ(zkStartThread(stale, count, &ran), ZK_ERR_INVALID_HANDLE);
    EXPECT_EQ(zkReleaseThread(stale), ZK_ERR_INVALID_HANDLE);
    // Handed out again: the old handle still names nothing, the new one works.
    ThreadRecord* owner = zkCreateThread(0);
    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(zkStartThread(stale, count, &ran), ZK_ERR_INVALID_HANDLE);
    EXPECT_EQ(zkReleaseThread(stale), ZK_ERR_INVALID_HANDLE);
    ASSERT_EQ(zkStartThread(owner, count, &ran), 0);
    zkWaitForThread(stale); // does not wait for the new owner's run
    EXPECT_EQ(zkReleaseThread(owner), 0);
    EXPECT_EQ(ran.load(), 1);
    // A pointer the table never gave out is refused too.
    EXPECT_EQ(zkStartThread(reinterpret_cast<ThreadRecord*>(&value), count, &ran),
              ZK_ERR_INVALID_HANDLE);
}

TEST(Thread, RunningFromStartUntilTheProcedureReturns) {
    Gate gate;
    ThreadRecord* thread = zkCreateThread(64 * 1024);
    ASSERT_NE(thread, nullptr);
    zkWaitForThread(thread); // never started: nothing to wait for
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(zkStartThread(thread, WaitAtGate, &gate), 0);
        EXPECT_EQ(zkIsThreadRunning(thread), 1);
        gate.Open();
        // The first round sees the end through a wait, the second through polls.
        if (round == 0) zkWaitForThread(thread);
        while (zkIsThreadRunning(thread))
            zkSleep(1);
    }
    EXPECT_EQ(zkReleaseThread(thread), 0);
}

TEST(Thread, RunsOfOneRecordNeverOverlapAndReleaseWaits) {
    std::mutex mutex;
    std::vector<int> log;
    LoggedRunArgs first{&mutex, &log, 1}, second{&mutex, &log, 2}, third{&mutex, &log, 3};
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(zkStartThread(thread, LoggedRun, &first), 0);
    ASSERT_EQ(zkStartThread(thread, LoggedRun, &second), 0);
    EXPECT_EQ(first.finished.load(), 1); // the second start waited for the first run
    zkWaitForThread(thread);
    EXPECT_EQ(second.finished.load(), 1);
    ASSERT_EQ(zkStartThread(thread, LoggedRun, &third), 0);
    EXPECT_EQ(zkReleaseThread(thread), 0);
    EXPECT_EQ(third.finished.load(), 1);
    EXPECT_EQ(log, (std::vector<int>{10, 11, 20, 21, 30, 31}));
}

} // namespace
