// Differential test: long random sequences of pool operations, in each search
// mode, run against the library and against a deliberately plain model of the
// placement rules: a vector of blocks in address order, linear scans, 64-bit
// arithmetic. Placements are compared at once, the summary figures every 16
// steps, the walks every 128 and the dumps every 4096 steps, and all of them
// at the end of each pool's life. Among equal gaps of a size class best fit
// takes the one (re)inserted last, so every insertion takes a sequence number.
#include "memory/memory_test_util.h"

#include <algorithm>
#include <random>

namespace zktest {
namespace {

struct ModelBlock {
    uint64_t address = 0, gap = 0, gapSequence = 0;
    uint32_t requested = 0, size = 0, flags = 0, lockCount = 0, checkpoints = 0, number = 0;
    MemoryBlock* handle = nullptr; // the library's block placed here
};

bool Failed() {
    return ::testing::Test::HasFatalFailure();
}

class Differential {
public:
    Differential(uint32_t mode, uint32_t seed) : mode_(mode), rng_(seed) {}

    void Run(uint32_t operations) {
        for (uint32_t done = 0, steps; done < operations && !Failed(); done += steps) {
            steps = 20000 + rng_() % 40000;
            RunPool(std::min(steps, operations - done));
        }
    }

private:
    // ---- the model ---------------------------------------------------------------
    static uint32_t SizeClass(uint64_t n) {
        uint32_t c = 0;
        for (; n >= 2; n >>= 1)
            ++c;
        return std::min(c, 31u);
    }

    static bool FitsLow(const ModelBlock& b, uint64_t taken, uint64_t align, uint64_t* at) {
        const uint64_t start = b.address + b.size;
        *at = (start + align - 1) / align * align;
        return *at + taken <= start + b.gap;
    }

    // The index of the new block in blocks_, or 0 when the allocation fails.
    size_t Allocate(uint32_t size, uint32_t alignment, uint32_t flags) {
        const uint64_t align = alignment ? alignment : 1;
        uint64_t taken = size == 0 ? 1 : size; // zero takes one byte, then rounds
        if (flags & ZK_ALLOC_ROUND) taken = (taken + align - 1) / align * align;
        if (taken > 0xFFFFFFFFu || blocks_.size() >= descriptors_) return 0;
        size_t owner = 0;
        uint64_t at = 0, candidate;
        for (size_t i = 0; i < blocks_.size(); ++i) {
            const ModelBlock& b = blocks_[i];
            const uint64_t start = b.address + b.size;
            if (flags & ZK_ALLOC_BOTTOM) { // the lowest fitting gap
                if (!owner && FitsLow(b, taken, align, &candidate)) owner = i + 1, at = candidate;
            } else if (flags & ZK_ALLOC_TOP) { // the highest, as high in it as alignment allows
                candidate = (start + b.gap - taken) / align * align;
                if (b.gap >= taken && candidate >= start) owner = i + 1, at = candidate;
            } else if (b.gap && FitsLow(b, taken, align, &candidate)) {
                // Best fit: the lowest size class from the request's up, within
                // it the smallest gap, the newest among equal gaps.
                const ModelBlock* o = owner ? &blocks_[owner - 1] : nullptr;
                const uint32_t c = SizeClass(b.gap), oc = o ? SizeClass(o->gap) : 32;
                if (c >= SizeClass(taken) &&
                    (c < oc || (c == oc && (b.gap < o->gap ||
                                            (b.gap == o->gap && b.gapSequence > o->gapSequence)))))
                    owner = i + 1, at = candidate;
            }
        }
        if (!owner) return 0;
        ModelBlock& o = blocks_[owner - 1];
        const uint64_t end = o.address + o.size + o.gap;
        ModelBlock block{at, end - (at + taken), 0, size, static_cast<uint32_t>(taken)};
        block.flags = flags | ZK_BLOCK_IN_USE, block.number = counter_;
        if (block.gap) block.gapSequence = ++sequence_;
        o.gap = at - (o.address + o.size);
        if (o.gap) o.gapSequence = ++sequence_;
        blocks_.insert(blocks_.begin() + owner, block);
        if (++counter_ == 0) counter_ = 1;
        return owner;
    }

    std::vector<Range> Gaps() const {
        std::vector<Range> out;
        for (const ModelBlock& b : blocks_)
            if (b.gap) out.push_back({b.address + b.size, b.gap});
        return out;
    }
    // Blocks merged where they touch (all of category 0 in pools).
    std::vector<Range> Used() const {
        std::vector<Range> out;
        for (size_t i = 1; i < blocks_.size(); ++i) {
            if (!out.empty() && out.back().start + out.back().length == blocks_[i].address)
                out.back().length += blocks_[i].size;
            else
                out.push_back({blocks_[i].address, blocks_[i].size});
        }
        return out;
    }
    // Query codes 2-10 as the engine answers them.
    uint64_t Query(uint32_t code) const {
        uint64_t used = 0, largest = 0;
        for (const ModelBlock& b : blocks_)
            used += b.size, largest = std::max(largest, b.gap);
        const uint64_t answers[] = {largest,        Gaps().size(), base_, base_ + size_, size_,
                                    blocks_.size(), descriptors_,  used,  size_ - used};
        return answers[code - 2];
    }

