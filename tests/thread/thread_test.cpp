// Application threads: the table of 32 records, starting, waiting, releasing
// and the priority the procedures run at.
#include <zk.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#if defined(__linux__)
#include <sys/resource.h>
#endif

namespace {

struct Gate {
    SemaphoreRecord* semaphore = zkCreateSemaphore(0, 1);
    ~Gate() { zkReleaseSemaphore(semaphore); }
    void Open() { zkSignalSemaphore(semaphore); }
    void Pass() { zkWaitSemaphore(semaphore); }
};

void ZK_CALL WaitAtGate(void* argument) {
    static_cast<Gate*>(argument)->Pass();
}

struct Log {
    std::mutex mutex;
    std::vector<int> events;
    void Add(int event) {
        std::lock_guard<std::mutex> guard(mutex);
        events.push_back(event);
    }
};

struct LoggedRunArgs {
    Log* log;
    int id;
    std::atomic<int> finished{0};
};

// Logs its start, lingers long enough for an overlapping run to show, logs its end.
void ZK_CALL LoggedRun(void* argument) {
    LoggedRunArgs* run = static_cast<LoggedRunArgs*>(argument);
    run->log->Add(run->id * 10);
    zkSleep(30);
    run->log->Add(run->id * 10 + 1);
    run->finished.store(1);
}

TEST(ThreadTable, ThirtyThirdCreateFailsUntilOneIsReleased) {
    std::vector<ThreadRecord*> records;
    for (int i = 0; i < 32; ++i) {
        ThreadRecord* record = zkCreateThread(0);
        ASSERT_NE(record, nullptr) << "record " << i;
        records.push_back(record);
    }
    EXPECT_EQ(zkCreateThread(0), nullptr);

    ThreadRecord* released = records[7];
    EXPECT_EQ(zkReleaseThread(released), 0);
    ThreadRecord* again = zkCreateThread(0);
    EXPECT_EQ(again, released);
    EXPECT_EQ(zkCreateThread(0), nullptr);

    for (ThreadRecord* record : records)
        EXPECT_EQ(zkReleaseThread(record), 0);
}

TEST(ThreadTable, NullArguments) {
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    int value = 0;
    EXPECT_EQ(zkStartThread(nullptr, WaitAtGate, &value), ZK_ERR_INVALID_HANDLE);
    EXPECT_EQ(zkStartThread(thread, nullptr, &value), ZK_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(zkIsThreadRunning(thread), 0); // the refused start left it idle
    EXPECT_EQ(zkReleaseThread(nullptr), ZK_ERR_INVALID_HANDLE);
    EXPECT_EQ(zkIsThreadRunning(nullptr), 0);
    zkWaitForThread(nullptr); // does nothing
    EXPECT_EQ(zkReleaseThread(thread), 0);
}

TEST(Thread, RunningFromStartUntilTheProcedureReturns) {
    Gate gate;
    ThreadRecord* thread = zkCreateThread(64 * 1024);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(zkIsThreadRunning(thread), 0); // never started
    zkWaitForThread(thread);                 // nothing to wait for
    ASSERT_EQ(zkStartThread(thread, WaitAtGate, &gate), 0);
    EXPECT_EQ(zkIsThreadRunning(thread), 1);
    gate.Open();
    zkWaitForThread(thread);
    EXPECT_EQ(zkIsThreadRunning(thread), 0);
    // A poll notices the end, and the record can be started again after it.
    ASSERT_EQ(zkStartThread(thread, WaitAtGate, &gate), 0);
    gate.Open();
    while (zkIsThreadRunning(thread))
        zkSleep(1);
    ASSERT_EQ(zkStartThread(thread, WaitAtGate, &gate), 0);
    gate.Open();
    EXPECT_EQ(zkReleaseThread(thread), 0);
}

TEST(Thread, SecondStartRunsAfterTheFirstHasEnded) {
    Log log;
    LoggedRunArgs first{&log, 1};
    LoggedRunArgs second{&log, 2};
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(zkStartThread(thread, LoggedRun, &first), 0);
    ASSERT_EQ(zkStartThread(thread, LoggedRun, &second), 0);
    // The second start returned only after the first run had ended.
    EXPECT_EQ(first.finished.load(), 1);
    zkWaitForThread(thread);
    EXPECT_EQ(second.finished.load(), 1);
    EXPECT_EQ(log.events, (std::vector<int>{10, 11, 20, 21}));
    EXPECT_EQ(zkReleaseThread(thread), 0);
}

TEST(Thread, ReleaseWaitsForTheRunningProcedure) {
    Log log;
    LoggedRunArgs run{&log, 1};
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(zkStartThread(thread, LoggedRun, &run), 0);
    EXPECT_EQ(zkReleaseThread(thread), 0);
    EXPECT_EQ(run.finished.load(), 1);
    EXPECT_EQ(log.events, (std::vector<int>{10, 11}));
}

TEST(Thread, ProceduresReceiveTheirArgument) {
    constexpr int kThreads = 8;
    std::atomic<int> seen[kThreads] = {};
    struct Arg {
        std::atomic<int>* slot;
    } args[kThreads];
    ThreadRecord* threads[kThreads];
    for (int i = 0; i < kThreads; ++i) {
        args[i].slot = &seen[i];
        threads[i] = zkCreateThread(0);
        ASSERT_NE(threads[i], nullptr);
        ASSERT_EQ(
            zkStartThread(
                threads[i], [](void* a) { static_cast<Arg*>(a)->slot->fetch_add(1); }, &args[i]),
            0);
    }
    for (int i = 0; i < kThreads; ++i)
        EXPECT_EQ(zkReleaseThread(threads[i]), 0);
    for (int i = 0; i < kThreads; ++i)
        EXPECT_EQ(seen[i].load(), 1) << i;
}

#if defined(__linux__)
// On Linux a thread's scheduling priority is its own nice value: a thread
// below normal priority runs one step nicer than the thread that made it.
void ZK_CALL ReadNice(void* argument) {
    *static_cast<int*>(argument) = getpriority(PRIO_PROCESS, 0);
}

TEST(Thread, RunsBelowNormalPriority) {
    int mainNice = getpriority(PRIO_PROCESS, 0);
    if (mainNice >= 19) GTEST_SKIP() << "the test runs at the lowest priority already";
    int threadNice = -100;
    ThreadRecord* thread = zkCreateThread(0);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(zkStartThread(thread, ReadNice, &threadNice), 0);
    EXPECT_EQ(zkReleaseThread(thread), 0);
    EXPECT_EQ(threadNice, mainNice + 1);
}
#endif

} // namespace
