// The heap engine's operations. The invariants they keep are listed in
// memory_pool.h.
#include "memory/memory_pool.h"
#include "memory/free_bytes_poison.h"

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
    b->gapLeft = b->gapRight = b->gapParent = b->gapNewer = b->gapOlder = nullptr;
    b->addressLeft = b->addressRight = b->addressParent = nullptr;
    b->largestGapBelow = 0;
    b->checkpoints = 0;
    b->allocationNumber = 0;
}

// Treap priority of a descriptor: a hash of its address, so that the trees'
// shapes do not follow the order of allocation.
uint32_t Priority(const MemoryBlock* b) {
    return static_cast<uint32_t>(
        (static_cast<uint64_t>(reinterpret_cast<uintptr_t>(b)) * 0x9E3779B97F4A7C15ull) >> 32);
}

uint32_t LargestBelow(const MemoryBlock* b) {
    return b ? b->largestGapBelow : 0;
}

uint32_t LargestOf(const MemoryBlock* b) {
    uint32_t largest = b->gapAfter;
    if (b->addressLeft && b->addressLeft->largestGapBelow > largest)
        largest = b->addressLeft->largestGapBelow;
    if (b->addressRight && b->addressRight->largestGapBelow > largest)
        largest = b->addressRight->largestGapBelow;
    return largest;
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
    const uint64_t indexBytes = IndexSlots(descriptorCount) * sizeof(zk::AddressSlot);
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
    tracksFreeBytes_ = false;
    lock_.Initialize();

    std::memset(room, 0, static_cast<std::size_t>(roomBytes));
    const uint64_t slots = IndexSlots(descriptorCount);
    index_ = reinterpret_cast<zk::AddressSlot*>(table + descriptorCount);
    indexMask_ = static_cast<uint32_t>(slots - 1);
    indexShift_ = 32 - static_cast<uint32_t>(std::countr_zero(slots));
    for (auto& head : buckets_)
        head = nullptr;
    nonEmptyClasses_ = 0;

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
    addressRoot_ = nullptr;
    allocationCounter_ = 1;
    blockCount_ = 1;
    if (size != 0) BucketInsert(head);
    return ZK_OK;
}

void MemoryPool::Destroy(zk::DescriptorStore& store) {
    UntrackFreeBytes();
    store.Free(descriptors_);
    lock_.Delete();
    descriptors_ = nullptr;
    index_ = nullptr;
    indexMask_ = 0;
    last_ = nullptr;
    freeDescriptors_ = nullptr;
    for (auto& head : buckets_)
        head = nullptr;
    nonEmptyClasses_ = 0;
    addressRoot_ = nullptr;
    base_ = 0;
    size_ = 0;
    used_ = 0;
    blockCount_ = 0;
    descriptorCount_ = 0;
    gapCount_ = 0;
    allocHook_ = nullptr;
    freeHook_ = nullptr;
}

// ---- gap classes -------------------------------------------------------------

// Treap priority of a gap size: a hash of the size, so that a class tree's
// shape depends only on the sizes it holds, not on which block stands for
// them.
uint32_t GapPriority(uint32_t gap) {
    return (gap * 0x9E3779B9u) ^ (gap >> 16);
}

// Rotates x above its parent in its gap class tree; the in-order sequence
// stays as it was.
void MemoryPool::GapRotateUp(MemoryBlock* x) {
    MemoryBlock* p = x->gapParent;
    MemoryBlock* g = p->gapParent;
    if (p->gapLeft == x) {
        p->gapLeft = x->gapRight;
        if (x->gapRight) x->gapRight->gapParent = p;
        x->gapRight = p;
    } else {
        p->gapRight = x->gapLeft;
        if (x->gapLeft) x->gapLeft->gapParent = p;
        x->gapLeft = p;
    }
    p->gapParent = x;
    x->gapParent = g;
    if (!g)
        buckets_[SizeClass(x->gapAfter)] = x;
    else if (g->gapLeft == p)
        g->gapLeft = x;
    else
        g->gapRight = x;
}

// Puts to into from's place in its class tree (same gap size, so the same
// place in the order and the same priority).
void MemoryPool::GapReplace(MemoryBlock* from, MemoryBlock* to) {
    to->gapLeft = from->gapLeft;
    to->gapRight = from->gapRight;
    to->gapParent = from->gapParent;
    if (to->gapLeft) to->gapLeft->gapParent = to;
    if (to->gapRight) to->gapRight->gapParent = to;
    if (!to->gapParent)
        buckets_[SizeClass(to->gapAfter)] = to;
    else if (to->gapParent->gapLeft == from)
        to->gapParent->gapLeft = to;
    else
        to->gapParent->gapRight = to;
    from->gapLeft = from->gapRight = from->gapParent = nullptr;
}

