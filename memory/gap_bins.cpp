// The exact-size gap bins' layout and largest gap; their list steps and best
// fit are inline in gap_bins.h, with their invariants.
#include "memory/gap_bins.h"

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

} // namespace zk
