// The heap engine's operations. The invariants they keep are listed in
// memory_pool.h.
#include "memory/memory_pool.h"
#include "memory/free_bytes_poison.h"
#include "memory/leaf_scan.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

using zk::SizeClass;

namespace {

constexpr uint16_t kMaxLockCount = 0xFFFF;
// Address index slots in use when a pool is laid out.
constexpr uint32_t kFirstIndexSlots = 64;

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

// A hint that the bytes at p will be written soon.
inline void Prefetch(const void* p) {
#if defined(__GNUC__) || defined(__clang__)
    __builtin_prefetch(p, 1);
#else
    (void)p;
#endif
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
    b->gapNewer = b->gapOlder = b->gapNode = zk::kNoNode;
    b->checkpoints = 0;
    b->allocationNumber = 0;
}

// Treap priority of an address tree node: a hash of its leaf's number,
// so that the tree's shape does not follow the order of splits.
uint32_t Priority(uint32_t node) {
    uint32_t x = node + 1;
    x ^= x >> 16;
    x *= 0x85EBCA6Bu;
    x ^= x >> 13;
    x *= 0xC2B2AE35u;
    x ^= x >> 16;
    return x;
}

// Address index room: the smallest power of two of at least twice the
// descriptor count, so that probe sequences stay short however many blocks
// there are. A pool starts on a small part of it and doubles the part in use
// as its block count grows (never shrinking it), so that the slots a pool
// with few blocks touches stay in cache.
uint64_t IndexSlots(uint32_t descriptorCount) {
    uint64_t slots = 4;
    while (slots < 2ull * descriptorCount)
        slots <<= 1;
    return slots;
}

// Address tree leaves a pool needs: every leaf but a lone one holds at least
// kLeafMinimum blocks.
uint32_t LeafRoom(uint32_t descriptorCount) {
    return descriptorCount / zk::kLeafMinimum + 1;
}

} // namespace

