// The heap engine's block descriptor and what every one of its structures
// says about a descriptor. A pool keeps all of a block's bookkeeping in one of
// these, in a table outside the memory it manages; the gap bins, the gap
// classes, the address tree and the address index refer to descriptors by
// their number in that table.
#ifndef ZK_MEMORY_MEMORY_BLOCK_H
#define ZK_MEMORY_MEMORY_BLOCK_H

#include <zk/memory.h>
#include <zk/result.h>

#include <bit>
#include <cstdint>

// One descriptor. A block handle given to applications points to one of these.
// 64 bytes on a 64-bit host, so that in a table that starts on a 64-byte
// boundary each descriptor is one cache line. The trees live apart, in the
// pool's tables of GapNodes, AddressNodes and AddressLeaves.
struct MemoryBlock {
    zkAddr address;        // first byte of the block
    uint32_t size;         // as taken (rounded, at least 1)
    uint32_t gapAfter;     // free bytes up to the next block or the pool end
    uint32_t flags;        // ZK_BLOCK_IN_USE | allocation flags; 0 when free
    uint16_t lockCount;    // saturates at 65535; not kept for fixed blocks
    uint16_t category;     // caller's tag
    MemoryBlock* previous; // address order; free list when free
    MemoryBlock* next;
    uint32_t gapNewer;         // blocks of the same gap size, newest first, as
    uint32_t gapOlder;         // descriptor numbers (kNoNode at either end)
    uint32_t gapNode;          // the GapNode of this block's gap size while it has a gap
    uint32_t requestedSize;    // as the caller asked
    uint32_t checkpoints;      // bit n set by checkpoint n
    uint32_t allocationNumber; // the pool counter's value at allocation
};

static_assert(sizeof(void*) < 8 || sizeof(MemoryBlock) == 64,
              "a descriptor fills one cache line on 64-bit hosts");

namespace zk {

// "No descriptor" and "no node" in every link of the engine's structures.
constexpr uint32_t kNoNode = 0xFFFFFFFFu;

// floor(log2 n) for n >= 2; 0 for 0 and 1.
inline uint32_t SizeClass(uint32_t n) {
    return n < 2 ? 0u : static_cast<uint32_t>(std::bit_width(n)) - 1u;
}

// The first free byte after a block.
inline zkAddr GapStart(const MemoryBlock* b) {
    return b->address + b->size;
}

inline bool IsFindable(const MemoryBlock* b) {
    return (b->flags & ZK_ALLOC_FIXED) != 0 || b->lockCount > 0;
}

} // namespace zk

#endif // ZK_MEMORY_MEMORY_BLOCK_H
