// The heap engine compiled into the test program itself, for what no export
// reaches: the allocation counter's wrap, and the internal invariants (gap
// buckets, free descriptor list) after long random sequences.
#include "memory/memory_manager.h"
#include "memory/memory_pool.h"
#include "platform/platform.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

// Reaches the engine's private state (declared a friend by MemoryPool).
struct MemoryPoolTestAccess {
    static void SetCounter(MemoryPool& pool, uint32_t value) { pool.allocationCounter_ = value; }

    // Checks every invariant the engine promises; returns a description of
    // the first one broken, or an empty string.
    static std::string Check(const MemoryPool& pool) {
        const MemoryBlock* head = pool.descriptors_;
        if (!(head->flags & ZK_BLOCK_IN_USE) || head->address != pool.base_ || head->size != 0)
            return "head block";
        uint64_t gaps = 0, used = 0;
        uint32_t blocks = 0, withGap = 0;
        const MemoryBlock* last = nullptr;
        for (const MemoryBlock* b = head; b; b = b->next) {
            ++blocks;
            if (!(b->flags & ZK_BLOCK_IN_USE)) return "block not in use in the list";
            if (b != head && b->size == 0) return "empty block";
            if (b->previous != last) return "previous link";
            const zkAddr end = b->address + b->size + b->gapAfter;
            if (b->next ? end != b->next->address : end != pool.base_ + pool.size_)
                return "address + size + gap does not reach the next block";
            if (b != head && b->next && b->next->address <= b->address) return "address order";
            gaps += b->gapAfter;
            used += b->size;
            if (b->gapAfter) {
                ++withGap;
                bool found = false;
                for (const MemoryBlock* e = pool.buckets_[zk::SizeClass(b->gapAfter)]; e;
                     e = e->bucketNext)
                    found |= e == b;
                if (!found) return "gap missing from its bucket";
            }
            last = b;
        }
        if (last != pool.last_) return "last pointer";
        if (blocks != pool.blockCount_) return "block count";
        if (used != pool.used_ || used + gaps != pool.size_) return "used + gaps != size";
        uint32_t inBuckets = 0;
        for (uint32_t c = 0; c < zk::kGapBucketCount; ++c) {
            const MemoryBlock* before = nullptr;
            for (const MemoryBlock* e = pool.buckets_[c]; e; e = e->bucketNext) {
                ++inBuckets;
                if (e->bucketPrevious != before) return "bucket back link";
                if (zk::SizeClass(e->gapAfter) != c || e->gapAfter == 0)
                    return "gap in wrong bucket";
                if (before && before->gapAfter > e->gapAfter) return "bucket not ascending";
                before = e;
            }
        }
        if (inBuckets != withGap || inBuckets != pool.gapCount_) return "gap count";
        uint32_t freeCount = 0;
        const MemoryBlock* before = nullptr;
        for (const MemoryBlock* f = pool.freeDescriptors_; f; f = f->next) {
            ++freeCount;
            if (f->flags != 0 || f->previous != before) return "free descriptor list";
            before = f;
        }
        if (freeCount + blocks != pool.descriptorCount_) return "descriptor count";
        if (pool.allocationCounter_ == 0) return "counter is 0";
        uint32_t indexed = 0;
        for (uint32_t i = 0; i <= pool.indexMask_; ++i)
            indexed += pool.index_[i] != nullptr;
        if (indexed + 1 != pool.blockCount_) return "address index count";
        for (const MemoryBlock* b = head->next; b; b = b->next)
            if (pool.IndexFind(b->address) != b) return "block missing from the address index";
        return {};
    }
};

namespace {

class TableStore final : public zk::DescriptorStore {
public:
    explicit TableStore(uint32_t descriptors) : table_(MemoryPool::TableDescriptors(descriptors)) {}
    void* Allocate(uint32_t count) override {
        return count <= table_.size() ? table_.data() : nullptr;
    }
    void Free(void*) override { ++frees; }
    int frees = 0;

private:
    std::vector<MemoryBlock> table_;
};

uint32_t g_hookCalls = 0;
uint32_t g_lastHookNumber = 0;
int32_t ZK_CALL RecordNumber(uint32_t, uint32_t number) {
    ++g_hookCalls;
    g_lastHookNumber = number;
    return 1;
}
int32_t ZK_CALL Refuse(uint32_t, uint32_t) {
    return 0;
}

TEST(MemoryEngine, AllocationCounterWrapsToOneNeverZero) {
    TableStore store(8);
    MemoryPool pool;
    ASSERT_EQ(pool.Initialize(0x1000, 0x1000, 8, store), 0);
    EXPECT_EQ(pool.AllocationCounter(), 1u);
    MemoryPoolTestAccess::SetCounter(pool, 0xFFFFFFFEu);
    pool.SetAllocHook(RecordNumber);

    MemoryBlock* a = pool.Allocate(16, 4, 0, 0);
    MemoryBlock* b = pool.Allocate(16, 4, 0, 0);
    EXPECT_EQ(g_lastHookNumber, 0xFFFFFFFFu); // the hook sees the number b receives
    MemoryBlock* c = pool.Allocate(16, 4, 0, 0);
    EXPECT_EQ(g_lastHookNumber, 1u);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(a->allocationNumber, 0xFFFFFFFEu);
    EXPECT_EQ(b->allocationNumber, 0xFFFFFFFFu);
    EXPECT_EQ(c->allocationNumber, 1u);
    EXPECT_EQ(pool.AllocationCounter(), 2u);
    EXPECT_EQ(MemoryPoolTestAccess::Check(pool), "");
    pool.Destroy(store);
    EXPECT_EQ(store.frees, 1);
}

TEST(MemoryEngine, RefusedAllocationLeavesCounterAndPoolAlone) {
    TableStore store(4);
    MemoryPool pool;
    ASSERT_EQ(pool.Initialize(0x1000, 0x1000, 4, store), 0);
    pool.SetAllocHook(Refuse);
    EXPECT_EQ(pool.Allocate(16, 4, 0, 0), nullptr);
    EXPECT_EQ(pool.AllocationCounter(), 1u);
    EXPECT_EQ(pool.BlockCount(), 1u);
    pool.SetAllocHook(nullptr);
    MemoryBlock* a = pool.Allocate(16, 4, 0, 0);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->allocationNumber, 1u);
    pool.Destroy(store);
}

