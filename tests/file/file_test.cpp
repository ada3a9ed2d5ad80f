// Files on the memory device: handles, tries, the worker, directories, restarts, threads.
#include "file/memory_device.h"

#include <chrono>
#include <filesystem>

namespace zktest {
namespace {

using Files = MemoryDeviceTest;

// "result/count" of a read of size bytes (at offset when offset >= 0).
std::string ReadText(FileHandle* f, char* buffer, uint32_t size, int64_t offset = -1) {
    uint32_t got = 7;
    const int32_t r = offset < 0 ? zkReadFile(f, buffer, size, &got)
                                 : zkReadFileOffset(f, uint32_t(offset), buffer, size, &got, 0);
    return std::to_string(r) + "/" + std::to_string(got);
}

TEST_F(Files, ReadWriteHandlesAndBadInput) {
    FileHandle* f = Make("a.bin", std::string(100, 'x'));
    ASSERT_NE(f, nullptr);
    zkResetTotalBytesRead();
    uint32_t at = 0, size = 0, n = 0;
    char buffer[128], path[16];
    EXPECT_EQ(Codes({zkGetOpenFileCount(), zkSeekFile(f, 90, ZK_SEEK_SET, &at), at}),
              Codes({1, 0, 90}));
    EXPECT_EQ(ReadText(f, buffer, 100), "0/10"); // short read at the end
    EXPECT_EQ(zkGetTotalBytesRead(), 10u);
    EXPECT_EQ(zkWriteFile(f, "tail", 4, &n), 0); // writes are not counted
    EXPECT_EQ(Codes({zkGetTotalBytesRead(), zkGetFileSize(f, &size), size}), Codes({10, 0, 104}));
    EXPECT_EQ(ReadText(f, buffer, 10, 98), "0/6");
    EXPECT_EQ(std::string(buffer, 6), "xxtail");
    // The path buffer must exceed the full path's length.
    EXPECT_EQ(Codes({zkGetTotalBytesRead(), zkGetFilePath(f, path, 8), zkGetFilePath(f, path, 9)}),
              Codes({16, -33, 0}));
    EXPECT_STREQ(path, "/m/a.bin");
    zkCloseFile(f);
    // 32 handles: the 33rd open fails. (Closed handles answer -4: the sweep.)
    Device().Put("mem:/a", "abc");
    std::vector<FileHandle*> open(32);
    for (FileHandle*& f : open)
        ASSERT_NE(f = zkOpenFile("/m/a", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkOpenFile("/m/a", ZK_OPEN_READ, 0), nullptr); // the 33rd
    for (FileHandle* f : open)
        zkCloseFile(f);
    // A failed open gives its object back: a.bin, 32 files and it were closed.
    EXPECT_EQ(zkOpenFile("/m/missing", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(Device().Count(kFileClose), 34u);
    // Device paths of 259, 260 and 261 characters: only the first fits.
    for (size_t length : {259u, 260u, 261u}) {
        const std::string path = "mem:" + std::string(length - 4, 'p');
        FileHandle* f = zkOpenFile(path.c_str(), ZK_OPEN_READ | ZK_OPEN_CREATE, 0);
        EXPECT_EQ(f != nullptr, length == 259) << length;
        zkCloseFile(f);
    }
    f = Make("b", "0123456789");
    EXPECT_EQ(Codes({zkReadFile(f, nullptr, 4, &n), zkGetFileSize(f, nullptr),
                     zkGetFilePath(f, nullptr, 8), zkDeleteFile(nullptr, 0)}),
              Codes(4, -3));
    // A driver claiming more bytes than it was asked for fails the read.
    Device().plan.overclaim = true;
    std::strcpy(buffer, "canary");
    zkResetTotalBytesRead();
    EXPECT_EQ(ReadText(f, buffer, 4), "-35/0");
    EXPECT_STREQ(buffer + 4, "ry");
    EXPECT_EQ(zkGetTotalBytesRead(), 0u);
    zkCloseFile(f);
}

TEST_F(Files, TryCountsOpenStepsAndImmediateOperations) {
    // Tries, failing calls before a success, result, calls made.
    const int64_t cases[][4] = {
        {3, 2, 0, 3}, {2, 2, -35, 2}, {0xFFFFFFFF, 6, 0, 7}, {0, 1, -35, 1}};
    for (const auto& c : cases) {
        Device().Reset();
        FileHandle* f = Make("r", "data");
        Device().plan.tries = static_cast<uint32_t>(c[0]);
        Device().plan.faults[kFileRead] = {1, 1 + c[1], -35};
        char b[4];
        EXPECT_EQ(ReadText(f, b, 4), std::to_string(c[2]) + (c[2] ? "/0" : "/4")) << c[0];
        EXPECT_EQ(Device().Count(kFileRead), c[3]);
        zkCloseFile(f);
    }
    Device().Reset();
    Device().plan.tries = 3;
    EXPECT_EQ(zkOpenFile("/m/none", ZK_OPEN_READ, 0), nullptr); // -51 is tried again
    EXPECT_EQ(Device().Count(kFileOpen), 3u);
    Device().plan.missing = ZK_ERR_NO_SUCH_FILE; // -57 is not
    EXPECT_EQ(zkOpenFile("/m/none", ZK_OPEN_READ, 0), nullptr);
    // Failed opens give their objects back.
    EXPECT_EQ(Codes({Device().Count(kFileOpen), Device().Count(kFileClose)}), Codes({4, 2}));
    // A create whose parent is missing makes it once, then opens again.
    FileHandle* f = zkOpenFile("/m/d/new", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(Codes({Device().Count(kMakeDir), Device().Count(kFileOpen)}), Codes({1, 6}));
    EXPECT_EQ(Device().Log({kMakeDir}).at(0).text, "mem:/d");
    zkCloseFile(f);
    // Immediate kinds run on the caller's thread; reads and writes never do.
    Device().Reset();
    Device().plan.immediate = true;
    f = Make("i", "abcd");
    uint32_t n = 0;
    char b[4];
    EXPECT_EQ(
        Codes({zkSeekFile(f, 1, ZK_SEEK_SET, &n), zkGetFileSize(f, &n), zkReadFile(f, b, 2, &n)}),
        Codes(3, 0));
    zkCloseFile(f);
    const auto self = std::this_thread::get_id();
    for (const auto& call : Device().Log({kFileOpen, kFileSeek, kFileGetSize, kFileClose}))
        EXPECT_EQ(call.thread, self) << call.slot;
    EXPECT_NE(Device().Log({kFileRead}).at(0).thread, self);
}

TEST_F(Files, ListingsDirectoriesDeleteAndTimesGoToTheDriver) {
    Device().Put("mem:/d/x", "1");
    Device().Put("mem:/d/y", "2");
    DirHandle* a = zkOpenDir("/m/d");
    DirHandle* b = zkOpenDir("/m/d/");
    ASSERT_TRUE(a && b);
    for (const auto& call : Device().Log({kDirOpen}))
        EXPECT_EQ(call.text, "mem:/d/");
    char x[64] = {}, y[64] = {};
    EXPECT_EQ(Codes({zkReadDir(a, x), zkReadDir(a, y), zkReadDir(a, y), zkReadDir(a, nullptr)}),
              Codes({1, 1, 0, -3}));
    EXPECT_EQ(std::string(x) + y, "xy");
    zkCloseDir(a);
    zkCloseDir(a);
    zkCloseDir(b);
    EXPECT_EQ(Codes({Device().Count(kDirClose), zkReadDir(a, x)}), Codes({2, -4}));
    // Missing parents are made on request only; mode 0 means 511.
    EXPECT_EQ(Codes({zkMakeDir("/m/a/b", 0, 0), zkMakeDir("/m/a/b", ZK_MAKEDIR_PARENTS, 0),
                     Device().LastMode(), zkRemoveDir("/m/a", 0), zkRemoveDir("zz9:x", 0)}),
              Codes({-51, 0, 511, 0, -23}));
    FileHandle* f = Make("t", "x");
    const FileTimeRecord set = {{1, 2, 3}};
    FileTimeRecord got = {};
    EXPECT_EQ(Codes({zkSetFileTime(f, &set, nullptr, nullptr),
                     zkGetFileTime(f, &got, nullptr, nullptr), got.words[2]}),
              Codes({0, 0, 3}));
    EXPECT_EQ(Device().Log({kSetFileTime}).at(0).text, "mem:/t");
    zkCloseFile(f);
    EXPECT_EQ(Codes({zkDeleteFile("/m/t", 0), zkDeleteFile("/m/t", 0), zkDeleteFile("zz9:t", 0)}),
              Codes({0, -51, -23}));
}

// Threads of this process, where the system lists them.
size_t ThreadCount() {
    std::error_code error;
    std::filesystem::directory_iterator tasks("/proc/self/task", error);
    return error ? 0 : static_cast<size_t>(std::distance(tasks, {}));
}

TEST_F(Files, TerminationKeepsOpenFilesAndProcessEndClosesThem) {
    const size_t threads = ThreadCount();
    FileHandle* kept = Make("k", "abc");
    ASSERT_NE(kept, nullptr);
    char buffer[4];
    for (int round = 0; round < 3; ++round) {
        zkCloseFile(Make("c", "abc"));
        ASSERT_EQ(zkTerminate(), 0); // the file left open stays open and readable
        EXPECT_EQ(ReadText(kept, buffer, 3, 0), "0/3");
        ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
        EXPECT_EQ(Codes({zkGetOpenFileCount(), Device().Count(kFileClose)}), Codes({1, round + 1}));
        EXPECT_LE(ThreadCount(), threads); // the worker was kept, not started again
    }
    // Process end closes it through its driver and stops the worker.
    ASSERT_EQ(zkTerminate(), 0);
    ASSERT_EQ(zkEndProcess(), 0);
    EXPECT_EQ(Codes({zkGetOpenFileCount(), Device().Count(kFileClose)}), Codes({0, 4}));
    EXPECT_EQ(ReadText(kept, buffer, 3, 0), "-4/7");
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
    ASSERT_EQ(zkMount("/m", "mem:", 0), 0); // process end removed every mount
    // A joined thread may linger in the system's list for a moment.
    for (int i = 0; i < 300 && ThreadCount() > threads; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_LE(ThreadCount(), threads);
}

} // namespace
} // namespace zktest