// Goes before the first entry whose gap is at least its own, so the newest
// comes first among equal gaps: at the front of its size's list, taking the
// size's place in the tree from the block that held it.
void MemoryPool::BucketInsert(MemoryBlock* block) {
    const uint32_t gap = block->gapAfter;
    const uint32_t c = SizeClass(gap);
    block->gapNewer = block->gapOlder = nullptr;
    block->gapLeft = block->gapRight = nullptr;
    MemoryBlock* parent = nullptr;
    MemoryBlock** link = &buckets_[c];
    while (MemoryBlock* at = *link) {
        if (at->gapAfter == gap) {
            GapReplace(at, block);
            block->gapOlder = at;
            at->gapNewer = block;
            nonEmptyClasses_ |= 1u << c;
            ++gapCount_;
            return;
        }
        parent = at;
        link = gap < at->gapAfter ? &at->gapLeft : &at->gapRight;
    }
    block->gapParent = parent;
    *link = block;
    const uint32_t priority = GapPriority(gap);
    while (block->gapParent && priority > GapPriority(block->gapParent->gapAfter))
        GapRotateUp(block);
    nonEmptyClasses_ |= 1u << c;
    ++gapCount_;
}

void MemoryPool::BucketRemove(MemoryBlock* block) {
    if (gapCount_ > 0) --gapCount_;
    if (MemoryBlock* newer = block->gapNewer) { // behind the front of its size's list
        newer->gapOlder = block->gapOlder;
        if (block->gapOlder) block->gapOlder->gapNewer = newer;
        block->gapNewer = block->gapOlder = nullptr;
        return;
    }
    if (MemoryBlock* older = block->gapOlder) { // the next of its size takes its place
        GapReplace(block, older);
        older->gapNewer = nullptr;
        block->gapOlder = nullptr;
        return;
    }
    const uint32_t c = SizeClass(block->gapAfter);
    while (block->gapLeft && block->gapRight)
        GapRotateUp(GapPriority(block->gapLeft->gapAfter) > GapPriority(block->gapRight->gapAfter)
                        ? block->gapLeft
                        : block->gapRight);
    MemoryBlock* child = block->gapLeft ? block->gapLeft : block->gapRight;
    MemoryBlock* parent = block->gapParent;
    if (child) child->gapParent = parent;
    if (!parent)
        buckets_[c] = child;
    else if (parent->gapLeft == block)
        parent->gapLeft = child;
    else
        parent->gapRight = child;
    block->gapLeft = block->gapRight = block->gapParent = nullptr;
    if (!buckets_[c]) nonEmptyClasses_ &= ~(1u << c);
}

uint32_t MemoryPool::LargestGap() const {
    if (!nonEmptyClasses_) return 0;
    const MemoryBlock* b = buckets_[std::bit_width(nonEmptyClasses_) - 1];
    while (b->gapRight)
        b = b->gapRight;
    return b->gapAfter;
}

// Size classes upwards from the request's; in each, from the first size of
// at least the taken size on, in class order (each size's blocks newest
// first), the first whose gap holds the block at its alignment.
MemoryBlock* MemoryPool::BestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    uint32_t classes = nonEmptyClasses_ & ~((1u << SizeClass(taken)) - 1u);
    while (classes) {
        const uint32_t c = static_cast<uint32_t>(std::countr_zero(classes));
        classes &= classes - 1;
        MemoryBlock* at = nullptr;
        for (MemoryBlock* b = buckets_[c]; b;) {
            if (b->gapAfter >= taken) {
                at = b;
                b = b->gapLeft;
            } else {
                b = b->gapRight;
            }
        }
        while (at) {
            for (MemoryBlock* b = at; b; b = b->gapOlder)
                if (FitsFromBottom(GapStart(b), b->gapAfter, taken, alignment, placement)) return b;
            if (at->gapRight) { // the next size up
                at = at->gapRight;
                while (at->gapLeft)
                    at = at->gapLeft;
            } else {
                MemoryBlock* from = at;
                at = at->gapParent;
                while (at && at->gapRight == from) {
                    from = at;
                    at = at->gapParent;
                }
            }
        }
    }
    return nullptr;
}

// ---- address tree ---------------------------------------------------------------

