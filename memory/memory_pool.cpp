// The heap engine's operations. The invariants they keep are listed in
// memory_pool.h.
#include "memory/memory_pool.h"

#include <bit>
#include <cstddef>
#include <cstring>

using zk::SizeClass;

namespace {

constexpr uint16_t kMaxLockCount = 0xFFFF;

bool IsPowerOfTwo(uint32_t n) {
    return (n & (n - 1)) == 0;
}

// Bytes from start up to the next multiple of alignment (0 when aligned).
zkAddr SlackUp(zkAddr start, uint32_t alignment) {
    if (IsPowerOfTwo(alignment)) return (zkAddr{0} - start) & (alignment - 1);
    zkAddr r = start % alignment;
    return r ? alignment - r : 0;
}

zkAddr AlignDown(zkAddr value, uint32_t alignment) {
    if (IsPowerOfTwo(alignment)) return value & ~static_cast<zkAddr>(alignment - 1);
    return value - value % alignment;
}

// Placement at the lowest aligned address of the gap that leaves room for
// taken bytes. Written so that nothing overflows near the top of the
// address space.
bool FitsFromBottom(zkAddr gapStart, uint32_t gap, uint32_t taken, uint32_t alignment,
                    zkAddr* placement) {
    if (gap < taken) return false;
    zkAddr slack = SlackUp(gapStart, alignment);
    if (slack > gap - taken) return false;
    *placement = gapStart + slack;
    return true;
}

// Placement as high in the gap as the alignment allows.
bool FitsFromTop(zkAddr gapStart, uint32_t gap, uint32_t taken, uint32_t alignment,
                 zkAddr* placement) {
    if (gap < taken) return false;
    zkAddr at = AlignDown(gapStart + (gap - taken), alignment);
    if (at < gapStart) return false;
    *placement = at;
    return true;
}

zkAddr GapStart(const MemoryBlock* b) {
    return b->address + b->size;
}

void ClearDescriptor(MemoryBlock* b) {
    b->flags = 0;
    b->lockCount = 0;
    b->category = 0;
    b->address = 0;
    b->requestedSize = 0;
    b->size = 0;
    b->gapAfter = 0;
    b->bucketPrevious = nullptr;
    b->bucketNext = nullptr;
    b->checkpoints = 0;
    b->allocationNumber = 0;
}

// Address index slots: the smallest power of two of at least twice the
// descriptor count, so that probe sequences stay short.
uint64_t IndexSlots(uint32_t descriptorCount) {
    uint64_t slots = 4;
    while (slots < 2ull * descriptorCount)
        slots <<= 1;
    return slots;
}

} // namespace

uint64_t MemoryPool::TableDescriptors(uint32_t descriptorCount) {
    const uint64_t indexBytes = IndexSlots(descriptorCount) * sizeof(MemoryBlock*);
    return descriptorCount + (indexBytes + sizeof(MemoryBlock) - 1) / sizeof(MemoryBlock);
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
    lock_.Initialize();

    std::memset(room, 0, static_cast<std::size_t>(roomBytes));
    const uint64_t slots = IndexSlots(descriptorCount);
    index_ = reinterpret_cast<MemoryBlock**>(table + descriptorCount);
    indexMask_ = static_cast<uint32_t>(slots - 1);
    indexShift_ = 64 - static_cast<uint32_t>(std::countr_zero(slots));
    for (auto& head : buckets_)
        head = nullptr;

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
    if (size != 0) BucketInsert(head);
    return ZK_OK;
}

void MemoryPool::Destroy(zk::DescriptorStore& store) {
    store.Free(descriptors_);
    lock_.Delete();
    descriptors_ = nullptr;
    index_ = nullptr;
    indexMask_ = 0;
    last_ = nullptr;
    freeDescriptors_ = nullptr;
    for (auto& head : buckets_)
        head = nullptr;
    base_ = 0;
    size_ = 0;
    used_ = 0;
    blockCount_ = 0;
    descriptorCount_ = 0;
    gapCount_ = 0;
    allocHook_ = nullptr;
    freeHook_ = nullptr;
}

// ---- gap buckets -------------------------------------------------------------

void MemoryPool::BucketInsert(MemoryBlock* block) {
    MemoryBlock** slot = &buckets_[SizeClass(block->gapAfter)];
    MemoryBlock* before = nullptr;
    MemoryBlock* at = *slot;
    while (at && at->gapAfter < block->gapAfter) {
        before = at;
        at = at->bucketNext;
    }
    block->bucketPrevious = before;
    block->bucketNext = at;
    if (at) at->bucketPrevious = block;
    if (before)
        before->bucketNext = block;
    else
        *slot = block;
    ++gapCount_;
}

void MemoryPool::BucketRemove(MemoryBlock* block) {
    if (block->bucketPrevious)
        block->bucketPrevious->bucketNext = block->bucketNext;
    else
        buckets_[SizeClass(block->gapAfter)] = block->bucketNext;
    if (block->bucketNext) block->bucketNext->bucketPrevious = block->bucketPrevious;
    block->bucketPrevious = nullptr;
    block->bucketNext = nullptr;
    if (gapCount_ > 0) --gapCount_;
}

uint32_t MemoryPool::LargestGap() const {
    for (uint32_t c = zk::kGapBucketCount; c-- > 0;) {
        const MemoryBlock* b = buckets_[c];
        if (!b) continue;
        while (b->bucketNext)
            b = b->bucketNext;
        return b->gapAfter;
    }
    return 0;
}

