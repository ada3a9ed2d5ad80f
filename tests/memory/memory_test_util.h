// Small helpers shared by the memory tests: a block's address without a
// lasting lock, walks collected into vectors, and a fixture for pools.
#ifndef ZK_TESTS_MEMORY_MEMORY_TEST_UTIL_H
#define ZK_TESTS_MEMORY_MEMORY_TEST_UTIL_H

#include "support/library_test.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace zktest {

struct Range {
    uint64_t start, length;
    uint32_t category = 0;
    bool operator==(const Range&) const = default;
};

struct BlockSeen {
    uint64_t address;
    uint32_t requested, number;
    bool operator==(const BlockSeen&) const = default;
};

template <typename... Args> std::string Format(const char* format, Args... args) {
    char text[160];
    return std::snprintf(text, sizeof(text), format, args...), text;
}

// The block's address (0 for null); the lock taken to read it is given back.
inline uint64_t AddressOf(MemoryBlock* block) {
    const uint64_t address = reinterpret_cast<zkAddr>(zkLockMemoryPoolBlock(block));
    zkUnlockMemoryPoolBlock(block);
    return address;
}

inline int32_t ZK_CALL CollectRange(zkAddr start, uint32_t length, void* user) {
    return static_cast<std::vector<Range>*>(user)->push_back({start, length}), 1;
}
inline int32_t ZK_CALL CollectCategory(zkAddr start, uint32_t length, uint32_t category,
                                       void* user) {
    return static_cast<std::vector<Range>*>(user)->push_back({start, length, category}), 1;
}
inline int32_t ZK_CALL CollectBlock(zkAddr address, uint32_t requested, uint32_t number,
                                    void* user) {
    return static_cast<std::vector<BlockSeen>*>(user)->push_back({address, requested, number}), 1;
}

// What a walk reports, collected: Walk(zkEnumerateMemoryPoolGaps, CollectRange, pool).
template <typename Item, typename Callback>
std::vector<Item> Walk(uint32_t(ZK_CALL* walk)(MemoryPool*, Callback, void*), Callback callback,
                       MemoryPool* pool) {
    std::vector<Item> out;
    return walk(pool, callback, &out), out;
}
inline std::vector<Range> GapsOf(MemoryPool* pool) {
    return Walk<Range>(zkEnumerateMemoryPoolGaps, CollectRange, pool);
}
inline std::vector<Range> UsedOf(MemoryPool* pool) {
    return Walk<Range>(zkEnumerateMemoryPoolUsed, CollectRange, pool);
}
inline std::vector<Range> CategoriesOf(MemoryPool* pool) {
    return Walk<Range>(zkEnumerateMemoryPoolCategory, CollectCategory, pool);
}
inline std::vector<BlockSeen> BlocksOf(MemoryPool* pool) {
    return Walk<BlockSeen>(zkEnumerateMemoryPoolBlocks, CollectBlock, pool);
}

// The system-pool block that starts at address, as the block walk sees it.
inline BlockSeen SystemBlockAt(const void* address) {
    for (const BlockSeen& b : BlocksOf(zkGetSystemMemoryPool()))
        if (b.address == reinterpret_cast<zkAddr>(address)) return b;
    return {0, 0, 0};
}

// The library fixture plus application pools released at tear-down, and the
// system pool's mode and hooks put back.
class PoolTest : public LibraryTest {
protected:
    MemoryPool* Create(zkAddr base, uint32_t size, uint32_t maxBlocks) {
        MemoryPool* pool = zkCreateMemoryPool(base, size, maxBlocks);
        if (pool) pools_.push_back(pool);
        return pool;
    }
    void TearDown() override {
        for (MemoryPool* pool : pools_)
            zkReleaseMemoryPool(pool);
        zkSetAllocMode(0), zkSetAllocHook(nullptr), zkSetFreeHook(nullptr);
        LibraryTest::TearDown();
    }
    std::vector<MemoryPool*> pools_;
};

// Every pool call on a stale pool handle does nothing and answers 0 or null.
inline void ExpectPoolCallsInert(MemoryPool* pool) {
    std::vector<Range> seen;
    std::vector<BlockSeen> blocks;
    TraceCapture trace;
    EXPECT_EQ(zkAllocMemoryPoolBlock(pool, 16, 1), nullptr);
    EXPECT_EQ(zkAllocMemoryPoolBlockEx(pool, 16, 1, ZK_ALLOC_TOP), nullptr);
    EXPECT_EQ(zkFindMemoryPoolBlock(pool, 0x1000), nullptr);
    EXPECT_EQ(zkEnumerateMemoryPoolBlocks(pool, CollectBlock, &blocks) +
                  zkEnumerateMemoryPoolGaps(pool, CollectRange, &seen) +
                  zkEnumerateMemoryPoolUsed(pool, CollectRange, &seen) +
                  zkEnumerateMemoryPoolCategory(pool, CollectCategory, &seen) +
                  zkDumpAllMemoryPoolBlocks(pool, 0) + zkDumpAllMemoryPoolGaps(pool, 0),
              0u);
    for (uint32_t code = 1; code <= 10; ++code)
        EXPECT_EQ(zkQueryMemoryPoolInfo(pool, code), 0u) << code;
    zkReleaseMemoryPool(pool);
    EXPECT_TRUE(seen.empty() && blocks.empty() && trace.Lines().empty());
}

} // namespace zktest

#endif // ZK_TESTS_MEMORY_MEMORY_TEST_UTIL_H