TEST(MemoryEngine, InitializeRefusesFewerThanTwoDescriptorsAndMissingRoom) {
    TableStore store(4);
    MemoryPool pool;
    EXPECT_EQ(pool.Initialize(0x1000, 0x1000, 1, store), ZK_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(pool.Initialize(0x1000, 0x1000, 0, store), ZK_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(pool.Initialize(0x1000, 0x1000, 5, store), ZK_ERR_NO_MEMORY);
}

TEST(MemoryEngine, SizeClasses) {
    EXPECT_EQ(zk::SizeClass(0), 0u);
    EXPECT_EQ(zk::SizeClass(1), 0u);
    EXPECT_EQ(zk::SizeClass(2), 1u);
    EXPECT_EQ(zk::SizeClass(3), 1u);
    EXPECT_EQ(zk::SizeClass(4), 2u);
    EXPECT_EQ(zk::SizeClass(0x80000000u), 31u);
    EXPECT_EQ(zk::SizeClass(0xFFFFFFFFu), 31u);
}

TEST(MemoryEngine, RoundedSizeThatCannotBeDescribedFails) {
    TableStore store(4);
    MemoryPool pool;
    ASSERT_EQ(pool.Initialize(0, 0xFFFFFFFFu, 4, store), 0);
    EXPECT_EQ(pool.Allocate(0xFFFFFFF0u, 64, ZK_ALLOC_ROUND, 0), nullptr);
    MemoryBlock* b = pool.Allocate(0xFFFFFFF0u, 64, 0, 0);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->size, 0xFFFFFFF0u);
    EXPECT_EQ(MemoryPoolTestAccess::Check(pool), "");
    pool.Destroy(store);
}

// Random allocate / release / lock sequences in every search mode keep every
// invariant after every step.
TEST(MemoryEngine, InvariantsHoldThroughRandomSequences) {
    std::mt19937 rng(12345);
    const uint32_t alignments[] = {0, 1, 2, 4, 8, 16, 64, 256, 3, 12, 4096};
    const uint32_t modes[] = {0, ZK_ALLOC_BOTTOM, ZK_ALLOC_TOP, ZK_ALLOC_TOP | ZK_ALLOC_BOTTOM};
    for (uint32_t mode : modes) {
        TableStore store(48);
        MemoryPool pool;
        ASSERT_EQ(pool.Initialize(0x20003, 0x8000, 48, store), 0);
        std::vector<MemoryBlock*> live;
        for (int step = 0; step < 60000; ++step) {
            const uint32_t op = rng() % 100;
            if (op < 50) {
                uint32_t size = rng() % 8 == 0 ? rng() % 0x3000 : rng() % 300;
                uint32_t flags = mode | (rng() % 2 ? ZK_ALLOC_ROUND : 0u);
                MemoryBlock* b = pool.Allocate(size, alignments[rng() % 11], flags, 0);
                if (b) live.push_back(b);
            } else if (op < 90 && !live.empty()) {
                const size_t i = rng() % live.size();
                pool.Release(live[i]);
                live[i] = live.back();
                live.pop_back();
            } else if (!live.empty()) {
                MemoryPool::Lock(live[rng() % live.size()]);
            }
            const std::string broken = MemoryPoolTestAccess::Check(pool);
            ASSERT_EQ(broken, "") << "mode " << mode << " step " << step;
        }
        pool.Destroy(store);
    }
}

} // namespace

namespace {

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
    } rows[] = {
        {64u << 20, zk::kDefaultArenaSize, ZK_OK},           // halves until the system agrees
        {8u << 20, zk::kDefaultArenaSize, ZK_ERR_NO_MEMORY}, // not below 16 MiB
        {16u << 20, 32u << 20, ZK_ERR_NO_MEMORY},            // as given or not at all
        {16u << 20, 16u << 20, ZK_OK},
    };
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
