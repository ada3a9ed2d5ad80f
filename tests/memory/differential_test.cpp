// Differential test: long random sequences of pool operations run against the
// library (through the exported pool calls) and against the plain reference
// model, in each search mode. Every placement is compared at once; the
// summary figures every 16 steps; every walk every 128 steps and at the end of
// each pool's life; the block and gap dumps every 4096 steps.
#include "memory/reference_heap.h"
#include "support/library_test.h"

#include <zk.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace zktest {
namespace {

struct Live {
    MemoryBlock* handle;
    uint64_t address;
};

struct Walk {
    std::vector<ModelBlock> blocks;
    std::vector<ModelRange> ranges;
};

int32_t ZK_CALL CollectBlock(zkAddr address, uint32_t requested, uint32_t number, void* user) {
    ModelBlock b;
    b.address = address;
    b.requested = requested;
    b.number = number;
    static_cast<Walk*>(user)->blocks.push_back(b);
    return 1;
}
int32_t ZK_CALL CollectRange(zkAddr start, uint32_t length, void* user) {
    static_cast<Walk*>(user)->ranges.push_back({start, length, 0});
    return 1;
}
int32_t ZK_CALL CollectCategory(zkAddr start, uint32_t length, uint32_t category, void* user) {
    static_cast<Walk*>(user)->ranges.push_back({start, length, category});
    return 1;
}

std::string Hex(uint64_t v) {
    char text[32];
    std::snprintf(text, sizeof(text), "0x%08llx", static_cast<unsigned long long>(v));
    return text;
}

class Differential {
public:
    Differential(uint32_t mode, uint32_t seed) : mode_(mode), rng_(seed) {}

    void Run(uint32_t operations) {
        uint32_t done = 0;
        while (done < operations && !::testing::Test::HasFatalFailure()) {
            const uint32_t steps = 20000 + rng_() % 40000;
            RunPool(steps < operations - done ? steps : operations - done);
            done += steps;
        }
    }

private:
    void RunPool(uint32_t steps) {
        uint64_t base;
        uint32_t size = 0x4000 + rng_() % 0x7C000;
        switch (rng_() % 4) {
        case 0:
            base = 0x1000;
            break;
        case 1:
            base = 0x10000003 + (rng_() % 64) * 0x1000;
            break; // unaligned start
        case 2:    // near the 32-bit top
            size &= 0xFFFF;
            base = 0xFFFFFFFFu - size - rng_() % 0x100;
            break;
        default:
            base = sizeof(zkAddr) == 8 ? 0x7F1234560000ull + rng_() % 0x1000 : 0x40000000u;
        }
        const uint32_t descriptors = 2 + rng_() % 160;
        pool_ = zkCreateMemoryPool(static_cast<zkAddr>(base), size, descriptors);
        ASSERT_NE(pool_, nullptr);
        ReferenceHeap model(base, size, descriptors);
        model_ = &model;
        live_.clear();
        if (mode_ == ZK_ALLOC_TOP) zkSetMemoryPoolAllocMode(pool_, 2);

        bool filling = true;
        for (uint32_t step = 0; step < steps; ++step) {
            if (step % 2000 == 0) filling = rng_() % 2 == 0;
            Step(filling);
            if (::testing::Test::HasFatalFailure()) break;
            if (step % 16 == 0) CompareFigures();
            if (step % 128 == 0) CompareWalks();
            if (step % 4096 == 0) CompareDumps();
            if (::testing::Test::HasFatalFailure()) break;
        }
        CompareFigures();
        CompareWalks();
        CompareDumps();
        zkReleaseMemoryPool(pool_);
        model_ = nullptr;
    }

    uint32_t RandomSize() {
        switch (rng_() % 16) {
        case 0:
            return 0;
        case 1:
            return 0x8000 + rng_() % 0x80000; // often larger than what is left
        case 2:
        case 3:
            return rng_() % 0x2000;
        default:
            return 1 + rng_() % 200;
        }
    }

