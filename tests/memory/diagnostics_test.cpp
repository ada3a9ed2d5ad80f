// Memory diagnostics: summary figures, queries, the walks with their stopping
// rules, and the exact lines of the system forms of the block and gap dumps
// (the pool forms are compared line by line in the differential test).
#include "memory/memory_test_util.h"

#include <algorithm>
#include <string>

namespace zktest {
namespace {

using DiagnosticsTest = PoolTest;

std::string BlockLine(const void* address) {
    const BlockSeen b = SystemBlockAt(address);
    return Format("  {%u} block at 0x%08llx, %u bytes long.\n", b.number,
                  static_cast<unsigned long long>(b.address), b.requested);
}

TEST_F(DiagnosticsTest, LeakHuntListsTheBlocksAllocatedSinceTheCheckpoint) {
    void* before = zkMalloc(30);
    zkSetMemoryCheckpoint(3);
    void *a = zkMalloc(100), *b = zkMalloc(100);
    const std::vector<std::string> expected = {
        "QaxKrnl : Dumping Memory Blocks.\n", BlockLine(a), BlockLine(b),
        "Block Dump Complete. Count = 2 Total = 200 bytes.\n"};
    for (uint32_t checkpoint : {3u, 35u}) { // 35 tests bit 3 as well
        TraceCapture trace;
        EXPECT_EQ(zkDumpAllMemoryBlocks(checkpoint), 2u);
        EXPECT_EQ(trace.Lines(), expected);
    }
    TraceCapture trace;
    zkSetMemoryCheckpoint(7); // marks every block alive, the library's included
    EXPECT_EQ(zkDumpAllMemoryBlocks(7), 0u);
    EXPECT_EQ(trace.Lines().back(), "Block Dump Complete. Count = 0 Total = 0 bytes.\n");
    zkFree(a), zkFree(b), zkFree(before);
}

TEST_F(DiagnosticsTest, UsedAndCategoryWalksMergeAdjacentBlocksOfOneCategory) {
    zkSetAllocMode(2);
    void* a = zkAllocateSystemMemory(100, ZK_ALLOC_DEFAULT, ZK_CATEGORY_LIBRARY);
    void* b = zkAllocateSystemMemory(100, ZK_ALLOC_DEFAULT, 0x10000); // keeps the low 16 bits
    void* c = zkAllocateSystemMemory(100, ZK_ALLOC_DEFAULT, 0);
    const std::vector<Range> ranges = CategoriesOf(zkGetSystemMemoryPool());
    ASSERT_GE(ranges.size(), 2u);
    EXPECT_EQ(ranges[ranges.size() - 2], (Range{reinterpret_cast<zkAddr>(c), 256, 0}));
    EXPECT_EQ(ranges.back(), (Range{reinterpret_cast<zkAddr>(a), 128, ZK_CATEGORY_LIBRARY}));
    EXPECT_EQ(UsedOf(zkGetSystemMemoryPool()).back(), (Range{reinterpret_cast<zkAddr>(c), 384, 0}));
    zkFree(a), zkFree(b), zkFree(c);
}

int g_calls = 0, g_allowed = 0;
int32_t ZK_CALL StopRange(zkAddr, uint32_t, void*) {
    return ++g_calls <= g_allowed;
}
int32_t ZK_CALL StopBlock(zkAddr, uint32_t, uint32_t, void*) { // category walks too
    return ++g_calls <= g_allowed;
}

TEST_F(DiagnosticsTest, AWalkStopsAfterTheCallThatReturnsZero) {
    MemoryPool* pool = Create(0x1000, 0x1000, 8);
    for (int i = 0; i < 3; ++i) // at 0x1000, 0x1100, 0x1200
        zkAllocMemoryPoolBlockEx(pool, 0x10, 0x100, ZK_ALLOC_BOTTOM);
    // Walks 0-3: blocks, gaps, used, categories. A stopped used or category
    // walk reports nothing more.
    const uint32_t cases[][3] = {{0, 0, 1}, {0, 1, 2}, {1, 0, 1},   {1, 100, 3},
                                 {2, 0, 1}, {2, 2, 3}, {2, 100, 3}, {3, 0, 1}};
    for (auto [walk, allowed, count] : cases) {
        g_calls = 0, g_allowed = static_cast<int>(allowed);
        EXPECT_EQ(walk == 0   ? zkEnumerateMemoryPoolBlocks(pool, StopBlock, nullptr)
                  : walk == 1 ? zkEnumerateMemoryPoolGaps(pool, StopRange, nullptr)
                  : walk == 2 ? zkEnumerateMemoryPoolUsed(pool, StopRange, nullptr)
                              : zkEnumerateMemoryPoolCategory(pool, StopBlock, nullptr),
                  count)
            << walk << " " << allowed;
        EXPECT_EQ(g_calls, static_cast<int>(std::min(allowed + 1, count)));
    }
    // A null callback answers 0; query codes 1 and 11 are answered by the system form only.
    EXPECT_EQ(zkEnumerateMemoryPoolGaps(pool, nullptr, pool) + zkQueryMemoryPoolInfo(pool, 1) +
                  zkQueryMemoryPoolInfo(pool, 11) + zkQueryMemoryInfo(11),
              0u);
}

} // namespace
} // namespace zktest
