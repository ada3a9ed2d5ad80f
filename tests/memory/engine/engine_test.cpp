// The heap engine and the memory manager compiled into the test program
// itself, for what no export reaches: the allocation counter's wrap and an
// arena commit the system refuses.
#include "memory/memory_manager.h"
#include "memory/memory_pool.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <vector>

// Reaches the engine's private state (declared a friend by MemoryPool).
struct MemoryPoolTestAccess {
    static void SetCounter(MemoryPool& pool, uint32_t value) { pool.allocationCounter_ = value; }
};

namespace {

uint32_t g_lastHookNumber = 0;
int32_t ZK_CALL RecordNumber(uint32_t, uint32_t number) {
    g_lastHookNumber = number;
    return 1;
}

TEST(MemoryEngine, AllocationCounterWrapsToOneNeverZero) {
    std::vector<MemoryBlock> table(MemoryPool::TableDescriptors(8));
    zk::FixedDescriptorStore store(table.data());
    MemoryPool pool;
    ASSERT_EQ(pool.Initialize(0x1000, 0x1000, 8, store), 0);
    MemoryPoolTestAccess::SetCounter(pool, 0xFFFFFFFEu);
    pool.SetAllocHook(RecordNumber);
    const uint32_t expected[] = {0xFFFFFFFEu, 0xFFFFFFFFu, 1u, 2u};
    for (uint32_t number : expected) {
        MemoryBlock* block = pool.Allocate(16, 4, 0, 0);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->allocationNumber, number);
        EXPECT_EQ(g_lastHookNumber, number); // the hook sees the number the block receives
    }
    pool.Destroy(store);
}

// Blocks placed top-down with alignment 256 and taken sizes 1, 2, 3, ...
// leave gaps of 255, 254, 253, ... after them: every descriptor, the head
// included, then owns a gap of a size no other has, the most distinct gap
// sizes a pool can hold. Best fit must still find the smallest gap that
// holds a request, and sizes must come and go as blocks do.
TEST(MemoryEngine, EveryDescriptorOwningADistinctGapSize) {
    constexpr uint32_t kCount = 200, kBase = 0x100000, kSize = 0x100000;
    std::vector<MemoryBlock> table(MemoryPool::TableDescriptors(kCount));
    zk::FixedDescriptorStore store(table.data());
    MemoryPool pool;
    ASSERT_EQ(pool.Initialize(kBase, kSize, kCount, store), 0);
    std::vector<MemoryBlock*> blocks(kCount);
    for (uint32_t i = 1; i < kCount; ++i) {
        ASSERT_NE(blocks[i] = pool.Allocate(i, 256, ZK_ALLOC_TOP, 0), nullptr);
        ASSERT_EQ(blocks[i]->gapAfter, 256 - i);
    }
    EXPECT_EQ(pool.GapCount(), kCount);
    EXPECT_EQ(pool.LargestGap(), kSize - 256 * (kCount - 1)); // the head's
    EXPECT_EQ(pool.Allocate(1, 1, 0, 0), nullptr);            // no descriptor left
    // Block 1's gap (255) and bytes join block 2's gap (254): 510.
    pool.Release(blocks[1]);
    EXPECT_EQ(blocks[2]->gapAfter, 510u);
    EXPECT_EQ(pool.GapCount(), kCount - 1);
    // Each row releases a block, then places a request after block `owner`
    // (0: at the bottom of the head's gap), leaving `gap` after it.
    const struct {
        uint32_t release, size, owner, gap;
    } rows[] = {
        {0, 200, 56, 0},                               // exactly the gap after block 56
        {3, 200, 55, 1},                               // the next size up: 201 after block 55
        {4, 800, 0, kSize - 256 * (kCount - 1) - 800}, // larger than every small gap
        {6, 600, 5, 163},                              // block 4 left 763 bytes after block 5
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        if (row.release) pool.Release(blocks[row.release]);
        MemoryBlock* placed = pool.Allocate(row.size, 1, 0, 0);
        ASSERT_NE(placed, nullptr);
        EXPECT_EQ(placed->address, row.owner ? blocks[row.owner]->address + row.owner : kBase);
        EXPECT_EQ(placed->gapAfter, row.gap);
        if (row.owner) {
            EXPECT_EQ(blocks[row.owner]->gapAfter, 0u); // the size left the pool
        }
    }
    pool.Destroy(store);
}

// A system that refuses to commit more than g_commitLimit bytes at once.
std::size_t g_commitLimit = 0;
void* LimitedCommit(std::size_t size) {
    return size > g_commitLimit ? nullptr : zk::os::VirtualCommit(size);
}

TEST(MemoryManagerStart, DefaultArenaBacksOffByHalvesAnExplicitSizeDoesNot) {
    const struct {
        std::size_t limit;
        uint32_t arena;
        int32_t result;
    } rows[] = {{64u << 20, zk::kDefaultArenaSize, ZK_OK}, // halves until the system agrees
                {8u << 20, zk::kDefaultArenaSize, ZK_ERR_NO_MEMORY}, // not below 16 MiB
                {16u << 20, 32u << 20, ZK_ERR_NO_MEMORY},            // as given or not at all
                {16u << 20, 16u << 20, ZK_OK}};
    zk::g_arenaCommit = LimitedCommit;
    for (const auto& row : rows) {
        static zk::MemoryPoolTable table;
        zk::MemoryManager manager;
        manager.BindTable(&table);
        g_commitLimit = row.limit;
        EXPECT_EQ(manager.Start(row.arena, 1024), row.result) << row.limit << " " << row.arena;
        if (manager.SystemPool()) {
            EXPECT_LE(manager.SystemPool()->Size(), row.limit);
            EXPECT_GT(manager.SystemPool()->Size(), 15u << 20);
        }
        manager.Stop();
        EXPECT_EQ(table.UsedCount(), 0u);
    }
    zk::g_arenaCommit = zk::os::VirtualCommit;
}

} // namespace
