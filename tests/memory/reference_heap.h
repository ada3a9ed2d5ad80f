// A deliberately plain model of the pool placement rules, for the
// differential test: a vector of blocks in address order, linear scans, no
// buckets. Arithmetic is done in 64 bits so that nothing here can overflow
// the way an optimised engine might; ranges used with it stay below 2^63.
//
// Gap order among equals: a gap's position in its size class is decided when
// it is (re)inserted, newest first among equal gaps, so every insertion takes
// a sequence number from one global counter and best fit prefers, within a
// size class, the smallest gap and among equal gaps the highest number.
#ifndef ZK_TESTS_MEMORY_REFERENCE_HEAP_H
#define ZK_TESTS_MEMORY_REFERENCE_HEAP_H

#include <zk/result.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zktest {

struct ModelBlock {
    uint64_t address = 0;
    uint32_t requested = 0;
    uint32_t size = 0;
    uint64_t gap = 0;
    uint32_t flags = 0;
    uint32_t lockCount = 0;
    uint32_t category = 0;
    uint32_t checkpoints = 0;
    uint32_t number = 0;
    uint64_t gapSequence = 0; // when the gap last entered its size class
};

struct ModelRange {
    uint64_t start;
    uint64_t length;
    uint32_t category;
    bool operator==(const ModelRange&) const = default;
};

class ReferenceHeap {
public:
    ReferenceHeap(uint64_t base, uint32_t size, uint32_t descriptors)
        : base_(base), size_(size), descriptors_(descriptors) {
        ModelBlock head;
        head.address = base;
        head.flags = ZK_BLOCK_IN_USE;
        head.gap = size;
        if (size) head.gapSequence = ++sequence_;
        blocks_.push_back(head);
    }

    static uint32_t SizeClass(uint64_t n) {
        uint32_t c = 0;
        while (n >= 2) {
            n >>= 1;
            ++c;
        }
        return c > 31 ? 31 : c;
    }

    // The address of the new block, or false when the allocation fails.
    bool Allocate(uint32_t size, uint32_t alignment, uint32_t flags, uint32_t category,
                  uint64_t* placed) {
        const uint64_t align = alignment ? alignment : 1;
        uint64_t taken = size == 0 ? 1 : size; // zero takes one byte, then rounds
        if (flags & ZK_ALLOC_ROUND) taken = (taken + align - 1) / align * align;
        if (taken > 0xFFFFFFFFu) return false;
        if (blocks_.size() >= descriptors_) return false;

        int owner = -1;
        uint64_t at = 0;
        if (flags & ZK_ALLOC_BOTTOM) {
            for (std::size_t i = 0; i < blocks_.size() && owner < 0; ++i) {
                if (FitsLow(blocks_[i], taken, align, &at)) owner = static_cast<int>(i);
            }
        } else if (flags & ZK_ALLOC_TOP) {
            for (std::size_t i = blocks_.size(); i-- > 0 && owner < 0;) {
                const ModelBlock& b = blocks_[i];
                const uint64_t start = b.address + b.size;
                const uint64_t end = start + b.gap;
                if (b.gap < taken) continue;
                const uint64_t candidate = (end - taken) / align * align;
                if (candidate >= start) {
                    owner = static_cast<int>(i);
                    at = candidate;
                }
            }
        } else {
            // Size classes upwards from the request's; within a class the
            // smallest fitting gap, the newest among equal gaps. One pass
            // keeps the best candidate of every class.
            int best[32];
            uint64_t bestAt[32];
            for (int& b : best)
                b = -1;
            for (std::size_t i = 0; i < blocks_.size(); ++i) {
                const ModelBlock& b = blocks_[i];
                uint64_t candidate;
                if (b.gap == 0 || !FitsLow(b, taken, align, &candidate)) continue;
                const uint32_t c = SizeClass(b.gap);
                if (best[c] >= 0) {
                    const ModelBlock& o = blocks_[best[c]];
                    const bool earlier =
                        b.gap < o.gap || (b.gap == o.gap && b.gapSequence > o.gapSequence);
                    if (!earlier) continue;
                }
                best[c] = static_cast<int>(i);
                bestAt[c] = candidate;
            }
            for (uint32_t c = SizeClass(taken); c < 32 && owner < 0; ++c) {
                if (best[c] >= 0) {
                    owner = best[c];
                    at = bestAt[c];
                }
            }
        }
        if (owner < 0) return false;

        ModelBlock& o = blocks_[owner];
        const uint64_t start = o.address + o.size;
        const uint64_t end = start + o.gap;
        ModelBlock block;
        block.address = at;
        block.requested = size;
        block.size = static_cast<uint32_t>(taken);
        block.gap = end - (at + taken);
        block.flags = flags | ZK_BLOCK_IN_USE;
        block.category = category & 0xFFFF;
        block.number = counter_;
        if (block.gap) block.gapSequence = ++sequence_;
        o.gap = at - start;
        if (o.gap) o.gapSequence = ++sequence_;
        blocks_.insert(blocks_.begin() + owner + 1, block);
        if (++counter_ == 0) counter_ = 1;
        *placed = at;
        return true;
    }

