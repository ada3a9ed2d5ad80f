// Application pools over arbitrary address ranges: placement in each search
// mode, descriptor limits, release and merging, search by address and lock
// counts, the pool table's limits, and the refusals.
#include "memory/memory_test_util.h"
#include "support/library_test.h"

#include <gtest/gtest.h>

namespace zktest {
namespace {

TEST_F(PoolTest, BestFitPlacesAtTheBaseThenAfterTheAlignedEnd) {
    MemoryPool* pool = Create(0x1000, 0x1000, 16);
    ASSERT_NE(pool, nullptr);
    MemoryBlock* a = zkAllocMemoryPoolBlock(pool, 10, 4);
    MemoryBlock* b = zkAllocMemoryPoolBlock(pool, 7, 4);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(AddressOf(a), 0x1000u);
    EXPECT_EQ(zkGetMemoryPoolBlockSize(a), 10u);
    EXPECT_EQ(AddressOf(b), 0x100Cu);
    // Exact sizes: no rounding in pools; the 2-byte alignment slack is a gap
    // owned by the first block.
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 9), 17u);
    EXPECT_EQ(GapsOf(pool), (std::vector<Range>{{0x100A, 2}, {0x1013, 0x1000 - 0x13}}));
}

TEST_F(PoolTest, ModeNumbersOfAPool) {
    MemoryPool* pool = Create(0x1000, 0x1000, 16);
    zkSetMemoryPoolAllocMode(pool, 2);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(pool, 0x100, 0x100)), 0x1F00u);
    zkSetMemoryPoolAllocMode(pool, 0); // no such mode: still highest address
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(pool, 0x10, 0x10)), 0x1EF0u);
    zkSetMemoryPoolAllocMode(pool, 3);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(pool, 0x10, 0x10)), 0x1EE0u);
    zkSetMemoryPoolAllocMode(pool, 1); // best fit
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(pool, 0x10, 0x10)), 0x1000u);
}

TEST_F(PoolTest, LowestAndHighestAddressFlagsHonourAlignment) {
    MemoryPool* pool = Create(0x1003, 0x1000, 16);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlockEx(pool, 5, 16, ZK_ALLOC_BOTTOM)), 0x1010u);
    // End 0x2003: (0x2003 - 0x30) rounded down to 0x20.
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlockEx(pool, 0x30, 0x20, ZK_ALLOC_TOP)), 0x1FC0u);
    // Both flags: lowest address wins.
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlockEx(pool, 1, 1, ZK_ALLOC_TOP | ZK_ALLOC_BOTTOM)),
              0x1003u);
    // Rounding takes effect in pools only when asked for.
    MemoryBlock* rounded = zkAllocMemoryPoolBlockEx(pool, 5, 16, ZK_ALLOC_BOTTOM | ZK_ALLOC_ROUND);
    EXPECT_EQ(AddressOf(rounded), 0x1020u);
    EXPECT_EQ(zkGetMemoryPoolBlockSize(rounded), 5u);
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 9), 5u + 0x30 + 1 + 16);
}

TEST_F(PoolTest, AlignmentZeroCountsAsOneAndSizeZeroTakesOneByte) {
    MemoryPool* pool = Create(0x1001, 0x100, 8);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(pool, 3, 0)), 0x1001u);
    MemoryBlock* empty = zkAllocMemoryPoolBlock(pool, 0, 0);
    EXPECT_EQ(AddressOf(empty), 0x1004u);
    EXPECT_EQ(zkGetMemoryPoolBlockSize(empty), 0u);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(pool, 1, 0)), 0x1005u);
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 9), 5u);
}

TEST_F(PoolTest, PoolOfNDescriptorsTakesNMinusOneBlocks) {
    MemoryPool* pool = Create(0x1000, 0x1000, 5);
    for (int i = 0; i < 4; ++i)
        EXPECT_NE(zkAllocMemoryPoolBlock(pool, 16, 1), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlock(pool, 16, 1), nullptr); // space is left, descriptors are not
    MemoryInfo info{};
    zkGetMemoryPoolInfo(pool, &info);
    EXPECT_EQ(info.blockCount, 5u);
    EXPECT_EQ(info.maxBlockCount, 5u);
    EXPECT_EQ(info.used, 64u);
    EXPECT_EQ(info.free, 0x1000u - 64);
    MemoryPool* two = Create(0x1000, 0x1000, 2);
    ASSERT_NE(two, nullptr);
    EXPECT_NE(zkAllocMemoryPoolBlock(two, 16, 1), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlock(two, 16, 1), nullptr);
}

