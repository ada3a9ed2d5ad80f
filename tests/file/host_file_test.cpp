// Real files through the host device (Win32 or POSIX) under /host_files of the root mount.
#include "support/library_test.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace {

namespace fs = std::filesystem;
using zktest::Codes;

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
    // The file's contents as its size and one read tell them.
    static std::string ReadWhole(const char* path) {
        FileHandle* file = zkOpenFile(path, ZK_OPEN_READ, 0);
        uint32_t size = 0, got = 0;
        if (!file) return "<missing>";
        EXPECT_EQ(zkGetFileSize(file, &size), 0);
        std::string data(size, '\0');
        EXPECT_EQ(zkReadFileOffset(file, 0, data.data(), size, &got, 0), 0);
        zkCloseFile(file);
        return data.substr(0, got);
    }
    static void WriteWhole(const char* path, const std::string& data) {
        FileHandle* file = zkOpenFile(path, ZK_OPEN_WRITE | ZK_OPEN_CREATE | ZK_OPEN_TRUNCATE, 0);
        ASSERT_NE(file, nullptr) << path;
        uint32_t written = 0;
        EXPECT_EQ(Codes({zkWriteFile(file, data.data(), uint32_t(data.size()), &written), written}),
                  Codes({0, int64_t(data.size())}));
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
    uint32_t n = 0, position = 0;
    ASSERT_EQ(Codes({zkWriteFile(file, data.data(), 100, &n), n}), Codes({0, 100}));
    // Offset, origin, result, position after; a failed seek leaves the position.
    const int64_t seeks[][4] = {
        {10, ZK_SEEK_SET, 0, 10},     {-10, ZK_SEEK_SET, 0, 0}, {5, ZK_SEEK_CUR, 0, 5},
        {7, ZK_SEEK_CUR, 0, 12},      {-4, ZK_SEEK_END, 0, 96}, {-200, ZK_SEEK_CUR, -49, 96},
        {-101, ZK_SEEK_END, -49, 96}, {0, 3, -3, 96},           {90, ZK_SEEK_SET, 0, 90}};
    for (const auto& s : seeks) {
        const int32_t r = zkSeekFile(file, int32_t(s[0]), uint32_t(s[1]), &position);
        EXPECT_EQ(Codes({r, zkSeekFile(file, 0, ZK_SEEK_CUR, &position), position}),
                  Codes({s[2], 0, s[3]}))
            << s[0] << " from " << s[1];
    }
    // 10 bytes before the end a read of 100 gives 10; at the end it gives 0.
    char buffer[100];
    ASSERT_EQ(Codes({zkReadFile(file, buffer, 100, &n), n}), Codes({0, 10}));
    EXPECT_EQ(std::string(buffer, 10), data.substr(90));
    EXPECT_EQ(Codes({zkReadFile(file, buffer, 100, &n), n}), Codes({0, 0}));
    // A read at an offset leaves the position behind what it read: a write lands there.
    ASSERT_EQ(zkReadFileOffset(file, 30, buffer, 5, &n, 0), 0);
    EXPECT_EQ(std::string(buffer, n), data.substr(30, 5));
    ASSERT_EQ(zkWriteFile(file, "XY", 2, &n), 0);
    data.replace(35, 2, "XY");
    zkCloseFile(file);
    EXPECT_EQ(ReadWhole("/host_files/a.bin"), data);
}

