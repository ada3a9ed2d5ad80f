// The exact-size gap bins: in a pool of many descriptors, every gap smaller
// than kGapBinLimit sits in the bin of its size, so that best fit among small
// gaps is two word scans and a list head.
//
// Invariants:
//   - a block whose gap is below the limit is in exactly one bin, that of its
//     gap's size, and in no gap class; its gapNode is kNoNode;
//   - a bin is a list of descriptors linked through gapNewer / gapOlder,
//     newest first; heads_[g] is its front, kNoNode when the bin is empty;
//   - bit g of bits_ is set exactly when bin g is not empty, and bit w of
//     summary_ exactly when word w of bits_ is not zero;
//   - a block always leaves its bin before its gap changes.
// The bins, in ascending size, come before the gap classes of larger gaps,
// so best fit searches them first and the order searched is the class order.
// A pool below kBinnedPoolDescriptors descriptors has no bins (limit 0) and
// spares their 16.5 KiB.
#ifndef ZK_MEMORY_GAP_BINS_H
#define ZK_MEMORY_GAP_BINS_H

#include "memory/memory_block.h"
#include "memory/placement.h"

#include <bit>
#include <cstdint>

namespace zk {

constexpr uint32_t kGapBinLimit = 4096;
constexpr uint32_t kGapBinWords = kGapBinLimit / 64;
constexpr uint32_t kBinnedPoolDescriptors = 1024;

class GapBins {
public:
    // Bytes of table room the bins of a pool of descriptorCount descriptors take.
    static uint64_t TableBytes(uint32_t descriptorCount) {
        return descriptorCount >= kBinnedPoolDescriptors
                   ? kGapBinWords * sizeof(uint64_t) + kGapBinLimit * sizeof(uint32_t)
                   : 0;
    }
    // Lays the bins out, every one empty, at room (zeroed, TableBytes long);
    // returns the first byte after them. blocks is the descriptor table.
    void* Layout(void* room, uint32_t descriptorCount, MemoryBlock* blocks);
    void Clear();

    // Whether a gap of this size belongs in a bin.
    bool Holds(uint32_t gap) const { return gap < limit_; }
    bool Empty() const { return summary_ == 0; }

    // At the front of its size's bin (Holds(block->gapAfter)).
    void Insert(MemoryBlock* block) {
        const uint32_t gap = block->gapAfter;
        const uint32_t k = static_cast<uint32_t>(block - blocks_);
        const uint32_t front = heads_[gap];
        block->gapNewer = kNoNode;
        block->gapOlder = front;
        block->gapNode = kNoNode;
        if (front != kNoNode) {
            blocks_[front].gapNewer = k;
        } else {
            bits_[gap >> 6] |= uint64_t{1} << (gap & 63);
            summary_ |= uint64_t{1} << (gap >> 6);
        }
        heads_[gap] = k;
    }

    void Remove(MemoryBlock* block) {
        const uint32_t gap = block->gapAfter;
        const uint32_t newer = block->gapNewer;
        const uint32_t older = block->gapOlder;
        if (newer != kNoNode) {
            blocks_[newer].gapOlder = older;
        } else if ((heads_[gap] = older) == kNoNode) { // the bin is empty now
            if (!(bits_[gap >> 6] &= ~(uint64_t{1} << (gap & 63))))
                summary_ &= ~(uint64_t{1} << (gap >> 6));
        }
        if (older != kNoNode) blocks_[older].gapNewer = newer;
        block->gapNewer = block->gapOlder = kNoNode;
    }

    // Asks for the front descriptor of the bin a gap of this size joins
    // (nothing when no bin holds it or the bin is empty).
    void PrefetchFront(uint32_t gap) const {
        if (gap >= limit_) return;
        const uint32_t front = heads_[gap];
        Prefetch(blocks_ + (front != kNoNode ? front : 0)); // no branch to mispredict
    }

    // The largest gap in a bin; 0 when every bin is empty.
    uint32_t Largest() const;
    // The first block, bins in ascending size and each newest first, from the
    // bin of taken on, whose gap holds taken bytes at the alignment; null when
    // none does.
    MemoryBlock* BestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
        for (uint32_t gap = taken; gap < limit_; ++gap) {
            gap = Next(gap);
            if (gap == kGapBinLimit) break;
            for (uint32_t k = heads_[gap]; k != kNoNode; k = blocks_[k].gapOlder) {
                MemoryBlock* b = blocks_ + k;
                if (FitsFromBottom(GapStart(b), gap, taken, alignment, placement)) return b;
            }
        }
        return nullptr;
    }

private:
    // The smallest non-empty bin of at least gap (< kGapBinLimit), or
    // kGapBinLimit when there is none.
    uint32_t Next(uint32_t gap) const {
        uint32_t w = gap >> 6;
        uint64_t bits = bits_[w] & (~uint64_t{0} << (gap & 63));
        if (!bits) {
            const uint64_t words = w == kGapBinWords - 1 ? 0 : summary_ & (~uint64_t{0} << (w + 1));
            if (!words) return kGapBinLimit;
            w = static_cast<uint32_t>(std::countr_zero(words));
            bits = bits_[w];
        }
        return w * 64 + static_cast<uint32_t>(std::countr_zero(bits));
    }

    MemoryBlock* blocks_ = nullptr;
    uint64_t* bits_ = nullptr;  // bit g: the bin of gap size g is not empty
    uint32_t* heads_ = nullptr; // newest block of each bin's size, kNoNode when empty
    uint64_t summary_ = 0;      // bit w: word w of bits_ is not zero
    uint32_t limit_ = 0;        // kGapBinLimit in a binned pool, else 0
};

} // namespace zk

#endif // ZK_MEMORY_GAP_BINS_H
