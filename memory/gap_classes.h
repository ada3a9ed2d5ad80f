// The gap classes: every gap the bins do not hold sits in class
// SizeClass(gap), one of 32, each a treap (a binary search tree balanced by a
// priority hashed from the key) of the distinct gap sizes it holds.
//
// Invariants:
//   - a block with a gap not held by a bin is in exactly one class, the class
//     SizeClass(gapAfter), under the node of its gap's size (its gapNode);
//     a block always leaves its class before its gap changes;
//   - a node's blocks form a list linked by descriptor number through
//     gapNewer / gapOlder, newest first, headed by the node's `newest`; a node
//     is in its tree exactly while its list is not empty;
//   - in-order, a class's sizes ascend, so the class order is ascending gap,
//     newest first among equal gaps (a new gap goes before the first entry
//     at least as large);
//   - bit c of nonEmpty_ is set exactly when class c has a gap;
//   - nodes are GapNodes, a table beside the descriptors, one per descriptor
//     (there are never more distinct sizes than descriptors); free ones form
//     a list through parent.
// A new gap of a size already present only joins the front of a list; a tree
// changes only when a size appears or disappears. Best fit finds the first
// size of at least the request's by one descent and walks on in order only
// past entries the alignment rules out.
#ifndef ZK_MEMORY_GAP_CLASSES_H
#define ZK_MEMORY_GAP_CLASSES_H

#include "memory/memory_block.h"

#include <cstdint>

namespace zk {

constexpr uint32_t kGapBucketCount = 32;

// One distinct gap size in a gap class tree; links are GapNode numbers,
// kNoNode for none. A free node keeps the next free one in parent.
struct GapNode {
    uint32_t left, right, parent;
    uint32_t size;   // the gap size
    uint32_t newest; // descriptor number of the front of this size's list
};

class GapClasses {
public:
    static uint64_t TableBytes(uint32_t descriptorCount) {
        return uint64_t{descriptorCount} * sizeof(GapNode);
    }
    // Lays out descriptorCount free nodes at room and empties every class;
    // blocks is the descriptor table.
    void Layout(void* room, uint32_t descriptorCount, MemoryBlock* blocks);
    void Clear();

    bool Empty() const { return nonEmpty_ == 0; }
    // Goes before the first entry whose gap is at least its own: at the front
    // of its size's list, or as the one entry of a new size node.
    void Insert(MemoryBlock* block);
    void Remove(MemoryBlock* block);
    // The largest gap of the highest non-empty class; 0 when all are empty.
    uint32_t Largest() const;
    // Classes upwards from the request's; in each, from the first size of at
    // least taken on, in class order, the first block whose gap holds taken
    // bytes at the alignment; null when none does.
    MemoryBlock* BestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const;

private:
    void RotateUp(uint32_t x);

    MemoryBlock* blocks_ = nullptr;
    GapNode* nodes_ = nullptr;
    uint32_t roots_[kGapBucketCount] = {}; // tree roots (GapNode numbers)
    uint32_t freeNodes_ = kNoNode;
    uint32_t nonEmpty_ = 0; // bit c: class c has a gap
};

} // namespace zk

#endif // ZK_MEMORY_GAP_CLASSES_H
