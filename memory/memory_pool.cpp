// The heap engine's steps: allocation carves a block out of a gap found by
// the search the flags select, release gives a block's bytes back to the gap
// before it. The invariants they keep are listed in memory_pool.h; the gap
// bins, gap classes, address tree and address index keep their own.
#include "memory/memory_pool.h"
#include "memory/free_bytes_poison.h"
#include "memory/placement.h"

#include <cstddef>
#include <cstring>

// The two hot entry points are compiled as one body each, the engine's steps
// and the structures' list operations inlined into them.
#if defined(__GNUC__) || defined(__clang__)
#define ZK_ENGINE_ENTRY __attribute__((flatten))
#else
#define ZK_ENGINE_ENTRY
#endif

namespace {

constexpr uint16_t kMaxLockCount = 0xFFFF;

void ClearDescriptor(MemoryBlock* b) {
    b->flags = 0;
    b->lockCount = 0;
    b->category = 0;
    b->address = 0;
    b->requestedSize = 0;
    b->size = 0;
    b->gapAfter = 0;
    b->gapNewer = b->gapOlder = b->gapNode = zk::kNoNode;
    b->checkpoints = 0;
    b->allocationNumber = 0;
}

} // namespace

// The table: the descriptors, then the address index, the gap bins, the
// address tree and the gap classes' nodes.
uint64_t MemoryPool::TableDescriptors(uint32_t descriptorCount) {
    const uint64_t bytes =
        zk::AddressIndex::TableBytes(descriptorCount) + zk::GapBins::TableBytes(descriptorCount) +
        zk::AddressTree::TableBytes(descriptorCount) + zk::GapClasses::TableBytes(descriptorCount);
    return descriptorCount + (bytes + sizeof(MemoryBlock) - 1) / sizeof(MemoryBlock);
}

uint64_t MemoryPool::TableBytes(uint32_t descriptorCount) {
    const uint64_t bytes = TableDescriptors(descriptorCount) * sizeof(MemoryBlock);
    return bytes > 0xFFFFFFFFu ? 0 : bytes;
}

int32_t MemoryPool::Initialize(zkAddr base, uint32_t size, uint32_t descriptorCount,
                               zk::DescriptorStore& store) {
    if (descriptorCount < 2) return ZK_ERR_INVALID_ARGUMENT;
    const uint64_t roomBytes = TableBytes(descriptorCount);
    if (roomBytes == 0) return ZK_ERR_NO_MEMORY;
    void* room = store.Allocate(static_cast<uint32_t>(TableDescriptors(descriptorCount)));
    if (!room) return ZK_ERR_NO_MEMORY;

    MemoryBlock* table = static_cast<MemoryBlock*>(room);
    base_ = base;
    size_ = size;
    used_ = 0;
    descriptors_ = table;
    last_ = table;
    blockCount_ = 0;
    descriptorCount_ = descriptorCount;
    gapCount_ = 0;
    mode_ = 0;
    allocationCounter_ = 0;
    breakNumber_ = 0;
    allocHook_ = nullptr;
    freeHook_ = nullptr;
    tracksFreeBytes_ = false;
    lock_.Initialize();

    std::memset(room, 0, static_cast<std::size_t>(roomBytes));
    void* next = index_.Layout(table + descriptorCount, descriptorCount, table);
    next = bins_.Layout(next, descriptorCount, table);
    next = tree_.Layout(next, descriptorCount, base, table);
    classes_.Layout(next, descriptorCount, table);

    for (uint32_t i = 1; i < descriptorCount; ++i) {
        table[i].previous = i > 1 ? &table[i - 1] : nullptr;
        table[i].next = i + 1 < descriptorCount ? &table[i + 1] : nullptr;
    }
    freeDescriptors_ = &table[1];

    MemoryBlock* head = &table[0];
    head->flags = ZK_BLOCK_IN_USE;
    head->address = base;
    head->gapAfter = size;
    head->allocationNumber = 0;
    allocationCounter_ = 1;
    blockCount_ = 1;
    if (size != 0) GapInsert(head);
    return ZK_OK;
}

void MemoryPool::Destroy(zk::DescriptorStore& store) {
    UntrackFreeBytes();
    store.Free(descriptors_);
    lock_.Delete();
    descriptors_ = nullptr;
    index_.Clear();
    bins_.Clear();
    classes_.Clear();
    tree_.Clear();
    last_ = nullptr;
    freeDescriptors_ = nullptr;
    base_ = 0;
    size_ = 0;
    used_ = 0;
    blockCount_ = 0;
    descriptorCount_ = 0;
    gapCount_ = 0;
    allocHook_ = nullptr;
    freeHook_ = nullptr;
}

// ---- gaps ------------------------------------------------------------------------

uint32_t MemoryPool::LargestGap() const {
    return classes_.Empty() ? bins_.Largest() : classes_.Largest();
}

// ---- allocation ----------------------------------------------------------------