    void Step(bool filling) {
        static const uint32_t kAlignments[] = {0,  1,   2,    4, 8,  16, 32,
                                               64, 256, 4096, 3, 12, 48, 1000};
        const uint32_t op = rng_() % 100;
        const uint32_t allocShare = filling ? 60 : 30;
        if (op < allocShare || live_.empty()) {
            const uint32_t size = RandomSize();
            const uint32_t alignment = kAlignments[rng_() % 14];
            MemoryBlock* handle;
            uint32_t flags;
            if (mode_ != ZK_ALLOC_BOTTOM && rng_() % 4 == 0) {
                flags = mode_;
                handle = zkAllocMemoryPoolBlock(pool_, size, alignment);
            } else {
                flags = mode_ | (rng_() % 2 ? ZK_ALLOC_ROUND : 0u) |
                        (rng_() % 3 == 0 ? ZK_ALLOC_FIXED : 0u) |
                        (rng_() % 8 == 0 ? ZK_ALLOC_ZERO | ZK_ALLOC_DEFAULT : 0u);
                handle = zkAllocMemoryPoolBlockEx(pool_, size, alignment, flags);
            }
            uint64_t expected = 0;
            const bool fits = model_->Allocate(size, alignment, flags, 0, &expected);
            ASSERT_EQ(handle != nullptr, fits)
                << "size " << size << " alignment " << alignment << " flags " << flags;
            if (!handle) return;
            const uint64_t got = reinterpret_cast<zkAddr>(zkLockMemoryPoolBlock(handle));
            zkUnlockMemoryPoolBlock(handle);
            ASSERT_EQ(got, expected)
                << "size " << size << " alignment " << alignment << " flags " << flags;
            EXPECT_EQ(zkGetMemoryPoolBlockSize(handle), size);
            live_.push_back({handle, got});
        } else if (op < 90) {
            const size_t i = rng_() % live_.size();
            zkFreeMemoryPoolBlock(pool_, live_[i].handle);
            ASSERT_TRUE(model_->Release(live_[i].address));
            live_[i] = live_.back();
            live_.pop_back();
        } else if (op < 94) {
            const Live& l = live_[rng_() % live_.size()];
            ASSERT_EQ(reinterpret_cast<zkAddr>(zkLockMemoryPoolBlock(l.handle)), l.address);
            model_->Lock(l.address);
        } else if (op < 97) {
            const Live& l = live_[rng_() % live_.size()];
            zkUnlockMemoryPoolBlock(l.handle);
            model_->Unlock(l.address);
        } else if (op < 99) {
            const Live& l = live_[rng_() % live_.size()];
            const uint64_t address = l.address + (rng_() % 4 == 0 ? 1 : 0);
            MemoryBlock* found = zkFindMemoryPoolBlock(pool_, static_cast<zkAddr>(address));
            MemoryBlock* expected = nullptr;
            if (model_->Findable(address)) {
                for (const Live& other : live_)
                    if (other.address == address) expected = other.handle;
            }
            ASSERT_EQ(found, expected);
        } else {
            const uint32_t n = rng_() % 40;
            zkSetMemoryPoolCheckpoint(pool_, n);
            model_->Checkpoint(n);
        }
    }

