// The system pool's allocation calls: rounding and alignment, zeroing, fixed
// and handle blocks, the default mode, hooks and allocation numbers, many
// threads at once, and the memory utilities.
#include "memory/memory_test_util.h"

#include <algorithm>
#include <cstring>
#include <thread>

#if defined(__SANITIZE_ADDRESS__)
#define ZK_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZK_TEST_ASAN 1
#endif
#endif

namespace zktest {
namespace {

using SystemMemoryTest = PoolTest;

zkAddr Used() {
    return zkQueryMemoryInfo(9);
}

TEST_F(SystemMemoryTest, RoundingZeroingAndTheTwoWaysBack) {
    const zkAddr used = Used();
    for (auto [size, rounded] : {std::pair{0u, 64u}, {1u, 64u}, {65u, 128u}}) {
        char* p = static_cast<char*>(zkMalloc(size));
        EXPECT_EQ(reinterpret_cast<zkAddr>(p) % 64 + Used() - used, rounded) << size;
        EXPECT_EQ(SystemBlockAt(p).requested, size);
        zkFree(p + 1), zkFree(nullptr); // not the start of a block: nothing
        EXPECT_EQ(Used() - used, rounded);
        zkFreeSystemMemory(p), zkFree(p); // the second is of a free block
    }
    unsigned char* p = static_cast<unsigned char*>(zkMalloc(256));
    zkFillMemory(p, 256, 0xAA), zkFree(p);
    EXPECT_EQ(zkMallocEx(200, ZK_ALLOC_ZERO), p); // best fit takes the same place again
    EXPECT_EQ(std::count(p, p + 200, 0), 200);    // the requested size is zeroed ...
    zkFree(p);
    EXPECT_EQ(zkMalloc(256), p); // ... and nothing after it
    EXPECT_EQ(std::count(p + 200, p + 256, 0xAA), 56);
    zkFree(p);
    MemoryBlock* h = zkAllocMemoryBlock(100, ZK_ALLOC_ZERO);
    EXPECT_EQ(std::count(p, p + 100, 0) + zkGetMemoryBlockSize(h), 200u);
    zkFree(p); // the zeroing lock was given back: not findable by address
    EXPECT_EQ(Used(), used + 128);
    EXPECT_EQ(zkLockMemory(h), p);
    zkFree(p);
    EXPECT_EQ(zkLockMemory(h), nullptr); // freed handle
    MemoryBlock* g = zkAllocMemoryBlock(10, 0);
    zkFreeMemoryBlock(g), zkFreeMemoryBlock(g), zkFreeMemoryBlock(nullptr);
    EXPECT_EQ(Used(), used);
}

TEST_F(SystemMemoryTest, DefaultModeSteersMallocButNotHandleBlocks) {
    for (auto [mode, previous] : {std::pair{5u, 0u}, {2u, 0u}, {5u, 2u}}) // 5: unchanged
        EXPECT_EQ(zkSetAllocMode(mode), previous) << mode;
    const zkAddr end = zkQueryMemoryInfo(5);
    void* top = zkMalloc(100);
    EXPECT_EQ(reinterpret_cast<zkAddr>(top) + 128, end);
    MemoryBlock* h = zkAllocMemoryBlock(100, ZK_ALLOC_DEFAULT); // best fit all the same
    EXPECT_LT(reinterpret_cast<zkAddr>(zkLockMemory(h)) + 0x100000, end);
    void* fit = zkMallocEx(64, 0); // without ZK_ALLOC_DEFAULT: best fit
    EXPECT_LT(reinterpret_cast<zkAddr>(fit) + 0x100000, end);
    EXPECT_EQ(zkSetAllocMode(1), 2u);
    void* high = zkMallocEx(64, ZK_ALLOC_TOP); // the caller's own flag
    EXPECT_EQ(reinterpret_cast<zkAddr>(high) + 64, reinterpret_cast<zkAddr>(top));
    const uint64_t lowest = GapsOf(zkGetSystemMemoryPool()).front().start;
    void* low = zkMalloc(64);
    EXPECT_EQ(reinterpret_cast<zkAddr>(low), lowest);
    EXPECT_EQ(zkSetAllocMode(0), 1u);
    zkFree(low), zkFree(high), zkFree(fit), zkFree(top), zkFreeMemoryBlock(h);
}

std::vector<std::pair<uint32_t, uint32_t>> g_allocSeen;
std::vector<uint32_t> g_freeSeen;
bool g_refuse = false;
int32_t ZK_CALL AllocHook(uint32_t size, uint32_t number) {
    g_allocSeen.push_back({size, number});
    return !g_refuse;
}
int32_t ZK_CALL FreeHook(void*, uint32_t size, uint32_t) {
    g_freeSeen.push_back(size);
    return !g_refuse;
}

TEST_F(SystemMemoryTest, HooksSeeAndMayRefuseAndRefusalsTakeNoNumber) {
    EXPECT_TRUE(zkSetAllocHook(AllocHook) == nullptr && zkSetFreeHook(FreeHook) == nullptr);
    void* a = zkMalloc(10);
    g_refuse = true;
    EXPECT_EQ(zkMalloc(20), nullptr);
    EXPECT_EQ(zkAllocMemoryBlock(30, 0), nullptr);
    zkFree(a); // refused: stays allocated
    EXPECT_EQ(SystemBlockAt(a).requested, 10u);
    g_refuse = false;
    zkSetBreakAlloc(g_allocSeen[0].second + 1); // stored, changes nothing
    void* b = zkAllocateSystemMemory(40, 0, 3);
    const uint32_t n = g_allocSeen[0].second;
    EXPECT_EQ(g_allocSeen, (std::vector<std::pair<uint32_t, uint32_t>>{
                               {10, n}, {20, n + 1}, {30, n + 1}, {40, n + 1}}));
    EXPECT_EQ(SystemBlockAt(b).number, n + 1);
    zkFree(a), zkFree(b);
    EXPECT_EQ(g_freeSeen, (std::vector<uint32_t>{10, 10, 40}));
    EXPECT_TRUE(zkSetAllocHook(nullptr) == &AllocHook && zkSetFreeHook(nullptr) == &FreeHook);
}

// The concurrency suites also run under ThreadSanitizer.
using SystemMemoryConcurrency = PoolTest;

TEST_F(SystemMemoryConcurrency, ThreadsAllocateAndFreeAtTheSameTime) {
    const zkAddr used = Used(), blocks = zkQueryMemoryInfo(7);
    MemoryPool* pool = zkCreateMemoryPool(0x10000, 0x100000, 200);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([t, pool] {
            std::vector<std::pair<void*, MemoryBlock*>> mine;
            uint32_t seed = t * 7919 + 1;
            for (int i = 0; i < 20000; ++i) {
                seed = seed * 1103515245u + 12345u;
                if ((seed >> 16) % 3 != 0 || mine.empty()) {
                    MemoryBlock* h = zkAllocMemoryPoolBlock(pool, (seed >> 4) % 500, 8);
                    zkLockMemoryPoolBlock(h);
                    mine.push_back({zkMalloc((seed >> 8) % 3000), h});
                    continue;
                }
                zkFree(mine.back().first);
                zkUnlockMemoryPoolBlock(mine.back().second);
                zkFreeMemoryPoolBlock(pool, mine.back().second);
                mine.pop_back();
            }
            for (auto [p, h] : mine)
                zkFree(p), zkFreeMemoryPoolBlock(pool, h);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(zkQueryMemoryPoolInfo(pool, 7) + zkQueryMemoryPoolInfo(pool, 3), 2u);
    zkReleaseMemoryPool(pool);
    EXPECT_EQ(Used(), used);
    EXPECT_EQ(zkQueryMemoryInfo(7), blocks);
}

// (zkCopyString: Strings.CopyStaysWithinLimitPlusOneBytes.)
TEST(MemoryUtilities, FillZeroAndCopy) {
    const unsigned char source[11] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    for (uint32_t count = 0; count <= 11; ++count) { // whole words, then the 0-3 left
        unsigned char buffer[16], expected[16];
        std::memset(buffer, 0x11, 16), std::memset(expected, 0x11, 16);
        zkFillMemory(buffer + 1, count, 0xC3), std::memset(expected + 1, 0xC3, count);
        zkZeroMemory(buffer + 2, count), std::memset(expected + 2, 0, count);
        zkCopyMemory(buffer + 3, source, count), std::memcpy(expected + 3, source, count);
        EXPECT_EQ(std::memcmp(buffer, expected, 16), 0) << count;
    }
}

#if defined(ZK_TEST_ASAN)
// Under the address sanitizer the system pool marks its free bytes: one byte
// read past a block's requested size, or from a freed block, is reported.
// Reads inside the block are not, and bytes come back usable with the next
// block placed there.
volatile char g_sink;

TEST_F(SystemMemoryTest, TheSanitizerSeesReadsPastABlockAndAfterItsRelease) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char* p = static_cast<char*>(zkMalloc(100));
    ASSERT_NE(p, nullptr);
    g_sink = p[0];
    g_sink = p[99];
    EXPECT_DEATH(g_sink = p[100], "use-after-poison");
    zkFree(p);
    EXPECT_DEATH(g_sink = p[0], "use-after-poison");
    char* q = static_cast<char*>(zkMalloc(100));
    g_sink = q[99];
    zkFree(q);
}
#endif

} // namespace
} // namespace zktest