// Rotates x above its parent; both get their largest gap again from their
// children. The pair covers the same blocks as before, so nothing above
// changes.
void MemoryPool::AddressRotateUp(MemoryBlock* x) {
    MemoryBlock* p = x->addressParent;
    MemoryBlock* g = p->addressParent;
    if (p->addressLeft == x) {
        p->addressLeft = x->addressRight;
        if (x->addressRight) x->addressRight->addressParent = p;
        x->addressRight = p;
    } else {
        p->addressRight = x->addressLeft;
        if (x->addressLeft) x->addressLeft->addressParent = p;
        x->addressLeft = p;
    }
    p->addressParent = x;
    x->addressParent = g;
    if (!g)
        addressRoot_ = x;
    else if (g->addressLeft == p)
        g->addressLeft = x;
    else
        g->addressRight = x;
    p->largestGapBelow = LargestOf(p);
    x->largestGapBelow = LargestOf(x);
}

// After one node's gap or children changed: recomputes it and its ancestors
// up to the first whose largest gap stays the same.
void MemoryPool::AddressRefresh(MemoryBlock* from) {
    for (MemoryBlock* b = from; b; b = b->addressParent) {
        const uint32_t largest = LargestOf(b);
        if (largest == b->largestGapBelow) return;
        b->largestGapBelow = largest;
    }
}

// Places block right after owner in the in-order sequence: as owner's right
// child, or as the left child of owner's successor (the leftmost node of
// owner's right subtree, which has none).
void MemoryPool::AddressInsertAfter(MemoryBlock* owner, MemoryBlock* ownerNext,
                                    MemoryBlock* block) {
    block->addressLeft = block->addressRight = nullptr;
    block->largestGapBelow = block->gapAfter;
    if (!owner->addressRight) {
        owner->addressRight = block;
        block->addressParent = owner;
    } else {
        ownerNext->addressLeft = block;
        block->addressParent = ownerNext;
    }
    AddressRefresh(block->addressParent);
    const uint32_t priority = Priority(block);
    while (block->addressParent && priority > Priority(block->addressParent))
        AddressRotateUp(block);
}

void MemoryPool::AddressRemove(MemoryBlock* block) {
    while (block->addressLeft && block->addressRight)
        AddressRotateUp(Priority(block->addressLeft) > Priority(block->addressRight)
                            ? block->addressLeft
                            : block->addressRight);
    MemoryBlock* child = block->addressLeft ? block->addressLeft : block->addressRight;
    MemoryBlock* parent = block->addressParent;
    if (child) child->addressParent = parent;
    if (!parent)
        addressRoot_ = child;
    else if (parent->addressLeft == block)
        parent->addressLeft = child;
    else
        parent->addressRight = child;
    block->addressLeft = block->addressRight = block->addressParent = nullptr;
    AddressRefresh(parent);
}

// Builds the address tree from the block list in one pass: each block joins
// the right spine of the tree so far, taking as its left subtree the spine
// nodes of lower priority it displaces (whose subtrees are then complete, so
// their largest gaps are settled as they leave the spine).
void MemoryPool::AddressBuild() {
    MemoryBlock* spine = nullptr; // the lowest node of the right spine
    for (MemoryBlock* b = descriptors_; b; b = b->next) {
        const uint32_t priority = Priority(b);
        MemoryBlock* displaced = nullptr;
        while (spine && Priority(spine) < priority) {
            spine->largestGapBelow = LargestOf(spine);
            displaced = spine;
            spine = spine->addressParent;
        }
        b->addressLeft = displaced;
        b->addressRight = nullptr;
        if (displaced) displaced->addressParent = b;
        b->addressParent = spine;
        if (spine) spine->addressRight = b;
        spine = b;
    }
    for (MemoryBlock* b = spine; b; b = b->addressParent) {
        b->largestGapBelow = LargestOf(b);
        addressRoot_ = b;
    }
}

// The first block in address order whose gap holds the block: an in-order
// walk that enters only subtrees whose largest gap is at least taken.
MemoryBlock* MemoryPool::LowestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    MemoryBlock* b = addressRoot_;
    if (!b || b->largestGapBelow < taken) return nullptr;
    for (;;) {
        if (LargestBelow(b->addressLeft) >= taken) {
            b = b->addressLeft;
            continue;
        }
        for (;;) { // b's left subtree holds nothing that fits: b, then its right
            if (FitsFromBottom(GapStart(b), b->gapAfter, taken, alignment, placement)) return b;
            if (LargestBelow(b->addressRight) >= taken) {
                b = b->addressRight;
                break;
            }
            MemoryBlock* from = b; // climb to the first ancestor entered from its left
            b = b->addressParent;
            while (b && b->addressRight == from) {
                from = b;
                b = b->addressParent;
            }
            if (!b) return nullptr;
        }
    }
}

