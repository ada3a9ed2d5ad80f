// The address tree: finds the lowest or the highest gap that holds a request
// without reading a descriptor.
//
// Invariants (while built):
//   - the block list, head included, is cut into runs of consecutive blocks,
//     each held by one leaf of at most kLeafCapacity entries in no particular
//     order: the block's descriptor number, its gap, and its key, the offset
//     of its gap's start from the pool's base (strictly increasing along the
//     list, so the smallest key that fits is the lowest address);
//   - slots past a leaf's count hold a gap of 0, which neither fits a request
//     nor raises a largest, so scans run over every slot without a branch
//     per entry;
//   - place_[d] is descriptor d's leaf * kLeafCapacity + slot, so an entry
//     changes, joins (at the end) or leaves (the last entry takes its slot)
//     in constant time;
//   - every leaf holds at least kLeafMinimum blocks unless it is the only one
//     (a leaf that falls below merges with, or borrows from, a neighbour), so
//     a pool needs at most one leaf per kLeafMinimum descriptors; leaves link
//     to their neighbours in address order, free ones form a list;
//   - the leaves, in address order, are the in-order sequence of a treap
//     (priority hashed from the leaf's number) whose node i belongs to leaf
//     i and holds the leaf's largest gap and the largest of its subtree; the
//     treap changes only when a leaf splits or merges, and its largest gaps
//     only when a leaf's largest changes;
//   - node leafRoom_ is a sentinel standing for "no node" in every link, with
//     no gap below it (its own gap stops any descent that reaches it).
// Best fit never needs the tree, so a pool builds it (in one pass over the
// list) at its first lowest- or highest-address search and keeps it from then
// on; a pool that only ever searches best fit does not pay for it.
#ifndef ZK_MEMORY_ADDRESS_TREE_H
#define ZK_MEMORY_ADDRESS_TREE_H

#include "memory/memory_block.h"

#include <cstdint>

namespace zk {

// One node of the address tree: a leaf's. Links are leaf numbers.
struct AddressNode {
    uint32_t left, right, parent;
    uint32_t largestGapBelow; // largest gapAfter in this node's subtree
    uint32_t gap;             // the largest gapAfter in the node's own leaf
};

// Blocks per leaf: at most kLeafCapacity, at least kLeafMinimum unless the
// leaf is the only one, kLeafFill when the tree is built.
constexpr uint32_t kLeafCapacity = 16;
constexpr uint32_t kLeafMinimum = 6;
constexpr uint32_t kLeafFill = 12;

// A run of consecutive blocks in address order, its entries unordered.
struct AddressLeaf {
    uint32_t count;
    uint32_t previous, next; // neighbouring leaves in address order
                             // (kNoNode at the ends); next links free leaves
    uint32_t reserved;
    uint32_t key[kLeafCapacity];   // gap start - pool base
    uint32_t block[kLeafCapacity]; // descriptor numbers
    uint32_t gap[kLeafCapacity];   // their gapAfter
};

class AddressTree {
public:
    static uint64_t TableBytes(uint32_t descriptorCount);
    // Lays the (unbuilt) tree out at room, TableBytes long; returns the first
    // byte after it. blocks is the descriptor table, base the pool's.
    void* Layout(void* room, uint32_t descriptorCount, zkAddr base, MemoryBlock* blocks);
    void Clear();

    bool Built() const { return root_ != kNoNode; }
    // Builds the tree over the list of blockCount blocks from the head.
    void Build(uint32_t blockCount);

    // The new block follows its owner in the list; the owner's gap has shrunk
    // to the slack before the block. Neither gap exceeds the owner's old one.
    void InsertAfter(const MemoryBlock* owner, const MemoryBlock* block);
    // Before's gap grew by the block and its gap; the block leaves.
    void Absorb(const MemoryBlock* before, const MemoryBlock* block);

    // The first (last) block in address order whose gap holds taken bytes at
    // the alignment, placed as low (high) in it as the alignment allows.
    MemoryBlock* LowestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const;
    MemoryBlock* HighestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const;

private:
    uint32_t Nil() const { return leafRoom_; }
    uint32_t Number(const MemoryBlock* b) const { return static_cast<uint32_t>(b - blocks_); }
    uint32_t LargestBelow(uint32_t node) const { return nodes_[node].largestGapBelow; }
    uint32_t LargestOf(uint32_t node) const;
    void RotateUp(uint32_t x);
    void Refresh(uint32_t from);
    void Raise(uint32_t from, uint32_t gap);
    void AttachAfter(uint32_t leaf, uint32_t successor, uint32_t fresh);
    void Detach(uint32_t leaf);
    void LeafPut(uint32_t leaf, uint32_t key, uint32_t descriptor, uint32_t gap);
    void LeafDrop(uint32_t leaf, uint32_t slot);
    uint32_t LeafLargest(uint32_t leaf) const;
    void LeafSettle(uint32_t leaf);
    uint32_t LeafNthKey(uint32_t leaf, uint32_t n) const;
    void LeafMoveKeys(uint32_t from, uint32_t to, uint32_t pivot, bool fromPivotUp);
    void LeafSplit(uint32_t leaf);
    void LeafRebalance(uint32_t leaf);
    MemoryBlock* LeafLowest(uint32_t leaf, uint32_t taken, uint32_t alignment,
                            zkAddr* placement) const;
    MemoryBlock* LeafHighest(uint32_t leaf, uint32_t taken, uint32_t alignment,
                             zkAddr* placement) const;

    MemoryBlock* blocks_ = nullptr;
    zkAddr base_ = 0;
    AddressNode* nodes_ = nullptr; // one per leaf and the sentinel
    AddressLeaf* leaves_ = nullptr;
    uint32_t* place_ = nullptr; // each block's leaf * kLeafCapacity + slot
    uint32_t leafRoom_ = 0;     // room for leaves (nodes: one more)
    uint32_t freeLeaves_ = kNoNode;
    uint32_t root_ = kNoNode; // kNoNode until the tree is built
};

} // namespace zk

#endif // ZK_MEMORY_ADDRESS_TREE_H
