// The memory manager across the library's initialisation and termination:
// arenas that cannot hold a system pool, the default arena, the calls without
// a system pool, and the pool table between library runs.
#include "memory/memory_test_util.h"

#include <algorithm>

namespace zktest {
namespace {

TEST(MemoryStartup, ArenasWithoutAUsableSystemPoolFailWithOutOfMemory) {
    const uint32_t arenas[][3] = {{32 << 20, 0, 1},          // no descriptor beside the head block
                                  {32 << 20, 1, 1},          // likewise
                                  {0, 1024, 1},              // nothing to commit
                                  {4096, 1024, 1},           // the descriptor table fills the arena
                                  {32 << 20, 0xFFFFFFFF, 1}, // a table larger than any arena
                                  {4096, 2, 0}};             // the smallest: one block
    for (auto [size, descriptors, refused] : arenas) {
        ASSERT_EQ(zkBeginProcess(0), 0);
        EXPECT_EQ(zkInitializeEx(size, descriptors), refused ? ZK_ERR_NO_MEMORY : ZK_OK) << size;
        void* only = zkMalloc(16);
        EXPECT_EQ(only == nullptr, refused != 0);
        EXPECT_EQ(zkMalloc(16), nullptr);
        zkFree(only);
        EXPECT_EQ(zkTerminate() + zkEndProcess(), 0);
    }
}

TEST(MemoryStartup, DefaultArenaIsHalfTheAvailableMemoryWithinACap) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    const uint64_t halfBefore = zkQueryMemoryInfo(1);
    ASSERT_EQ(zkInitialize(), 0);
    const uint64_t size = zkQueryMemoryInfo(6);
    EXPECT_LE(size, std::min<uint64_t>(sizeof(void*) == 4 ? 0x40000000 : 0xFFFFF000,
                                       halfBefore + halfBefore / 4)); // allow for other processes
    EXPECT_EQ(zkQueryMemoryInfo(8), 1024u);
    EXPECT_EQ((zkQueryMemoryInfo(4) | size) % 64, 0u);
    zkFree(zkMalloc(1000));
    EXPECT_EQ(zkTerminate() + zkEndProcess(), 0);
}

TEST(MemoryStartup, WithoutASystemPoolEverythingIsEmptyAndStaleHandlesAreNotRead) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(32u << 20, 1024), 0);
    void* survivor = zkMalloc(16);
    MemoryBlock* handle = zkAllocMemoryBlock(16, 0);
    MemoryPool* pool = zkCreateMemoryPool(0x1000, 0x1000, 4); // left alive
    ASSERT_NE(zkAllocMemoryPoolBlock(pool, 16, 1), nullptr);
    EXPECT_EQ(zkTerminate(), 0);

    // The sweep calls everything in this state; here, what the calls answer.
    EXPECT_TRUE(zkGetSystemMemoryPool() == nullptr && zkLockMemory(handle) == nullptr);
    zkFree(survivor), zkUnlockMemory(handle), zkFreeMemoryBlock(handle);
    EXPECT_EQ(zkGetMemoryBlockSize(handle) + zkQueryMemoryInfo(6) + zkQueryMemoryInfo(9), 0u);
    EXPECT_GT(zkQueryMemoryInfo(1), 0u); // still answered
    ExpectPoolCallsInert(pool);
    TraceCapture trace;
    EXPECT_EQ(zkDumpAllMemoryBlocks(0) + zkDumpAllMemoryGaps(0), 0u);
    EXPECT_EQ(trace.Lines(), (std::vector<std::string>{"QaxKrnl : Dumping Memory Blocks.\n",
                                                       "QaxKrnl : Dumping Memory Gaps.\n"}));
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(MemoryStartup, PoolsLeftAliveAreReclaimedAtTermination) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    for (int run = 0; run < 2; ++run) {
        ASSERT_EQ(zkInitializeEx(32u << 20, 1024), 0);
        for (int i = 0; i < 15; ++i)
            ASSERT_NE(zkCreateMemoryPool(0x1000, 0x1000, 4), nullptr) << run << " " << i;
        EXPECT_EQ(zkCreateMemoryPool(0x1000, 0x1000, 4), nullptr);
        EXPECT_EQ(zkTerminate(), 0);
    }
    EXPECT_EQ(zkEndProcess(), 0);
}

} // namespace
} // namespace zktest
