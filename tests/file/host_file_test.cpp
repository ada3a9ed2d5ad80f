// Real files through the host device: the same tests run against the Win32
// file calls (wine legs) and the POSIX backend. Everything happens under
// /host_files, a folder in the executable's directory (the root mount).
#include "support/library_test.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

class HostFileTest : public zktest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        char root[261];
        ASSERT_EQ(zkGetPhysicalPath("/", root, sizeof(root)), 0);
        // Windows paths come back with backslashes, POSIX ones with slashes.
        backslashes_ = std::strchr(root, '\\') != nullptr;
        folder_ = fs::path(root) / "host_files";
        fs::remove_all(folder_);
        ASSERT_EQ(zkMakeDir("/host_files", 0, 0), 0);
    }
    void TearDown() override {
        EXPECT_EQ(zkGetOpenFileCount(), 0u);
        LibraryTest::TearDown();
        fs::remove_all(folder_);
    }
    static std::string Contents(FileHandle* file) {
        uint32_t size = 0, got = 0;
        EXPECT_EQ(zkGetFileSize(file, &size), 0);
        std::string data(size, '\0');
        EXPECT_EQ(zkReadFileOffset(file, 0, data.data(), size, &got, 0), 0);
        data.resize(got);
        return data;
    }
    static std::string ReadWhole(const char* path) {
        FileHandle* file = zkOpenFile(path, ZK_OPEN_READ, 0);
        if (!file) return "<missing>";
        std::string data = Contents(file);
        zkCloseFile(file);
        return data;
    }
    static void WriteWhole(const char* path, const std::string& data) {
        FileHandle* file = zkOpenFile(path, ZK_OPEN_WRITE | ZK_OPEN_CREATE | ZK_OPEN_TRUNCATE, 0);
        ASSERT_NE(file, nullptr) << path;
        uint32_t written = 0;
        EXPECT_EQ(zkWriteFile(file, data.data(), uint32_t(data.size()), &written), 0);
        EXPECT_EQ(written, data.size());
        zkCloseFile(file);
    }
    std::string Host(const char* relative) const { return (folder_ / relative).string(); }

    fs::path folder_;
    bool backslashes_ = false;
};

