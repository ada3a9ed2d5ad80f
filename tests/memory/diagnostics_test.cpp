// Memory diagnostics: summary figures, queries, the four walks with their
// stopping rules, and the exact lines of the block and gap dumps.
#include "memory/memory_test_util.h"
#include "support/library_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <utility>
#include <string>
#include <vector>

namespace zktest {
namespace {

using DiagnosticsTest = PoolTest;

std::string Line(const char* format, unsigned a, unsigned long long b, unsigned c) {
    char text[128];
    std::snprintf(text, sizeof(text), format, a, b, c);
    return text;
}

TEST_F(DiagnosticsTest, LeakHuntListsTheBlocksAllocatedSinceTheCheckpoint) {
    void* before = zkMalloc(30);
    zkSetMemoryCheckpoint(3);
    void* a = zkMalloc(100);
    void* b = zkMalloc(100);
    const BlockSeen first = SystemBlockAt(a);
    const BlockSeen second = SystemBlockAt(b);
    const std::vector<std::string> expected = {
        "QaxKrnl : Dumping Memory Blocks.\n",
        Line("  {%u} block at 0x%08llx, %u bytes long.\n", first.number, first.address, 100),
        Line("  {%u} block at 0x%08llx, %u bytes long.\n", second.number, second.address, 100),
        "Block Dump Complete. Count = 2 Total = 200 bytes.\n",
    };
    for (uint32_t checkpoint : {3u, 35u}) { // 35 tests bit 3 as well
        TraceCapture trace;
        EXPECT_EQ(zkDumpAllMemoryBlocks(checkpoint), 2u);
        EXPECT_EQ(trace.Lines(), expected);
    }
    {
        TraceCapture trace; // checkpoint 4 was never set: all three blocks
        EXPECT_EQ(zkDumpAllMemoryBlocks(4), 3u);
        EXPECT_EQ(trace.Lines().back(), "Block Dump Complete. Count = 3 Total = 230 bytes.\n");
    }
    zkSetMemoryCheckpoint(40); // beyond 31: nothing
    zkFree(a);
    zkFree(b);
    zkFree(before);
}

TEST_F(DiagnosticsTest, DumpsOfAPoolWithoutBlocks) {
    MemoryPool* pool = Create(0x1000, 0x1000, 4);
    TraceCapture trace;
    EXPECT_EQ(zkDumpAllMemoryPoolBlocks(pool, 0), 0u);
    EXPECT_EQ(trace.Lines(),
              std::vector<std::string>{"Block Dump Complete. Count = 0 Total = 0 bytes.\n"});
    trace.Clear();
    zkSetMemoryCheckpoint(7); // marks every block alive, the library's included
    EXPECT_EQ(zkDumpAllMemoryBlocks(7), 0u);
    EXPECT_EQ(trace.Lines(),
              (std::vector<std::string>{"QaxKrnl : Dumping Memory Blocks.\n",
                                        "Block Dump Complete. Count = 0 Total = 0 bytes.\n"}));
}

TEST_F(DiagnosticsTest, GapDumpListsGapsOfTheMinimumSizeAndCountsThemAll) {
    MemoryPool* pool = Create(0x1080, 0xF80, 8);
    zkAllocMemoryPoolBlockEx(pool, 0x100, 0x100, ZK_ALLOC_BOTTOM); // at 0x1100
    zkAllocMemoryPoolBlockEx(pool, 0x10, 0x10, ZK_ALLOC_TOP);      // at 0x1FF0
    {
        TraceCapture trace;
        EXPECT_EQ(zkDumpAllMemoryPoolGaps(pool, 0x81), 2u);
        EXPECT_EQ(trace.Lines(),
                  (std::vector<std::string>{
                      "  gap[1] 0x00001200-0x00001ff0 3568 bytes\n",
                      "Gap Dump Complete. Count = 2 MaxSize = 3568 Total = 3696 bytes.\n"}));
    }
    {
        TraceCapture trace;
        EXPECT_EQ(zkDumpAllMemoryPoolGaps(pool, 0x80), 2u);
        ASSERT_EQ(trace.Lines().size(), 3u);
        EXPECT_EQ(trace.Lines()[0], "  gap[0] 0x00001080-0x00001100 128 bytes\n");
    }
    {
        TraceCapture trace;
        EXPECT_EQ(zkDumpAllMemoryPoolGaps(pool, 0xFFFFFFFF), 2u);
        ASSERT_EQ(trace.Lines().size(), 1u);
        EXPECT_EQ(trace.Lines()[0],
                  "Gap Dump Complete. Count = 2 MaxSize = 3568 Total = 3696 bytes.\n");
    }
    {
        TraceCapture trace;
        const uint32_t count = zkDumpAllMemoryGaps(0xFFFFFFFF);
        ASSERT_EQ(trace.Lines().size(), 2u);
        EXPECT_EQ(trace.Lines()[0], "QaxKrnl : Dumping Memory Gaps.\n");
        EXPECT_EQ(count, zkQueryMemoryInfo(3));
    }
}

TEST_F(DiagnosticsTest, AFreshPool) {
    MemoryPool* pool = Create(0x1000, 0x1000, 4);
    EXPECT_TRUE(BlocksOf(pool).empty());
    EXPECT_EQ(GapsOf(pool), (std::vector<Range>{{0x1000, 0x1000}}));
    EXPECT_TRUE(UsedOf(pool).empty());
    EXPECT_TRUE(CategoriesOf(pool).empty());
    // Query codes 1 and 11+ are of the system form only; 0 is no query.
    const std::pair<uint32_t, uint32_t> queries[] = {
        {7, 1}, {2, 0x1000}, {3, 1},       {4, 0x1000}, {5, 0x2000}, {6, 0x1000},
        {8, 4}, {9, 0},      {10, 0x1000}, {1, 0},      {11, 0},     {0, 0}};
    for (auto [code, value] : queries)
        EXPECT_EQ(zkQueryMemoryPoolInfo(pool, code), value) << "query " << code;
    MemoryInfo info{};
    zkGetMemoryPoolInfo(pool, &info);
    EXPECT_EQ(info.size, 0x1000u);
    EXPECT_EQ(info.used, 0u);
    EXPECT_EQ(info.free, 0x1000u);
    EXPECT_EQ(info.blockCount, 1u);
    EXPECT_EQ(info.maxBlockCount, 4u);
}

TEST_F(DiagnosticsTest, UsedAndCategoryWalksMergeAdjacentBlocks) {
    MemoryPool* pool = Create(0x1000, 0x1000, 8);
    zkAllocMemoryPoolBlock(pool, 0x10, 1);                        // 0x1000
    zkAllocMemoryPoolBlock(pool, 0x10, 1);                        // 0x1010
    zkAllocMemoryPoolBlockEx(pool, 0x20, 0x100, ZK_ALLOC_BOTTOM); // 0x1100
    zkAllocMemoryPoolBlockEx(pool, 0x40, 1, ZK_ALLOC_TOP);        // 0x1FC0, up to the end
    EXPECT_EQ(UsedOf(pool), (std::vector<Range>{{0x1000, 0x20}, {0x1100, 0x20}, {0x1FC0, 0x40}}));
    EXPECT_EQ(CategoriesOf(pool),
              (std::vector<Range>{{0x1000, 0x20}, {0x1100, 0x20}, {0x1FC0, 0x40}}));
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 2), 0x1FC0u - 0x1120);
}

