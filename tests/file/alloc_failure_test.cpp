// Allocation failure on every allocating path of the file layer: the k-th
// allocation from the system pool is refused, for every k until the path no
// longer allocates that many blocks. Each failing call must give back all it
// took (the pool holds as many blocks as before) and the same call must
// succeed once nothing is refused.
#include "file/memory_device.h"

#include <functional>

namespace zktest {
namespace {

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