TEST_F(PoolTest, NoGapLargeEnoughFailsWithoutChange) {
    MemoryPool* pool = Create(0x1000, 0x100, 8);
    EXPECT_EQ(zkAllocMemoryPoolBlock(pool, 0x101, 1), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlockEx(pool, 0x80, 0x2000, ZK_ALLOC_TOP), nullptr);
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 7), 1u);
    EXPECT_NE(zkAllocMemoryPoolBlock(pool, 0x100, 1), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlock(pool, 1, 1), nullptr);
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 3), 0u); // no gap left at all
}

TEST_F(PoolTest, ReleaseMergesGapBeforeBlockAndGapAfter) {
    MemoryPool* pool = Create(0x1000, 0x1000, 8);
    MemoryBlock* a = zkAllocMemoryPoolBlock(pool, 0x100, 1);
    MemoryBlock* b = zkAllocMemoryPoolBlock(pool, 0x100, 1);
    MemoryBlock* c = zkAllocMemoryPoolBlock(pool, 0x100, 1);
    ASSERT_EQ(AddressOf(c), 0x1200u);
    zkFreeMemoryPoolBlock(pool, a);
    zkFreeMemoryPoolBlock(pool, c);
    // One gap owned by the head block, one by the middle block.
    EXPECT_EQ(GapsOf(pool), (std::vector<Range>{{0x1000, 0x100}, {0x1200, 0xE00}}));
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 3), 2u);
    zkFreeMemoryPoolBlock(pool, b);
    EXPECT_EQ(GapsOf(pool), (std::vector<Range>{{0x1000, 0x1000}}));
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 7), 1u);
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 2), 0x1000u);
    // Freed handles are ignored from now on.
    zkFreeMemoryPoolBlock(pool, b);
    EXPECT_EQ(zkLockMemoryPoolBlock(b), nullptr);
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 7), 1u);
    // Freeing the only block, placed at the top, restores the whole gap.
    MemoryBlock* top = zkAllocMemoryPoolBlockEx(pool, 0x10, 0x100, ZK_ALLOC_TOP);
    ASSERT_EQ(AddressOf(top), 0x1F00u);
    zkFreeMemoryPoolBlock(pool, top);
    EXPECT_EQ(GapsOf(pool), (std::vector<Range>{{0x1000, 0x1000}}));
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 9), 0u);
}

TEST_F(PoolTest, SearchByAddressFindsFixedOrLockedBlocksOnly) {
    MemoryPool* pool = Create(0x1000, 0x1000, 8);
    MemoryBlock* handle = zkAllocMemoryPoolBlock(pool, 0x40, 1);
    MemoryBlock* fixed = zkAllocMemoryPoolBlockEx(pool, 0x40, 1, ZK_ALLOC_FIXED);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), nullptr);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1040), fixed);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1041), nullptr); // inside, not the start
    EXPECT_EQ(zkLockMemoryPoolBlock(handle), reinterpret_cast<void*>(0x1000));
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), handle);
    zkUnlockMemoryPoolBlock(handle);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), nullptr);
    // Fixed blocks keep no lock count: unlocking does not hide them.
    zkUnlockMemoryPoolBlock(fixed);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1040), fixed);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x0FFF), nullptr);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x5000), nullptr);
}

TEST_F(PoolTest, LockCountSaturatesAt65535AndStopsAtZero) {
    MemoryPool* pool = Create(0x1000, 0x1000, 8);
    MemoryBlock* block = zkAllocMemoryPoolBlock(pool, 0x40, 1);
    zkUnlockMemoryPoolBlock(block); // at 0 stays 0
    zkLockMemoryPoolBlock(block);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), block);
    zkUnlockMemoryPoolBlock(block);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), nullptr);

    for (int i = 0; i < 65536 + 10; ++i)
        zkLockMemoryPoolBlock(block);
    for (int i = 0; i < 65534; ++i)
        zkUnlockMemoryPoolBlock(block);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), block); // one lock left
    zkUnlockMemoryPoolBlock(block);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), nullptr);
}