TEST_F(HostFileTest, TruncateAppendAndCopy) {
    WriteWhole("/host_files/t.bin", "0123456789");
    // Truncate wins over append: the file is empty, the position 0.
    FileHandle* file = zkOpenFile(
        "/host_files/t.bin", ZK_OPEN_READ | ZK_OPEN_WRITE | ZK_OPEN_TRUNCATE | ZK_OPEN_APPEND, 0);
    ASSERT_NE(file, nullptr);
    uint32_t size = 99, position = 99, n = 0;
    EXPECT_EQ(Codes({zkGetFileSize(file, &size), size, zkSeekFile(file, 0, ZK_SEEK_CUR, &position),
                     position, zkWriteFile(file, "abc", 3, &n)}),
              Codes({0, 0, 0, 0, 0}));
    zkCloseFile(file);
    file = zkOpenFile("/host_files/t.bin", ZK_OPEN_WRITE | ZK_OPEN_APPEND, 0);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(Codes({zkSeekFile(file, 0, ZK_SEEK_CUR, &position), position,
                     zkWriteFile(file, "def", 3, &n)}),
              Codes({0, 3, 0}));
    zkCloseFile(file);
    EXPECT_EQ(ReadWhole("/host_files/t.bin"), "abcdef");
    // A copy replaces its target whole.
    WriteWhole("/host_files/src.bin", std::string(70000, 'n'));
    WriteWhole("/host_files/dst.bin", "old contents");
    EXPECT_EQ(zkCopyFile(Host("src.bin").c_str(), Host("dst.bin").c_str()), 0);
    EXPECT_EQ(ReadWhole("/host_files/dst.bin"), std::string(70000, 'n'));
    EXPECT_EQ(zkCopyFile(Host("none.bin").c_str(), Host("dst.bin").c_str()), -8);
    EXPECT_EQ(ReadWhole("/host_files/dst.bin").size(), 70000u); // a failed copy leaves it
    // Nothing but t.bin and the two files is left in the folder (no temporary file).
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 3);
}