// The owner of the gap the block goes into, and the block's address in it;
// null when no gap fits. Best fit searches the bins, then the classes.
inline MemoryBlock* MemoryPool::FindPlace(uint32_t taken, uint32_t alignment, uint32_t flags,
                                          zkAddr* placement) {
    if ((flags & zk::kAllocationSearchFlags) && !tree_.Built()) tree_.Build(blockCount_);
    if (flags & ZK_ALLOC_BOTTOM) return tree_.LowestFit(taken, alignment, placement);
    if (flags & ZK_ALLOC_TOP) return tree_.HighestFit(taken, alignment, placement);
    if (MemoryBlock* owner = bins_.BestFit(taken, alignment, placement)) return owner;
    return classes_.BestFit(taken, alignment, placement);
}

inline MemoryBlock* MemoryPool::Carve(uint32_t size, uint32_t alignment, uint32_t flags,
                                      uint32_t category) {
    if (alignment == 0) alignment = 1;
    // An empty request takes one byte, rounded like any other size: a
    // rounded block of requested size 0 still takes one alignment unit.
    uint32_t taken = size ? size : 1;
    if (flags & ZK_ALLOC_ROUND) {
        const uint64_t up = static_cast<uint64_t>(taken) + alignment - 1;
        const uint64_t rounded = zk::IsPowerOfTwo(alignment)
                                     ? up & ~static_cast<uint64_t>(alignment - 1)
                                     : up / alignment * alignment;
        if (rounded > 0xFFFFFFFFu) return nullptr; // cannot be described by a 32-bit size
        taken = static_cast<uint32_t>(rounded);
    }

    MemoryBlock* block = freeDescriptors_;
    if (!block) return nullptr;
    zkAddr placement = 0;
    MemoryBlock* owner = FindPlace(taken, alignment, flags, &placement);
    if (!owner) return nullptr;

    const zkAddr gapStart = zk::GapStart(owner);
    const zkAddr gapEnd = gapStart + owner->gapAfter;
    if (PrefetchPays()) {
        // In a pool too large for the caches, the address index's slot for
        // the new block is rarely in cache: it is fetched while the gap lists
        // change and written last. So are the owner's follower (its back
        // link changes), its neighbours in its gap list, the fronts of the
        // lists the two new gaps join, and the next free descriptor.
        if (owner->next) zk::Prefetch(owner->next);
        zk::Prefetch(index_.HomeSlot(placement));
        PrefetchGapLinks(owner);
        bins_.PrefetchFront(static_cast<uint32_t>(gapEnd - (placement + taken)));
        bins_.PrefetchFront(static_cast<uint32_t>(placement - gapStart));
        if (block->next) zk::Prefetch(block->next);
    }

    freeDescriptors_ = block->next;
    if (freeDescriptors_) freeDescriptors_->previous = nullptr;

    block->flags = flags | ZK_BLOCK_IN_USE;
    block->lockCount = 0;
    block->category = static_cast<uint16_t>(category);
    block->address = placement;
    block->requestedSize = size;
    block->size = taken;
    block->gapAfter = static_cast<uint32_t>(gapEnd - (placement + taken));
    block->previous = owner;
    block->next = owner->next;
    block->checkpoints = 0;
    block->allocationNumber = allocationCounter_;

    if (block->gapAfter) GapInsert(block);
    if (owner->gapAfter) GapRemove(owner);
    owner->gapAfter = static_cast<uint32_t>(placement - gapStart);
    if (owner->gapAfter) GapInsert(owner);
    if (tree_.Built()) tree_.InsertAfter(owner, block); // owner's gap too
    if (owner->next)
        owner->next->previous = block;
    else
        last_ = block;
    owner->next = block;
    index_.Insert(block);

    ++blockCount_;
    used_ += taken;
    if (++allocationCounter_ == 0) allocationCounter_ = 1;
    return block;
}

ZK_ENGINE_ENTRY MemoryBlock* MemoryPool::Allocate(uint32_t size, uint32_t alignment,
                                                  uint32_t flags, uint32_t category) {
    if (MemoryAllocHook hook = allocHook_) {
        if (hook(size, allocationCounter_) == 0) return nullptr;
    }
    zk::ScopedLock guard(lock_);
    MemoryBlock* block = Carve(size, alignment, flags, category);
    if (block && tracksFreeBytes_) zk::UnpoisonUsedBytes(block->address, block->requestedSize);
    return block;
}

void MemoryPool::TrackFreeBytes() {
    zk::ScopedLock guard(lock_);
    tracksFreeBytes_ = true;
    zk::PoisonFreeBytes(base_, size_);
    for (MemoryBlock* b = descriptors_ ? descriptors_->next : nullptr; b; b = b->next)
        zk::UnpoisonUsedBytes(b->address, b->requestedSize);
}

void MemoryPool::UntrackFreeBytes() {
    zk::ScopedLock guard(lock_);
    if (tracksFreeBytes_) zk::UnpoisonUsedBytes(base_, size_);
    tracksFreeBytes_ = false;
}

// ---- release ---------------------------------------------------------------------