uint64_t MemoryPool::TableDescriptors(uint32_t descriptorCount) {
    const uint64_t indexBytes = IndexSlots(descriptorCount) * sizeof(zk::AddressSlot);
    // Each descriptor has a gap node and a leaf number; one address node more
    // than leaves: the sentinel that stands for "no node" in the address tree.
    const uint64_t leaves = LeafRoom(descriptorCount);
    const uint64_t nodeBytes = uint64_t{descriptorCount} * (sizeof(zk::GapNode) + 4) +
                               (leaves + 1) * sizeof(zk::AddressNode) +
                               leaves * sizeof(zk::AddressLeaf);
    const uint64_t binBytes = descriptorCount >= zk::kBinnedPoolDescriptors
                                  ? zk::kGapBinWords * sizeof(uint64_t) + zk::kGapBinLimit * 4u
                                  : 0;
    return descriptorCount +
           (indexBytes + binBytes + nodeBytes + sizeof(MemoryBlock) - 1) / sizeof(MemoryBlock);
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
    indexRoom_ = static_cast<uint32_t>(slots);
    indexEntries_ = 0;
    IndexResize(slots < kFirstIndexSlots ? static_cast<uint32_t>(slots) : kFirstIndexSlots);
    binLimit_ = descriptorCount >= zk::kBinnedPoolDescriptors ? zk::kGapBinLimit : 0;
    binBits_ = reinterpret_cast<uint64_t*>(index_ + slots);
    binHeads_ = reinterpret_cast<uint32_t*>(binBits_ + (binLimit_ ? zk::kGapBinWords : 0));
    std::memset(binHeads_, 0xFF, binLimit_ * sizeof(uint32_t)); // every bin empty
    binSummary_ = 0;
    leafCount_ = LeafRoom(descriptorCount);
    leaves_ = reinterpret_cast<zk::AddressLeaf*>(binHeads_ + binLimit_);
    addressNodes_ = reinterpret_cast<zk::AddressNode*>(leaves_ + leafCount_);
    leafPlace_ = reinterpret_cast<uint32_t*>(addressNodes_ + leafCount_ + 1);
    gapNodes_ = reinterpret_cast<zk::GapNode*>(leafPlace_ + descriptorCount);
    for (uint32_t i = 0; i < descriptorCount; ++i)
        gapNodes_[i].parent = i + 1 < descriptorCount ? i + 1 : zk::kNoNode;
    freeGapNodes_ = 0;
    for (auto& root : buckets_)
        root = zk::kNoNode;
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
    addressRoot_ = zk::kNoNode;
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
    indexRoom_ = 0;
    indexEntries_ = 0;
    last_ = nullptr;
    freeDescriptors_ = nullptr;
    for (auto& root : buckets_)
        root = zk::kNoNode;
    nonEmptyClasses_ = 0;
    gapNodes_ = nullptr;
    freeGapNodes_ = zk::kNoNode;
    binBits_ = nullptr;
    binHeads_ = nullptr;
    binSummary_ = 0;
    binLimit_ = 0;
    addressNodes_ = nullptr;
    leaves_ = nullptr;
    leafPlace_ = nullptr;
    leafCount_ = 0;
    freeLeaves_ = zk::kNoNode;
    addressRoot_ = zk::kNoNode;
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
// shape depends only on the sizes it holds.
uint32_t GapPriority(uint32_t gap) {
    return (gap * 0x9E3779B9u) ^ (gap >> 16);
}

// Rotates x above its parent in its gap class tree; the in-order sequence
// stays as it was.
void MemoryPool::GapRotateUp(uint32_t x) {
    zk::GapNode* t = gapNodes_;
    const uint32_t p = t[x].parent;
    const uint32_t g = t[p].parent;
    if (t[p].left == x) {
        t[p].left = t[x].right;
        if (t[x].right != zk::kNoNode) t[t[x].right].parent = p;
        t[x].right = p;
    } else {
        t[p].right = t[x].left;
        if (t[x].left != zk::kNoNode) t[t[x].left].parent = p;
        t[x].left = p;
    }
    t[p].parent = x;
    t[x].parent = g;
    if (g == zk::kNoNode)
        buckets_[SizeClass(t[x].size)] = x;
    else if (t[g].left == p)
        t[g].left = x;
    else
        t[g].right = x;
}

// Goes before the first entry whose gap is at least its own, so the newest
// comes first among equal gaps: at the front of its size's list, or as the
// one entry of a new size node.
void MemoryPool::BucketInsert(MemoryBlock* block) {
    zk::GapNode* t = gapNodes_;
    const uint32_t gap = block->gapAfter;
    const uint32_t k = Number(block);
    ++gapCount_;
    block->gapNewer = zk::kNoNode;
    if (gap < binLimit_) { // the front of its size's bin
        const uint32_t front = binHeads_[gap];
        block->gapOlder = front;
        block->gapNode = zk::kNoNode;
        if (front != zk::kNoNode) {
            descriptors_[front].gapNewer = k;
        } else {
            binBits_[gap >> 6] |= uint64_t{1} << (gap & 63);
            binSummary_ |= uint64_t{1} << (gap >> 6);
        }
        binHeads_[gap] = k;
        return;
    }
    const uint32_t c = SizeClass(gap);
    nonEmptyClasses_ |= 1u << c;
    uint32_t parent = zk::kNoNode;
    uint32_t* link = &buckets_[c];
    while (*link != zk::kNoNode) {
        const uint32_t at = *link;
        if (t[at].size == gap) {
            const uint32_t front = t[at].newest;
            descriptors_[front].gapNewer = k;
            block->gapOlder = front;
            block->gapNode = at;
            t[at].newest = k;
            return;
        }
        parent = at;
        link = gap < t[at].size ? &t[at].left : &t[at].right;
    }
    // A size not present yet: a node from the free list (never empty: each
    // node in use stands for at least one of the pool's descriptors).
    const uint32_t n = freeGapNodes_;
    freeGapNodes_ = t[n].parent;
    t[n] = {zk::kNoNode, zk::kNoNode, parent, gap, k};
    *link = n;
    block->gapOlder = zk::kNoNode;
    block->gapNode = n;
    const uint32_t priority = GapPriority(gap);
    while (t[n].parent != zk::kNoNode && priority > GapPriority(t[t[n].parent].size))
        GapRotateUp(n);
}

void MemoryPool::BucketRemove(MemoryBlock* block) {
    zk::GapNode* t = gapNodes_;
    if (gapCount_ > 0) --gapCount_;
    const uint32_t n = block->gapNode;
    const uint32_t newer = block->gapNewer;
    const uint32_t older = block->gapOlder;
    const uint32_t gap = block->gapAfter;
    if (gap < binLimit_) {
        if (newer != zk::kNoNode) {
            descriptors_[newer].gapOlder = older;
        } else if ((binHeads_[gap] = older) == zk::kNoNode) { // the bin is empty now
            if (!(binBits_[gap >> 6] &= ~(uint64_t{1} << (gap & 63))))
                binSummary_ &= ~(uint64_t{1} << (gap >> 6));
        }
        if (older != zk::kNoNode) descriptors_[older].gapNewer = newer;
        block->gapNewer = block->gapOlder = zk::kNoNode;
        return;
    }
    if (newer != zk::kNoNode)
        descriptors_[newer].gapOlder = older;
    else
        t[n].newest = older;
    if (older != zk::kNoNode) descriptors_[older].gapNewer = newer;
    block->gapNewer = block->gapOlder = block->gapNode = zk::kNoNode;
    if (t[n].newest != zk::kNoNode) return;

    // The last block of its size: the size leaves the tree.
    const uint32_t c = SizeClass(t[n].size);
    while (t[n].left != zk::kNoNode && t[n].right != zk::kNoNode)
        GapRotateUp(GapPriority(t[t[n].left].size) > GapPriority(t[t[n].right].size) ? t[n].left
                                                                                     : t[n].right);
    const uint32_t child = t[n].left != zk::kNoNode ? t[n].left : t[n].right;
    const uint32_t parent = t[n].parent;
    if (child != zk::kNoNode) t[child].parent = parent;
    if (parent == zk::kNoNode)
        buckets_[c] = child;
    else if (t[parent].left == n)
        t[parent].left = child;
    else
        t[parent].right = child;
    t[n].left = t[n].right = zk::kNoNode;
    t[n].parent = freeGapNodes_;
    freeGapNodes_ = n;
    if (buckets_[c] == zk::kNoNode) nonEmptyClasses_ &= ~(1u << c);
}

uint32_t MemoryPool::LargestGap() const {
    if (!nonEmptyClasses_) {
        if (!binSummary_) return 0;
        const uint32_t w = 63u - static_cast<uint32_t>(std::countl_zero(binSummary_));
        return w * 64 + 63u - static_cast<uint32_t>(std::countl_zero(binBits_[w]));
    }
    uint32_t n = buckets_[std::bit_width(nonEmptyClasses_) - 1];
    while (gapNodes_[n].right != zk::kNoNode)
        n = gapNodes_[n].right;
    return gapNodes_[n].size;
}

// Size classes upwards from the request's; in each, from the first size of
// at least the taken size on, in class order (each size's blocks newest
// first), the first whose gap holds the block at its alignment.
MemoryBlock* MemoryPool::BestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    for (uint32_t gap = taken; gap < binLimit_; ++gap) { // the bins first
        gap = NextBin(gap);
        if (gap == zk::kGapBinLimit) break;
        for (uint32_t k = binHeads_[gap]; k != zk::kNoNode; k = descriptors_[k].gapOlder) {
            MemoryBlock* b = descriptors_ + k;
            if (FitsFromBottom(GapStart(b), gap, taken, alignment, placement)) return b;
        }
    }
    const zk::GapNode* t = gapNodes_;
    uint32_t classes = nonEmptyClasses_ & ~((1u << SizeClass(taken)) - 1u);
    while (classes) {
        const uint32_t c = static_cast<uint32_t>(std::countr_zero(classes));
        classes &= classes - 1;
        uint32_t at = zk::kNoNode;
        for (uint32_t n = buckets_[c]; n != zk::kNoNode;) {
            if (t[n].size >= taken) {
                at = n;
                n = t[n].left;
            } else {
                n = t[n].right;
            }
        }
        while (at != zk::kNoNode) {
            for (uint32_t k = t[at].newest; k != zk::kNoNode; k = descriptors_[k].gapOlder) {
                MemoryBlock* b = descriptors_ + k;
                if (FitsFromBottom(GapStart(b), b->gapAfter, taken, alignment, placement)) return b;
            }
            if (t[at].right != zk::kNoNode) { // the next size up
                at = t[at].right;
                while (t[at].left != zk::kNoNode)
                    at = t[at].left;
            } else {
                uint32_t from = at;
                at = t[at].parent;
                while (at != zk::kNoNode && t[at].right == from) {
                    from = at;
                    at = t[at].parent;
                }
            }
        }
    }
    return nullptr;
}