TEST_F(PoolTest, RangesThatAreNotMappedMemory) {
    // Nothing at these addresses exists in the process: the pool never touches them.
    MemoryPool* low = Create(0x1000, 0x1000, 8);
    ASSERT_NE(low, nullptr);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(low, 0x800, 1)), 0x1000u);

    MemoryPool* top = Create(0xFFFF0000u, 0xFFFF, 8);
    ASSERT_NE(top, nullptr);
    EXPECT_EQ(zkQueryMemoryPoolInfo(top, 5), 0xFFFFFFFFu);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlockEx(top, 0x100, 0x100, ZK_ALLOC_TOP)), 0xFFFFFE00u);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlockEx(top, 0x100, 0x10000, ZK_ALLOC_BOTTOM)),
              0xFFFF0000u);
    // The next 64 KiB boundary lies past the end of a 32-bit address space: no fit.
    EXPECT_EQ(zkAllocMemoryPoolBlockEx(top, 1, 0x10000, ZK_ALLOC_BOTTOM), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlock(top, 1, 0x10000), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlockEx(top, 1, 0x10000, ZK_ALLOC_TOP), nullptr);
    MemoryBlock* last = zkAllocMemoryPoolBlockEx(top, 0xFF, 1, ZK_ALLOC_TOP);
    EXPECT_EQ(AddressOf(last), 0xFFFFFF00u); // ends at the last byte of the range
    EXPECT_EQ(GapsOf(top), (std::vector<Range>{{0xFFFF0100u, 0xFD00}}));

    // A range that ends exactly at the top of the address space does not wrap.
    const zkAddr topBase = ~zkAddr{0} - 0xFFF;
    MemoryPool* end = Create(topBase, 0x1000, 8);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlockEx(end, 0x100, 0x100, ZK_ALLOC_TOP)),
              topBase + 0xF00);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlockEx(end, 0xFF, 1, ZK_ALLOC_TOP)), topBase + 0xE01);
    EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(end, 0x10, 0x10)), topBase);
    EXPECT_EQ(GapsOf(end), (std::vector<Range>{{topBase + 0x10, 0xDF1}}));
    EXPECT_EQ(UsedOf(end), (std::vector<Range>{{topBase, 0x10}, {topBase + 0xE01, 0x1FF}}));

    if (sizeof(zkAddr) == 8) {
        const uint64_t high = 0x123400001000ull;
        MemoryPool* above = Create(static_cast<zkAddr>(high), 0x1000, 8);
        ASSERT_NE(above, nullptr);
        EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(above, 0x10, 0x1000)), high);
        EXPECT_EQ(zkQueryMemoryPoolInfo(above, 5), high + 0x1000);
    }
}

TEST_F(PoolTest, CreationRefusals) {
    EXPECT_EQ(Create(0x1000, 0x1000, 0), nullptr);
    EXPECT_EQ(Create(0x1000, 0x1000, 1), nullptr);
    // A range that wraps past the end of the address space.
    EXPECT_EQ(Create(~zkAddr{0} - 0xF, 0x100, 4), nullptr);
    EXPECT_EQ(Create(~zkAddr{0} - 0xFE, 0x100, 4), nullptr);
    // A descriptor table larger than the whole system pool.
    EXPECT_EQ(Create(0x1000, 0x1000, 0x7FFFFFFF), nullptr);
    // An empty range is allowed and can hold nothing.
    MemoryPool* empty = Create(0x1000, 0, 4);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlock(empty, 1, 1), nullptr);
    EXPECT_EQ(zkQueryMemoryPoolInfo(empty, 3), 0u);
}

TEST_F(PoolTest, AtMostFifteenPoolsBesideTheSystemPool) {
    CreateFifteenPools();
    EXPECT_EQ(zkCreateMemoryPool(0x100000, 0x1000, 4), nullptr);
    zkReleaseMemoryPool(pools_.back());
    pools_.pop_back();
    EXPECT_NE(Create(0x100000, 0x1000, 4), nullptr);
}

TEST_F(PoolTest, CreateAndReleaseLeaveTheSystemPoolAsItWas) {
    const zkAddr used = zkQueryMemoryInfo(9);
    const zkAddr blocks = zkQueryMemoryInfo(7);
    MemoryPool* pool = zkCreateMemoryPool(0x1000, 0x1000, 100);
    ASSERT_NE(pool, nullptr);
    // The descriptor table is one system-pool block, not rounded to 64.
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks + 1);
    EXPECT_GE(zkQueryMemoryInfo(9), used + 100 * 40);
    zkAllocMemoryPoolBlock(pool, 16, 1); // left in the pool: forgotten at release
    zkReleaseMemoryPool(pool);
    EXPECT_EQ(zkQueryMemoryInfo(9), used);
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
    zkReleaseMemoryPool(pool); // a second release is ignored
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
    CreateFifteenPools();
}