TEST_F(HostFileTest, CreateWriteReadSeekAndSize) {
    EXPECT_EQ(zkOpenFile("/host_files/a.bin", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkOpenFile("/host_files", ZK_OPEN_READ, 0), nullptr); // a folder is no file
    FileHandle* file =
        zkOpenFile("/host_files/a.bin", ZK_OPEN_READ | ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    ASSERT_NE(file, nullptr);
    std::string data(100, '\0');
    for (int i = 0; i < 100; ++i)
        data[i] = char('a' + i % 26);
    uint32_t n = 0;
    ASSERT_EQ(zkWriteFile(file, data.data(), 100, &n), 0);
    EXPECT_EQ(n, 100u);

    struct {
        int32_t offset;
        uint32_t origin;
        int32_t result;
        uint32_t position;
    } const seeks[] = {
        {10, ZK_SEEK_SET, 0, 10},     {-10, ZK_SEEK_SET, 0, 0}, {5, ZK_SEEK_CUR, 0, 5},
        {7, ZK_SEEK_CUR, 0, 12},      {-4, ZK_SEEK_END, 0, 96}, {-200, ZK_SEEK_CUR, -49, 96},
        {-101, ZK_SEEK_END, -49, 96}, {0, 3, -3, 96},           {90, ZK_SEEK_SET, 0, 90},
    };
    for (const auto& s : seeks) {
        uint32_t position = 0xDEAD;
        EXPECT_EQ(zkSeekFile(file, s.offset, s.origin, &position), s.result)
            << s.offset << " from " << s.origin;
        if (s.result == 0) {
            EXPECT_EQ(position, s.position) << s.offset << " from " << s.origin;
        }
    }
    // 10 bytes before the end a read of 100 gives 10; at the end it gives 0.
    char buffer[100];
    uint32_t before = zkGetTotalBytesRead();
    ASSERT_EQ(zkReadFile(file, buffer, 100, &n), 0);
    EXPECT_EQ(n, 10u);
    EXPECT_EQ(std::string(buffer, 10), data.substr(90));
    EXPECT_EQ(zkGetTotalBytesRead() - before, 10u);
    ASSERT_EQ(zkReadFile(file, buffer, 100, &n), 0);
    EXPECT_EQ(n, 0u);
    // A read at an offset leaves the position behind what it read.
    ASSERT_EQ(zkReadFileOffset(file, 20, buffer, 5, &n, 0), 0);
    EXPECT_EQ(std::string(buffer, n), data.substr(20, 5));
    uint32_t position = 0;
    ASSERT_EQ(zkSeekFile(file, 0, ZK_SEEK_CUR, &position), 0);
    EXPECT_EQ(position, 25u);
    ASSERT_EQ(zkReadFileOffset(file, 30, buffer, 5, &n, 0), 0);
    ASSERT_EQ(zkWriteFile(file, "XY", 2, &n), 0); // lands behind the read
    data.replace(35, 2, "XY");
    EXPECT_EQ(Contents(file), data);
    zkCloseFile(file);
}

TEST_F(HostFileTest, TruncateAndAppend) {
    WriteWhole("/host_files/t.bin", "0123456789");
    // Truncate wins over append: the file is empty, the position 0.
    FileHandle* file = zkOpenFile(
        "/host_files/t.bin", ZK_OPEN_READ | ZK_OPEN_WRITE | ZK_OPEN_TRUNCATE | ZK_OPEN_APPEND, 0);
    ASSERT_NE(file, nullptr);
    uint32_t size = 99, position = 99, n = 0;
    EXPECT_EQ(zkGetFileSize(file, &size), 0);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(zkSeekFile(file, 0, ZK_SEEK_CUR, &position), 0);
    EXPECT_EQ(position, 0u);
    EXPECT_EQ(zkWriteFile(file, "abc", 3, &n), 0);
    zkCloseFile(file);

    file = zkOpenFile("/host_files/t.bin", ZK_OPEN_WRITE | ZK_OPEN_APPEND, 0);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(zkSeekFile(file, 0, ZK_SEEK_CUR, &position), 0);
    EXPECT_EQ(position, 3u);
    EXPECT_EQ(zkWriteFile(file, "def", 3, &n), 0);
    zkCloseFile(file);
    EXPECT_EQ(ReadWhole("/host_files/t.bin"), "abcdef");
}

TEST_F(HostFileTest, OneWriterExcludesEveryOtherOpen) {
    WriteWhole("/host_files/s.bin", "shared");
    FileHandle* reader1 = zkOpenFile("/host_files/s.bin", ZK_OPEN_READ, 0);
    FileHandle* reader2 = zkOpenFile("/host_files/s.bin", ZK_OPEN_READ, 0);
    EXPECT_NE(reader1, nullptr);
    EXPECT_NE(reader2, nullptr);
    EXPECT_EQ(zkOpenFile("/host_files/s.bin", ZK_OPEN_WRITE, 0), nullptr);
    zkCloseFile(reader1);
    zkCloseFile(reader2);
    FileHandle* writer = zkOpenFile("/host_files/s.bin", ZK_OPEN_WRITE, 0);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(zkOpenFile("/host_files/s.bin", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkGetOpenFileCount(), 1u);
    zkCloseFile(writer);
}

TEST_F(HostFileTest, CopyReplacesTheTargetWhole) {
    WriteWhole("/host_files/src.bin", std::string(70000, 'n'));
    WriteWhole("/host_files/dst.bin", "old contents");
    EXPECT_EQ(zkCopyFile(Host("src.bin").c_str(), Host("dst.bin").c_str()), 0);
    EXPECT_EQ(ReadWhole("/host_files/dst.bin"), std::string(70000, 'n'));
    EXPECT_EQ(zkCopyFile(Host("none.bin").c_str(), Host("dst.bin").c_str()), -8);
    EXPECT_EQ(ReadWhole("/host_files/dst.bin").size(), 70000u);
    EXPECT_EQ(zkCopyFile(nullptr, "x"), -3);
    EXPECT_EQ(zkCopyFile("x", nullptr), -3);
    // Nothing but the two files is left in the folder (no temporary file).
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 2);
}

TEST_F(HostFileTest, DirectoriesAndTheParentStepOfACreate) {
    EXPECT_EQ(zkMakeDir("/host_files/d", 0, 0), 0);
    EXPECT_EQ(zkMakeDir("/host_files/d", 0, 0), -38);
    EXPECT_EQ(zkMakeDir("/host_files/x/y", ZK_MAKEDIR_PARENTS, 0), -38);
    WriteWhole("/host_files/d/f.bin", "f");
    EXPECT_EQ(zkRemoveDir("/host_files/d", 0), -8); // not empty
    fs::remove(Host("d/f.bin"));
    EXPECT_EQ(zkRemoveDir("/host_files/d", 0), 0);
    EXPECT_EQ(zkRemoveDir("/host_files/d", 0), -8);

    // A create in a missing folder: where the physical path keeps slashes the
    // file system makes the folder first; with backslashes it finds no parent.
    FileHandle* file = zkOpenFile("/host_files/p/new.bin", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    EXPECT_EQ(file != nullptr, !backslashes_);
    EXPECT_EQ(fs::is_directory(Host("p")), !backslashes_);
    zkCloseFile(file);
}

TEST_F(HostFileTest, NamesMatchWithoutRegardToCaseAndCreatesKeepTheirCase) {
    ASSERT_EQ(zkMakeDir("/host_files/data", 0, 0), 0);
    WriteWhole("/host_files/data/stage1.map", "map");
    EXPECT_EQ(ReadWhole("/host_files/Data\\Stage1.MAP"), "map");
    EXPECT_EQ(ReadWhole("/host_files/DATA/STAGE1.map"), "map");
    EXPECT_EQ(ReadWhole("/host_files/data/stage2.map"), "<missing>");
    // A create of an existing name in another case opens the existing file.
    WriteWhole("/host_files/DATA/Stage1.Map", "new");
    WriteWhole("/host_files/Data/NewName.Bin", "n");
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(Host("data")))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"NewName.Bin", "stage1.map"}));
    EXPECT_EQ(ReadWhole("/host_files/data/stage1.map"), "new");
    EXPECT_EQ(zkMakeDir("/host_files/DATA", 0, 0), -38);
    ASSERT_EQ(zkMakeDir("/host_files/empty", 0, 0), 0);
    EXPECT_EQ(zkRemoveDir("/host_files/EMPTY", 0), 0);
    EXPECT_FALSE(fs::exists(Host("empty")));
}

