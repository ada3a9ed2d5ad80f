// The heap engine: one MemoryPool manages one address range with a block/gap
// list whose bookkeeping lives entirely in a table of MemoryBlock descriptors.
//
// What it owns: the descriptor table handed out by a DescriptorStore (the
// descriptors, the address index, the gap bins, the trees' nodes and the
// address tree's leaves), the roots of the 32 gap classes and of the address
// tree, and the pool's lock.
// It never reads or writes the bytes of the range it manages, and never
// allocates: a pool can describe any span of addresses, mapped or not.
//
// Invariants (kept by Carve and Absorb):
//   - descriptor 0 is the head block: in use, address = base, size 0, never
//     freed, never reported as a block; it owns the gap at the start;
//   - blocks form one list in strictly increasing address order after the
//     head (a block placed at base shares the head's address);
//     for each block, address + size + gapAfter = next block's address, or
//     base + size of the pool for the last block;
//   - every block with gapAfter != 0 sits in exactly one gap class, the class
//     SizeClass(gapAfter); a class is ordered by ascending gap, newest first
//     among equal gaps (insertion goes before the first entry >= its gap);
//     a block always leaves its class before its gap changes;
//   - used + the sum of all gaps = size; gapCount = entries in all classes;
//   - free descriptors form a doubly linked list through previous/next;
//   - the allocation counter never takes the value 0.
//
// Indexes, all inside the descriptor table, so that no step walks every
// block:
//   - each gap class is a treap (a binary search tree balanced by a
//     priority hashed from the key) of the distinct gap sizes it holds. Its
//     nodes are GapNodes, a table of their own beside the descriptors with a
//     free list (there are never more distinct sizes than descriptors); the
//     blocks of one size hang off its node in a list, newest first, linked
//     by descriptor number. The in-order sequence of sizes, each size's list
//     in turn, is the class order above. A new gap of a size already present
//     only joins the front of a list, and the tree changes only when a size
//     appears or disappears. Best fit finds the first size of at least the
//     request's by one descent and walks on in order only past entries the
//     alignment rules out. A bit per class says which are non-empty.
//     In a pool with many descriptors, gaps smaller than kGapBinLimit skip
//     the trees: each size has a bin (its list, newest first, headed from
//     a table of kGapBinLimit heads), and a bit per size with a bit per 64
//     sizes above them finds the first non-empty size of at least the
//     request's in two word scans.
//     The bins, in ascending size, come before the classes of larger gaps,
//     so the order searched is the same class order;
//   - the address tree finds the lowest or highest fitting gap. The block
//     list (head included) is cut into runs of consecutive blocks, each held
//     by a leaf of up to kLeafCapacity entries in no particular order: the
//     block's descriptor number, its gap and its key, the offset of its gap's
//     start from the pool's base (strictly increasing along the list, so the
//     smallest key that fits is the lowest address). Each block knows its
//     leaf and slot, so an entry changes, joins (at the end) or leaves (the
//     last entry takes its slot) in constant time. The leaves, in address
//     order, are the in-order sequence of a treap whose nodes hold each
//     leaf's largest gap and the largest of their subtree; the treap changes
//     only when a leaf splits or merges, and its largest gaps only when a
//     leaf's largest changes. Every leaf holds at least kLeafMinimum blocks
//     unless it is the only one (a leaf that falls below merges with, or
//     borrows from, a neighbour), so a pool needs at most one leaf per
//     kLeafMinimum descriptors. The lowest- and highest-address searches
//     descend into subtrees whose largest gap can hold the request, then take
//     the leaf's smallest (largest) key whose gap holds it, reading no
//     descriptor at all.
//     Best fit never needs the tree, so it is built (in one pass over the
//     list) by the pool's first lowest- or highest-address search and kept
//     from then on; a pool that only ever searches best fit does not pay for
//     it;
//   - the address index, an open-addressing hash table (linear probing, room
//     for twice as many slots as descriptors, of which a power of two at
//     least four times the block count is in use: the part doubles as the
//     pool fills and never shrinks) of every block but the head, answers
//     search by address with one probe sequence; each slot holds the key
//     (the address's low 32 bits) beside the descriptor's number, so probing
//     never reads a descriptor.
//
// Locks: the pool's lock (a LightLock: user-space when uncontended, never
// re-entered, since no engine step calls out) guards Carve, Absorb,
// FindByAddress and Snapshot; each exported call takes it once (zkFree finds
// and frees under one hold unless a free hook must run in between). Lock
// counts change under the LibraryLock instead. Hooks run outside both. Checkpoints, queries and
// walks take no lock: callers must not run them while another thread allocates or frees in the same
// pool.
//
// Addresses are zkAddr (pointer-sized on 64-bit hosts); sizes and counts are
// 32-bit. A range must not wrap past the end of the address space (it may end
// exactly at its top: addresses are computed modulo the address width).
#ifndef ZK_MEMORY_MEMORY_POOL_H
#define ZK_MEMORY_MEMORY_POOL_H