// The smallest non-empty bin of at least gap (< kGapBinLimit), or
// kGapBinLimit when there is none.
uint32_t MemoryPool::NextBin(uint32_t gap) const {
    uint32_t w = gap >> 6;
    uint64_t bits = binBits_[w] & (~uint64_t{0} << (gap & 63));
    if (!bits) {
        const uint64_t words = w == 63 ? 0 : binSummary_ & (~uint64_t{0} << (w + 1));
        if (!words) return zk::kGapBinLimit;
        w = static_cast<uint32_t>(std::countr_zero(words));
        bits = binBits_[w];
    }
    return w * 64 + static_cast<uint32_t>(std::countr_zero(bits));
}

// ---- address tree ---------------------------------------------------------------

uint32_t MemoryPool::LargestOf(uint32_t node) const {
    const zk::AddressNode* t = addressNodes_;
    const uint32_t left = t[t[node].left].largestGapBelow;
    const uint32_t right = t[t[node].right].largestGapBelow;
    const uint32_t below = left > right ? left : right;
    const uint32_t own = t[node].gap;
    return own > below ? own : below;
}

// Rotates x above its parent; both get their largest gap again from their
// children. The pair covers the same leaves as before, so nothing above
// changes.
void MemoryPool::AddressRotateUp(uint32_t x) {
    const uint32_t nil = AddressNil();
    zk::AddressNode* t = addressNodes_;
    const uint32_t p = t[x].parent;
    const uint32_t g = t[p].parent;
    if (t[p].left == x) {
        t[p].left = t[x].right;
        t[t[x].right].parent = p; // the sentinel's parent is never read
        t[x].right = p;
    } else {
        t[p].right = t[x].left;
        t[t[x].left].parent = p;
        t[x].left = p;
    }
    t[p].parent = x;
    t[x].parent = g;
    if (g == nil)
        addressRoot_ = x;
    else if (t[g].left == p)
        t[g].left = x;
    else
        t[g].right = x;
    t[p].largestGapBelow = LargestOf(p);
    t[x].largestGapBelow = LargestOf(x);
}