TEST_F(HostFileTest, PathsTheHostDeviceClaimsAndConverts) {
    char out[261];
    struct {
        const char* path;
        int32_t result;
        const char* windows; // after the host's conversion
        const char* posix;
    } const cases[] = {
        {"C:/a/b/c.bin", 0, "C:\\a\\b\\c.bin", "/a/b/c.bin"},
        {"c:", 0, "c:", "."},
        {"c:rel/x", 0, "c:rel\\x", "rel/x"},
        {"\\\\server\\share/x", 0, "\\\\server\\share\\x", "//server/share/x"},
        {"data/x.bin", 0, "data\\x.bin", "data/x.bin"},
        {"", 0, "", ""},
        {"host0:", -23, "", ""},
        {"hdd0:/x", -23, "", ""},
        {"ab:c", -23, "", ""},
    };
    for (const auto& c : cases) {
        std::memset(out, 0, sizeof(out));
        EXPECT_EQ(zkGetPhysicalPath(c.path, out, sizeof(out)), c.result) << c.path;
        if (c.result == 0) {
            EXPECT_STREQ(out, backslashes_ ? c.windows : c.posix) << c.path;
        }
    }
}

TEST_F(HostFileTest, UnsupportedOperationsAnswerNotSupported) {
    WriteWhole("/host_files/u.bin", "u");
    FileHandle* file = zkOpenFile("/host_files/u.bin", ZK_OPEN_READ, 0);
    ASSERT_NE(file, nullptr);
    FileTimeRecord t{};
    EXPECT_EQ(zkGetFileTime(file, &t, &t, &t), -6);
    EXPECT_EQ(zkSetFileTime(file, &t, nullptr, nullptr), -6);
    zkCloseFile(file);
    EXPECT_EQ(zkDeleteFile("/host_files/u.bin", 0), -6);
    EXPECT_TRUE(fs::exists(Host("u.bin")));
    EXPECT_EQ(zkOpenDir("/host_files"), nullptr);
    EXPECT_EQ(zkDumpDir("/host_files", 0), -6);
    EXPECT_EQ(zkGetDeviceStatus("/host_files"), -6);
    EXPECT_EQ(zkQueryDeviceInfo("/host_files", 2, 0, 0), -6);
    EXPECT_EQ(zkControlDevice("C:", 1, 0, 0), -6);
    EXPECT_EQ(zkGetPartitionStatus("C:"), -6);
    EXPECT_EQ(zkCreatePartition("C:", 0, 0), -6);
    EXPECT_EQ(zkDeletePartition("C:"), -6);
    EXPECT_EQ(zkFormat("/host_files"), 0);
    EXPECT_EQ(zkSetDeviceTryCount("C:", 5), 0);
    EXPECT_EQ(zkGetDeviceTryCount("C:"), 0u);
    EXPECT_TRUE(fs::exists(Host("u.bin")));
}

// Four threads write and read back files of their own while the main thread
// reads a large file; every byte arrives where it belongs.
TEST_F(HostFileTest, HostFileConcurrency) {
    const uint32_t big = zktest::kThreadSanitizer ? (1u << 20) : (8u << 20);
    WriteWhole("/host_files/big.bin", std::string(big, 'B'));
    std::thread workers[4];
    for (int t = 0; t < 4; ++t) {
        workers[t] = std::thread([t] {
            const std::string path = "/host_files/w" + std::to_string(t) + ".bin";
            const std::string data(4096 + t, char('0' + t));
            for (int round = 0; round < 20; ++round) {
                WriteWhole(path.c_str(), data);
                EXPECT_EQ(ReadWhole(path.c_str()), data);
            }
        });
    }
    std::string data = ReadWhole("/host_files/big.bin");
    for (auto& w : workers)
        w.join();
    EXPECT_EQ(data.size(), big);
    EXPECT_EQ(data.find_first_not_of('B'), std::string::npos);
}

} // namespace
