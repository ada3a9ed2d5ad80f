// Device-fault and allocation-failure walks: whatever fails leaves nothing behind,
// and the same work succeeds once nothing fails.
#include "file/memory_device.h"

#include <functional>

namespace zktest {
namespace {

// True when every step succeeded; every step runs whatever failed before it.
bool RunSequence() {
    char buffer[64], entry[64];
    uint32_t got = 0, position = 0, size = 0;
    FileHandle* f = zkOpenFile("/m/data.bin", ZK_OPEN_READ, 0);
    bool ok = f && zkReadFile(f, buffer, 40, &got) == 0 && got == 40;
    ok = f && zkSeekFile(f, 5, ZK_SEEK_SET, &position) == 0 && position == 5 && ok;
    ok = f && zkReadFileOffset(f, 50, buffer, 20, &got, 0) == 0 && got == 20 && ok;
    ok = f && zkGetFileSize(f, &size) == 0 && size == 100 && ok;
    zkCloseFile(f);
    f = zkOpenFile("/m/out.bin", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    ok = f && zkWriteFile(f, "written", 7, &got) == 0 && got == 7 && ok;
    zkCloseFile(f);
    DirHandle* d = zkOpenDir("/m/");
    int names = 0;
    while (d && zkReadDir(d, entry) > 0)
        ++names;
    zkCloseDir(d);
    return names >= 2 && ok;
}

class DeviceFaults : public MemoryDeviceTest {
protected:
    void SetUp() override {
        MemoryDeviceTest::SetUp();
        Device().Put("mem:/data.bin", std::string(100, 'x'));
    }
};

TEST_F(DeviceFaults, AFailureAtAnySlotAndPositionLeavesNothingBehind) {
    const int slots[] = {kFileOpen,   kFileClose, kFileGetSize, kFileRead,
                         kFileReadAt, kFileSeek,  kDirOpen,     kDirClose};
    ASSERT_TRUE(RunSequence());
    const uint32_t blocks = UsedBlocks();
    int failed = 0;
    for (int code : {-35, -51, -57}) {
        for (int slot : slots) {
            for (int64_t k = 1; k <= 6; ++k) {
                Device().Reset();
                Device().Put("mem:/data.bin", std::string(100, 'x'));
                Device().plan.piece = 16; // reads come in pieces
                Device().plan.faults[slot] = {k, k + 1, code};
                failed += !RunSequence();
                EXPECT_EQ(Codes({zkGetOpenFileCount(), Device().ObjectsOut(), UsedBlocks()}),
                          Codes({0, 0, blocks}))
                    << "slot " << slot << " call " << k << " code " << code;
            }
        }
    }
    // The faults reached the sequence: every slot but the two closes (whose
    // failures nobody sees) failed it at least once for each code.
    EXPECT_GE(failed, 7 * 3);
    // Sixteen worker nodes served every operation above: none was lost.
    EXPECT_TRUE(RunSequence());
}

TEST_F(DeviceFaults, TriesBeyondTheFailuresHideThem) {
    Device().plan.tries = 3;
    Device().plan.piece = 16;
    for (int slot : {kFileRead, kFileReadAt, kFileSeek, kFileGetSize}) {
        Device().plan.faults[slot] = {1, 3, -35}; // the first two calls fail
        EXPECT_TRUE(RunSequence()) << "slot " << slot;
        Device().plan.faults[slot] = {};
    }
}

struct Path {
    const char* what;
    std::function<bool()> run; // true when the whole path succeeded; gives back what it took
};

using AllocationFailures = MemoryDeviceTest;

TEST_F(AllocationFailures, EveryPathGivesBackWhatItTookAndWorksOnceMemoryIsThere) {
    Device().Put("mem:/data.bin", std::string(10000, 'd'));
    Device().Put("mem:/p.ini", "[Video]\r\nWidth=640\r\n[Sound]\r\nVolume = \"7\"\r\n");
    ASSERT_EQ(zkInitializeRequest(4), 0);
    const std::vector<Path> paths = {
        {"whole-file load",
         [] {
             void* data = nullptr;
             uint32_t size = 0;
             const bool ok = zkLoadDataFromFile("/m/data.bin", &data, &size) == 0 && size == 10000;
             zkFreeData(data);
             return ok;
         }},
        {"background load",
         [] {
             FileHandle* h = zkStartLoadingDataFromFile("/m/data.bin");
             if (!h) return false;
             while (zkIsFileProcessing(h))
                 zkSleep(1);
             void* data = nullptr;
             uint32_t size = 0;
             const bool ok = zkGetLoadedData(h, &data, &size) == 0 && size == 10000;
             zkFreeData(data);
             zkCloseFile(h);
             return ok;
         }},
        {"requests",
         [] {
             Request* r = zkCreateRequest();
             if (!r) return false;
             FileHandle* h = nullptr;
             char buffer[64];
             uint32_t got = 0;
             bool ok = zkBeginOpenFile("/m/data.bin", ZK_OPEN_READ, 0, r) == 0 &&
                       zkEndOpenFile(&h, r) == 0;
             ok = ok && zkBeginReadFile(h, buffer, sizeof buffer, r) == 0 &&
                  zkEndReadFile(&got, r) == 0 && got == sizeof buffer;
             if (h) ok = zkBeginCloseFile(h, r) == 0 && zkEndCloseFile(r) == 0 && ok;
             zkReleaseRequest(r);
             return ok;
         }},
        {"profile",
         [] {
             ProfileFile* p = zkOpenProfile("/m/p.ini");
             const bool ok = p && std::string(zkGetProfileString(p, zkGetProfileSection(p, "sound"),
                                                                 "volume")) == "7";
             zkCloseProfile(p);
             return ok;
         }},
    };
    for (const Path& path : paths)
        EXPECT_TRUE(path.run()) << path.what << " fails with all the memory there is";
    zkSetAllocHook(RefuseKth);
    for (const Path& path : paths) {
        bool succeeded = false;
        uint32_t k = 1;
        for (; k < 200 && !succeeded; ++k) {
            const uint32_t before = UsedBlocks();
            g_refuse = k;
            succeeded = path.run();
            const bool refused = g_refuse == 0;
            g_refuse = 0;
            EXPECT_EQ(Codes({UsedBlocks(), zkGetOpenFileCount()}), Codes({before, 0}))
                << path.what << ", allocation " << k << " refused";
            EXPECT_TRUE(succeeded || refused)
                << path.what << ": nothing was refused, yet it failed";
        }
        EXPECT_TRUE(succeeded) << path.what;
        EXPECT_GT(k, 2u) << path.what << " allocates nothing";
    }
    zkSetAllocHook(nullptr);
}

} // namespace
} // namespace zktest