TEST_F(DiagnosticsTest, CategoryWalkSeparatesTheSystemPoolsCategories) {
    zkSetAllocMode(2);
    void* a = zkAllocateSystemMemory(100, ZK_ALLOC_DEFAULT, ZK_CATEGORY_LIBRARY);
    void* b = zkAllocateSystemMemory(100, ZK_ALLOC_DEFAULT, 0);
    void* c = zkAllocateSystemMemory(100, ZK_ALLOC_DEFAULT, 0);
    zkSetAllocMode(0);
    const std::vector<Range> ranges = CategoriesOf(zkGetSystemMemoryPool());
    ASSERT_GE(ranges.size(), 2u);
    EXPECT_EQ(ranges[ranges.size() - 2], (Range{reinterpret_cast<zkAddr>(c), 256, 0}));
    EXPECT_EQ(ranges.back(), (Range{reinterpret_cast<zkAddr>(a), 128, ZK_CATEGORY_LIBRARY}));
    EXPECT_EQ(UsedOf(zkGetSystemMemoryPool()).back(), (Range{reinterpret_cast<zkAddr>(c), 384, 0}));
    zkFree(a);
    zkFree(b);
    zkFree(c);
}

struct StopAfter {
    int calls = 0;
    int allowed = 0;
};
int32_t ZK_CALL StopRange(zkAddr, uint32_t, void* user) {
    auto* s = static_cast<StopAfter*>(user);
    return ++s->calls < s->allowed + 1 ? 1 : 0;
}
// Category and block walks share one callback shape.
int32_t ZK_CALL StopBlock(zkAddr, uint32_t, uint32_t, void* user) {
    return StopRange(0, 0, user);
}
constexpr auto StopCategory = StopBlock;