// After one node's gap or children changed: recomputes it and its ancestors
// up to the first whose largest gap stays the same.
void MemoryPool::AddressRefresh(uint32_t from) {
    const uint32_t nil = AddressNil();
    for (uint32_t b = from; b != nil; b = addressNodes_[b].parent) {
        const uint32_t largest = LargestOf(b);
        if (largest == addressNodes_[b].largestGapBelow) return;
        addressNodes_[b].largestGapBelow = largest;
    }
}

// After a subtree gained a gap and lost none: from `from` up, each largest
// gap rises to it, until one already holds as much (and so, then, do all
// above it).
void MemoryPool::AddressRaise(uint32_t from, uint32_t gap) {
    const uint32_t nil = AddressNil();
    for (uint32_t b = from; b != nil && addressNodes_[b].largestGapBelow < gap;
         b = addressNodes_[b].parent)
        addressNodes_[b].largestGapBelow = gap;
}

// Places the node of leaf `fresh` (its gap already set) right after `leaf`
// in the in-order sequence: as leaf's right child, or as the left child of
// leaf's successor (the leftmost node of leaf's right subtree, which has
// none), then lifts it to its place by priority.
void MemoryPool::AddressAttachAfter(uint32_t leaf, uint32_t successor, uint32_t fresh) {
    const uint32_t nil = AddressNil();
    zk::AddressNode* t = addressNodes_;
    t[fresh].left = t[fresh].right = nil;
    t[fresh].largestGapBelow = t[fresh].gap;
    if (t[leaf].right == nil) {
        t[leaf].right = fresh;
        t[fresh].parent = leaf;
    } else {
        t[successor].left = fresh;
        t[fresh].parent = successor;
    }
    AddressRaise(t[fresh].parent, t[fresh].gap);
    const uint32_t priority = Priority(fresh);
    while (t[fresh].parent != nil && priority > Priority(t[fresh].parent))
        AddressRotateUp(fresh);
}

// Takes a leaf's node out of the tree: rotated down until it has at most
// one child, which takes its place.
void MemoryPool::AddressDetach(uint32_t leaf) {
    const uint32_t nil = AddressNil();
    zk::AddressNode* t = addressNodes_;
    t[leaf].gap = 0;
    while (t[leaf].left != nil && t[leaf].right != nil)
        AddressRotateUp(Priority(t[leaf].left) > Priority(t[leaf].right) ? t[leaf].left
                                                                         : t[leaf].right);
    const uint32_t child = t[leaf].left != nil ? t[leaf].left : t[leaf].right;
    const uint32_t parent = t[leaf].parent;
    if (child != nil) t[child].parent = parent;
    if (parent == nil)
        addressRoot_ = child;
    else if (t[parent].left == leaf)
        t[parent].left = child;
    else
        t[parent].right = child;
    t[leaf].left = t[leaf].right = t[leaf].parent = nil;
    AddressRefresh(parent);
}