// The mirror image: the last block in address order whose gap holds the
// block, placed as high in the gap as the alignment allows.
MemoryBlock* MemoryPool::HighestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    MemoryBlock* b = addressRoot_;
    if (!b || b->largestGapBelow < taken) return nullptr;
    for (;;) {
        if (LargestBelow(b->addressRight) >= taken) {
            b = b->addressRight;
            continue;
        }
        for (;;) {
            if (FitsFromTop(GapStart(b), b->gapAfter, taken, alignment, placement)) return b;
            if (LargestBelow(b->addressLeft) >= taken) {
                b = b->addressLeft;
                break;
            }
            MemoryBlock* from = b;
            b = b->addressParent;
            while (b && b->addressLeft == from) {
                from = b;
                b = b->addressParent;
            }
            if (!b) return nullptr;
        }
    }
}

// ---- address index -------------------------------------------------------------

// Keys are the low 32 bits of block addresses: a pool's range is shorter than
// 4 GiB, so they are distinct among its blocks.
uint32_t MemoryPool::IndexHome(uint32_t key) const {
    return static_cast<uint32_t>(key * 0x9E3779B9u) >> indexShift_;
}

void MemoryPool::IndexInsert(MemoryBlock* block) {
    const uint32_t key = static_cast<uint32_t>(block->address);
    uint32_t i = IndexHome(key);
    while (index_[i].descriptor)
        i = (i + 1) & indexMask_;
    index_[i] = {key, static_cast<uint32_t>(block - descriptors_)};
}

// Linear probing with backward-shift deletion: entries after the hole move up
// unless their home slot lies cyclically after the hole.
void MemoryPool::IndexErase(const MemoryBlock* block) {
    const uint32_t descriptor = static_cast<uint32_t>(block - descriptors_);
    uint32_t hole = IndexHome(static_cast<uint32_t>(block->address));
    while (index_[hole].descriptor != descriptor)
        hole = (hole + 1) & indexMask_;
    for (uint32_t j = (hole + 1) & indexMask_; index_[j].descriptor; j = (j + 1) & indexMask_) {
        const uint32_t home = IndexHome(index_[j].key);
        const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (stays) continue;
        index_[hole] = index_[j];
        hole = j;
    }
    index_[hole] = {0, 0};
}

MemoryBlock* MemoryPool::IndexFind(zkAddr address) const {
    const uint32_t key = static_cast<uint32_t>(address);
    for (uint32_t i = IndexHome(key); index_[i].descriptor; i = (i + 1) & indexMask_) {
        MemoryBlock* block = descriptors_ + index_[i].descriptor;
        if (index_[i].key == key) return block->address == address ? block : nullptr;
    }
    return nullptr;
}

// ---- allocation ----------------------------------------------------------------

bool MemoryPool::FindPlace(uint32_t taken, uint32_t alignment, uint32_t flags, MemoryBlock** owner,
                           zkAddr* placement) {
    if ((flags & zk::kAllocationSearchFlags) && !addressRoot_) AddressBuild();
    if (flags & ZK_ALLOC_BOTTOM)
        *owner = LowestFit(taken, alignment, placement);
    else if (flags & ZK_ALLOC_TOP)
        *owner = HighestFit(taken, alignment, placement);
    else
        *owner = BestFit(taken, alignment, placement);
    return *owner != nullptr;
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
    block->checkpoints = 0;
    block->allocationNumber = allocationCounter_;

    IndexInsert(block);
    if (block->gapAfter) BucketInsert(block);
    if (owner->gapAfter) BucketRemove(owner);
    owner->gapAfter = static_cast<uint32_t>(placement - gapStart);
    if (owner->gapAfter) BucketInsert(owner);
    if (addressRoot_) {
        AddressRefresh(owner);
        AddressInsertAfter(owner, owner->next, block);
    }
    if (owner->next)
        owner->next->previous = block;
    else
        last_ = block;
    owner->next = block;

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

void MemoryPool::Absorb(MemoryBlock* block) {
    if (tracksFreeBytes_) zk::PoisonFreeBytes(block->address, block->size);
    MemoryBlock* before = block->previous;
    if (before->gapAfter) BucketRemove(before);
    before->gapAfter += block->size + block->gapAfter;
    before->next = block->next;
    BucketInsert(before);
    if (block->gapAfter) BucketRemove(block);
    if (addressRoot_) {
        AddressRefresh(before);
        AddressRemove(block);
    }
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

bool MemoryPool::ReleaseByAddress(zkAddr address, bool lockFirst) {
    if (!freeHook_) {
        // Without a hook nothing can refuse: a lock raised before the release
        // would be cleared with the descriptor, so it is not taken.
        zk::ScopedLock guard(lock_);
        MemoryBlock* block = descriptors_ ? IndexFind(address) : nullptr;
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