TEST_F(HostFileTest, DirectoriesAndNamesInAnyCase) {
    EXPECT_EQ(Codes({zkMakeDir("/host_files/d", 0, 0), zkMakeDir("/host_files/d", 0, 0),
                     zkMakeDir("/host_files/x/y", ZK_MAKEDIR_PARENTS, 0)}),
              Codes({0, -38, -38}));
    WriteWhole("/host_files/d/f.bin", "f");
    EXPECT_EQ(zkRemoveDir("/host_files/d", 0), -8); // not empty
    fs::remove(Host("d/f.bin"));
    EXPECT_EQ(Codes({zkRemoveDir("/host_files/d", 0), zkRemoveDir("/host_files/d", 0)}),
              Codes({0, -8}));

    // A create in a missing folder: where the physical path keeps slashes the
    // file system makes the folder first; with backslashes it finds no parent.
    FileHandle* file = zkOpenFile("/host_files/p/new.bin", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    EXPECT_EQ(file != nullptr, !backslashes_);
    EXPECT_EQ(fs::is_directory(Host("p")), !backslashes_);
    zkCloseFile(file);
    // Names match without regard to case; creates keep the case they were given.
    ASSERT_EQ(zkMakeDir("/host_files/data", 0, 0), 0);
    WriteWhole("/host_files/data/stage1.map", "map");
    EXPECT_EQ(ReadWhole("/host_files/Data\\Stage1.MAP"), "map");
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
    EXPECT_EQ(Codes({zkMakeDir("/host_files/DATA", 0, 0), zkMakeDir("/host_files/empty", 0, 0),
                     zkRemoveDir("/host_files/EMPTY", 0), fs::exists(Host("empty"))}),
              Codes({-38, 0, 0, 0}));
}

// A conflicting open fails at once instead of waiting.
TEST_F(HostFileTest, ReadersShareAWriterIsAlone) {
    WriteWhole("/host_files/s.bin", "shared");
    const char* path = "/host_files/s.bin";
    FileHandle* first = zkOpenFile(path, ZK_OPEN_READ, 0);
    FileHandle* second = zkOpenFile(path, ZK_OPEN_READ, 0);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(zkOpenFile(path, ZK_OPEN_READ | ZK_OPEN_WRITE, 0), nullptr);
    zkCloseFile(first);
    EXPECT_EQ(zkOpenFile(path, ZK_OPEN_WRITE, 0), nullptr);
    zkCloseFile(second);
    FileHandle* writer = zkOpenFile(path, ZK_OPEN_WRITE, 0);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(zkOpenFile(path, ZK_OPEN_READ, 0), nullptr);
    zkCloseFile(writer);
    EXPECT_EQ(ReadWhole(path), "shared");
}

TEST_F(HostFileTest, UnsupportedOperationsAndPathConversion) {
    WriteWhole("/host_files/u.bin", "u");
    FileHandle* file = zkOpenFile("/host_files/u.bin", ZK_OPEN_READ, 0);
    ASSERT_NE(file, nullptr);
    FileTimeRecord t{};
    EXPECT_EQ(Codes({zkGetFileTime(file, &t, &t, &t), zkSetFileTime(file, &t, nullptr, nullptr)}),
              Codes(2, -6));
    zkCloseFile(file);
    EXPECT_EQ(zkOpenDir("/host_files"), nullptr);
    EXPECT_EQ(Codes({zkDeleteFile("/host_files/u.bin", 0), zkDumpDir("/host_files", 0),
                     zkGetDeviceStatus("/host_files"), zkQueryDeviceInfo("/host_files", 2, 0, 0),
                     zkControlDevice("C:", 1, 0, 0), zkGetPartitionStatus("C:"),
                     zkCreatePartition("C:", 0, 0), zkDeletePartition("C:")}),
              Codes(8, -6));
    EXPECT_EQ(
        Codes({zkFormat("/host_files"), zkSetDeviceTryCount("C:", 5), zkGetDeviceTryCount("C:")}),
        Codes(3, 0));
    EXPECT_TRUE(fs::exists(Host("u.bin")));
    // The host device claims drive, network and plain paths and converts them.
    char out[261];
    // Path, after the Windows conversion, after the POSIX one.
    // clang-format off
    const char* cases[][3] = {
        {"C:/a/b/c.bin", "C:\\a\\b\\c.bin", "/a/b/c.bin"}, {"C:\\x", "C:\\x", "/x"}, {"c:", "c:", "."},
        {"c:rel/x", "c:rel\\x", "rel/x"}, {"\\\\server\\share/x", "\\\\server\\share\\x", "//server/share/x"},
        {"data/x.bin", "data\\x.bin", "data/x.bin"}, {"", "", ""}};
    // clang-format on
    for (const auto& c : cases) {
        std::memset(out, 0, sizeof(out));
        EXPECT_EQ(zkGetPhysicalPath(c[0], out, sizeof(out)), 0) << c[0];
        EXPECT_STREQ(out, c[backslashes_ ? 1 : 2]);
    }
    // A device name before the colon other than one drive letter is no host name.
    for (const char* name : {"host0:", "hdd0:/x", "ab:c", "zip0:x", "1:x"})
        EXPECT_EQ(zkGetPhysicalPath(name, out, sizeof(out)), -23) << name;
}

// Whole-file loads of host files come in parts, each brought into the cache
// first, on threads that are parked and reused between loads: every byte
// arrives, whatever the size's remainder, round after round.
TEST_F(HostFileTest, WholeFileLoadsOfLargeFilesArriveIntactRoundAfterRound) {
    std::string data((3u << 20) + 777, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>((i * 7 + i / 4096) % 251);
    WriteWhole("/host_files/big.bin", data);
    void* loaded = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(zkLoadDataFromFile("/host_files/big.bin", &loaded, &size), 0);
    ASSERT_EQ(size, data.size());
    EXPECT_EQ(std::memcmp(loaded, data.data(), size), 0);
    zkFreeData(loaded);
    for (int round = 0; round < 3; ++round) {
        FileHandle* loads[4];
        for (FileHandle*& h : loads) {
            h = zkStartLoadingDataFromFile("/host_files/big.bin");
            ASSERT_NE(h, nullptr);
        }
        for (FileHandle* h : loads) {
            while (zkIsFileProcessing(h))
                zkSleep(1);
            ASSERT_EQ(zkGetLoadedData(h, &loaded, &size), 0) << round;
            ASSERT_EQ(size, data.size()) << round;
            EXPECT_EQ(std::memcmp(loaded, data.data(), size), 0) << round;
            zkFreeData(loaded);
            zkCloseFile(h);
        }
    }
}

} // namespace