    // ---- the comparison ----------------------------------------------------------
    void RunPool(uint32_t steps) {
        size_ = 0x4000 + rng_() % 0x7C000;
        const uint32_t where = rng_() % 4;
        if (where == 2) size_ &= 0xFFFF;
        const uint64_t bases[] = {0x1000, 0x10000003 + (rng_() % 64) * 0x1000, // unaligned start
                                  0xFFFFFFFFu - size_ - rng_() % 0x100,        // 32-bit top
                                  sizeof(zkAddr) == 8 ? 0x7F1234560000ull + rng_() % 0x1000
                                                      : 0x40000000u};
        base_ = bases[where], descriptors_ = rng_() % 4 ? 2 + rng_() % 160 : 1024 + rng_() % 512,
        counter_ = 1, sequence_ = 1;
        blocks_.assign(1, {base_, size_, 1, 0, 0, ZK_BLOCK_IN_USE}); // the head block
        pool_ = zkCreateMemoryPool(static_cast<zkAddr>(base_), size_, descriptors_);
        ASSERT_NE(pool_, nullptr);
        if (mode_ == ZK_ALLOC_TOP) zkSetMemoryPoolAllocMode(pool_, 2);
        CompareWalks(); // the fresh pool: one gap over the whole range
        bool filling = true;
        for (uint32_t step = 0; step < steps && !Failed(); ++step) {
            if (step % 2000 == 0) filling = rng_() % 2 == 0;
            Step(filling);
            if (step % 16 == 0 && !Failed()) CompareFigures();
            if (step % 128 == 0 && !Failed()) CompareWalks();
            if (step % 4096 == 0 && !Failed()) CompareDumps();
        }
        if (!Failed()) CompareFigures(), CompareWalks(), CompareDumps();
        zkReleaseMemoryPool(pool_);
    }

    uint32_t RandomSize() {
        const uint32_t kind = rng_() % 16;
        if (kind == 0) return 0;
        if (kind == 1) return 0x8000 + rng_() % 0x80000; // often larger than what is left
        return kind <= 3 ? rng_() % 0x2000 : 1 + rng_() % 200;
    }

    void Step(bool filling) {
        static const uint32_t kAlignments[] = {0,  1,   2,    4, 8,  16, 32,
                                               64, 256, 4096, 3, 12, 48, 1000};
        const uint32_t op = rng_() % 100;
        if (op < (filling ? 60u : 30u) || blocks_.size() == 1) {
            const uint32_t size = RandomSize(), alignment = kAlignments[rng_() % 14];
            uint32_t flags = mode_;
            MemoryBlock* handle;
            if (mode_ != ZK_ALLOC_BOTTOM && rng_() % 4 == 0) {
                handle = zkAllocMemoryPoolBlock(pool_, size, alignment);
            } else {
                flags |= (rng_() % 2 ? ZK_ALLOC_ROUND : 0u) |
                         (rng_() % 3 == 0 ? ZK_ALLOC_FIXED : 0u) |
                         (rng_() % 8 == 0 ? ZK_ALLOC_ZERO | ZK_ALLOC_DEFAULT : 0u);
                handle = zkAllocMemoryPoolBlockEx(pool_, size, alignment, flags);
            }
            const size_t placed = Allocate(size, alignment, flags);
            ASSERT_EQ(handle != nullptr, placed != 0) << size << " " << alignment << " " << flags;
            if (!handle) return;
            ASSERT_EQ(AddressOf(handle), blocks_[placed].address) << size << " " << alignment;
            EXPECT_EQ(zkGetMemoryPoolBlockSize(handle), size);
            blocks_[placed].handle = handle;
            return;
        }
        const size_t i = 1 + rng_() % (blocks_.size() - 1);
        ModelBlock& b = blocks_[i];
        const bool counted = !(b.flags & ZK_ALLOC_FIXED); // fixed blocks keep no lock count
        if (op < 90) { // the block before takes its size and its gap
            zkFreeMemoryPoolBlock(pool_, b.handle);
            blocks_[i - 1].gap += b.size + b.gap, blocks_[i - 1].gapSequence = ++sequence_;
            blocks_.erase(blocks_.begin() + i);
        } else if (op < 94) {
            ASSERT_EQ(reinterpret_cast<zkAddr>(zkLockMemoryPoolBlock(b.handle)), b.address);
            b.lockCount += counted && b.lockCount < 65535;
        } else if (op < 97) {
            zkUnlockMemoryPoolBlock(b.handle);
            b.lockCount -= counted && b.lockCount > 0;
        } else if (op < 99) {
            const uint64_t at = b.address + (rng_() % 4 == 0);
            MemoryBlock* found = nullptr; // only fixed or locked blocks are found
            for (const ModelBlock& other : blocks_)
                if (&other != &blocks_[0] && other.address == at &&
                    ((other.flags & ZK_ALLOC_FIXED) || other.lockCount))
                    found = other.handle;
            ASSERT_EQ(zkFindMemoryPoolBlock(pool_, static_cast<zkAddr>(at)), found);
        } else {
            const uint32_t n = rng_() % 40;
            zkSetMemoryPoolCheckpoint(pool_, n);
            for (ModelBlock& each : blocks_)
                each.checkpoints |= n < 32 ? 1u << n : 0;
        }
    }