    void CompareFigures() {
        MemoryInfo info{};
        zkGetMemoryPoolInfo(pool_, &info);
        ASSERT_EQ(info.size, model_->Size());
        ASSERT_EQ(info.used, model_->UsedBytes());
        ASSERT_EQ(info.free, model_->Size() - model_->UsedBytes());
        ASSERT_EQ(info.blockCount, model_->BlockCount());
        ASSERT_EQ(info.maxBlockCount, model_->Descriptors());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 2), model_->LargestGap());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 3), model_->GapCount());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 4), model_->Base());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 5), model_->Base() + model_->Size());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 6), model_->Size());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 7), model_->BlockCount());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 8), model_->Descriptors());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 9), model_->UsedBytes());
        ASSERT_EQ(zkQueryMemoryPoolInfo(pool_, 10), model_->Size() - model_->UsedBytes());
    }

    void CompareWalks() {
        Walk blocks;
        const std::vector<ModelBlock>& expected = model_->Blocks();
        ASSERT_EQ(zkEnumerateMemoryPoolBlocks(pool_, CollectBlock, &blocks), expected.size() - 1);
        for (size_t i = 1; i < expected.size(); ++i) {
            ASSERT_EQ(blocks.blocks[i - 1].address, expected[i].address);
            ASSERT_EQ(blocks.blocks[i - 1].requested, expected[i].requested);
            ASSERT_EQ(blocks.blocks[i - 1].number, expected[i].number);
        }
        Walk gaps, used, categories;
        zkEnumerateMemoryPoolGaps(pool_, CollectRange, &gaps);
        ASSERT_EQ(gaps.ranges, model_->Gaps());
        zkEnumerateMemoryPoolUsed(pool_, CollectRange, &used);
        ASSERT_EQ(used.ranges, model_->Used(false));
        zkEnumerateMemoryPoolCategory(pool_, CollectCategory, &categories);
        ASSERT_EQ(categories.ranges, model_->Used(true));
    }

    void CompareDumps() {
        const uint32_t checkpoint = rng_() % 64;
        std::vector<std::string> expected;
        uint32_t count = 0, total = 0;
        const std::vector<ModelBlock>& blocks = model_->Blocks();
        for (size_t i = 1; i < blocks.size(); ++i) {
            if (blocks[i].checkpoints & (1u << (checkpoint % 32))) continue;
            expected.push_back("  {" + std::to_string(blocks[i].number) + "} block at " +
                               Hex(blocks[i].address) + ", " + std::to_string(blocks[i].requested) +
                               " bytes long.\n");
            ++count;
            total += blocks[i].requested;
        }
        expected.push_back("Block Dump Complete. Count = " + std::to_string(count) +
                           " Total = " + std::to_string(total) + " bytes.\n");
        {
            TraceCapture trace;
            ASSERT_EQ(zkDumpAllMemoryPoolBlocks(pool_, checkpoint), count);
            ASSERT_EQ(trace.Lines(), expected);
        }

        const uint32_t minimum = rng_() % 512;
        expected.clear();
        uint32_t index = 0;
        uint64_t largest = 0, sum = 0;
        for (const ModelRange& gap : model_->Gaps()) {
            if (gap.length >= minimum)
                expected.push_back("  gap[" + std::to_string(index) + "] " + Hex(gap.start) + "-" +
                                   Hex(gap.start + gap.length) + " " + std::to_string(gap.length) +
                                   " bytes\n");
            ++index;
            sum += gap.length;
            if (gap.length > largest) largest = gap.length;
        }
        expected.push_back("Gap Dump Complete. Count = " + std::to_string(index) +
                           " MaxSize = " + std::to_string(largest) +
                           " Total = " + std::to_string(sum) + " bytes.\n");
        TraceCapture trace;
        ASSERT_EQ(zkDumpAllMemoryPoolGaps(pool_, minimum), index);
        ASSERT_EQ(trace.Lines(), expected);
    }

    uint32_t mode_;
    std::mt19937 rng_;
    MemoryPool* pool_ = nullptr;
    ReferenceHeap* model_ = nullptr;
    std::vector<Live> live_;
};

constexpr uint32_t kOperationsPerMode = 1000000;

class PoolDifferential : public LibraryTest {};

TEST_F(PoolDifferential, BestFitMatchesTheModel) {
    Differential(0, 0xB357u).Run(kOperationsPerMode);
}

TEST_F(PoolDifferential, LowestAddressMatchesTheModel) {
    Differential(ZK_ALLOC_BOTTOM, 0x10Bu).Run(kOperationsPerMode);
}

TEST_F(PoolDifferential, HighestAddressMatchesTheModel) {
    Differential(ZK_ALLOC_TOP, 0x70Bu).Run(kOperationsPerMode);
}

} // namespace
} // namespace zktest
