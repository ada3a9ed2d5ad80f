// The system pool's allocation calls: rounding and alignment, zeroing, fixed
// and handle blocks, the default mode, hooks, categories and the allocation
// numbers they hand out.
#include "memory/memory_test_util.h"
#include "support/library_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <thread>
#include <vector>

namespace zktest {
namespace {

class SystemMemoryTest : public LibraryTest {
protected:
    void TearDown() override {
        zkSetAllocMode(0);
        zkSetAllocHook(nullptr);
        zkSetFreeHook(nullptr);
        LibraryTest::TearDown();
    }
};

zkAddr Used() {
    return zkQueryMemoryInfo(9);
}
zkAddr End() {
    return zkQueryMemoryInfo(5);
}

TEST_F(SystemMemoryTest, MallocOfZeroTakesSixtyFourBytesAndKeepsTheRequestedSize) {
    const zkAddr used = Used();
    void* p = zkMalloc(0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<zkAddr>(p) % 64, 0u);
    EXPECT_EQ(Used(), used + 64);
    EXPECT_EQ(SystemBlockAt(p).requested, 0u);
    void* q = zkMalloc(65);
    EXPECT_EQ(reinterpret_cast<zkAddr>(q) % 64, 0u);
    EXPECT_EQ(Used(), used + 64 + 128);
    EXPECT_EQ(SystemBlockAt(q).requested, 65u);
    zkFree(p);
    zkFreeSystemMemory(q);
    EXPECT_EQ(Used(), used);
}

TEST_F(SystemMemoryTest, FreeNeedsTheExactStartOfAFindableBlock) {
    const zkAddr blocks = zkQueryMemoryInfo(7);
    char* p = static_cast<char*>(zkMalloc(100));
    zkFree(p + 1);
    zkFree(nullptr);
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks + 1);
    zkFree(p);
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
    zkFree(p); // already free
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
}

TEST_F(SystemMemoryTest, ZeroFlagClearsTheRequestedBytes) {
    unsigned char* p = static_cast<unsigned char*>(zkMalloc(256));
    zkFillMemory(p, 256, 0xAA);
    zkFree(p);
    unsigned char* q = static_cast<unsigned char*>(zkMallocEx(200, ZK_ALLOC_ZERO));
    ASSERT_EQ(q, p); // best fit takes the same place again
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(q[i], 0) << i;
    EXPECT_EQ(q[200], 0xAA); // only the requested size is zeroed
    zkFree(q);

    MemoryBlock* h = zkAllocMemoryBlock(100, ZK_ALLOC_ZERO);
    unsigned char* r = static_cast<unsigned char*>(zkLockMemory(h));
    ASSERT_EQ(r, p);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(r[i], 0) << i;
    zkUnlockMemory(h);
    // The zeroing lock was given back: the block is not findable by address.
    EXPECT_EQ(zkFindMemoryPoolBlock(zkGetSystemMemoryPool(), reinterpret_cast<zkAddr>(r)), nullptr);
    zkFreeMemoryBlock(h);
}

TEST_F(SystemMemoryTest, HandleBlocksAreFreedByHandleOrByAddressWhileLocked) {
    const zkAddr blocks = zkQueryMemoryInfo(7);
    MemoryBlock* h = zkAllocMemoryBlock(100, 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(zkGetMemoryBlockSize(h), 100u);
    void* address = zkLockMemory(h);
    zkUnlockMemory(h);
    zkFree(address); // not findable while unlocked
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks + 1);
    EXPECT_EQ(zkLockMemory(h), address);
    zkFree(address);
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
    EXPECT_EQ(zkLockMemory(h), nullptr); // freed handle

    MemoryBlock* g = zkAllocMemoryBlock(10, 0);
    zkFreeMemoryBlock(g);
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
    zkFreeMemoryBlock(g);
    zkFreeMemoryBlock(nullptr);
    EXPECT_EQ(zkLockMemory(nullptr), nullptr);
    EXPECT_EQ(zkGetMemoryBlockSize(nullptr), 0u);
    zkUnlockMemory(nullptr);
}

TEST_F(SystemMemoryTest, DefaultModeSteersMallocButNotHandleBlocks) {
    EXPECT_EQ(zkSetAllocMode(5), 0u); // unknown: unchanged
    EXPECT_EQ(zkSetAllocMode(2), 0u);
    EXPECT_EQ(zkSetAllocMode(5), 2u);
    void* top = zkMalloc(100);
    EXPECT_EQ(reinterpret_cast<zkAddr>(top) + 128, End());
    // Handle blocks ignore the default mode even when ZK_ALLOC_DEFAULT is set.
    MemoryBlock* h = zkAllocMemoryBlock(100, ZK_ALLOC_DEFAULT);
    EXPECT_LT(reinterpret_cast<zkAddr>(zkLockMemory(h)) + 0x100000, End());
    zkFreeMemoryBlock(h);
    // Without ZK_ALLOC_DEFAULT zkMallocEx searches best fit.
    void* fit = zkMallocEx(64, 0);
    EXPECT_LT(reinterpret_cast<zkAddr>(fit) + 0x100000, End());
    // A caller's own ZK_ALLOC_TOP works without any default mode.
    EXPECT_EQ(zkSetAllocMode(0), 2u);
    void* high = zkMallocEx(64, ZK_ALLOC_TOP);
    EXPECT_EQ(reinterpret_cast<zkAddr>(high) + 64, reinterpret_cast<zkAddr>(top));
    // Lowest address: the first fitting gap from the bottom.
    EXPECT_EQ(zkSetAllocMode(1), 0u);
    const std::vector<Range> gaps = GapsOf(zkGetSystemMemoryPool());
    ASSERT_FALSE(gaps.empty());
    void* low = zkMalloc(64);
    EXPECT_EQ(reinterpret_cast<zkAddr>(low), gaps.front().start);
    EXPECT_EQ(zkSetAllocMode(0), 1u);
    EXPECT_EQ(zkSetAllocMode(0), 0u);
    for (void* p : {low, high, fit, top})
        zkFree(p);
}

std::vector<std::pair<uint32_t, uint32_t>> g_allocSeen;
std::vector<uint32_t> g_freeSeen;
bool g_refuse = false;
int32_t ZK_CALL AllocHook(uint32_t size, uint32_t number) {
    g_allocSeen.push_back({size, number});
    return g_refuse ? 0 : 1;
}
int32_t ZK_CALL FreeHook(void*, uint32_t size, uint32_t) {
    g_freeSeen.push_back(size);
    return g_refuse ? 0 : 1;
}
int32_t ZK_CALL OtherAllocHook(uint32_t, uint32_t) {
    return 1;
}

TEST_F(SystemMemoryTest, HooksSeeAndMayRefuse) {
    g_allocSeen.clear();
    g_freeSeen.clear();
    g_refuse = false;
    EXPECT_EQ(zkSetAllocHook(AllocHook), nullptr);
    EXPECT_EQ(zkSetFreeHook(FreeHook), nullptr);
    void* a = zkMalloc(10);
    g_refuse = true;
    EXPECT_EQ(zkMalloc(20), nullptr);
    EXPECT_EQ(zkAllocMemoryBlock(30, 0), nullptr);
    const zkAddr blocks = zkQueryMemoryInfo(7);
    zkFree(a); // refused: stays allocated
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
    g_refuse = false;
    void* b = zkMalloc(40);
    ASSERT_EQ(g_allocSeen.size(), 4u);
    EXPECT_EQ(g_allocSeen[0].first, 10u);
    EXPECT_EQ(g_allocSeen[1], std::make_pair(20u, g_allocSeen[0].second + 1));
    // Refused allocations do not advance the counter.
    EXPECT_EQ(g_allocSeen[2].second, g_allocSeen[0].second + 1);
    EXPECT_EQ(g_allocSeen[3].second, g_allocSeen[0].second + 1);
    EXPECT_EQ(SystemBlockAt(b).number, g_allocSeen[0].second + 1);
    zkFree(a);
    zkFree(b);
    EXPECT_EQ(g_freeSeen, (std::vector<uint32_t>{10, 10, 40}));
    EXPECT_EQ(zkSetAllocHook(OtherAllocHook), &AllocHook);
    EXPECT_EQ(zkSetAllocHook(nullptr), &OtherAllocHook);
    EXPECT_EQ(zkSetFreeHook(nullptr), &FreeHook);
}

TEST_F(SystemMemoryTest, AllocationNumbersRunOnAndBreakNumberChangesNothing) {
    void* a = zkMalloc(1);
    zkSetBreakAlloc(SystemBlockAt(a).number + 1);
    void* b = zkMalloc(1);
    void* c = zkAllocateSystemMemory(1, 0, 3);
    EXPECT_EQ(SystemBlockAt(b).number, SystemBlockAt(a).number + 1);
    EXPECT_EQ(SystemBlockAt(c).number, SystemBlockAt(a).number + 2);
    zkFree(a);
    zkFree(b);
    zkFree(c);
}

TEST_F(SystemMemoryTest, CategoryKeepsTheLowSixteenBits) {
    zkSetAllocMode(2); // two adjacent blocks at the top of the pool
    void* a = zkAllocateSystemMemory(64, ZK_ALLOC_DEFAULT, 0x10009);
    void* b = zkAllocateSystemMemory(64, ZK_ALLOC_DEFAULT, 9);
    void* c = zkAllocateSystemMemory(64, ZK_ALLOC_DEFAULT, 5);
    ASSERT_EQ(reinterpret_cast<zkAddr>(a), End() - 64);
    const std::vector<Range> ranges = CategoriesOf(zkGetSystemMemoryPool());
    ASSERT_GE(ranges.size(), 2u);
    EXPECT_EQ(ranges[ranges.size() - 1], (Range{End() - 128, 128, 9}));
    EXPECT_EQ(ranges[ranges.size() - 2], (Range{reinterpret_cast<zkAddr>(c), 64, 5}));
    zkFree(a);
    zkFree(b);
    zkFree(c);
}

TEST_F(SystemMemoryTest, DescriptorsOfTheSystemPoolRunOut) {
    std::vector<void*> blocks;
    for (;;) {
        void* p = zkMalloc(1);
        if (!p) break;
        blocks.push_back(p);
    }
    MemoryInfo info{};
    zkGetMemoryInfo(&info);
    EXPECT_EQ(info.blockCount, 1024u);
    EXPECT_EQ(info.maxBlockCount, 1024u);
    EXPECT_EQ(info.free, info.size - info.used);
    EXPECT_GT(info.free, 1u << 20);
    for (void* p : blocks)
        zkFree(p);
}

// The concurrency suites also run under ThreadSanitizer.
using SystemMemoryConcurrency = SystemMemoryTest;

TEST_F(SystemMemoryConcurrency, ThreadsAllocateAndFreeAtTheSameTime) {
    const zkAddr used = Used();
    const zkAddr blocks = zkQueryMemoryInfo(7);
    MemoryPool* pool = zkCreateMemoryPool(0x10000, 0x100000, 200);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([t, pool] {
            std::vector<void*> mine;
            std::vector<MemoryBlock*> handles;
            uint32_t seed = t * 7919 + 1;
            for (int i = 0; i < 20000; ++i) {
                seed = seed * 1103515245u + 12345u;
                if ((seed >> 16) % 3 != 0 || mine.empty()) {
                    if (void* p = zkMalloc((seed >> 8) % 3000)) mine.push_back(p);
                    MemoryBlock* h = zkAllocMemoryPoolBlock(pool, (seed >> 4) % 500, 8);
                    if (h) {
                        zkLockMemoryPoolBlock(h);
                        handles.push_back(h);
                    }
                } else {
                    zkFree(mine.back());
                    mine.pop_back();
                    if (!handles.empty()) {
                        zkUnlockMemoryPoolBlock(handles.back());
                        zkFreeMemoryPoolBlock(pool, handles.back());
                        handles.pop_back();
                    }
                }
            }
            for (void* p : mine)
                zkFree(p);
            for (MemoryBlock* h : handles)
                zkFreeMemoryPoolBlock(pool, h);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 7), 1u);
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 3), 1u);
    zkReleaseMemoryPool(pool);
    EXPECT_EQ(Used(), used);
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
}

