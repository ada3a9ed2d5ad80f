// The memory manager across the library's initialisation and termination:
// arenas that cannot hold a system pool, the default arena, the calls without
// a system pool, and the pool table between library runs.
#include "memory/memory_test_util.h"
#include "support/library_test.h"

#include <gtest/gtest.h>

namespace zktest {
namespace {

struct Arena {
    uint32_t size;
    uint32_t descriptors;
};

TEST(MemoryStartup, ArenasWithoutAUsableSystemPoolFailWithOutOfMemory) {
    const Arena refused[] = {
        {32u << 20, 0},          // no descriptor beside the head block
        {32u << 20, 1},          // likewise
        {0, 1024},               // nothing to commit
        {4096, 1024},            // the descriptor table fills the arena
        {32u << 20, 0xFFFFFFFFu} // a table larger than any arena
    };
    for (const Arena& arena : refused) {
        ASSERT_EQ(zkBeginProcess(0), 0);
        EXPECT_EQ(zkInitializeEx(arena.size, arena.descriptors), ZK_ERR_NO_MEMORY)
            << arena.size << " " << arena.descriptors;
        EXPECT_EQ(zkGetSystemMemoryPool(), nullptr);
        EXPECT_EQ(zkMalloc(16), nullptr);
        EXPECT_EQ(zkTerminate(), 0);
        EXPECT_EQ(zkEndProcess(), 0);
    }
    // The smallest workable system pool: two descriptors, one block.
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(4096, 2), 0);
    void* only = zkMalloc(16);
    EXPECT_NE(only, nullptr);
    EXPECT_EQ(zkMalloc(16), nullptr);
    zkFree(only);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(MemoryStartup, ACommitTheSystemRefusesFailsWithOutOfMemory) {
    if (sizeof(void*) != 4) GTEST_SKIP() << "a 64-bit host commits almost 4 GiB lazily";
    ASSERT_EQ(zkBeginProcess(0), 0);
    EXPECT_EQ(zkInitializeEx(0xFFFFF000u, 1024), ZK_ERR_NO_MEMORY);
    EXPECT_EQ(zkGetSystemMemoryPool(), nullptr);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(MemoryStartup, DefaultArenaIsHalfTheAvailableMemoryWithinACap) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    const uint64_t halfBefore = zkQueryMemoryInfo(1);
    ASSERT_EQ(zkInitialize(), 0);
    const uint64_t size = zkQueryMemoryInfo(6);
    const uint64_t cap = sizeof(void*) == 4 ? 0x40000000ull : 0xFFFFF000ull;
    EXPECT_GT(size, 0u);
    EXPECT_LE(size, cap);
    // Within what was available a moment ago (allow for other processes).
    EXPECT_LE(size, halfBefore + halfBefore / 4);
    EXPECT_EQ(zkQueryMemoryInfo(8), 1024u);
    EXPECT_EQ(zkQueryMemoryInfo(4) % 64, 0u);
    EXPECT_EQ(size % 64, 0u);
    void* p = zkMalloc(1000);
    EXPECT_NE(p, nullptr);
    zkFree(p);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

int32_t ZK_CALL NeverCalled(uint32_t, uint32_t) {
    return 1;
}
int32_t ZK_CALL NeverCalledFree(void*, uint32_t, uint32_t) {
    return 1;
}
int32_t ZK_CALL CountCall(zkAddr, uint32_t, void* user) {
    ++*static_cast<int*>(user);
    return 1;
}

TEST(MemoryStartup, WithoutASystemPoolEverythingIsEmpty) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(32u << 20, 1024), 0);
    void* survivor = zkMalloc(16);
    ASSERT_NE(survivor, nullptr);
    MemoryBlock* handle = zkAllocMemoryBlock(16, 0);
    ASSERT_NE(handle, nullptr);
    MemoryPool* pool = zkCreateMemoryPool(0x1000, 0x1000, 4);
    ASSERT_NE(zkAllocMemoryPoolBlock(pool, 16, 1), nullptr);
    EXPECT_EQ(zkTerminate(), 0);

    // Handles into the released arena are not read.
    EXPECT_EQ(zkGetMemoryBlockSize(handle), 0u);
    EXPECT_EQ(zkLockMemory(handle), nullptr);
    zkUnlockMemory(handle);
    zkFreeMemoryBlock(handle);
    ExpectPoolCallsInert(pool); // a pool left alive past termination

    EXPECT_EQ(zkGetSystemMemoryPool(), nullptr);
    EXPECT_EQ(zkMalloc(16), nullptr);
    EXPECT_EQ(zkMallocEx(16, ZK_ALLOC_ZERO), nullptr);
    EXPECT_EQ(zkAllocateSystemMemory(16, 0, 1), nullptr);
    EXPECT_EQ(zkAllocMemoryBlock(16, 0), nullptr);
    zkFree(survivor); // the arena is gone: nothing to do
    EXPECT_EQ(zkSetAllocHook(NeverCalled), nullptr);
    EXPECT_EQ(zkSetFreeHook(NeverCalledFree), nullptr);
    zkSetBreakAlloc(5);
    zkSetMemoryCheckpoint(1);
    EXPECT_EQ(zkCreateMemoryPool(0x1000, 0x1000, 4), nullptr);
    EXPECT_EQ(zkQueryMemoryInfo(6), 0u);
    EXPECT_EQ(zkQueryMemoryInfo(9), 0u);
    EXPECT_GT(zkQueryMemoryInfo(1), 0u); // still answered
    MemoryInfo info{7, 7, 7, 7, 7};
    zkGetMemoryInfo(&info);
    EXPECT_EQ(info.size, 7u);
    int calls = 0;
    EXPECT_EQ(zkEnumerateMemoryGaps(CountCall, &calls), 0u);
    EXPECT_EQ(zkEnumerateMemoryUsed(CountCall, &calls), 0u);
    EXPECT_EQ(calls, 0);
    {
        TraceCapture trace;
        EXPECT_EQ(zkDumpAllMemoryBlocks(0), 0u);
        EXPECT_EQ(zkDumpAllMemoryGaps(0), 0u);
        EXPECT_EQ(trace.Lines(), (std::vector<std::string>{"QaxKrnl : Dumping Memory Blocks.\n",
                                                           "QaxKrnl : Dumping Memory Gaps.\n"}));
    }
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST(MemoryStartup, PoolsLeftAliveAreReclaimedAtTermination) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(32u << 20, 1024), 0);
    for (int i = 0; i < 15; ++i)
        ASSERT_NE(zkCreateMemoryPool(0x1000, 0x1000, 4), nullptr);
    EXPECT_EQ(zkTerminate(), 0);

    ASSERT_EQ(zkInitializeEx(32u << 20, 1024), 0);
    MemoryPool* pools[15];
    for (MemoryPool*& pool : pools) {
        pool = zkCreateMemoryPool(0x1000, 0x1000, 4);
        ASSERT_NE(pool, nullptr);
    }
    EXPECT_EQ(zkCreateMemoryPool(0x1000, 0x1000, 4), nullptr);
    for (MemoryPool* pool : pools)
        zkReleaseMemoryPool(pool);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

} // namespace
} // namespace zktest
