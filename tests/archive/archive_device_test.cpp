// Mounted archives: items read through the ordinary file calls, the ten
// device slots, and what mounting and unmounting leave behind.
#include "archive/archive_builder.h"
#include "file/memory_device.h"

#include <thread>

namespace zktest {
namespace {

using Codes = std::vector<int64_t>;

class MountedArchives : public MemoryDeviceTest {
protected:
    void SetUp() override {
        MemoryDeviceTest::SetUp();
        PackOptions folded;
        folded.foldedNames = true;
        Device().Put("mem:/game.kiv", Pack({Item("dir/a.bin", "item a"), Item("Top.TXT", "top"),
                                            Item("big", std::string(100000, 'b') + "END")},
                                           folded));
        Device().Put("mem:/plain.kiv", Pack({Item("x", "x")}));
    }
    void TearDown() override {
        EXPECT_EQ(zkGetOpenKivCount(), 0u);
        EXPECT_EQ(zkGetOpenFileCount(), 0u);
        MemoryDeviceTest::TearDown();
    }
    static std::string ReadAll(const char* path) {
        FileHandle* f = zkOpenFile(path, ZK_OPEN_READ, 0);
        if (!f) return "<not opened>";
        std::string out;
        char buffer[4096];
        uint32_t got = 0;
        while (zkReadFile(f, buffer, sizeof buffer, &got) == 0 && got)
            out.append(buffer, got);
        zkCloseFile(f);
        return out;
    }
    static std::string Physical(const char* path) {
        char out[261] = {};
        zkGetPhysicalPath(path, out, sizeof out);
        return out;
    }
};

TEST_F(MountedArchives, ItemsReadAsFilesUnderTheMountPath) {
    ASSERT_EQ(zkMountKiv("/s0", "/m/plain.kiv", 0), 0);
    ASSERT_EQ(zkMountKiv("/s1", "/m/plain.kiv", ZK_KIV_MEMORY_IMAGE), 0);
    ASSERT_EQ(zkMountKiv("/data", "/m/game.kiv", 0), 0);
    EXPECT_EQ(Physical("/data"), "kiv2:");
    EXPECT_EQ(zkGetOpenKivCount(), 3u); // mounted archives count as open
    EXPECT_EQ(ReadAll("/data/dir/a.bin"), "item a");
    EXPECT_EQ(ReadAll("/data/DIR/A.BIN"), "item a"); // the archive folds names
    EXPECT_EQ(ReadAll("/data\\top.txt"), "top");
    EXPECT_EQ(ReadAll("/s1/x"), "x");
    const std::string big = ReadAll("/data/big");
    EXPECT_EQ(big.size(), 100003u);
    EXPECT_EQ(big.substr(99998), "bbEND");
    EXPECT_EQ(zkOpenFile("/data/dir/missing.bin", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkOpenFile("/data", ZK_OPEN_READ, 0), nullptr); // the mount point names no item
    EXPECT_EQ(zkOpenFile("/data/", ZK_OPEN_READ, 0), nullptr);

    FileHandle* f = zkOpenFile("/data/big", ZK_OPEN_READ, 0);
    ASSERT_NE(f, nullptr);
    uint32_t size = 0, position = 0, got = 0;
    EXPECT_EQ(zkGetFileSize(f, &size), 0);
    EXPECT_EQ(size, 100003u);
    EXPECT_EQ(zkSeekFile(f, -3, ZK_SEEK_END, &position), 0);
    EXPECT_EQ(position, 100000u);
    char buffer[8] = {};
    EXPECT_EQ(Codes({zkReadFile(f, buffer, 8, &got), got}), Codes({0, 3}));
    EXPECT_EQ(std::string(buffer, 3), "END");
    EXPECT_EQ(Codes({zkReadFileOffset(f, 99999, buffer, 2, &got, 0), got}), Codes({0, 2}));
    EXPECT_EQ(std::string(buffer, 2), "bE");
    uint32_t written = 9;
    EXPECT_EQ(Codes({zkWriteFile(f, "zz", 2, &written), written}), Codes({-6, 0}));
    zkCloseFile(f);

    EXPECT_EQ(zkUnmountKiv("/data"), 0);
    EXPECT_EQ(zkOpenFile("/data/dir/a.bin", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkGetOpenKivCount(), 2u);
    // The freed slot is the lowest again.
    ASSERT_EQ(zkMountKiv("/again", "/m/plain.kiv", 0), 0);
    EXPECT_EQ(Physical("/again"), "kiv2:");
    for (const char* m : {"/s0", "/s1", "/again"})
        EXPECT_EQ(zkUnmountKiv(m), 0) << m;
}

TEST_F(MountedArchives, RefusalsLeaveNoArchiveOpenAndNoSlotTaken) {
    EXPECT_EQ(zkMountKiv(nullptr, "/m/plain.kiv", 0), -3);
    EXPECT_EQ(zkMountKiv("/x", nullptr, 0), -3);
    EXPECT_EQ(zkMountKiv("/x", "/m/plain.kiv", ZK_KIV_BY_INDEX), -3);
    EXPECT_EQ(zkMountKiv("/x", "/m/none.kiv", 0), -51);
    EXPECT_EQ(zkMountKiv("no-slash", "/m/plain.kiv", 0), -43);
    EXPECT_EQ(zkGetOpenKivCount(), 0u);
    EXPECT_EQ(zkUnmountKiv(nullptr), -3);
    EXPECT_EQ(zkUnmountKiv("/never"), -42);

    std::vector<std::string> mounts;
    for (int i = 0; i < 10; ++i) {
        mounts.push_back("/k" + std::to_string(i));
        ASSERT_EQ(zkMountKiv(mounts.back().c_str(), "/m/plain.kiv", 0), 0) << i;
    }
    EXPECT_EQ(Physical("/k0"), "kiv0:");
    EXPECT_EQ(zkMountKiv("/k10", "/m/plain.kiv", 0), -39);
    EXPECT_EQ(zkGetOpenKivCount(), 10u);
    // A mount zkMountKiv did not make: unmounted, and no slot is touched.
    ASSERT_EQ(zkMount("/other", "mem:/", 0), 0);
    EXPECT_EQ(zkUnmountKiv("/other"), 0);
    EXPECT_EQ(zkGetOpenKivCount(), 10u);
    EXPECT_EQ(ReadAll("/k9/x"), "x");
    for (const std::string& m : mounts)
        EXPECT_EQ(zkUnmountKiv(m.c_str()), 0);
}

// Device files still open when their archive is unmounted read nothing more
// (the archive's memory is gone); closing them still gives them back.
TEST_F(MountedArchives, FilesLeftOpenAcrossAnUnmountFailInsteadOfReadingFreedMemory) {
    ASSERT_EQ(zkMountKiv("/data", "/m/game.kiv", ZK_KIV_MEMORY_IMAGE), 0);
    FileHandle* f = zkOpenFile("/data/top.txt", ZK_OPEN_READ, 0);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(zkUnmountKiv("/data"), 0);
    char buffer[4];
    uint32_t got = 7;
    EXPECT_LT(zkReadFile(f, buffer, 4, &got), 0);
    EXPECT_EQ(got, 0u);
    zkCloseFile(f);
}

// Reads of two mounted archives from several threads at once, each through
// the I/O worker, while another thread loads items through the archive calls.
TEST_F(MountedArchives, Concurrency_ReadsFromSeveralThreads) {
    ASSERT_EQ(zkMountKiv("/data", "/m/game.kiv", 0), 0);
    ASSERT_EQ(zkMountKiv("/img", "/m/game.kiv", ZK_KIV_MEMORY_IMAGE), 0);
    const int rounds = kThreadSanitizer ? 20 : 100;
    std::vector<int> failures(3, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i)
                failures[t] += ReadAll(t ? "/img/dir/a.bin" : "/data/dir/a.bin") != "item a";
        });
    }
    threads.emplace_back([&] {
        KivArchive* a = zkOpenKiv("/m/game.kiv", 0);
        for (int i = 0; i < rounds; ++i) {
            void* p = nullptr;
            uint32_t size = 0;
            failures[2] += zkLoadKivItem(a, "top.txt", &p, &size) != 0 || size != 3;
            zkReleaseKivItem(p);
        }
        zkCloseKiv(a);
    });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(failures, std::vector<int>({0, 0, 0}));
    EXPECT_EQ(zkUnmountKiv("/data"), 0);
    EXPECT_EQ(zkUnmountKiv("/img"), 0);
}

} // namespace
} // namespace zktest