// A leaf's entries: one joins at the end; one leaves and the last entry takes
// its slot. Slots past the count keep a gap of 0, which neither fits a
// request nor raises a largest, so that the scans below run over every slot
// and need no branch per entry.
void MemoryPool::LeafPut(uint32_t leaf, uint32_t key, uint32_t descriptor, uint32_t gap) {
    zk::AddressLeaf& l = leaves_[leaf];
    const uint32_t slot = l.count++;
    l.key[slot] = key;
    l.block[slot] = descriptor;
    l.gap[slot] = gap;
    leafPlace_[descriptor] = leaf * zk::kLeafCapacity + slot;
}

void MemoryPool::LeafDrop(uint32_t leaf, uint32_t slot) {
    zk::AddressLeaf& l = leaves_[leaf];
    const uint32_t last = --l.count;
    if (slot != last) {
        l.key[slot] = l.key[last];
        l.block[slot] = l.block[last];
        l.gap[slot] = l.gap[last];
        leafPlace_[l.block[slot]] = leaf * zk::kLeafCapacity + slot;
    }
    l.gap[last] = 0;
}

uint32_t MemoryPool::LeafLargest(uint32_t leaf) const {
    return zk::LargestGapOf<zk::kLeafCapacity>(leaves_[leaf].gap);
}

// After a leaf's entries changed: its largest gap again, and the tree above
// it when that differs.
void MemoryPool::LeafSettle(uint32_t leaf) {
    const uint32_t largest = LeafLargest(leaf);
    if (largest == addressNodes_[leaf].gap) return;
    addressNodes_[leaf].gap = largest;
    AddressRefresh(leaf);
}

// The n-th smallest key of a leaf (from 0).
uint32_t MemoryPool::LeafNthKey(uint32_t leaf, uint32_t n) const {
    const zk::AddressLeaf& l = leaves_[leaf];
    uint32_t keys[zk::kLeafCapacity];
    std::memcpy(keys, l.key, l.count * sizeof(uint32_t));
    std::nth_element(keys, keys + n, keys + l.count);
    return keys[n];
}

// Moves the entries whose key is at least pivot (fromPivotUp) or below it
// to another leaf.
void MemoryPool::LeafMoveKeys(uint32_t from, uint32_t to, uint32_t pivot, bool fromPivotUp) {
    zk::AddressLeaf& l = leaves_[from];
    for (uint32_t i = 0; i < l.count;) {
        if ((l.key[i] >= pivot) == fromPivotUp) {
            LeafPut(to, l.key[i], l.block[i], l.gap[i]);
            LeafDrop(from, i); // the last entry comes to slot i: look at it next
        } else {
            ++i;
        }
    }
}

// A full leaf gives its upper half (by key) to a new leaf placed after it.
void MemoryPool::LeafSplit(uint32_t leaf) {
    const uint32_t fresh = freeLeaves_; // never empty: see LeafRoom
    zk::AddressLeaf& l = leaves_[leaf];
    zk::AddressLeaf& f = leaves_[fresh];
    freeLeaves_ = f.next;
    f.count = 0;
    LeafMoveKeys(leaf, fresh, LeafNthKey(leaf, l.count / 2), true);
    const uint32_t successor = l.next;
    f.previous = leaf;
    f.next = successor;
    if (successor != zk::kNoNode) leaves_[successor].previous = fresh;
    l.next = fresh;
    LeafSettle(leaf);
    addressNodes_[fresh].gap = LeafLargest(fresh);
    AddressAttachAfter(leaf, successor, fresh);
}

// A leaf below kLeafMinimum (not the only one) merges with a neighbour when
// both fit in one leaf, else takes entries from it until they hold half each.
void MemoryPool::LeafRebalance(uint32_t leaf) {
    const zk::AddressLeaf& l = leaves_[leaf];
    const uint32_t low = l.next != zk::kNoNode ? leaf : l.previous;
    const uint32_t high = l.next != zk::kNoNode ? l.next : leaf;
    zk::AddressLeaf& a = leaves_[low];
    zk::AddressLeaf& b = leaves_[high];
    const uint32_t total = a.count + b.count;
    if (total <= zk::kLeafCapacity) {
        LeafMoveKeys(high, low, 0, true);
        a.next = b.next;
        if (b.next != zk::kNoNode) leaves_[b.next].previous = low;
        LeafSettle(low);
        AddressDetach(high);
        b.next = freeLeaves_;
        freeLeaves_ = high;
        return;
    }
    const uint32_t half = total / 2;
    if (a.count < half) // b's lowest keys move to a
        LeafMoveKeys(high, low, LeafNthKey(high, half - a.count), false);
    else // a's highest keys move to b
        LeafMoveKeys(low, high, LeafNthKey(low, half), true);
    LeafSettle(low);
    LeafSettle(high);
}