TEST_F(DiagnosticsTest, AWalkStopsAfterTheCallThatReturnsZero) {
    MemoryPool* pool = Create(0x1000, 0x1000, 8);
    zkAllocMemoryPoolBlockEx(pool, 0x10, 0x100, ZK_ALLOC_BOTTOM); // 0x1000
    zkAllocMemoryPoolBlockEx(pool, 0x10, 0x100, ZK_ALLOC_BOTTOM); // 0x1100
    zkAllocMemoryPoolBlockEx(pool, 0x10, 0x100, ZK_ALLOC_BOTTOM); // 0x1200
    using WalkProc = uint32_t (*)(MemoryPool*, StopAfter*);
    const WalkProc blocks = [](MemoryPool* p, StopAfter* s) {
        return zkEnumerateMemoryPoolBlocks(p, StopBlock, s);
    };
    const WalkProc gaps = [](MemoryPool* p, StopAfter* s) {
        return zkEnumerateMemoryPoolGaps(p, StopRange, s);
    };
    const WalkProc used = [](MemoryPool* p, StopAfter* s) {
        return zkEnumerateMemoryPoolUsed(p, StopRange, s);
    };
    const WalkProc categories = [](MemoryPool* p, StopAfter* s) {
        return zkEnumerateMemoryPoolCategory(p, StopCategory, s);
    };
    // A stopped used or category walk reports nothing more, not even the
    // range from the stopping point to the end.
    const struct {
        WalkProc walk;
        int allowed;
        uint32_t count;
    } cases[] = {{blocks, 0, 1}, {blocks, 1, 2}, {gaps, 0, 1},   {gaps, 100, 3},
                 {used, 0, 1},   {used, 2, 3},   {used, 100, 3}, {categories, 0, 1}};
    for (const auto& c : cases) {
        StopAfter s{0, c.allowed};
        EXPECT_EQ(c.walk(pool, &s), c.count) << "allowed " << c.allowed;
        EXPECT_EQ(s.calls, std::min<int>(c.allowed + 1, static_cast<int>(c.count)));
    }
}