#include <zk/memdiag.h>
#include <zk/memory.h>
#include <zk/result.h>

#include "memory/descriptor_store.h"
#include "thread/sync.h"

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

constexpr uint32_t kGapBucketCount = 32;
// In a pool of at least kBinnedPoolDescriptors descriptors, gaps below
// kGapBinLimit sit in bins of one exact size each, found through a two-level
// bitmap, and larger ones in the gap class trees; smaller pools keep every
// gap in the trees and spare the bins' 16.5 KiB.
constexpr uint32_t kGapBinLimit = 4096;
constexpr uint32_t kGapBinWords = kGapBinLimit / 64;
constexpr uint32_t kBinnedPoolDescriptors = 1024;
constexpr uint32_t kAllocationSearchFlags = ZK_ALLOC_TOP | ZK_ALLOC_BOTTOM;

// floor(log2 n) for n >= 2; 0 for 0 and 1.
inline uint32_t SizeClass(uint32_t n) {
    return n < 2 ? 0u : static_cast<uint32_t>(std::bit_width(n)) - 1u;
}

// One slot of the address index; descriptor 0 (the head block, never
// indexed) marks an empty slot.
struct AddressSlot {
    uint32_t key;
    uint32_t descriptor;
};

// One node of the address tree: a leaf. Node i belongs to leaf i; links are
// leaf numbers, and a sentinel node (largest gap below it 0) after the last
// leaf's stands for none.
struct AddressNode {
    uint32_t left, right, parent;
    uint32_t largestGapBelow; // largest gapAfter in this node's subtree
    uint32_t gap;             // the largest gapAfter in the node's own leaf
};

// Blocks per leaf of the address tree: at most kLeafCapacity, at least
// kLeafMinimum unless the leaf is the only one, kLeafFill when the tree is
// built.
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
constexpr uint32_t kNoNode = 0xFFFFFFFFu;

// One distinct gap size in a gap class tree; links are GapNode numbers,
// kNoNode for none. A free node keeps the next free one in parent.
struct GapNode {
    uint32_t left, right, parent;
    uint32_t size;   // the gap size
    uint32_t newest; // descriptor number of the front of this size's list
};

inline bool IsFindable(const MemoryBlock* b) {
    return (b->flags & ZK_ALLOC_FIXED) != 0 || b->lockCount > 0;
}

} // namespace zk

struct MemoryPool {
public:
    // Takes room for descriptorCount descriptors from store and lays out an
    // empty pool over [base, base + size). -3 when descriptorCount < 2 (the
    // head block needs a free descriptor beside it), -5 when the store has no
    // room; nothing changes on failure.
    int32_t Initialize(zkAddr base, uint32_t size, uint32_t descriptorCount,
                       zk::DescriptorStore& store);
    // Bytes of store room a pool of descriptorCount descriptors asks for (the
    // descriptors, the address index and both trees' nodes), or 0 when that
    // exceeds 4 GiB.
    static uint64_t TableBytes(uint32_t descriptorCount);
    // The same room counted in descriptors, as DescriptorStore::Allocate takes it.
    static uint64_t TableDescriptors(uint32_t descriptorCount);

