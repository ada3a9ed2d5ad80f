// The exact-size gap bins' searches; their invariants are listed in
// gap_bins.h.
#include "memory/gap_bins.h"
#include "memory/placement.h"

#include <bit>
#include <cstring>

namespace zk {

void* GapBins::Layout(void* room, uint32_t descriptorCount, MemoryBlock* blocks) {
    blocks_ = blocks;
    limit_ = descriptorCount >= kBinnedPoolDescriptors ? kGapBinLimit : 0;
    bits_ = static_cast<uint64_t*>(room);
    heads_ = reinterpret_cast<uint32_t*>(bits_ + (limit_ ? kGapBinWords : 0));
    std::memset(heads_, 0xFF, limit_ * sizeof(uint32_t)); // every bin empty
    summary_ = 0;
    return heads_ + limit_;
}

void GapBins::Clear() {
    blocks_ = nullptr;
    bits_ = nullptr;
    heads_ = nullptr;
    summary_ = 0;
    limit_ = 0;
}

uint32_t GapBins::Largest() const {
    if (!summary_) return 0;
    const uint32_t w = 63u - static_cast<uint32_t>(std::countl_zero(summary_));
    return w * 64 + 63u - static_cast<uint32_t>(std::countl_zero(bits_[w]));
}

uint32_t GapBins::Next(uint32_t gap) const {
    uint32_t w = gap >> 6;
    uint64_t bits = bits_[w] & (~uint64_t{0} << (gap & 63));
    if (!bits) {
        const uint64_t words = w == 63 ? 0 : summary_ & (~uint64_t{0} << (w + 1));
        if (!words) return kGapBinLimit;
        w = static_cast<uint32_t>(std::countr_zero(words));
        bits = bits_[w];
    }
    return w * 64 + static_cast<uint32_t>(std::countr_zero(bits));
}

MemoryBlock* GapBins::BestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
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

} // namespace zk
