// The worker's queues: an urgent read ahead of the normal queue, and the
// application's submissions while the library's loading threads keep the
// worker busy: nodes left to the application, waiters served in arrival
// order, and the application's reads ahead of the loads' remaining pieces.
// The worker is held inside a driver call, so order and counts are checked
// without timing; the only clock is a generous bound on a Begin that must
// not block.
#include "file/file_system.h"
#include "file/memory_device.h"

#include <atomic>
#include <chrono>
#include <cstdio>

namespace zktest {
namespace {

using LoadingConcurrency = MemoryDeviceTest;
using zk::DeviceIoWorker;

zk::DeviceIoWorker& Worker() {
    return zk::Files().Worker();
}

// Waits until done() holds; false after the bound (a generous one: CI hosts are slow).
template <typename Done> bool WaitUntil(Done done, int seconds = 60) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

std::string Name(const char* prefix, int i) {
    char name[32];
    std::snprintf(name, sizeof name, "%s%d", prefix, i);
    return name;
}

TEST_F(LoadingConcurrency, ABeginWhileEveryOtherHandleLoadsInTheBackgroundFindsANodeAndRunsFirst) {
    // Every load is four pieces; the frame's file takes the one handle left.
    Device().plan.piece = 1000;
    constexpr int kLoads = 31;
    for (int i = 0; i < kLoads; ++i)
        Device().Put("mem:/" + Name("load", i), std::string(4000, char('a' + i % 26)));
    FileHandle* frame = Make("frame", "frame data");
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(zkInitializeRequest(2), 0);
    Request* request = zkCreateRequest();
    ASSERT_NE(request, nullptr);

    // The first read of a load holds the worker; the loaders fill their share
    // of the nodes and the rest of them wait for one.
    Device().Hold(kFileRead);
    std::vector<FileHandle*> loads;
    for (int i = 0; i < kLoads; ++i) {
        loads.push_back(zkStartLoadingDataFromFile(("/m/" + Name("load", i)).c_str()));
        ASSERT_NE(loads.back(), nullptr) << i;
    }
    Device().WaitHeld(1);
    ASSERT_TRUE(
        WaitUntil([] { return Worker().Waiters() == kLoads - DeviceIoWorker::kBulkNodes; }));
    EXPECT_EQ(Worker().Count(), DeviceIoWorker::kBulkNodes);

    // The frame's Begin returns with its read queued while the worker is held.
    char buffer[16] = {};
    std::atomic<int32_t> begun{1};
    std::thread frameThread([&] { begun = zkBeginReadFile(frame, buffer, 10, request); });
    const bool returned = WaitUntil([&] { return begun.load() != 1; });
    EXPECT_TRUE(returned);
    EXPECT_EQ(begun.load(), returned ? 0 : 1);
    EXPECT_EQ(Worker().Count(), DeviceIoWorker::kBulkNodes + 1);
    Device().Release();
    frameThread.join();
    uint32_t got = 0;
    EXPECT_EQ(zkEndReadFile(&got, request), 0);
    EXPECT_EQ(std::string(buffer, got), "frame data");

    // Its read came right after the held piece, before the loads' other pieces.
    const auto reads = Device().Log({kFileRead});
    ASSERT_GE(reads.size(), 2u);
    EXPECT_NE(reads[0].text, "mem:/frame");
    EXPECT_EQ(reads[1].text, "mem:/frame");

    // Every load completes with its data.
    for (int i = 0; i < kLoads; ++i) {
        ASSERT_TRUE(WaitUntil([&] { return zkIsFileProcessing(loads[i]) == 0; })) << i;
        void* data = nullptr;
        uint32_t size = 0;
        EXPECT_EQ(zkGetLoadedData(loads[i], &data, &size), 0);
        EXPECT_EQ(std::string(static_cast<char*>(data), size),
                  std::string(4000, char('a' + i % 26)));
        zkFreeData(data);
        zkCloseFile(loads[i]);
    }
    EXPECT_EQ(Device().Count(kFileRead), uint32_t(kLoads * 4 + 1));
    EXPECT_EQ(Worker().Count(), 0u);
    zkCloseFile(frame);
    zkReleaseRequest(request);
}

TEST_F(LoadingConcurrency, SubmittersWaitingForANodeAreServedInArrivalOrder) {
    std::vector<FileHandle*> files;
    for (int i = 0; i < 19; ++i)
        files.push_back(Make(Name("f", i), "x"));
    auto read = [](FileHandle* f) {
        char c = 0;
        uint32_t got = 0;
        EXPECT_EQ(zkReadFile(f, &c, 1, &got), 0);
    };
    Device().Hold(kFileRead);
    std::vector<std::thread> readers;
    for (uint32_t i = 0; i < DeviceIoWorker::kNodes; ++i) {
        readers.emplace_back(read, files[i]);
        ASSERT_TRUE(WaitUntil([&] { return Worker().Count() == i + 1; }));
    }
    // Three more, each in line before the next one starts.
    for (uint32_t i = 16; i < 19; ++i) {
        readers.emplace_back(read, files[i]);
        ASSERT_TRUE(WaitUntil([&] { return Worker().Waiters() == i - 15; }));
    }
    EXPECT_EQ(Worker().Count(), DeviceIoWorker::kNodes);
    Device().Release();
    for (std::thread& t : readers)
        t.join();
    std::vector<std::string> last;
    for (const auto& call : Device().Log({kFileRead}))
        last.push_back(call.text);
    ASSERT_EQ(last.size(), 19u);
    last.erase(last.begin(), last.end() - 3);
    EXPECT_EQ(last, (std::vector<std::string>{"mem:/f16", "mem:/f17", "mem:/f18"}));
    EXPECT_EQ(Worker().Waiters(), 0u);
    for (FileHandle* f : files)
        zkCloseFile(f);
}

// The nodes taken tell when an operation is queued: an urgent read goes ahead of
// the normal queue, between two pieces of a longer read.
void Read(FileHandle* f, uint32_t size, uint32_t flags, bool atOffset) {
    std::vector<char> buffer(size);
    uint32_t got = 0;
    const int32_t r = atOffset ? zkReadFileOffset(f, 0, buffer.data(), size, &got, flags)
                               : zkReadFile(f, buffer.data(), size, &got);
    EXPECT_EQ(std::to_string(r) + "/" + std::to_string(got), "0/" + std::to_string(size));
}

TEST_F(LoadingConcurrency, UrgentReadRunsBetweenTwoPiecesAheadOfTheNormalQueue) {
    Device().plan.piece = 100;
    FileHandle* big = Make("big", std::string(1000, 'b'));
    FileHandle* normal = Make("normal", "n");
    FileHandle* urgent = Make("urgent", "u");
    ASSERT_TRUE(big && normal && urgent);
    Device().Hold(kFileRead);
    std::thread a(Read, big, 1000, 0, false);
    Device().WaitHeld(1);
    std::thread b(Read, normal, 1, 0, true);
    EXPECT_TRUE(WaitUntil([] { return Worker().Count() == 2; }));
    std::thread c(Read, urgent, 1, 1, true);
    EXPECT_TRUE(WaitUntil([] { return Worker().Count() == 3; }));
    Device().Release();
    a.join(), b.join(), c.join();

    // One piece, the urgent read, the read that waited in the normal queue,
    // then the other nine pieces.
    std::vector<std::string> order, expected(12, "mem:/big");
    for (const auto& call : Device().Log({kFileRead, kFileReadAt}))
        order.push_back(call.text);
    expected[1] = "mem:/urgent", expected[2] = "mem:/normal";
    EXPECT_EQ(order, expected);
    for (FileHandle* f : {big, normal, urgent})
        zkCloseFile(f);
}

} // namespace
} // namespace zktest
