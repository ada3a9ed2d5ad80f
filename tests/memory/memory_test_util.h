// Small helpers shared by the memory tests: a block's address without a
// lasting lock, and walks collected into vectors.
#ifndef ZK_TESTS_MEMORY_MEMORY_TEST_UTIL_H
#define ZK_TESTS_MEMORY_MEMORY_TEST_UTIL_H

#include "support/library_test.h"

#include <cstdint>
#include <vector>

namespace zktest {

struct Range {
    uint64_t start;
    uint64_t length;
    uint32_t category = 0;
    bool operator==(const Range&) const = default;
};

struct BlockSeen {
    uint64_t address;
    uint32_t requested;
    uint32_t number;
};

// The block's address; the lock taken to read it is given back at once.
inline uint64_t AddressOf(MemoryBlock* block) {
    const uint64_t address = reinterpret_cast<zkAddr>(zkLockMemoryPoolBlock(block));
    zkUnlockMemoryPoolBlock(block);
    return address;
}

inline int32_t ZK_CALL CollectRange(zkAddr start, uint32_t length, void* user) {
    static_cast<std::vector<Range>*>(user)->push_back({start, length});
    return 1;
}

inline std::vector<Range> GapsOf(MemoryPool* pool) {
    std::vector<Range> out;
    zkEnumerateMemoryPoolGaps(pool, CollectRange, &out);
    return out;
}

inline std::vector<Range> UsedOf(MemoryPool* pool) {
    std::vector<Range> out;
    zkEnumerateMemoryPoolUsed(pool, CollectRange, &out);
    return out;
}

inline int32_t ZK_CALL CollectCategory(zkAddr start, uint32_t length, uint32_t category,
                                       void* user) {
    static_cast<std::vector<Range>*>(user)->push_back({start, length, category});
    return 1;
}

inline int32_t ZK_CALL CollectBlock(zkAddr address, uint32_t requested, uint32_t number,
                                    void* user) {
    static_cast<std::vector<BlockSeen>*>(user)->push_back({address, requested, number});
    return 1;
}

inline std::vector<Range> CategoriesOf(MemoryPool* pool) {
    std::vector<Range> out;
    zkEnumerateMemoryPoolCategory(pool, CollectCategory, &out);
    return out;
}

inline std::vector<BlockSeen> BlocksOf(MemoryPool* pool) {
    std::vector<BlockSeen> out;
    zkEnumerateMemoryPoolBlocks(pool, CollectBlock, &out);
    return out;
}

// The library fixture plus application pools released at tear-down.
class PoolTest : public LibraryTest {
protected:
    MemoryPool* Create(zkAddr base, uint32_t size, uint32_t maxBlocks) {
        MemoryPool* pool = zkCreateMemoryPool(base, size, maxBlocks);
        if (pool) pools_.push_back(pool);
        return pool;
    }
    // Fills the table of 15 application pools (fails the test if it cannot).
    void CreateFifteenPools() {
        for (int i = 0; i < 15; ++i)
            ASSERT_NE(Create(0x1000, 0x1000, 4), nullptr) << i;
    }
    void TearDown() override {
        for (MemoryPool* pool : pools_)
            zkReleaseMemoryPool(pool);
        LibraryTest::TearDown();
    }
    std::vector<MemoryPool*> pools_;
};

// Every pool call on a stale pool handle does nothing and answers 0 or null.
inline void ExpectPoolCallsInert(MemoryPool* pool) {
    int calls = 0;
    auto count = [](zkAddr, uint32_t, void* user) -> int32_t { return ++*static_cast<int*>(user); };
    auto countBlock = [](zkAddr, uint32_t, uint32_t, void* user) -> int32_t {
        return ++*static_cast<int*>(user);
    };
    TraceCapture trace;
    EXPECT_EQ(zkAllocMemoryPoolBlock(pool, 16, 1), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlockEx(pool, 16, 1, ZK_ALLOC_TOP), nullptr);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), nullptr);
    EXPECT_EQ(zkEnumerateMemoryPoolBlocks(pool, countBlock, &calls), 0u);
    EXPECT_EQ(zkEnumerateMemoryPoolGaps(pool, count, &calls), 0u);
    EXPECT_EQ(zkEnumerateMemoryPoolUsed(pool, count, &calls), 0u);
    EXPECT_EQ(zkEnumerateMemoryPoolCategory(pool, countBlock, &calls), 0u);
    EXPECT_EQ(zkDumpAllMemoryPoolBlocks(pool, 0), 0u);
    EXPECT_EQ(zkDumpAllMemoryPoolGaps(pool, 0), 0u);
    for (uint32_t code = 1; code <= 10; ++code)
        EXPECT_EQ(zkQueryMemoryPoolInfo(pool, code), 0u) << code;
    MemoryInfo info{7, 7, 7, 7, 7};
    zkGetMemoryPoolInfo(pool, &info);
    EXPECT_EQ(info.size + info.used + info.free + info.blockCount + info.maxBlockCount, 35u);
    zkFreeMemoryPoolBlock(pool, nullptr);
    zkSetMemoryPoolAllocMode(pool, 2);
    zkSetMemoryPoolCheckpoint(pool, 1);
    zkSetBreakPoolAlloc(pool, 1);
    zkReleaseMemoryPool(pool);
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(trace.Lines().empty());
}

// The system-pool block that starts at address, as the block walk sees it.
inline BlockSeen SystemBlockAt(const void* address) {
    for (const BlockSeen& b : BlocksOf(zkGetSystemMemoryPool()))
        if (b.address == reinterpret_cast<zkAddr>(address)) return b;
    return {0, 0, 0};
}

} // namespace zktest

#endif // ZK_TESTS_MEMORY_MEMORY_TEST_UTIL_H
