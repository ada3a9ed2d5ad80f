// Archives where a careless or hostile application pushes them: a damaged
// child's range, a mounted item closed behind its own pending read, and
// termination while another thread reads a mounted archive.
#include "archive/archive_builder.h"
#include "file/memory_device.h"

#include <atomic>
#include <future>
#include <thread>

namespace zktest {
namespace {

using ChildRange = MemoryDeviceTest;
using MountedClose = MemoryDeviceTest;
using ArchiveTerminationConcurrency = MemoryDeviceTest;

// A child whose item "a" claims 64 bytes but is cut after 11, packed in
// front of a parent item of 'Z's: reading "a" must not run on into them.
TEST_F(ChildRange, ACutChildNeverReadsItsParentsNextItem) {
    std::string child = Pack({Item("a", std::string(64, 'A'))});
    child.resize(child.size() - 53);
    PackOptions stored;
    stored.nameOrder = false; // data in the order given: the child, then the Z's
    Device().Put("mem:/p.kiv",
                 Pack({Item("c.kiv", child), Item("z", std::string(256, 'Z'))}, stored));
    for (uint32_t parentMode : {0u, ZK_KIV_MEMORY_IMAGE}) {
        KivArchive* parent = zkOpenKiv("/m/p.kiv", parentMode);
        ASSERT_NE(parent, nullptr);
        KivArchive* c = zkOpenChildKiv(parent, "c.kiv", 0);
        ASSERT_NE(c, nullptr) << parentMode;
        void* data = reinterpret_cast<void*>(1);
        uint32_t size = 7;
        EXPECT_EQ(zkLoadKivItem(c, "a", &data, &size), -11) << "parent mode " << parentMode;
        EXPECT_EQ(Codes({reinterpret_cast<intptr_t>(data), size}), Codes({0, 0}));
        KivItemStream* s = zkOpenKivItem(c, "a");
        char buffer[64] = {};
        uint32_t got = 0;
        EXPECT_EQ(zkReadKivItem(s, buffer, sizeof buffer, &got), -11) << parentMode;
        EXPECT_EQ(std::string(buffer, got).find('Z'), std::string::npos);
        zkCloseKivItem(s);
        zkCloseKiv(parent); // closes the child with it
    }
    EXPECT_EQ(Codes({zkGetOpenKivCount(), zkGetOpenKivItemCount()}), Codes({0, 0}));
}

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
        ASSERT_TRUE(f && direct);
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
                         zkOpenFile("/t/a", ZK_OPEN_READ, 0) != nullptr}),
                  Codes({-4, 0, -4, 0}));
        zkCloseFile(f);
        zkCloseKiv(direct); // closed by termination: nothing
        ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
        EXPECT_EQ(Codes({zkGetOpenKivCount(), zkGetOpenFileCount()}), Codes({0, 0}));
    }
}

} // namespace
} // namespace zktest
