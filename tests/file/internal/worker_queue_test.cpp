// The nodes taken tell when an operation is queued: ordering is checked without timing.
#include "file/file_system.h"
#include "file/memory_device.h"

#include <atomic>
#include <chrono>

namespace zktest {
namespace {

using WorkerQueue = MemoryDeviceTest;

void WaitForCount(uint32_t n) {
    while (zk::Files().Worker().Count() != n)
        std::this_thread::yield();
}

void Read(FileHandle* f, uint32_t size, uint32_t flags, bool atOffset) {
    std::vector<char> buffer(size);
    uint32_t got = 0;
    const int32_t r = atOffset ? zkReadFileOffset(f, 0, buffer.data(), size, &got, flags)
                               : zkReadFile(f, buffer.data(), size, &got);
    EXPECT_EQ(std::to_string(r) + "/" + std::to_string(got), "0/" + std::to_string(size));
}

TEST_F(WorkerQueue, UrgentReadRunsBetweenTwoPiecesAndTheSeventeenthSubmitterWaits) {
    Device().plan.piece = 100;
    FileHandle* big = Make("big", std::string(1000, 'b'));
    FileHandle* normal = Make("normal", "n");
    FileHandle* urgent = Make("urgent", "u");
    ASSERT_TRUE(big && normal && urgent);
    Device().Hold(kFileRead);
    std::thread a(Read, big, 1000, 0, false);
    Device().WaitHeld(1);
    std::thread b(Read, normal, 1, 0, true);
    WaitForCount(2);
    std::thread c(Read, urgent, 1, 1, true);
    WaitForCount(3);
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

    // Sixteen nodes: the seventeenth submitter waits for a free one.
    std::vector<FileHandle*> files;
    for (int i = 0; i < 17; ++i)
        files.push_back(Make("f" + std::to_string(i), "x"));
    Device().Hold(kFileRead);
    std::vector<std::thread> readers;
    readers.emplace_back(Read, files[0], 1, 0, false);
    Device().WaitHeld(1);
    for (uint32_t i = 1; i < 16; ++i) {
        readers.emplace_back(Read, files[i], 1, 0, false);
        WaitForCount(i + 1);
    }
    std::atomic<int> stage{0};
    readers.emplace_back([&] {
        stage = 1;
        Read(files[16], 1, 0, false);
        stage = 2;
    });
    while (stage == 0)
        std::this_thread::yield();
    // Give the seventeenth a moment to reach the queue: it must find no node.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(zk::Files().Worker().Count(), 16u);
    EXPECT_EQ(stage.load(), 1);
    Device().Release();
    for (std::thread& t : readers)
        t.join();
    EXPECT_EQ(Device().Log({kFileRead}).back().text, "mem:/f16");
    EXPECT_EQ(zk::Files().Worker().Count(), 0u);
    for (FileHandle* f : files)
        zkCloseFile(f);
}

} // namespace
} // namespace zktest
