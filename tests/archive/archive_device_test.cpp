// Mounted archives: items through the file calls, the ten device slots, unmounting;
// closes behind pending reads and termination during reads.
#include "archive/archive_builder.h"
#include "file/memory_device.h"

#include <atomic>
#include <future>
#include <thread>

namespace zktest {
namespace {

// 100 000 bytes of 'b' then "END": an item longer than one read.
std::string BigItem() {
    std::string big(100000, 'b');
    big += "END";
    return big;
}

class MountedArchives : public MemoryDeviceTest {
protected:
    void SetUp() override {
        MemoryDeviceTest::SetUp();
        PackOptions folded;
        folded.foldedNames = true;
        Device().Put("mem:/game.kiv", Pack({Item("dir/a.bin", "item a"), Item("Top.TXT", "top"),
                                            Item("big", BigItem())},
                                           folded));
        Device().Put("mem:/plain.kiv", Pack({Item("x", "x")}));
    }
    void TearDown() override {
        EXPECT_EQ(Codes({zkGetOpenKivCount(), zkGetOpenFileCount()}), Codes({0, 0}));
        MemoryDeviceTest::TearDown();
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
    EXPECT_EQ(ReadAll("/data/big"), BigItem());
    // The mount point itself names no item.
    for (const char* none : {"/data/dir/missing.bin", "/data", "/data/"})
        EXPECT_EQ(zkOpenFile(none, ZK_OPEN_READ, 0), nullptr) << none;

    FileHandle* f = zkOpenFile("/data/big", ZK_OPEN_READ, 0);
    ASSERT_NE(f, nullptr);
    uint32_t size = 0, position = 0, got = 0;
    EXPECT_EQ(
        Codes({zkGetFileSize(f, &size), size, zkSeekFile(f, -3, ZK_SEEK_END, &position), position}),
        Codes({0, 100003, 0, 100000}));
    char buffer[8] = {};
    EXPECT_EQ(Codes({zkReadFile(f, buffer, 8, &got), got}), Codes({0, 3}));
    EXPECT_EQ(std::string(buffer, 3), "END");
    EXPECT_EQ(Codes({zkReadFileOffset(f, 99999, buffer, 2, &got, 0), got}), Codes({0, 2}));
    EXPECT_EQ(std::string(buffer, 2), "bE");
    uint32_t written = 9;
    EXPECT_EQ(Codes({zkWriteFile(f, "zz", 2, &written), written}), Codes({-6, 0}));
    zkCloseFile(f);

    EXPECT_EQ(zkUnmountKiv("/data"), 0);
    EXPECT_EQ(ReadAll("/data/dir/a.bin"), "<not opened>");
    EXPECT_EQ(zkGetOpenKivCount(), 2u);
    // The freed slot is the lowest again.
    ASSERT_EQ(zkMountKiv("/again", "/m/plain.kiv", 0), 0);
    EXPECT_EQ(Physical("/again"), "kiv2:");
    for (const char* m : {"/s0", "/s1", "/again"})
        EXPECT_EQ(zkUnmountKiv(m), 0) << m;
}

// Devices kiv0: to kiv9: and kiv: (no slot), lower case only; an empty slot
// holds no file and takes one try.
TEST_F(MountedArchives, DeviceNamesAndEmptySlots) {
    char out[261];
    EXPECT_EQ(Physical("kiv0:\\dir\\a.bin"), "kiv0:/dir/a.bin");
    const std::pair<const char*, int> names[] = {
        {"kiv9:x", 0}, {"kiv:x", 0}, {"KIV0:x", -23}, {"kiv10:x", -23}, {"kivx:x", -23}};
    for (const auto& [name, code] : names)
        EXPECT_EQ(zkGetPhysicalPath(name, out, sizeof out), code) << name;
    EXPECT_EQ(Codes({zkGetDeviceTryCount("kiv0:"), zkGetDeviceTryCount("kiv:"),
                     zkSetDeviceTryCount("kiv4:", 9)}),
              Codes({1, 1, 1}));
    for (const char* path : {"kiv:/a", "kiv0:/a", "kiv0:"})
        EXPECT_EQ(zkOpenFile(path, ZK_OPEN_READ, 0), nullptr) << path;
}

TEST_F(MountedArchives, RefusalsLeaveNoArchiveOpenAndNoSlotTaken) {
    EXPECT_EQ(Codes({zkMountKiv(nullptr, "/m/plain.kiv", 0), zkMountKiv("/x", nullptr, 0),
                     zkMountKiv("/x", "/m/plain.kiv", ZK_KIV_BY_INDEX),
                     zkMountKiv("/x", "/m/none.kiv", 0), zkMountKiv("no-slash", "/m/plain.kiv", 0),
                     zkGetOpenKivCount(), zkUnmountKiv(nullptr), zkUnmountKiv("/never")}),
              Codes({-3, -3, -3, -51, -43, 0, -3, -42}));

    std::vector<std::string> mounts;
    for (int i = 0; i < 10; ++i) {
        mounts.push_back("/k" + std::to_string(i));
        ASSERT_EQ(zkMountKiv(mounts.back().c_str(), "/m/plain.kiv", 0), 0) << i;
    }
    EXPECT_EQ(Physical("/k0"), "kiv0:");
    // The eleventh is refused; a mount zkMountKiv did not make is unmounted, no slot touched.
    EXPECT_EQ(Codes({zkMountKiv("/k10", "/m/plain.kiv", 0), zkGetOpenKivCount(),
                     zkMount("/other", "mem:/", 0), zkUnmountKiv("/other"), zkGetOpenKivCount()}),
              Codes({-39, 10, 0, 0, 10}));
    EXPECT_EQ(ReadAll("/k9/x"), "x");
    for (const std::string& m : mounts)
        EXPECT_EQ(zkUnmountKiv(m.c_str()), 0);
}

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

// Two mounts read from two threads while a third loads items through the archive calls.
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

// Where a careless or hostile application pushes mounted archives: an item
// closed behind its own pending read, termination while another thread reads.
// (A damaged child's range: Archives.DamagedArchivesAreRefusedAndShortItemsReported.)
using MountedClose = MemoryDeviceTest;
using ArchiveTerminationConcurrency = MemoryDeviceTest;

// An item's file is closed while its asynchronous read still waits in the
// queue, and the next open takes the same file object: the read must still
// deliver the closed item's bytes, never the newly opened one's.
TEST_F(MountedClose, AReadPendingAtCloseNeverServesTheNextOpen) {
    Device().Put("mem:/ab.kiv",
                 Pack({Item("a", std::string(4096, 'A')), Item("b", std::string(4096, 'B'))}));
    ASSERT_EQ(zkMountKiv("/ab", "/m/ab.kiv", 0), 0);
    ASSERT_EQ(zkInitializeRequest(2), 0);
    Request* request = zkCreateRequest();
    FileHandle* busy = Make("busy", "x");
    FileHandle* fa = zkOpenFile("/ab/a", ZK_OPEN_READ, 0);
    ASSERT_TRUE(busy && fa && request);
    // The worker is held inside another file's read, so fa's read stays queued.
    Device().Hold(kFileRead);
    auto holder = std::async(std::launch::async, [busy] {
        char c;
        uint32_t got = 0;
        return zkReadFile(busy, &c, 1, &got);
    });
    Device().WaitHeld(1);
    std::string buffer(4096, '\0');
    ASSERT_EQ(zkBeginReadFile(fa, buffer.data(), 4096, request), 0);
    FileHandle* fb = nullptr;
    std::atomic<bool> reopened{false};
    std::thread closer([&] {
        zkCloseFile(fa);
        fb = zkOpenFile("/ab/b", ZK_OPEN_READ, 0);
        reopened = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(reopened.load()) << "the close did not wait for the pending read";
    Device().Release();
    closer.join();
    EXPECT_EQ(holder.get(), 0);
    uint32_t got = 0;
    EXPECT_EQ(zkEndReadFile(&got, request), 0);
    EXPECT_EQ(got, 4096u);
    EXPECT_EQ(buffer, std::string(4096, 'A'));
    char b[4] = {};
    EXPECT_EQ(zkReadFile(fb, b, 4, &got), 0);
    EXPECT_EQ(std::string(b, 4), "BBBB");
    zkCloseFile(fb);
    zkCloseFile(busy);
    zkReleaseRequest(request);
    EXPECT_EQ(zkUnmountKiv("/ab"), 0);
}

// A thread reads a mounted item while the main thread terminates: each read
// delivers the item's bytes or fails with a code; after termination the
// archive, its mount and its handle answer errors, and the file can be closed.
TEST_F(ArchiveTerminationConcurrency, ReadsOfAMountedItemEndCleanly) {
    Device().Put("mem:/t.kiv", Pack({Item("a", std::string(2048, 'T'))}));
    const int rounds = kThreadSanitizer ? 4 : 20;
    for (int round = 0; round < rounds; ++round) {
        ASSERT_EQ(zkMountKiv("/t", "/m/t.kiv", 0), 0);
        KivArchive* direct = zkOpenKiv("/m/t.kiv", 0);
        FileHandle* f = zkOpenFile("/t/a", ZK_OPEN_READ, 0);
        KivItemStream* stream = zkOpenKivItem(direct, "a");
        ASSERT_TRUE(f && direct && stream);
        std::atomic<bool> stop{false};
        std::atomic<int> good{0}, wrong{0};
        std::thread reader([&] {
            char buffer[2048];
            while (!stop.load()) {
                uint32_t got = 0;
                const int32_t r = zkReadFileOffset(f, 0, buffer, 2048, &got, 0);
                if (r == 0 && got == 2048 && std::string(buffer, got) == std::string(2048, 'T'))
                    ++good;
                else if (r >= 0 || got != 0)
                    ++wrong; // bytes that are not the item's, or a short success
            }
        });
        // A second thread looks items up in an archive opened directly: found
        // until termination closes it, then not, never a crash.
        std::atomic<int> found{0}, odd{0};
        std::thread finder([&] {
            while (!stop.load()) {
                const int32_t a = zkFindKivItem(direct, "a");
                const uint32_t n = zkGetKivItemCount(direct);
                found += a == 1;
                odd += a != 1 && a != 0;
                odd += n != 1 && n != 0;
            }
        });
        while (good.load() == 0 || found.load() == 0)
            std::this_thread::yield();
        EXPECT_EQ(zkTerminate(), 0);
        stop = true;
        reader.join();
        finder.join();
        EXPECT_EQ(odd.load(), 0) << "round " << round;
        EXPECT_EQ(wrong.load(), 0) << "round " << round;
        char c;
        uint32_t got = 0;
        void* data = nullptr;
        uint32_t size = 0;
        EXPECT_EQ(Codes({zkReadFileOffset(f, 0, &c, 1, &got, 0), zkGetKivItemCount(direct),
                         zkLoadKivItem(direct, "a", &data, &size),
                         zkOpenFile("/t/a", ZK_OPEN_READ, 0) != nullptr, zkGetOpenKivCount(),
                         zkGetOpenKivItemCount(), zkReadKivItem(stream, &c, 1, &got)}),
                  Codes({-4, 0, -4, 0, 0, 0, -4}));
        zkCloseFile(f);
        zkCloseKivItem(stream), zkCloseKiv(direct); // closed by termination: nothing
        ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
        EXPECT_EQ(Codes({zkGetOpenKivCount(), zkGetOpenFileCount()}), Codes({0, 0}));
    }
}

} // namespace
} // namespace zktest
