// Application pools over arbitrary address ranges: placement at the edges
// the model does not reach, mode numbers, search by address and lock counts,
// the pool table's limits, the refusals, and stale or foreign handles.
#include "memory/memory_test_util.h"

namespace zktest {
namespace {

constexpr uint64_t kNone = ~0ull; // the allocation fails

// Slack of alignment becomes a gap the next small block fills; the ends of
// the address space, alignments that reach past them, and a rounded size too
// large for 32 bits.
TEST_F(PoolTest, PlacementInEachSearchMode) {
    const uint64_t kTop = ZK_ALLOC_TOP, kLow = ZK_ALLOC_BOTTOM;
    const zkAddr far = static_cast<zkAddr>(sizeof(zkAddr) == 8 ? 0x123400001000ull : 0x40001000u);
    const zkAddr pools[][2] = {{0x1000, 0x1000},      {0x1003, 0x1000},
                               {0xFFFF0000u, 0xFFFF}, {~zkAddr{0} - 0xFFF, 0x1000},
                               {far, 0x1000},         {0, 0xFFFFFFFF}};
    // pool, flags, size, alignment, offset from the pool's base (or kNone)
    const uint64_t steps[][5] = {// clang-format off
        {0, 0, 10, 4, 0}, {0, 0, 7, 4, 0xC}, {0, 0, 1, 0, 0xA}, {0, 0, 0, 0, 0xB},
        {1, kLow, 5, 16, 0xD}, {1, kTop, 0x30, 0x20, 0xFBD}, {1, kTop | kLow, 1, 1, 0},
        {2, kTop, 0x100, 0x100, 0xFE00}, {2, kLow, 0x100, 0x10000, 0}, {2, kLow, 1, 0x10000, kNone},
        {2, 0, 1, 0x10000, kNone}, {2, kTop, 1, 0x10000, kNone}, {2, kTop, 0xFF, 1, 0xFF00},
        {3, kTop, 0x100, 0x100, 0xF00}, {3, kTop, 0xFF, 1, 0xE01}, {3, 0, 0x10, 0x10, 0},
        {4, 0, 0x10, 0x1000, 0},
        {5, ZK_ALLOC_ROUND, 0xFFFFFFF0, 64, kNone}, {5, 0, 0xFFFFFFF0, 64, 0}}; // no 32-bit size
    // clang-format on
    MemoryPool* made[std::size(pools)];
    for (size_t i = 0; i < std::size(pools); ++i)
        ASSERT_NE(made[i] = Create(pools[i][0], static_cast<uint32_t>(pools[i][1]), 8), nullptr);
    for (auto [pool, flags, size, alignment, offset] : steps) {
        MemoryBlock* block = zkAllocMemoryPoolBlockEx(made[pool], static_cast<uint32_t>(size),
                                                      static_cast<uint32_t>(alignment),
                                                      static_cast<uint32_t>(flags));
        EXPECT_EQ(block ? AddressOf(block) - pools[pool][0] : kNone, offset) << pool << " " << size;
    }
    EXPECT_EQ(zkQueryMemoryPoolInfo(made[0], 9), 10u + 7 + 1 + 1); // exact sizes, 0 takes 1
}

TEST_F(PoolTest, ModeNumbersOfAPool) {
    MemoryPool* pool = Create(0x1000, 0x1000, 16);
    const uint64_t rows[][3] = {
        {2, 0x100, 0x1F00}, {0, 0x10, 0x1EF0}, {3, 0x10, 0x1EE0}, {1, 0x10, 0x1000}};
    for (auto [mode, size, address] : rows) { // 0 and 3 change nothing; 1 is best fit
        zkSetMemoryPoolAllocMode(pool, static_cast<uint32_t>(mode));
        EXPECT_EQ(AddressOf(zkAllocMemoryPoolBlock(pool, size, size)), address) << mode;
    }
}

// Which blocks a search by address finds is compared in the differential
// test; here, a lock count stops at 65535 and counts down from there.
TEST_F(PoolTest, LockCountsSaturate) {
    MemoryPool* pool = Create(0x1000, 0x1000, 8);
    MemoryBlock* handle = zkAllocMemoryPoolBlock(pool, 0x40, 1);
    for (int i = 0; i < 65536 + 10; ++i)
        zkLockMemoryPoolBlock(handle);
    for (int i = 0; i < 65534; ++i)
        zkUnlockMemoryPoolBlock(handle);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), handle);
    zkUnlockMemoryPoolBlock(handle);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), nullptr);
}

TEST_F(PoolTest, TableOfFifteenPoolsAndTheRefusals) {
    const zkAddr used = zkQueryMemoryInfo(9), blocks = zkQueryMemoryInfo(7);
    const zkAddr refused[][3] = {{0x1000, 0x1000, 0},
                                 {0x1000, 0x1000, 1},
                                 {~zkAddr{0} - 0xF, 0x100, 4},
                                 {~zkAddr{0} - 0xFE, 0x100, 4},
                                 {0x1000, 0x1000, 0x7FFFFFFF}};
    for (auto [base, size, maxBlocks] : refused)
        EXPECT_EQ(Create(base, static_cast<uint32_t>(size), static_cast<uint32_t>(maxBlocks)),
                  nullptr)
            << base << " " << maxBlocks;
    MemoryPool* system = zkGetSystemMemoryPool();
    zkReleaseMemoryPool(system); // not through the pool call
    EXPECT_EQ(zkGetSystemMemoryPool(), system);
    MemoryPool* empty = Create(0x1000, 0, 4); // an empty range is allowed and holds nothing
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlock(empty, 1, 1), nullptr);
    EXPECT_EQ(zkQueryMemoryPoolInfo(empty, 3), 0u);
    for (int i = 1; i < 15; ++i)
        ASSERT_NE(Create(0x1000, 0x1000, 100), nullptr) << i;
    EXPECT_NE(zkAllocMemoryPoolBlock(pools_.back(), 16, 1), nullptr); // forgotten at release
    EXPECT_EQ(zkCreateMemoryPool(0x1000, 0x1000, 4), nullptr);
    for (MemoryPool* pool : pools_)
        zkReleaseMemoryPool(pool);
    pools_.clear();
    EXPECT_EQ(zkQueryMemoryInfo(9), used);
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
}

TEST_F(PoolTest, StaleNullAndForeignHandles) {
    MemoryPool* a = Create(0x1000, 0x1000, 4);
    MemoryPool* b = Create(0x1000, 0x1000, 4);
    MemoryBlock* inA = zkAllocMemoryPoolBlock(a, 16, 1);
    // Another pool's handle and the system-pool call are ignored.
    zkFreeMemoryPoolBlock(b, inA), zkFreeMemoryBlock(inA);
    EXPECT_EQ(zkFindMemoryPoolBlock(a, 0x1000), nullptr); // not even locked by the attempt
    EXPECT_EQ(zkQueryMemoryPoolInfo(a, 7), 2u);
    zkReleaseMemoryPool(a);
    ExpectPoolCallsInert(a); // released, with a block still in it
    EXPECT_EQ(zkQueryMemoryPoolInfo(b, 7), 1u);
}

} // namespace
} // namespace zktest