    void CompareFigures() {
        MemoryInfo info{};
        zkGetMemoryPoolInfo(pool_, &info);
        const uint64_t figures[][2] = {{info.size, 6},
                                       {info.used, 9},
                                       {info.free, 10},
                                       {info.blockCount, 7},
                                       {info.maxBlockCount, 8}};
        for (auto [figure, code] : figures)
            ASSERT_EQ(figure, Query(static_cast<uint32_t>(code))) << "figure " << code;
        for (uint32_t code = 2; code <= 10; ++code)
            ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, code), Query(code)) << "query " << code;
    }

    void CompareWalks() {
        std::vector<BlockSeen> expected;
        for (size_t i = 1; i < blocks_.size(); ++i) // the head block is not reported
            expected.push_back({blocks_[i].address, blocks_[i].requested, blocks_[i].number});
        ASSERT_EQ(BlocksOf(pool_), expected);
        ASSERT_EQ(GapsOf(pool_), Gaps());
        ASSERT_EQ(UsedOf(pool_), Used());
        ASSERT_EQ(CategoriesOf(pool_), Used());
    }

    void CompareDumps() {
        const uint32_t checkpoint = rng_() % 64, minimum = rng_() % 512;
        std::vector<std::string> expected;
        uint32_t count = 0, total = 0, largest = 0;
        for (size_t i = 1; i < blocks_.size(); ++i) {
            const ModelBlock& b = blocks_[i];
            if (b.checkpoints & (1u << checkpoint % 32)) continue;
            expected.push_back(Format("  {%u} block at 0x%08llx, %u bytes long.\n", b.number,
                                      static_cast<unsigned long long>(b.address), b.requested));
            ++count, total += b.requested;
        }
        expected.push_back(
            Format("Block Dump Complete. Count = %u Total = %u bytes.\n", count, total));
        TraceCapture trace;
        ASSERT_EQ(zkDumpAllMemoryPoolBlocks(pool_, checkpoint), count);
        ASSERT_EQ(trace.Lines(), expected);
        expected.clear(), trace.Clear(), count = total = 0;
        for (const Range& gap : Gaps()) {
            const auto start = static_cast<unsigned long long>(gap.start);
            if (gap.length >= minimum)
                expected.push_back(Format("  gap[%u] 0x%08llx-0x%08llx %u bytes\n", count, start,
                                          start + gap.length, static_cast<uint32_t>(gap.length)));
            ++count, total += gap.length, largest = std::max<uint32_t>(largest, gap.length);
        }
        expected.push_back(Format("Gap Dump Complete. Count = %u MaxSize = %u Total = %u bytes.\n",
                                  count, largest, total));
        ASSERT_EQ(zkDumpAllMemoryPoolGaps(pool_, minimum), count);
        ASSERT_EQ(trace.Lines(), expected);
    }

    uint32_t mode_;
    std::mt19937 rng_;
    MemoryPool* pool_ = nullptr;
    std::vector<ModelBlock> blocks_; // address order; the head block first
    uint64_t base_ = 0, sequence_ = 0;
    uint32_t size_ = 0, descriptors_ = 0, counter_ = 1;
};

class PoolDifferential : public LibraryTest,
                         public ::testing::WithParamInterface<std::pair<uint32_t, uint32_t>> {};

TEST_P(PoolDifferential, PlacementsWalksAndDumpsMatchTheModel) {
    Differential(GetParam().first, GetParam().second).Run(1000000);
}

INSTANTIATE_TEST_SUITE_P(Modes, PoolDifferential,
                         ::testing::Values(std::make_pair(0u, 0xB357u),
                                           std::make_pair(uint32_t{ZK_ALLOC_BOTTOM}, 0x10Bu),
                                           std::make_pair(uint32_t{ZK_ALLOC_TOP}, 0x70Bu)));

} // namespace
} // namespace zktest