TEST_F(PoolTest, TheSystemPoolCannotBeReleasedThroughThePoolCall) {
    MemoryPool* system = zkGetSystemMemoryPool();
    ASSERT_NE(system, nullptr);
    const zkAddr size = zkQueryMemoryInfo(6);
    zkReleaseMemoryPool(system);
    EXPECT_EQ(zkGetSystemMemoryPool(), system);
    EXPECT_EQ(zkQueryMemoryInfo(6), size);
    // Pool functions work on the system pool's handle.
    MemoryBlock* block = zkAllocMemoryPoolBlock(system, 10, 8);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(zkGetMemoryPoolBlockSize(block), 10u);
    void* address = zkLockMemoryPoolBlock(block);
    EXPECT_EQ(zkFindMemoryPoolBlock(system, reinterpret_cast<zkAddr>(address)), block);
    zkFreeMemoryPoolBlock(system, block);
    EXPECT_EQ(zkFindMemoryPoolBlock(system, reinterpret_cast<zkAddr>(address)), nullptr);
    CreateFifteenPools();
    EXPECT_EQ(zkCreateMemoryPool(0x1000, 0x1000, 4), nullptr);
}

int g_allocCalls = 0;
int g_freeCalls = 0;
int32_t ZK_CALL CountAlloc(uint32_t, uint32_t) {
    return ++g_allocCalls, 1;
}
int32_t ZK_CALL RefuseAlloc(uint32_t, uint32_t) {
    return ++g_allocCalls, 0;
}
int32_t ZK_CALL CountFree(void*, uint32_t, uint32_t) {
    return ++g_freeCalls, 1;
}

TEST_F(PoolTest, SystemHooksSeeDescriptorTablesButNotPoolBlocks) {
    g_allocCalls = g_freeCalls = 0;
    zkSetAllocHook(CountAlloc);
    zkSetFreeHook(CountFree);
    MemoryPool* pool = zkCreateMemoryPool(0x1000, 0x1000, 8);
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(g_allocCalls, 1);
    MemoryBlock* block = zkAllocMemoryPoolBlock(pool, 16, 1);
    zkFreeMemoryPoolBlock(pool, block);
    EXPECT_EQ(g_allocCalls, 1);
    EXPECT_EQ(g_freeCalls, 0);
    zkReleaseMemoryPool(pool);
    EXPECT_EQ(g_freeCalls, 1);

    zkSetAllocHook(RefuseAlloc);
    EXPECT_EQ(zkCreateMemoryPool(0x1000, 0x1000, 8), nullptr); // the record goes back
    zkSetAllocHook(nullptr);
    zkSetFreeHook(nullptr);
    CreateFifteenPools();
}

TEST_F(PoolTest, HandlesOfAnotherPoolAreIgnored) {
    MemoryPool* a = Create(0x1000, 0x1000, 4);
    MemoryPool* b = Create(0x1000, 0x1000, 4);
    MemoryBlock* inA = zkAllocMemoryPoolBlock(a, 16, 1);
    zkFreeMemoryPoolBlock(b, inA);
    zkFreeMemoryBlock(inA); // system-pool call
    EXPECT_EQ(zkQueryMemoryPoolInfo(a, 7), 2u);
    EXPECT_EQ(zkFindMemoryPoolBlock(a, 0x1000), nullptr); // not even locked by the attempt
    EXPECT_EQ(zkQueryMemoryPoolInfo(b, 7), 1u);
    zkFreeMemoryPoolBlock(a, inA);
    EXPECT_EQ(zkQueryMemoryPoolInfo(a, 7), 1u);
}

TEST_F(PoolTest, AReleasedPoolAnswersEveryCallWithZeroOrNull) {
    MemoryPool* pool = zkCreateMemoryPool(0x1000, 0x1000, 8);
    ASSERT_NE(zkAllocMemoryPoolBlock(pool, 16, 1), nullptr);
    zkReleaseMemoryPool(pool);
    ExpectPoolCallsInert(pool);
}

TEST_F(PoolTest, NullPoolAndNullHandle) {
    EXPECT_EQ(zkAllocMemoryPoolBlock(nullptr, 16, 1), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlockEx(nullptr, 16, 1, 0), nullptr);
    EXPECT_EQ(zkFindMemoryPoolBlock(nullptr, 0x1000), nullptr);
    EXPECT_EQ(zkLockMemoryPoolBlock(nullptr), nullptr);
    EXPECT_EQ(zkGetMemoryPoolBlockSize(nullptr), 0u);
    zkUnlockMemoryPoolBlock(nullptr);
    zkFreeMemoryPoolBlock(nullptr, nullptr);
    zkSetMemoryPoolAllocMode(nullptr, 2);
    zkSetMemoryPoolCheckpoint(nullptr, 1);
    zkSetBreakPoolAlloc(nullptr, 1);
    zkReleaseMemoryPool(nullptr);
    MemoryPool* pool = Create(0x1000, 0x1000, 4);
    zkFreeMemoryPoolBlock(pool, nullptr);
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 7), 1u);
}

} // namespace
} // namespace zktest
