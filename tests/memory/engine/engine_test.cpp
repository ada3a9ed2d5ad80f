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