    // Gives the descriptor table back and deletes the lock. Live blocks are
    // simply forgotten.
    void Destroy(zk::DescriptorStore& store);

    // The allocation wrapper: the alloc hook (outside the lock), then the
    // engine step under the lock. Null when refused, out of descriptors, or
    // when no gap fits in the search order the flags select.
    MemoryBlock* Allocate(uint32_t size, uint32_t alignment, uint32_t flags, uint32_t category);
    // Frees a block of this pool: ignored for null, a block not in use, the
    // head block and a block of another pool; the free hook (outside the
    // lock) may refuse.
    void Release(MemoryBlock* block);
    // The findable block (fixed, or lock count above 0) at exactly this
    // address, or null. One probe sequence in the address index.
    MemoryBlock* FindByAddress(zkAddr address);
    // Finds the findable block at address and frees it, taking the lock once
    // when there is no free hook. With lockFirst the block is locked as
    // zkLockMemory does before it is freed (a lock a refusing free hook
    // leaves in place). False when no block is found.
    bool ReleaseByAddress(zkAddr address, bool lockFirst);

    // Raises the lock count of a non-fixed block (under the LibraryLock, not
    // past 65535). False for null or a block not in use.
    static bool Lock(MemoryBlock* block);
    // Lowers a non-zero lock count of an in-use, non-fixed block.
    static void Unlock(MemoryBlock* block);

    // Sets bit n (n < 32) in every in-use descriptor, the head included.
    void SetCheckpoint(uint32_t n);
    // Size, used, free, block count, descriptor count, under the lock.
    void Snapshot(MemoryInfo* info);

    uint32_t Mode() const { return mode_; }
    void SetMode(uint32_t flags) { mode_ = flags; }
    uint32_t AllocationCounter() const { return allocationCounter_; }
    uint32_t BreakNumber() const { return breakNumber_; }
    void SetBreakNumber(uint32_t number) { breakNumber_ = number; }
    MemoryAllocHook SetAllocHook(MemoryAllocHook hook);
    MemoryFreeHook SetFreeHook(MemoryFreeHook hook);
    bool HasFreeHook() const { return freeHook_ != nullptr; }

    // Read-only views for the walks and queries.
    zkAddr Base() const { return base_; }
    uint32_t Size() const { return size_; }
    zkAddr End() const { return base_ + size_; }
    uint32_t Used() const { return used_; }
    uint32_t BlockCount() const { return blockCount_; }
    uint32_t DescriptorCount() const { return descriptorCount_; }
    uint32_t GapCount() const { return gapCount_; }
    const MemoryBlock* Head() const { return descriptors_; }
    // The largest gap: last entry of the highest non-empty class; 0 if none.
    uint32_t LargestGap() const;
    // The same under the pool's lock, for a thread other than the one that
    // allocates (the timeline's counters).
    uint32_t LargestGapLocked();
    // Whether the pool holds a descriptor table: false for a record that was
    // released, or reclaimed at termination.
    bool Live() const { return descriptors_ != nullptr; }
    // Whether block is one of this pool's descriptors.
    bool OwnsDescriptor(const MemoryBlock* block) const {
        return descriptors_ && block >= descriptors_ && block < descriptors_ + descriptorCount_;
    }

    // Next record in the pool table's free list; null while in use.
    MemoryPool* link = nullptr;