// ---- address index -------------------------------------------------------------

uint32_t MemoryPool::IndexHome(zkAddr address) const {
    return static_cast<uint32_t>((static_cast<uint64_t>(address) * 0x9E3779B97F4A7C15ull) >>
                                 indexShift_);
}

void MemoryPool::IndexInsert(MemoryBlock* block) {
    uint32_t i = IndexHome(block->address);
    while (index_[i])
        i = (i + 1) & indexMask_;
    index_[i] = block;
}

// Linear probing with backward-shift deletion: entries after the hole move up
// unless their home slot lies cyclically after the hole.
void MemoryPool::IndexErase(const MemoryBlock* block) {
    uint32_t hole = IndexHome(block->address);
    while (index_[hole] != block)
        hole = (hole + 1) & indexMask_;
    for (uint32_t j = (hole + 1) & indexMask_; index_[j]; j = (j + 1) & indexMask_) {
        const uint32_t home = IndexHome(index_[j]->address);
        const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (stays) continue;
        index_[hole] = index_[j];
        hole = j;
    }
    index_[hole] = nullptr;
}

MemoryBlock* MemoryPool::IndexFind(zkAddr address) const {
    for (uint32_t i = IndexHome(address); index_[i]; i = (i + 1) & indexMask_) {
        if (index_[i]->address == address) return index_[i];
    }
    return nullptr;
}

// ---- allocation ----------------------------------------------------------------

bool MemoryPool::FindPlace(uint32_t taken, uint32_t alignment, uint32_t flags, MemoryBlock** owner,
                           zkAddr* placement) const {
    if (flags & ZK_ALLOC_BOTTOM) {
        for (MemoryBlock* b = descriptors_; b; b = b->next) {
            if (FitsFromBottom(GapStart(b), b->gapAfter, taken, alignment, placement)) {
                *owner = b;
                return true;
            }
        }
        return false;
    }
    if (flags & ZK_ALLOC_TOP) {
        for (MemoryBlock* b = last_; b; b = b->previous) {
            if (FitsFromTop(GapStart(b), b->gapAfter, taken, alignment, placement)) {
                *owner = b;
                return true;
            }
        }
        return false;
    }
    // Best fit: size classes upwards, each bucket in ascending gap order.
    for (uint32_t c = SizeClass(taken); c < zk::kGapBucketCount; ++c) {
        for (MemoryBlock* b = buckets_[c]; b; b = b->bucketNext) {
            if (FitsFromBottom(GapStart(b), b->gapAfter, taken, alignment, placement)) {
                *owner = b;
                return true;
            }
        }
    }
    return false;
}

MemoryBlock* MemoryPool::Carve(uint32_t size, uint32_t alignment, uint32_t flags,
                               uint32_t category) {
    if (alignment == 0) alignment = 1;
    // An empty request takes one byte, rounded like any other size: a
    // rounded block of requested size 0 still takes one alignment unit.
    uint32_t taken = size ? size : 1;
    if (flags & ZK_ALLOC_ROUND) {
        uint64_t rounded = (static_cast<uint64_t>(taken) + alignment - 1) / alignment * alignment;
        if (rounded > 0xFFFFFFFFu) return nullptr; // cannot be described by a 32-bit size
        taken = static_cast<uint32_t>(rounded);
    }

    MemoryBlock* block = freeDescriptors_;
    if (!block) return nullptr;
    MemoryBlock* owner = nullptr;
    zkAddr placement = 0;
    if (!FindPlace(taken, alignment, flags, &owner, &placement)) return nullptr;

    const zkAddr gapStart = GapStart(owner);
    const zkAddr gapEnd = gapStart + owner->gapAfter;

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
    block->bucketPrevious = nullptr;
    block->bucketNext = nullptr;
    block->checkpoints = 0;
    block->allocationNumber = allocationCounter_;

    IndexInsert(block);
    if (block->gapAfter) BucketInsert(block);
    if (owner->gapAfter) BucketRemove(owner);
    if (owner->next)
        owner->next->previous = block;
    else
        last_ = block;
    owner->next = block;
    owner->gapAfter = static_cast<uint32_t>(placement - gapStart);
    if (owner->gapAfter) BucketInsert(owner);

    ++blockCount_;
    used_ += taken;
    if (++allocationCounter_ == 0) allocationCounter_ = 1;
    return block;
}

MemoryBlock* MemoryPool::Allocate(uint32_t size, uint32_t alignment, uint32_t flags,
                                  uint32_t category) {
    if (MemoryAllocHook hook = allocHook_) {
        if (hook(size, allocationCounter_) == 0) return nullptr;
    }
    zk::ScopedLock guard(lock_);
    return Carve(size, alignment, flags, category);
}

// ---- release ---------------------------------------------------------------------

void MemoryPool::Absorb(MemoryBlock* block) {
    MemoryBlock* before = block->previous;
    if (before->gapAfter) BucketRemove(before);
    before->gapAfter += block->size + block->gapAfter;
    before->next = block->next;
    BucketInsert(before);
    if (block->gapAfter) BucketRemove(block);
    if (block->next)
        block->next->previous = before;
    else
        last_ = before;

    --blockCount_;
    used_ -= block->size;
    IndexErase(block);
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
    MemoryBlock* block = IndexFind(address);
    return block && zk::IsFindable(block) ? block : nullptr;
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