// The new block joins its owner's leaf (split first when full), next to its
// owner in address order; the owner's gap has shrunk to the slack before the
// block. Neither gap exceeds the owner's old one.
void MemoryPool::AddressInsertAfter(MemoryBlock* owner, MemoryBlock* block) {
    const uint32_t o = Number(owner);
    uint32_t place = leafPlace_[o];
    uint32_t leaf = place / zk::kLeafCapacity;
    zk::AddressLeaf& l = leaves_[leaf];
    const uint32_t oldGap = l.gap[place % zk::kLeafCapacity];
    l.gap[place % zk::kLeafCapacity] = owner->gapAfter;
    const bool split = l.count == zk::kLeafCapacity;
    if (split) {
        LeafSplit(leaf); // settles both halves with the owner's new gap
        leaf = leafPlace_[o] / zk::kLeafCapacity;
    }
    const uint32_t gap = block->gapAfter;
    LeafPut(leaf, static_cast<uint32_t>(GapStart(block) - base_), Number(block), gap);
    zk::AddressNode& node = addressNodes_[leaf];
    if (!split && oldGap == node.gap) {
        LeafSettle(leaf); // the owner held the leaf's largest gap
    } else if (gap > node.gap) {
        node.gap = gap;
        AddressRaise(leaf, gap);
    }
}

// Before's gap grew by the block and its gap; the block leaves its leaf.
void MemoryPool::AddressAbsorb(MemoryBlock* before, MemoryBlock* block) {
    const uint32_t beforePlace = leafPlace_[Number(before)];
    const uint32_t beforeLeaf = beforePlace / zk::kLeafCapacity;
    const uint32_t grown = before->gapAfter;
    leaves_[beforeLeaf].gap[beforePlace % zk::kLeafCapacity] = grown;
    if (grown > addressNodes_[beforeLeaf].gap) {
        addressNodes_[beforeLeaf].gap = grown;
        AddressRaise(beforeLeaf, grown);
    }
    const uint32_t place = leafPlace_[Number(block)];
    const uint32_t leaf = place / zk::kLeafCapacity;
    zk::AddressLeaf& l = leaves_[leaf];
    const uint32_t gone = l.gap[place % zk::kLeafCapacity];
    LeafDrop(leaf, place % zk::kLeafCapacity);
    if (l.count < zk::kLeafMinimum && (l.previous != zk::kNoNode || l.next != zk::kNoNode))
        LeafRebalance(leaf);
    else if (gone != 0 && gone == addressNodes_[leaf].gap)
        LeafSettle(leaf);
}

// Builds the address tree from the block list in one pass: the blocks fill
// leaves of about kLeafFill in turn, and each leaf joins the right spine of
// the tree so far, taking as its left subtree the spine nodes of lower
// priority it displaces (whose subtrees are then complete, so their largest
// gaps are settled as they leave the spine).
void MemoryPool::AddressBuild() {
    const uint32_t nil = AddressNil();
    zk::AddressNode* t = addressNodes_;
    // The sentinel has no gap below it, but its own stops any descent that
    // reaches it (which only wrong largest gaps could make happen).
    t[nil] = {nil, nil, nil, 0, 0xFFFFFFFFu};
    const uint32_t leaves = (blockCount_ + zk::kLeafFill - 1) / zk::kLeafFill;
    for (uint32_t i = 0; i < leafCount_; ++i) {
        leaves_[i].count = 0;
        leaves_[i].next = i + 1 < leafCount_ ? i + 1 : zk::kNoNode;
        std::memset(leaves_[i].gap, 0, sizeof(leaves_[i].gap));
    }
    freeLeaves_ = leaves < leafCount_ ? leaves : zk::kNoNode;
    uint32_t spine = nil; // the lowest node of the right spine
    const MemoryBlock* b = descriptors_;
    for (uint32_t leaf = 0; leaf < leaves; ++leaf) {
        // Counts differ by at most one, so every leaf holds at least
        // kLeafMinimum when there are several.
        const uint32_t count = blockCount_ / leaves + (leaf < blockCount_ % leaves ? 1 : 0);
        leaves_[leaf].previous = leaf > 0 ? leaf - 1 : zk::kNoNode;
        leaves_[leaf].next = leaf + 1 < leaves ? leaf + 1 : zk::kNoNode;
        for (uint32_t i = 0; i < count; ++i, b = b->next)
            LeafPut(leaf, static_cast<uint32_t>(GapStart(b) - base_), Number(b), b->gapAfter);
        t[leaf].gap = LeafLargest(leaf);
        const uint32_t priority = Priority(leaf);
        uint32_t displaced = nil;
        while (spine != nil && Priority(spine) < priority) {
            t[spine].largestGapBelow = LargestOf(spine);
            displaced = spine;
            spine = t[spine].parent;
        }
        t[leaf].left = displaced;
        t[leaf].right = nil;
        if (displaced != nil) t[displaced].parent = leaf;
        t[leaf].parent = spine;
        if (spine != nil) t[spine].right = leaf;
        spine = leaf;
    }
    for (uint32_t n = spine; n != nil; n = t[n].parent) {
        t[n].largestGapBelow = LargestOf(n);
        addressRoot_ = n;
    }
}

