// Files, the worker's behaviour seen through the memory device, directories,
// restarts and concurrent use.
#include "file/memory_device.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace zktest {
namespace {

using Files = MemoryDeviceTest;
using Worker = MemoryDeviceTest;
using Directories = MemoryDeviceTest;

// "result/count" of a read of size bytes (at offset when offset >= 0).
std::string ReadText(FileHandle* f, char* buffer, uint32_t size, int64_t offset = -1) {
    uint32_t got = 7;
    const int32_t r = offset < 0 ? zkReadFile(f, buffer, size, &got)
                                 : zkReadFileOffset(f, uint32_t(offset), buffer, size, &got, 0);
    return std::to_string(r) + "/" + std::to_string(got);
}

TEST_F(Files, ReadWriteSeekAndCounters) {
    FileHandle* f = Make("a.bin", std::string(100, 'x'));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(zkGetOpenFileCount(), 1u);
    zkResetTotalBytesRead();
    uint32_t n = 0;
    char buffer[128];
    EXPECT_EQ(zkSeekFile(f, 90, ZK_SEEK_SET, &n), 0);
    EXPECT_EQ(n, 90u);
    EXPECT_EQ(ReadText(f, buffer, 100), "0/10"); // short read at the end
    EXPECT_EQ(ReadText(f, buffer, 0), "0/0");
    EXPECT_EQ(zkGetTotalBytesRead(), 10u);
    EXPECT_EQ(zkWriteFile(f, "tail", 4, &n), 0);
    EXPECT_EQ(zkGetTotalBytesRead(), 10u); // writes are not counted
    EXPECT_EQ(zkGetFileSize(f, &n), 0);
    EXPECT_EQ(n, 104u);
    EXPECT_EQ(ReadText(f, buffer, 10, 98), "0/6");
    EXPECT_EQ(std::string(buffer, 6), "xxtail");
    EXPECT_EQ(zkGetTotalBytesRead(), 16u);
    // The path buffer must exceed the full path's length.
    char path[16];
    EXPECT_EQ(zkGetFilePath(f, path, 8), -33);
    EXPECT_EQ(zkGetFilePath(f, path, 9), 0);
    EXPECT_STREQ(path, "/m/a.bin");
    zkCloseFile(f);
    EXPECT_EQ(zkGetOpenFileCount(), 0u);

    zkSetWorkDir("/m/");
    f = zkOpenFile("a.bin", ZK_OPEN_READ, 0);
    EXPECT_EQ(zkGetFilePath(f, path, sizeof(path)), 0);
    EXPECT_STREQ(path, "/m/a.bin");
    zkCloseFile(f);
}

TEST_F(Files, HandleTableAndClosedHandles) {
    std::vector<FileHandle*> open;
    Device().Put("mem:/a", "abc");
    for (int i = 0; i < 32; ++i)
        open.push_back(zkOpenFile("/m/a", ZK_OPEN_READ, 0));
    for (FileHandle* f : open)
        ASSERT_NE(f, nullptr);
    EXPECT_EQ(zkOpenFile("/m/a", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkGetOpenFileCount(), 32u);
    for (FileHandle* f : open)
        zkCloseFile(f);
    EXPECT_EQ(zkOpenFile("/m/missing", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkGetOpenFileCount(), 0u);

    // Every call on a closed (or null) handle answers -4; closing again does nothing.
    FileHandle* f = open[0];
    zkCloseFile(f);
    for (FileHandle* h : {f, static_cast<FileHandle*>(nullptr)}) {
        char b[8];
        uint32_t n = 0;
        FileTimeRecord t{};
        EXPECT_EQ(zkReadFile(h, b, 1, &n), -4);
        EXPECT_EQ(zkReadFileOffset(h, 0, b, 1, &n, 0), -4);
        EXPECT_EQ(zkWriteFile(h, b, 1, &n), -4);
        EXPECT_EQ(zkSeekFile(h, 0, 0, &n), -4);
        EXPECT_EQ(zkGetFileSize(h, &n), -4);
        EXPECT_EQ(zkGetFilePath(h, b, 8), -4);
        EXPECT_EQ(zkGetFileTime(h, &t, &t, &t), -4);
        EXPECT_EQ(zkSetFileTime(h, &t, &t, &t), -4);
    }
    EXPECT_EQ(Device().Count(kFileClose), 33u); // 32 files and the failed open's object
}

TEST_F(Files, BadInputGivesCodesAndStaysInItsBuffers) {
    // Device paths of 259, 260 and 261 characters: only the first fits.
    for (size_t length : {259u, 260u, 261u}) {
        const std::string path = "mem:" + std::string(length - 4, 'p');
        FileHandle* f = zkOpenFile(path.c_str(), ZK_OPEN_READ | ZK_OPEN_CREATE, 0);
        EXPECT_EQ(f != nullptr, length == 259) << length;
        zkCloseFile(f);
    }
    FileHandle* f = Make("b", "0123456789");
    ASSERT_NE(f, nullptr);
    uint32_t n = 0;
    EXPECT_EQ(zkOpenFile(nullptr, ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkReadFile(f, nullptr, 4, &n), -3);
    EXPECT_EQ(zkWriteFile(f, nullptr, 4, &n), -3);
    EXPECT_EQ(zkGetFileSize(f, nullptr), -3);
    EXPECT_EQ(zkGetFilePath(f, nullptr, 8), -3);
    EXPECT_EQ(zkDeleteFile(nullptr, 0), -3);
    EXPECT_EQ(zkCopyFile("a", nullptr), -3);

    // A driver claiming more bytes than it was asked for fails the read.
    Device().plan.overclaim = true;
    char buffer[8] = "canary";
    zkResetTotalBytesRead();
    EXPECT_EQ(ReadText(f, buffer, 4), "-35/0");
    EXPECT_STREQ(buffer + 4, "ry");
    EXPECT_EQ(zkGetTotalBytesRead(), 0u);
    zkCloseFile(f);
}

TEST_F(Files, DeleteAndTimesGoToTheDriver) {
    FileHandle* f = Make("t", "x");
    ASSERT_NE(f, nullptr);
    const FileTimeRecord set = {{1, 2, 3}};
    FileTimeRecord got = {};
    EXPECT_EQ(zkSetFileTime(f, &set, nullptr, nullptr), 0);
    EXPECT_EQ(zkGetFileTime(f, &got, nullptr, nullptr), 0);
    EXPECT_EQ(got.words[2], 3u);
    EXPECT_EQ(Device().Log({kSetFileTime}).at(0).text, "mem:/t");
    zkCloseFile(f);
    EXPECT_EQ(zkDeleteFile("/m/t", 0), 0);
    EXPECT_EQ(zkDeleteFile("/m/t", 0), -51);
    EXPECT_EQ(zkDeleteFile("zz9:t", 0), -23);
}

TEST_F(Worker, TryCounts) {
    // Tries, failing calls before a success, result, calls made.
    const int64_t cases[][4] = {
        {3, 2, 0, 3}, {2, 2, -35, 2}, {0xFFFFFFFF, 6, 0, 7}, {0, 1, -35, 1}};
    for (const auto& c : cases) {
        Device().Reset();
        FileHandle* f = Make("r", "data");
        Device().plan.tries = static_cast<uint32_t>(c[0]);
        Device().Fail(kFileRead, 1, static_cast<uint32_t>(c[1]), -35);
        char b[4];
        EXPECT_EQ(ReadText(f, b, 4), std::to_string(c[2]) + (c[2] ? "/0" : "/4")) << c[0];
        EXPECT_EQ(Device().Count(kFileRead), c[3]);
        zkCloseFile(f);
    }
}

TEST_F(Worker, OpenStepsAndImmediateOperations) {
    Device().plan.tries = 3;
    EXPECT_EQ(zkOpenFile("/m/none", ZK_OPEN_READ, 0), nullptr); // -51 is tried again
    EXPECT_EQ(Device().Count(kFileOpen), 3u);
    Device().plan.missing = ZK_ERR_NO_SUCH_FILE; // -57 is not
    EXPECT_EQ(zkOpenFile("/m/none", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(Device().Count(kFileOpen), 4u);
    EXPECT_EQ(Device().Count(kFileClose), 2u); // failed opens give their objects back

    // A create whose parent is missing makes it once, then opens again.
    FileHandle* f = zkOpenFile("/m/d/new", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(Device().Count(kMakeDir), 1u);
    EXPECT_EQ(Device().Log({kMakeDir}).at(0).text, "mem:/d");
    EXPECT_EQ(Device().Count(kFileOpen), 6u);
    zkCloseFile(f);

    // Immediate kinds run on the caller's thread; reads and writes never do.
    Device().Reset();
    Device().plan.immediate = true;
    f = Make("i", "abcd");
    ASSERT_NE(f, nullptr);
    uint32_t n = 0;
    char b[4];
    EXPECT_EQ(zkSeekFile(f, 1, ZK_SEEK_SET, &n), 0);
    EXPECT_EQ(zkGetFileSize(f, &n), 0);
    EXPECT_EQ(zkReadFile(f, b, 2, &n), 0);
    zkCloseFile(f);
    const auto self = std::this_thread::get_id();
    for (const auto& call : Device().Log({kFileOpen, kFileSeek, kFileGetSize, kFileClose}))
        EXPECT_EQ(call.thread, self) << call.slot;
    EXPECT_NE(Device().Log({kFileRead}).at(0).thread, self);
}

TEST_F(Directories, ListingsAndTheirHandles) {
    Device().Put("mem:/d/x", "1");
    Device().Put("mem:/d/y", "2");
    DirHandle* a = zkOpenDir("/m/d");
    DirHandle* b = zkOpenDir("/m/d/");
    ASSERT_TRUE(a && b);
    for (const auto& call : Device().Log({kDirOpen}))
        EXPECT_EQ(call.text, "mem:/d/");
    char x[64] = {}, y[64] = {};
    EXPECT_EQ(zkReadDir(a, x), 1);
    EXPECT_EQ(zkReadDir(a, y), 1);
    EXPECT_EQ(zkReadDir(a, y), 0);
    EXPECT_EQ(std::string(x) + y, "xy");
    EXPECT_EQ(zkReadDir(a, nullptr), -3);
    zkCloseDir(a);
    zkCloseDir(a);
    zkCloseDir(b);
    EXPECT_EQ(Device().Count(kDirClose), 2u);
    EXPECT_EQ(zkReadDir(a, x), -4);
    EXPECT_EQ(zkReadDir(nullptr, x), -4);

    Device().plan.noDirObject = true;
    EXPECT_EQ(zkOpenDir("/m/d"), nullptr);
    Device().plan.noDirObject = false;
    std::vector<DirHandle*> all;
    for (int i = 0; i < 64; ++i)
        all.push_back(zkOpenDir("/m/d"));
    for (DirHandle* d : all)
        EXPECT_NE(d, nullptr); // the failed open left its handle free
    EXPECT_EQ(zkOpenDir("/m/d"), nullptr);
    for (DirHandle* d : all)
        zkCloseDir(d);
}

TEST_F(Directories, MakeRemoveAndDump) {
    EXPECT_EQ(zkMakeDir("/m/a/b/c", 0, 0), -51);
    EXPECT_EQ(zkMakeDir("/m/a/b/c", ZK_MAKEDIR_PARENTS, 0), 0);
    EXPECT_EQ(Device().LastMode(), 511u);
    std::vector<std::string> order;
    for (const auto& call : Device().Log({kMakeDir}))
        order.push_back(call.text);
    EXPECT_EQ(order, (std::vector<std::string>{"mem:/a/b/c", "mem:/a/b/c", "mem:/a/b", "mem:/a",
                                               "mem:/a/b", "mem:/a/b/c"}));
    EXPECT_EQ(zkRemoveDir("/m/a", 0), 0);
    EXPECT_EQ(Device().Log({kRemoveDir}).at(0).text, "mem:/a");
    EXPECT_EQ(zkDumpDir(nullptr, 0), 0);
    EXPECT_EQ(Device().Count(kDumpDir), 0u);
    EXPECT_EQ(zkMakeDir(nullptr, 0, 0), -3);
    EXPECT_EQ(zkRemoveDir("zz9:x", 0), -23);
}

// Threads of this process, where the system lists them.
size_t ThreadCount() {
    std::error_code error;
    std::filesystem::directory_iterator tasks("/proc/self/task", error);
    return error ? 0 : static_cast<size_t>(std::distance(tasks, {}));
}

TEST_F(Files, TerminateAndInitialiseAgain) {
    const size_t threads = ThreadCount();
    for (int round = 0; round < 3; ++round) {
        FileHandle* kept = Make("k", "abc");
        FileHandle* closed = Make("c", "abc");
        ASSERT_TRUE(kept && closed);
        zkCloseFile(closed);
        ASSERT_EQ(zkTerminate(), 0); // the file left open is closed here
        EXPECT_EQ(Device().Count(kFileClose), 2u * (round + 1));
        ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
        EXPECT_EQ(zkGetOpenFileCount(), 0u);
        // A joined thread may linger in the system's list for a moment.
        for (int i = 0; i < 300 && ThreadCount() > threads; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_LE(ThreadCount(), threads);
        ASSERT_EQ(zkMount("/m", "mem:", 0), 0);
    }
}

TEST_F(Files, ConcurrencyOwnFilesBesideAPiecedRead) {
    const uint32_t big = kThreadSanitizer ? 20000 : 200000;
    Device().plan.piece = 100;
    FileHandle* large = Make("large", std::string(big, 'L'));
    ASSERT_NE(large, nullptr);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const std::string name = "/m/own" + std::to_string(t);
            FileHandle* f =
                zkOpenFile(name.c_str(), ZK_OPEN_READ | ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
            for (int i = 0; f && i < 50; ++i) {
                const std::string text = name + ":" + std::to_string(i);
                char back[64] = {};
                uint32_t n = 0, at = 0;
                zkSeekFile(f, 0, ZK_SEEK_SET, &at);
                zkWriteFile(f, text.data(), static_cast<uint32_t>(text.size()), &n);
                zkReadFileOffset(f, 0, back, static_cast<uint32_t>(text.size()), &n, i & 1);
                if (text != std::string(back, n)) ++failures;
            }
            if (!f) ++failures;
            zkCloseFile(f);
        });
    }
    std::vector<char> data(big);
    uint32_t got = 0;
    EXPECT_EQ(zkReadFile(large, data.data(), big, &got), 0);
    EXPECT_EQ(got, big);
    EXPECT_EQ(std::string(data.data(), got), std::string(big, 'L'));
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);
    zkCloseFile(large);
}

} // namespace
} // namespace zktest
