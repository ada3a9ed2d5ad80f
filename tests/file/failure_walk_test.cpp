// Device-fault and allocation-failure walks: whatever fails leaves nothing behind,
// and the same work succeeds once nothing fails.
#include "file/memory_device.h"

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

using DeviceFaults = MemoryDeviceTest;

TEST_F(DeviceFaults, AFailureAtAnySlotAndPositionLeavesNothingBehindAndTriesHideIt) {
    Device().Put("mem:/data.bin", std::string(100, 'x'));
    ASSERT_TRUE(RunSequence());
    const uint32_t blocks = UsedBlocks();
    int failed = 0;
    for (int code : {-35, -51, -57}) {
        for (int slot : {kFileOpen, kFileClose, kFileGetSize, kFileRead, kFileReadAt, kFileSeek,
                         kDirOpen, kDirClose}) {
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
    // Every slot but the two closes (whose failures nobody sees) failed the
    // sequence at least once for each code; the worker's nodes all came back.
    EXPECT_GE(failed, 7 * 3);
    Device().plan.tries = 3;
    for (int slot : {kFileRead, kFileReadAt, kFileSeek, kFileGetSize}) {
        Device().plan.faults[slot] = {1, 3, -35}; // the first two calls fail
        EXPECT_TRUE(RunSequence()) << "slot " << slot;
        Device().plan.faults[slot] = {};
    }
}

using AllocationFailures = MemoryDeviceTest;

TEST_F(AllocationFailures, EveryPathGivesBackWhatItTookAndWorksOnceMemoryIsThere) {
    Device().Put("mem:/data.bin", std::string(10000, 'd'));
    ASSERT_EQ(zkInitializeRequest(4), 0);
    auto load = [] {
        void* data = nullptr;
        uint32_t size = 0;
        const bool ok = zkLoadDataFromFile("/m/data.bin", &data, &size) == 0 && size == 10000;
        zkFreeData(data);
        return ok;
    };
    auto background = [] {
        FileHandle* h = zkStartLoadingDataFromFile("/m/data.bin");
        while (h && zkIsFileProcessing(h))
            zkSleep(1);
        void* data = nullptr;
        uint32_t size = 0;
        const bool ok = h && zkGetLoadedData(h, &data, &size) == 0 && size == 10000;
        zkFreeData(data);
        zkCloseFile(h);
        return ok;
    };
    auto requests = [] {
        Request* r = zkCreateRequest();
        FileHandle* h = nullptr;
        char buffer[64];
        uint32_t got = 0;
        bool ok = r && zkBeginOpenFile("/m/data.bin", ZK_OPEN_READ, 0, r) == 0 &&
                  zkEndOpenFile(&h, r) == 0 && zkBeginReadFile(h, buffer, sizeof buffer, r) == 0 &&
                  zkEndReadFile(&got, r) == 0 && got == sizeof buffer;
        if (h) ok = zkBeginCloseFile(h, r) == 0 && zkEndCloseFile(r) == 0 && ok;
        zkReleaseRequest(r);
        return ok;
    };
    EXPECT_GT(WalkRefusals("whole-file load", load), 0u);
    EXPECT_GT(WalkRefusals("background load", background), 0u);
    EXPECT_GT(WalkRefusals("requests", requests), 0u);
}

} // namespace
} // namespace zktest