inline void MemoryPool::Absorb(MemoryBlock* block) {
    if (tracksFreeBytes_) zk::PoisonFreeBytes(block->address, block->size);
    MemoryBlock* before = block->previous;
    if (PrefetchPays()) {
        // The neighbours are rarely in cache in a large pool: ask for the
        // predecessor, the follower (written at the end) and the block's
        // neighbours in its gap list at once, then, as soon as the
        // predecessor's gap is known, for its own list neighbours and its new
        // list's front, so that the misses overlap instead of following one
        // another.
        zk::Prefetch(before);
        if (block->next) zk::Prefetch(block->next);
        if (block->gapAfter) PrefetchGapLinks(block);
        if (before->gapAfter) PrefetchGapLinks(before);
        bins_.PrefetchFront(before->gapAfter + block->size + block->gapAfter);
    }
    if (before->gapAfter) GapRemove(before);
    before->gapAfter += block->size + block->gapAfter;
    before->next = block->next;
    GapInsert(before);
    if (block->gapAfter) GapRemove(block);
    if (tree_.Built()) tree_.Absorb(before, block);
    if (block->next)
        block->next->previous = before;
    else
        last_ = before;

    --blockCount_;
    used_ -= block->size;
    index_.Erase(block);
    ClearDescriptor(block);
    block->previous = nullptr;
    block->next = freeDescriptors_;
    if (freeDescriptors_) freeDescriptors_->previous = block;
    freeDescriptors_ = block;
}

void MemoryPool::Release(MemoryBlock* block) {
    // Only fields the block's owner alone changes are read before the lock:
    // neighbours' releases rewrite the list links at any time.
    if (!block || !OwnsDescriptor(block) || block == descriptors_ ||
        !(block->flags & ZK_BLOCK_IN_USE))
        return;
    if (MemoryFreeHook hook = freeHook_) {
        if (hook(reinterpret_cast<void*>(block->address), block->requestedSize,
                 block->allocationNumber) == 0)
            return;
    }
    zk::ScopedLock guard(lock_);
    // Checked again under the lock: a concurrent release of the same block
    // must not unlink it twice.
    if (!(block->flags & ZK_BLOCK_IN_USE)) return;
    Absorb(block);
}

// ---- search by address, locks, checkpoints --------------------------------------

MemoryBlock* MemoryPool::FindByAddress(zkAddr address) {
    zk::ScopedLock guard(lock_);
    if (!descriptors_) return nullptr;
    MemoryBlock* block = index_.Find(address);
    return block && zk::IsFindable(block) ? block : nullptr;
}

ZK_ENGINE_ENTRY bool MemoryPool::ReleaseByAddress(zkAddr address, bool lockFirst) {
    if (!freeHook_) {
        // Without a hook nothing can refuse: a lock raised before the release
        // would be cleared with the descriptor, so it is not taken.
        zk::ScopedLock guard(lock_);
        MemoryBlock* block = descriptors_ ? index_.Find(address) : nullptr;
        if (!block || !zk::IsFindable(block)) return false;
        Absorb(block);
        return true;
    }
    MemoryBlock* block = FindByAddress(address);
    if (!block) return false;
    if (lockFirst) Lock(block);
    Release(block);
    return true;
}

bool MemoryPool::Lock(MemoryBlock* block) {
    if (!block || !(block->flags & ZK_BLOCK_IN_USE)) return false;
    if (!(block->flags & ZK_ALLOC_FIXED)) {
        zk::ScopedLock guard(zk::LibraryLock());
        if (block->lockCount != kMaxLockCount) ++block->lockCount;
    }
    return true;
}

void MemoryPool::Unlock(MemoryBlock* block) {
    if (!block || !(block->flags & ZK_BLOCK_IN_USE) || (block->flags & ZK_ALLOC_FIXED)) return;
    zk::ScopedLock guard(zk::LibraryLock());
    if (block->lockCount > 0) --block->lockCount;
}

void MemoryPool::SetCheckpoint(uint32_t n) {
    if (n >= 32) return;
    for (MemoryBlock* b = descriptors_; b; b = b->next) {
        if (b->flags & ZK_BLOCK_IN_USE) b->checkpoints |= 1u << n;
    }
}

void MemoryPool::Snapshot(MemoryInfo* info) {
    zk::ScopedLock guard(lock_);
    info->size = size_;
    info->used = used_;
    info->free = size_ - used_;
    info->blockCount = blockCount_;
    info->maxBlockCount = descriptorCount_;
}

uint32_t MemoryPool::LargestGapLocked() {
    zk::ScopedLock guard(lock_);
    return LargestGap();
}

MemoryAllocHook MemoryPool::SetAllocHook(MemoryAllocHook hook) {
    MemoryAllocHook previous = allocHook_;
    allocHook_ = hook;
    return previous;
}

MemoryFreeHook MemoryPool::SetFreeHook(MemoryFreeHook hook) {
    MemoryFreeHook previous = freeHook_;
    freeHook_ = hook;
    return previous;
}