TEST(MemoryUtilities, FillZeroCopyAndCopyString) {
    unsigned char buffer[16];
    for (uint32_t count = 0; count <= 9; ++count) {
        std::fill(std::begin(buffer), std::end(buffer), 0x11);
        zkFillMemory(buffer + 1, count, 0xC3);
        for (uint32_t i = 0; i < 16; ++i)
            EXPECT_EQ(buffer[i], i >= 1 && i <= count ? 0xC3 : 0x11) << count << " " << i;
        zkZeroMemory(buffer + 1, count);
        for (uint32_t i = 0; i < 16; ++i)
            EXPECT_EQ(buffer[i], i >= 1 && i <= count ? 0 : 0x11) << count << " " << i;
    }
    const unsigned char source[11] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    for (uint32_t count = 0; count <= 11; ++count) {
        std::fill(std::begin(buffer), std::end(buffer), 0xEE);
        zkCopyMemory(buffer + 3, source, count);
        for (uint32_t i = 0; i < 16; ++i)
            EXPECT_EQ(buffer[i], i >= 3 && i < 3 + count ? source[i - 3] : 0xEE) << count;
    }

    char text[8];
    EXPECT_EQ(zkCopyString(text, 7, 0, "abc"), 3u);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(zkCopyString(text, 7, 3, "defghij"), 7u); // stops at the limit
    EXPECT_STREQ(text, "abcdefg");
    EXPECT_EQ(zkCopyString(text, 7, 7, "xyz"), 7u); // start at the limit: only a terminator
    EXPECT_STREQ(text, "abcdefg");
    EXPECT_EQ(zkCopyString(text, 7, 2, ""), 2u);
    EXPECT_STREQ(text, "ab");
}

} // namespace
} // namespace zktest