// The lowest gap of a leaf that holds the block at its alignment: the
// smallest key whose gap is large enough, then the next smallest while the
// alignment rules one out.
MemoryBlock* MemoryPool::LeafLowest(uint32_t leaf, uint32_t taken, uint32_t alignment,
                                    zkAddr* placement) const {
    const zk::AddressLeaf& l = leaves_[leaf];
    for (uint32_t above = 0;;) {
        // No key is 0xFFFFFFFF: a gap of at least 1 byte follows each one.
        const uint32_t best = zk::SmallestFittingKey<zk::kLeafCapacity>(l.key, l.gap, taken, above);
        if (best == 0xFFFFFFFFu) return nullptr;
        uint32_t slot = 0;
        while (l.key[slot] != best || l.gap[slot] < taken)
            ++slot;
        if (FitsFromBottom(base_ + best, l.gap[slot], taken, alignment, placement))
            return descriptors_ + l.block[slot];
        above = best + 1;
    }
}

// The mirror image: the largest key whose gap holds the block placed as
// high as the alignment allows.
MemoryBlock* MemoryPool::LeafHighest(uint32_t leaf, uint32_t taken, uint32_t alignment,
                                     zkAddr* placement) const {
    const zk::AddressLeaf& l = leaves_[leaf];
    for (uint32_t below = 0xFFFFFFFFu;;) {
        const uint32_t best =
            zk::LargestFittingKeyPlusOne<zk::kLeafCapacity>(l.key, l.gap, taken, below);
        if (best == 0) return nullptr;
        uint32_t slot = 0;
        while (l.key[slot] != best - 1 || l.gap[slot] < taken)
            ++slot;
        if (FitsFromTop(base_ + (best - 1), l.gap[slot], taken, alignment, placement))
            return descriptors_ + l.block[slot];
        below = best - 1;
    }
}

// The first block in address order whose gap holds the block: an in-order
// walk over the leaves that enters only subtrees whose largest gap is at
// least taken.
MemoryBlock* MemoryPool::LowestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    const uint32_t nil = AddressNil();
    const zk::AddressNode* t = addressNodes_;
    uint32_t b = addressRoot_;
    if (t[b].largestGapBelow < taken) return nullptr;
    for (;;) {
        // Down to the first leaf in order whose own largest gap is large
        // enough: left while the left subtree has one, else b itself, else
        // right (which then must have one).
        for (;;) {
            const uint32_t left = t[b].left;
            const bool goLeft = LargestBelow(left) >= taken;
            if (!goLeft && t[b].gap >= taken) break;
            b = goLeft ? left : t[b].right;
        }
        if (b == nil) return nullptr;
        for (;;) { // b's left subtree holds nothing that fits: b, then its right
            if (t[b].gap >= taken) {
                if (MemoryBlock* d = LeafLowest(b, taken, alignment, placement)) return d;
            }
            if (LargestBelow(t[b].right) >= taken) {
                b = t[b].right;
                break;
            }
            uint32_t from = b; // climb to the first ancestor entered from its left
            b = t[b].parent;
            while (b != nil && t[b].right == from) {
                from = b;
                b = t[b].parent;
            }
            if (b == nil) return nullptr;
        }
    }
}