    // Marks the pool's free bytes for the address sanitizer from now on (the
    // system pool does): the whole range now, each block's requested bytes
    // while it is handed out. Untrack clears every mark before the range is
    // given back. Nothing in builds without the sanitizer.
    void TrackFreeBytes();
    void UntrackFreeBytes();

private:
    // The engine steps, called with the lock held.
    MemoryBlock* Carve(uint32_t size, uint32_t alignment, uint32_t flags, uint32_t category);
    void Absorb(MemoryBlock* block);
    bool FindPlace(uint32_t taken, uint32_t alignment, uint32_t flags, MemoryBlock** owner,
                   zkAddr* placement);
    void BucketInsert(MemoryBlock* block);
    uint32_t NextBin(uint32_t gap) const;
    void BucketRemove(MemoryBlock* block);
    void GapRotateUp(uint32_t x);
    MemoryBlock* BestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const;
    uint32_t Number(const MemoryBlock* block) const {
        return static_cast<uint32_t>(block - descriptors_);
    }
    // The address tree's sentinel: the node after the last leaf's, with no
    // gap below it, standing for "no node" in every link (its own gap, set
    // when the tree is built, stops any descent that reaches it).
    uint32_t AddressNil() const { return leafCount_; }
    uint32_t LargestBelow(uint32_t node) const { return addressNodes_[node].largestGapBelow; }
    uint32_t LargestOf(uint32_t node) const;
    void AddressInsertAfter(MemoryBlock* owner, MemoryBlock* block);
    void AddressAbsorb(MemoryBlock* before, MemoryBlock* block);
    void AddressAttachAfter(uint32_t leaf, uint32_t successor, uint32_t fresh);
    void AddressDetach(uint32_t leaf);
    void AddressRotateUp(uint32_t x);
    void AddressRefresh(uint32_t from);
    void AddressRaise(uint32_t from, uint32_t gap);
    void AddressBuild();
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
    MemoryBlock* LowestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const;
    MemoryBlock* HighestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const;
    uint32_t IndexHome(uint32_t key) const;
    void IndexInsert(MemoryBlock* block);
    void IndexPlace(MemoryBlock* block);
    void IndexResize(uint32_t slots);
    void IndexErase(const MemoryBlock* block);
    MemoryBlock* IndexFind(zkAddr address) const;

    zkAddr base_ = 0;
    uint32_t size_ = 0;
    uint32_t used_ = 0;
    MemoryBlock* descriptors_ = nullptr;
    MemoryBlock* last_ = nullptr;
    MemoryBlock* freeDescriptors_ = nullptr;
    uint32_t buckets_[zk::kGapBucketCount] = {}; // gap class tree roots (GapNode numbers)
    zk::GapNode* gapNodes_ = nullptr;            // the gap class trees' nodes
    uint32_t freeGapNodes_ = zk::kNoNode;
    uint32_t nonEmptyClasses_ = 0;            // bit c: class c has a gap
    uint64_t* binBits_ = nullptr;             // bit g: the bin of gap size g is not empty
    uint32_t* binHeads_ = nullptr;            // newest block of each bin's size, kNoNode when empty
    uint64_t binSummary_ = 0;                 // bit w: word w of binBits_ is not zero
    uint32_t binLimit_ = 0;                   // kGapBinLimit in a binned pool, else 0
    zk::AddressNode* addressNodes_ = nullptr; // the address tree's nodes, one per leaf
    zk::AddressLeaf* leaves_ = nullptr;       // its leaves
    uint32_t* leafPlace_ = nullptr;           // each block's leaf * kLeafCapacity + slot
    uint32_t leafCount_ = 0;                  // room for leaves (nodes: one more)
    uint32_t freeLeaves_ = zk::kNoNode;
    uint32_t addressRoot_ = zk::kNoNode; // kNoNode until the tree is built
    uint32_t blockCount_ = 0;
    uint32_t descriptorCount_ = 0;
    uint32_t gapCount_ = 0;
    zk::LightLock lock_;
    uint32_t mode_ = 0;
    uint32_t allocationCounter_ = 0;
    uint32_t breakNumber_ = 0;
    MemoryAllocHook allocHook_ = nullptr;
    MemoryFreeHook freeHook_ = nullptr;
    zk::AddressSlot* index_ = nullptr; // address index: indexRoom_ slots, the
    uint32_t indexRoom_ = 0;           // first indexMask_ + 1 of them in use
    uint32_t indexMask_ = 0;
    uint32_t indexShift_ = 0;
    uint32_t indexEntries_ = 0;
    bool tracksFreeBytes_ = false;

    // The engine's own test program reaches the counter through this.
    friend struct MemoryPoolTestAccess;
};

#endif // ZK_MEMORY_MEMORY_POOL_H
