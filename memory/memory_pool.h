// The heap engine: one MemoryPool manages one address range with a block/gap
// list whose bookkeeping lives entirely in a table of MemoryBlock descriptors.
//
// What it owns: the descriptor table handed out by a DescriptorStore (the
// descriptors, then the tables of the address index, the gap bins, the
// address tree and the gap classes), the four structures laid over it, and
// the pool's lock. The steps below (Carve, Absorb) read as calls on them.
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
//   - every block with gapAfter != 0 sits in exactly one gap bin or gap
//     class: the bins hold the gaps below their limit, the classes the rest;
//     a block always leaves them before its gap changes;
//   - used + the sum of all gaps = size; gapCount = entries in all bins and
//     classes;
//   - every block but the head is in the address index; while the address
//     tree is built, every block, the head included, is in one of its leaves;
//   - free descriptors form a doubly linked list through previous/next;
//   - the allocation counter never takes the value 0.
//
// Indexes, all inside the descriptor table, so that no step walks every
// block (each keeps the invariants stated in its own header):
//   - the exact-size gap bins (gap_bins.h) and the gap classes
//     (gap_classes.h) give best fit: the first gap of at least the request's
//     size in ascending order, newest first among equal sizes;
//   - the address tree (address_tree.h) gives the lowest or highest fitting
//     gap; a pool builds it at its first such search;
//   - the address index (address_index.h) finds a block by its address.
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

#include "memory/address_index.h"
#include "memory/address_tree.h"
#include "memory/descriptor_store.h"
#include "memory/gap_bins.h"
#include "memory/gap_classes.h"
#include "memory/memory_block.h"
#include "memory/placement.h"
#include "thread/sync.h"

#include <cstdint>

namespace zk {

constexpr uint32_t kAllocationSearchFlags = ZK_ALLOC_TOP | ZK_ALLOC_BOTTOM;

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
    MemoryBlock* FindPlace(uint32_t taken, uint32_t alignment, uint32_t flags, zkAddr* placement);
    // A block's gap joins or leaves the bins or the classes.
    void GapInsert(MemoryBlock* block) {
        ++gapCount_;
        if (bins_.Holds(block->gapAfter))
            bins_.Insert(block);
        else
            classes_.Insert(block);
    }
    void GapRemove(MemoryBlock* block) {
        if (gapCount_ > 0) --gapCount_;
        if (bins_.Holds(block->gapAfter))
            bins_.Remove(block);
        else
            classes_.Remove(block);
    }
    // Whether asking for descriptors early pays: only when the pool holds
    // more blocks than the caches keep (below that, the requests are just
    // instructions).
    bool PrefetchPays() const { return blockCount_ >= kPrefetchBlocks; }
    static constexpr uint32_t kPrefetchBlocks = 8192;
    // Asks for the descriptors next to block in its gap's list (the head
    // block's line stands in for none, so there is no branch to mispredict).
    void PrefetchGapLinks(const MemoryBlock* block) const {
        const uint32_t newer = block->gapNewer, older = block->gapOlder;
        zk::Prefetch(descriptors_ + (newer != zk::kNoNode ? newer : 0));
        zk::Prefetch(descriptors_ + (older != zk::kNoNode ? older : 0));
    }

    zkAddr base_ = 0;
    uint32_t size_ = 0;
    uint32_t used_ = 0;
    MemoryBlock* descriptors_ = nullptr;
    MemoryBlock* last_ = nullptr;
    MemoryBlock* freeDescriptors_ = nullptr;
    zk::GapBins bins_;
    zk::GapClasses classes_;
    zk::AddressTree tree_;
    zk::AddressIndex index_;
    uint32_t blockCount_ = 0;
    uint32_t descriptorCount_ = 0;
    uint32_t gapCount_ = 0;
    zk::LightLock lock_;
    uint32_t mode_ = 0;
    uint32_t allocationCounter_ = 0;
    uint32_t breakNumber_ = 0;
    MemoryAllocHook allocHook_ = nullptr;
    MemoryFreeHook freeHook_ = nullptr;
    bool tracksFreeBytes_ = false;

    // The engine's own test program reaches the counter through this.
    friend struct MemoryPoolTestAccess;
};

#endif // ZK_MEMORY_MEMORY_POOL_H