    // Frees the block at address; false when no block starts there.
    bool Release(uint64_t address) {
        const int i = IndexOf(address);
        if (i <= 0) return false;
        ModelBlock& before = blocks_[i - 1];
        before.gap += blocks_[i].size + blocks_[i].gap;
        before.gapSequence = ++sequence_;
        blocks_.erase(blocks_.begin() + i);
        return true;
    }

    void Lock(uint64_t address) {
        ModelBlock& b = blocks_[IndexOf(address)];
        if (!(b.flags & ZK_ALLOC_FIXED) && b.lockCount < 65535) ++b.lockCount;
    }
    void Unlock(uint64_t address) {
        ModelBlock& b = blocks_[IndexOf(address)];
        if (!(b.flags & ZK_ALLOC_FIXED) && b.lockCount > 0) --b.lockCount;
    }
    // Whether a search by this address finds a block.
    bool Findable(uint64_t address) const {
        const int i = IndexOf(address);
        if (i <= 0) return false;
        const ModelBlock& b = blocks_[i];
        return (b.flags & ZK_ALLOC_FIXED) || b.lockCount > 0;
    }
    void Checkpoint(uint32_t n) {
        if (n >= 32) return;
        for (ModelBlock& b : blocks_)
            b.checkpoints |= 1u << n;
    }

    // ---- what the walks and queries should report --------------------------------
    const std::vector<ModelBlock>& Blocks() const { return blocks_; }
    std::vector<ModelRange> Gaps() const {
        std::vector<ModelRange> out;
        for (const ModelBlock& b : blocks_)
            if (b.gap) out.push_back({b.address + b.size, b.gap, 0});
        return out;
    }
    // Blocks merged where they touch; withCategory also splits on category.
    std::vector<ModelRange> Used(bool withCategory) const {
        std::vector<ModelRange> out;
        for (std::size_t i = 1; i < blocks_.size(); ++i) {
            const ModelBlock& b = blocks_[i];
            const uint32_t category = withCategory ? b.category : 0;
            if (!out.empty() && out.back().start + out.back().length == b.address &&
                out.back().category == category)
                out.back().length += b.size;
            else
                out.push_back({b.address, b.size, category});
        }
        return out;
    }
    uint32_t UsedBytes() const {
        uint64_t used = 0;
        for (const ModelBlock& b : blocks_)
            used += b.size;
        return static_cast<uint32_t>(used);
    }
    uint32_t GapCount() const { return static_cast<uint32_t>(Gaps().size()); }
    uint64_t LargestGap() const {
        uint64_t largest = 0;
        for (const ModelBlock& b : blocks_)
            if (b.gap > largest) largest = b.gap;
        return largest;
    }
    uint32_t BlockCount() const { return static_cast<uint32_t>(blocks_.size()); }
    uint32_t Descriptors() const { return descriptors_; }
    uint64_t Base() const { return base_; }
    uint32_t Size() const { return size_; }
    uint32_t Counter() const { return counter_; }
    int IndexOf(uint64_t address) const {
        for (std::size_t i = 1; i < blocks_.size(); ++i)
            if (blocks_[i].address == address) return static_cast<int>(i);
        return -1;
    }

private:
    static bool FitsLow(const ModelBlock& b, uint64_t taken, uint64_t align, uint64_t* at) {
        const uint64_t start = b.address + b.size;
        const uint64_t rounded = (start + align - 1) / align * align;
        if (rounded + taken > start + b.gap) return false;
        *at = rounded;
        return true;
    }

    uint64_t base_;
    uint32_t size_;
    uint32_t descriptors_;
    std::vector<ModelBlock> blocks_;
    uint32_t counter_ = 1;
    uint64_t sequence_ = 0;
};

} // namespace zktest

#endif // ZK_TESTS_MEMORY_REFERENCE_HEAP_H