TEST_F(DiagnosticsTest, NullArgumentsGiveZeroAndCallNothing) {
    MemoryPool* pool = Create(0x1000, 0x1000, 8);
    EXPECT_EQ(zkEnumerateMemoryBlocks(nullptr, nullptr), 0u);
    EXPECT_EQ(zkEnumerateMemoryGaps(nullptr, nullptr), 0u);
    EXPECT_EQ(zkEnumerateMemoryUsed(nullptr, nullptr), 0u);
    EXPECT_EQ(zkEnumerateMemoryPoolGaps(pool, nullptr, nullptr), 0u);
    EXPECT_EQ(zkEnumerateMemoryPoolCategory(pool, nullptr, nullptr), 0u);
    StopAfter s{0, 100};
    EXPECT_EQ(zkEnumerateMemoryPoolGaps(nullptr, StopRange, &s), 0u);
    EXPECT_EQ(zkEnumerateMemoryPoolUsed(nullptr, StopRange, &s), 0u);
    EXPECT_EQ(zkEnumerateMemoryPoolCategory(nullptr, StopCategory, &s), 0u);
    EXPECT_EQ(zkEnumerateMemoryPoolBlocks(nullptr, StopBlock, &s), 0u);
    EXPECT_EQ(s.calls, 0);
    EXPECT_EQ(zkQueryMemoryPoolInfo(nullptr, 6), 0u);
    MemoryInfo info{1, 2, 3, 4, 5};
    zkGetMemoryPoolInfo(nullptr, &info);
    zkGetMemoryInfo(nullptr);
    zkGetMemoryPoolInfo(pool, nullptr);
    EXPECT_EQ(info.size, 1u);
    EXPECT_EQ(info.maxBlockCount, 5u);
    TraceCapture trace;
    EXPECT_EQ(zkDumpAllMemoryPoolBlocks(nullptr, 0), 0u);
    EXPECT_EQ(zkDumpAllMemoryPoolGaps(nullptr, 0), 0u);
    EXPECT_TRUE(trace.Lines().empty());
}

TEST_F(DiagnosticsTest, SystemFiguresAndQueries) {
    MemoryInfo info{};
    zkGetMemoryInfo(&info);
    EXPECT_EQ(info.size, zkQueryMemoryInfo(6));
    EXPECT_EQ(info.used, zkQueryMemoryInfo(9));
    EXPECT_EQ(info.free, zkQueryMemoryInfo(10));
    EXPECT_EQ(info.blockCount, zkQueryMemoryInfo(7));
    EXPECT_EQ(info.maxBlockCount, 1024u);
    EXPECT_EQ(zkQueryMemoryInfo(8), 1024u);
    EXPECT_GT(info.size, 32u * 1024 * 1024 - 128 * 1024);
    EXPECT_LT(info.size, 32u * 1024 * 1024);
    EXPECT_EQ(zkQueryMemoryInfo(4) % 64, 0u);
    EXPECT_EQ(zkQueryMemoryInfo(5), zkQueryMemoryInfo(4) + info.size);
    EXPECT_GT(zkQueryMemoryInfo(1), 0u);
    EXPECT_EQ(zkQueryMemoryInfo(11), 0u);
    EXPECT_EQ(zkQueryMemoryInfo(0), 0u);
    zkShowMemoryStatus(1); // stored only
    EXPECT_EQ(zkQueryMemoryInfo(7), info.blockCount);
}

TEST_F(DiagnosticsTest, AddressesAbove4GiBPrintWithAllTheirDigits) {
    if (sizeof(zkAddr) != 8) GTEST_SKIP() << "32-bit address space";
    MemoryPool* pool = Create(static_cast<zkAddr>(0x123400001000ull), 0x1000, 4);
    MemoryBlock* block = zkAllocMemoryPoolBlock(pool, 16, 1);
    ASSERT_NE(block, nullptr);
    TraceCapture trace;
    zkDumpAllMemoryPoolBlocks(pool, 0);
    zkDumpAllMemoryPoolGaps(pool, 0);
    EXPECT_EQ(trace.Lines(),
              (std::vector<std::string>{
                  "  {1} block at 0x123400001000, 16 bytes long.\n",
                  "Block Dump Complete. Count = 1 Total = 16 bytes.\n",
                  "  gap[0] 0x123400001010-0x123400002000 4080 bytes\n",
                  "Gap Dump Complete. Count = 1 MaxSize = 4080 Total = 4080 bytes.\n"}));
}

} // namespace
} // namespace zktest
