// Requests, whole-file and background loads (a held driver call shows "still running").
#include "file/memory_device.h"

#include <thread>

namespace zktest {
namespace {

// Begin and End of an open of path: {begin, end, handle given}.
Codes Open(Request* r, const char* path, FileHandle** handle) {
    const int32_t begun = zkBeginOpenFile(path, ZK_OPEN_READ, 0, r);
    const int32_t ended = zkEndOpenFile(handle, r);
    return {begun, ended, handle && *handle ? 1 : 0};
}
// Begin and End of a read: {begin, end, bytes delivered}.
Codes Read(Request* r, FileHandle* h, void* buffer, uint32_t size) {
    uint32_t got = 99;
    const int32_t begun = zkBeginReadFile(h, buffer, size, r);
    return {begun, zkEndReadFile(&got, r), got};
}
Codes Close(Request* r, FileHandle* h) {
    const int32_t begun = zkBeginCloseFile(h, r);
    return {begun, zkEndCloseFile(r)};
}

class AsyncFiles : public MemoryDeviceTest {
protected:
    void SetUp() override {
        MemoryDeviceTest::SetUp();
        ASSERT_EQ(zkInitializeRequest(8), 0);
        request_ = zkCreateRequest();
        ASSERT_NE(request_, nullptr);
    }
    void TearDown() override {
        zkReleaseRequest(request_);
        MemoryDeviceTest::TearDown();
    }
    Request* request_ = nullptr;
};

TEST_F(AsyncFiles, BeginAndEndGiveTheResultsOfTheSynchronousCalls) {
    Device().Put("mem:/a.bin", "0123456789abcdef");
    const uint32_t openBefore = zkGetOpenFileCount();
    FileHandle* h = reinterpret_cast<FileHandle*>(1);
    EXPECT_EQ(Open(request_, nullptr, &h), Codes({0, -3, 0}));
    EXPECT_EQ(Open(request_, "/m/missing.bin", &h), Codes({0, -51, 0}));
    EXPECT_EQ(Open(request_, "/m/a.bin", nullptr), Codes({0, -3, 0})); // opened, then closed again
    EXPECT_EQ(zkGetOpenFileCount(), openBefore);

    ASSERT_EQ(zkBeginOpenFile("/m/a.bin", ZK_OPEN_READ, 0, request_), 0);
    EXPECT_EQ(zkBeginOpenFile("/m/a.bin", ZK_OPEN_READ, 0, request_), -56); // End not run yet
    ASSERT_EQ(zkEndOpenFile(&h, request_), 0);
    ASSERT_NE(h, nullptr);

    zkResetTotalBytesRead();
    char buffer[32] = {};
    EXPECT_EQ(Read(request_, h, buffer, 10), Codes({0, 0, 10}));
    EXPECT_EQ(Read(request_, h, buffer + 10, 32), Codes({0, 0, 6})); // the rest of the file
    EXPECT_EQ(std::string(buffer, 16), "0123456789abcdef");
    EXPECT_EQ(zkGetTotalBytesRead(), 16u);

    EXPECT_EQ(Close(request_, h), Codes({0, 0}));
    // The failed open gave its file object back, so did the open with a null
    // handle pointer, and this close.
    EXPECT_EQ(Codes({zkGetOpenFileCount(), Device().Count(kFileClose)}), Codes({openBefore, 3}));
    // A closed handle: -4 from End, nothing delivered, nothing reaching the driver.
    EXPECT_EQ(Read(request_, h, buffer, 4), Codes({0, -4, 0}));
    EXPECT_EQ(Close(request_, h), Codes({0, -4}));
    EXPECT_EQ(Device().Count(kFileClose), 3u);
    uint32_t got = 0;
    EXPECT_EQ(Codes({zkBeginOpenFile("/m/a.bin", 0, 0, nullptr), zkEndReadFile(&got, request_)}),
              Codes({-55, -56})); // a null request; nothing pending
    EXPECT_EQ(zkGetOpenFileCount(), openBefore);
}

TEST_F(AsyncFiles, TheOperationRunsOnTheWorkerWhileTheCallerGoesOn) {
    Device().Put("mem:/a.bin", std::string(64, 'q'));
    FileHandle* h = nullptr;
    ASSERT_EQ(Open(request_, "/m/a.bin", &h), Codes({0, 0, 1}));
    Device().Hold(kFileRead);
    char buffer[64];
    ASSERT_EQ(zkBeginReadFile(h, buffer, 64, request_), 0); // returns with the read held
    Device().WaitHeld(1);
    EXPECT_EQ(zkIsRequestCompleted(request_), 0);
    EXPECT_NE(Device().Log({kFileRead}).back().thread, std::this_thread::get_id());
    Device().Release();
    uint32_t got = 0;
    EXPECT_EQ(Codes({zkEndReadFile(&got, request_), got}), Codes({0, 64}));
    // Driver failures come back through End: a failing read, a missing file
    // answered with -57 (reported as -51).
    Device().plan.faults[kFileRead] = {2, 3, -35}; // the second read
    EXPECT_EQ(Read(request_, h, buffer, 8), Codes({0, -35, 0}));
    EXPECT_EQ(Close(request_, h), Codes({0, 0}));
    Device().plan.missing = -57;
    EXPECT_EQ(Open(request_, "/m/none.bin", &h), Codes({0, -51, 0}));
}

TEST_F(AsyncFiles, WholeFileLoads) {
    std::string big(100000, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = char(i * 7 + i / 251);
    Device().Put("mem:/big.bin", big);
    Device().Put("mem:/empty.bin", "");
    const uint32_t blocks = UsedBlocks();
    void* data = reinterpret_cast<void*>(1);
    uint32_t size = 7;
    EXPECT_EQ(Codes({zkLoadDataFromFile("/m/empty.bin", &data, &size), data != nullptr, size}),
              Codes({0, 0, 0}));
    Device().plan.piece = 4096; // many reads for one load
    ASSERT_EQ(zkLoadDataFromFile("/m/big.bin", &data, &size), 0);
    EXPECT_EQ(std::string(static_cast<char*>(data), size), big);
    zkFreeData(data);
    EXPECT_EQ(Codes({zkLoadDataFromFile("/m/big.bin", nullptr, &size),
                     zkLoadDataFromFile("/m/missing.bin", &data, &size)}),
              Codes({-3, -51}));
    // A file whose reads stop delivering before its size is reached.
    Device().plan.piece = 0;
    EXPECT_EQ(Codes({zkLoadDataFromFile("/m/big.bin", &data, &size), data != nullptr, size}),
              Codes({-11, 0, 0}));
    EXPECT_EQ(Codes({UsedBlocks(), zkGetOpenFileCount()}), Codes({blocks, 0}));
}

TEST_F(AsyncFiles, BackgroundLoadsAreCollectedOnceAndFreedAtClose) {
    Device().Put("mem:/level.dat", std::string(5000, 'L'));
    const uint32_t blocks = UsedBlocks();
    Device().Hold(kFileRead);
    FileHandle* h = zkStartLoadingDataFromFile("/m/level.dat");
    ASSERT_NE(h, nullptr);
    Device().WaitHeld(1);
    void* data = reinterpret_cast<void*>(1);
    uint32_t size = 7;
    EXPECT_EQ(Codes({zkIsFileProcessing(h), zkGetLoadedData(h, &data, &size), data != nullptr, size,
                     zkGetOpenFileCount()}),
              Codes({1, 0, 0, 0, 1})); // still loading: nothing handed out yet
    Device().Release();
    while (zkIsFileProcessing(h))
        zkSleep(1);
    EXPECT_EQ(Codes({zkGetLoadedData(h, &data, &size), size}), Codes({0, 5000}));
    EXPECT_EQ(std::string(static_cast<char*>(data), size), std::string(5000, 'L'));
    zkFreeData(data);
    EXPECT_EQ(Codes({zkGetLoadedData(h, &data, &size), data != nullptr, size}), Codes({0, 0, 0}));
    zkCloseFile(h);
    EXPECT_EQ(Codes({zkIsFileProcessing(h), zkGetLoadedData(h, &data, &size)}), Codes({0, -4}));

    // Closed while the load still runs: the close waits for it and frees the
    // data nobody took; so does an asynchronous close.
    for (int asyncClose = 0; asyncClose < 2; ++asyncClose) {
        Device().Hold(kFileRead);
        h = zkStartLoadingDataFromFile("/m/level.dat");
        ASSERT_NE(h, nullptr);
        Device().WaitHeld(1);
        std::thread releaser([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            Device().Release();
        });
        if (asyncClose) {
            EXPECT_EQ(Close(request_, h), Codes({0, 0}));
        } else {
            zkCloseFile(h);
        }
        releaser.join();
        EXPECT_EQ(Codes({zkGetOpenFileCount(), UsedBlocks()}), Codes({0, blocks}));
        // The loading thread opened, read and closed its own file object.
        EXPECT_EQ(Device().Log({kFileOpen, kFileRead, kFileClose}).back().slot, kFileClose);
    }
    // A missing file: the load finishes with the open's code.
    h = zkStartLoadingDataFromFile("/m/missing.dat");
    ASSERT_NE(h, nullptr);
    while (zkIsFileProcessing(h))
        zkSleep(1);
    EXPECT_EQ(zkGetLoadedData(h, &data, &size), -51);
    zkCloseFile(h);
    EXPECT_EQ(UsedBlocks(), blocks);
}

TEST_F(AsyncFiles, ConcurrencyOwnRequestsBesideABackgroundLoad) {
    for (int t = 0; t < 4; ++t)
        Device().Put("mem:/t" + std::to_string(t), std::string(4096, char('a' + t)));
    Device().Put("mem:/bg", std::string(20000, 'b'));
    FileHandle* background = zkStartLoadingDataFromFile("/m/bg");
    ASSERT_NE(background, nullptr);
    Request* requests[4];
    for (Request*& r : requests)
        ASSERT_NE(r = zkCreateRequest(), nullptr);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const std::string path = "/m/t" + std::to_string(t);
            for (int round = 0; round < 20; ++round) {
                FileHandle* h = nullptr;
                char buffer[4096] = {};
                wrong += Open(requests[t], path.c_str(), &h) != Codes({0, 0, 1});
                wrong += Read(requests[t], h, buffer, 4096) != Codes({0, 0, 4096}) ||
                         buffer[4095] != char('a' + t);
                wrong += Close(requests[t], h) != Codes({0, 0});
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    while (zkIsFileProcessing(background))
        zkSleep(1);
    void* data = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(Codes({zkGetLoadedData(background, &data, &size), size}), Codes({0, 20000}));
    zkFreeData(data);
    zkCloseFile(background);
    EXPECT_EQ(wrong.load(), 0);
    for (Request* r : requests)
        zkReleaseRequest(r);
}

} // namespace
} // namespace zktest