// The mirror image: the last block in address order whose gap holds the
// block, placed as high in the gap as the alignment allows.
MemoryBlock* MemoryPool::HighestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    const uint32_t nil = AddressNil();
    const zk::AddressNode* t = addressNodes_;
    uint32_t b = addressRoot_;
    if (t[b].largestGapBelow < taken) return nullptr;
    for (;;) {
        for (;;) {
            const uint32_t right = t[b].right;
            const bool goRight = LargestBelow(right) >= taken;
            if (!goRight && t[b].gap >= taken) break;
            b = goRight ? right : t[b].left;
        }
        if (b == nil) return nullptr;
        for (;;) {
            if (t[b].gap >= taken) {
                if (MemoryBlock* d = LeafHighest(b, taken, alignment, placement)) return d;
            }
            if (LargestBelow(t[b].left) >= taken) {
                b = t[b].left;
                break;
            }
            uint32_t from = b;
            b = t[b].parent;
            while (b != nil && t[b].left == from) {
                from = b;
                b = t[b].parent;
            }
            if (b == nil) return nullptr;
        }
    }
}

// ---- address index -------------------------------------------------------------

// Keys are the low 32 bits of block addresses: a pool's range is shorter than
// 4 GiB, so they are distinct among its blocks.
uint32_t MemoryPool::IndexHome(uint32_t key) const {
    return static_cast<uint32_t>(key * 0x9E3779B9u) >> indexShift_;
}

// Uses the first `slots` slots of the room (a power of two) and indexes every
// block of the list in them again.
void MemoryPool::IndexResize(uint32_t slots) {
    indexMask_ = slots - 1;
    indexShift_ = 32 - static_cast<uint32_t>(std::countr_zero(slots));
    std::memset(index_, 0, sizeof(zk::AddressSlot) * slots);
    indexEntries_ = 0;
    for (MemoryBlock* b = descriptors_->next; b; b = b->next)
        IndexPlace(b);
}

void MemoryPool::IndexInsert(MemoryBlock* block) {
    // Kept at most a quarter full: past that the part in use doubles, while the
    // room allows. The new block is already in the list, so a resize indexes
    // it with the others.
    if (4 * (indexEntries_ + 1) > indexMask_ + 1 && indexMask_ + 1 < indexRoom_) {
        IndexResize(2 * (indexMask_ + 1));
        return;
    }
    IndexPlace(block);
}

void MemoryPool::IndexPlace(MemoryBlock* block) {
    ++indexEntries_;
    const uint32_t key = static_cast<uint32_t>(block->address);
    uint32_t i = IndexHome(key);
    while (index_[i].descriptor)
        i = (i + 1) & indexMask_;
    index_[i] = {key, static_cast<uint32_t>(block - descriptors_)};
}

// Linear probing with backward-shift deletion: entries after the hole move up
// unless their home slot lies cyclically after the hole.
void MemoryPool::IndexErase(const MemoryBlock* block) {
    --indexEntries_;
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
    if ((flags & zk::kAllocationSearchFlags) && addressRoot_ == zk::kNoNode) AddressBuild();
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
        const uint64_t up = static_cast<uint64_t>(taken) + alignment - 1;
        const uint64_t rounded = IsPowerOfTwo(alignment)
                                     ? up & ~static_cast<uint64_t>(alignment - 1)
                                     : up / alignment * alignment;
        if (rounded > 0xFFFFFFFFu) return nullptr; // cannot be described by a 32-bit size
        taken = static_cast<uint32_t>(rounded);
    }

    MemoryBlock* block = freeDescriptors_;
    if (!block) return nullptr;
    MemoryBlock* owner = nullptr;
    zkAddr placement = 0;
    if (!FindPlace(taken, alignment, flags, &owner, &placement)) return nullptr;

    if (owner->next) Prefetch(owner->next); // its back link changes below
    // The address index's slot for the new block is rarely in cache: it is
    // fetched while the gap classes change and written last.
    Prefetch(index_ + IndexHome(static_cast<uint32_t>(placement)));
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

    if (block->gapAfter) BucketInsert(block);
    if (owner->gapAfter) BucketRemove(owner);
    owner->gapAfter = static_cast<uint32_t>(placement - gapStart);
    if (owner->gapAfter) BucketInsert(owner);
    if (addressRoot_ != zk::kNoNode) AddressInsertAfter(owner, block); // owner's gap too
    if (owner->next)
        owner->next->previous = block;
    else
        last_ = block;
    owner->next = block;
    IndexInsert(block);

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
    // The neighbours are rarely in cache in a large pool: ask for the
    // follower (written at the end) while the predecessor is fetched.
    if (block->next) Prefetch(block->next);
    if (before->gapAfter) BucketRemove(before);
    before->gapAfter += block->size + block->gapAfter;
    before->next = block->next;
    BucketInsert(before);
    if (block->gapAfter) BucketRemove(block);
    if (addressRoot_ != zk::kNoNode) AddressAbsorb(before, block);
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
