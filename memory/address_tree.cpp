// The address tree's steps; its invariants are listed in address_tree.h.
#include "memory/address_tree.h"
#include "memory/leaf_scan.h"
#include "memory/placement.h"

#include <algorithm>
#include <cstring>

namespace zk {

namespace {

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

// Leaves a pool needs: every leaf but a lone one holds at least kLeafMinimum
// blocks.
uint32_t LeafRoom(uint32_t descriptorCount) {
    return descriptorCount / kLeafMinimum + 1;
}

} // namespace

uint64_t AddressTree::TableBytes(uint32_t descriptorCount) {
    // One node more than leaves: the sentinel.
    const uint64_t leaves = LeafRoom(descriptorCount);
    return leaves * sizeof(AddressLeaf) + (leaves + 1) * sizeof(AddressNode) +
           uint64_t{descriptorCount} * sizeof(uint32_t);
}

void* AddressTree::Layout(void* room, uint32_t descriptorCount, zkAddr base, MemoryBlock* blocks) {
    blocks_ = blocks;
    base_ = base;
    leafRoom_ = LeafRoom(descriptorCount);
    leaves_ = static_cast<AddressLeaf*>(room);
    nodes_ = reinterpret_cast<AddressNode*>(leaves_ + leafRoom_);
    place_ = reinterpret_cast<uint32_t*>(nodes_ + leafRoom_ + 1);
    freeLeaves_ = kNoNode;
    root_ = kNoNode;
    return place_ + descriptorCount;
}

void AddressTree::Clear() {
    blocks_ = nullptr;
    nodes_ = nullptr;
    leaves_ = nullptr;
    place_ = nullptr;
    leafRoom_ = 0;
    freeLeaves_ = kNoNode;
    root_ = kNoNode;
}

uint32_t AddressTree::LargestOf(uint32_t node) const {
    const AddressNode* t = nodes_;
    const uint32_t left = t[t[node].left].largestGapBelow;
    const uint32_t right = t[t[node].right].largestGapBelow;
    const uint32_t below = left > right ? left : right;
    const uint32_t own = t[node].gap;
    return own > below ? own : below;
}

// Rotates x above its parent; both get their largest gap again from their
// children. The pair covers the same leaves as before, so nothing above
// changes.
void AddressTree::RotateUp(uint32_t x) {
    const uint32_t nil = Nil();
    AddressNode* t = nodes_;
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
        root_ = x;
    else if (t[g].left == p)
        t[g].left = x;
    else
        t[g].right = x;
    t[p].largestGapBelow = LargestOf(p);
    t[x].largestGapBelow = LargestOf(x);
}

// After one node's gap or children changed: recomputes it and its ancestors
// up to the first whose largest gap stays the same.
void AddressTree::Refresh(uint32_t from) {
    const uint32_t nil = Nil();
    for (uint32_t b = from; b != nil; b = nodes_[b].parent) {
        const uint32_t largest = LargestOf(b);
        if (largest == nodes_[b].largestGapBelow) return;
        nodes_[b].largestGapBelow = largest;
    }
}

// After a subtree gained a gap and lost none: from `from` up, each largest
// gap rises to it, until one already holds as much (and so, then, do all
// above it).
void AddressTree::Raise(uint32_t from, uint32_t gap) {
    const uint32_t nil = Nil();
    for (uint32_t b = from; b != nil && nodes_[b].largestGapBelow < gap; b = nodes_[b].parent)
        nodes_[b].largestGapBelow = gap;
}

// Places the node of leaf `fresh` (its gap already set) right after `leaf`
// in the in-order sequence: as leaf's right child, or as the left child of
// leaf's successor (the leftmost node of leaf's right subtree, which has
// none), then lifts it to its place by priority.
void AddressTree::AttachAfter(uint32_t leaf, uint32_t successor, uint32_t fresh) {
    const uint32_t nil = Nil();
    AddressNode* t = nodes_;
    t[fresh].left = t[fresh].right = nil;
    t[fresh].largestGapBelow = t[fresh].gap;
    if (t[leaf].right == nil) {
        t[leaf].right = fresh;
        t[fresh].parent = leaf;
    } else {
        t[successor].left = fresh;
        t[fresh].parent = successor;
    }
    Raise(t[fresh].parent, t[fresh].gap);
    const uint32_t priority = Priority(fresh);
    while (t[fresh].parent != nil && priority > Priority(t[fresh].parent))
        RotateUp(fresh);
}

// Takes a leaf's node out of the tree: rotated down until it has at most
// one child, which takes its place.
void AddressTree::Detach(uint32_t leaf) {
    const uint32_t nil = Nil();
    AddressNode* t = nodes_;
    t[leaf].gap = 0;
    while (t[leaf].left != nil && t[leaf].right != nil)
        RotateUp(Priority(t[leaf].left) > Priority(t[leaf].right) ? t[leaf].left : t[leaf].right);
    const uint32_t child = t[leaf].left != nil ? t[leaf].left : t[leaf].right;
    const uint32_t parent = t[leaf].parent;
    if (child != nil) t[child].parent = parent;
    if (parent == nil)
        root_ = child;
    else if (t[parent].left == leaf)
        t[parent].left = child;
    else
        t[parent].right = child;
    t[leaf].left = t[leaf].right = t[leaf].parent = nil;
    Refresh(parent);
}

// A leaf's entries: one joins at the end; one leaves and the last entry takes
// its slot. Slots past the count keep a gap of 0, which neither fits a
// request nor raises a largest, so that the scans below run over every slot
// and need no branch per entry.
void AddressTree::LeafPut(uint32_t leaf, uint32_t key, uint32_t descriptor, uint32_t gap) {
    AddressLeaf& l = leaves_[leaf];
    const uint32_t slot = l.count++;
    l.key[slot] = key;
    l.block[slot] = descriptor;
    l.gap[slot] = gap;
    place_[descriptor] = leaf * kLeafCapacity + slot;
}

void AddressTree::LeafDrop(uint32_t leaf, uint32_t slot) {
    AddressLeaf& l = leaves_[leaf];
    const uint32_t last = --l.count;
    if (slot != last) {
        l.key[slot] = l.key[last];
        l.block[slot] = l.block[last];
        l.gap[slot] = l.gap[last];
        place_[l.block[slot]] = leaf * kLeafCapacity + slot;
    }
    l.gap[last] = 0;
}

uint32_t AddressTree::LeafLargest(uint32_t leaf) const {
    return LargestGapOf<kLeafCapacity>(leaves_[leaf].gap);
}

// After a leaf's entries changed: its largest gap again, and the tree above
// it when that differs.
void AddressTree::LeafSettle(uint32_t leaf) {
    const uint32_t largest = LeafLargest(leaf);
    if (largest == nodes_[leaf].gap) return;
    nodes_[leaf].gap = largest;
    Refresh(leaf);
}

// The n-th smallest key of a leaf (from 0).
uint32_t AddressTree::LeafNthKey(uint32_t leaf, uint32_t n) const {
    const AddressLeaf& l = leaves_[leaf];
    uint32_t keys[kLeafCapacity];
    std::memcpy(keys, l.key, l.count * sizeof(uint32_t));
    std::nth_element(keys, keys + n, keys + l.count);
    return keys[n];
}

// Moves the entries whose key is at least pivot (fromPivotUp) or below it
// to another leaf.
void AddressTree::LeafMoveKeys(uint32_t from, uint32_t to, uint32_t pivot, bool fromPivotUp) {
    AddressLeaf& l = leaves_[from];
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
void AddressTree::LeafSplit(uint32_t leaf) {
    const uint32_t fresh = freeLeaves_; // never empty: see LeafRoom
    AddressLeaf& l = leaves_[leaf];
    AddressLeaf& f = leaves_[fresh];
    freeLeaves_ = f.next;
    f.count = 0;
    LeafMoveKeys(leaf, fresh, LeafNthKey(leaf, l.count / 2), true);
    const uint32_t successor = l.next;
    f.previous = leaf;
    f.next = successor;
    if (successor != kNoNode) leaves_[successor].previous = fresh;
    l.next = fresh;
    LeafSettle(leaf);
    nodes_[fresh].gap = LeafLargest(fresh);
    AttachAfter(leaf, successor, fresh);
}

// A leaf below kLeafMinimum (not the only one) merges with a neighbour when
// both fit in one leaf, else takes entries from it until they hold half each.
void AddressTree::LeafRebalance(uint32_t leaf) {
    const AddressLeaf& l = leaves_[leaf];
    const uint32_t low = l.next != kNoNode ? leaf : l.previous;
    const uint32_t high = l.next != kNoNode ? l.next : leaf;
    AddressLeaf& a = leaves_[low];
    AddressLeaf& b = leaves_[high];
    const uint32_t total = a.count + b.count;
    if (total <= kLeafCapacity) {
        LeafMoveKeys(high, low, 0, true);
        a.next = b.next;
        if (b.next != kNoNode) leaves_[b.next].previous = low;
        LeafSettle(low);
        Detach(high);
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
void AddressTree::InsertAfter(const MemoryBlock* owner, const MemoryBlock* block) {
    const uint32_t o = Number(owner);
    uint32_t place = place_[o];
    uint32_t leaf = place / kLeafCapacity;
    AddressLeaf& l = leaves_[leaf];
    const uint32_t oldGap = l.gap[place % kLeafCapacity];
    l.gap[place % kLeafCapacity] = owner->gapAfter;
    const bool split = l.count == kLeafCapacity;
    if (split) {
        LeafSplit(leaf); // settles both halves with the owner's new gap
        leaf = place_[o] / kLeafCapacity;
    }
    const uint32_t gap = block->gapAfter;
    LeafPut(leaf, static_cast<uint32_t>(GapStart(block) - base_), Number(block), gap);
    AddressNode& node = nodes_[leaf];
    if (!split && oldGap == node.gap) {
        LeafSettle(leaf); // the owner held the leaf's largest gap
    } else if (gap > node.gap) {
        node.gap = gap;
        Raise(leaf, gap);
    }
}

// Before's gap grew by the block and its gap; the block leaves its leaf.
void AddressTree::Absorb(const MemoryBlock* before, const MemoryBlock* block) {
    const uint32_t beforePlace = place_[Number(before)];
    const uint32_t beforeLeaf = beforePlace / kLeafCapacity;
    const uint32_t grown = before->gapAfter;
    leaves_[beforeLeaf].gap[beforePlace % kLeafCapacity] = grown;
    if (grown > nodes_[beforeLeaf].gap) {
        nodes_[beforeLeaf].gap = grown;
        Raise(beforeLeaf, grown);
    }
    const uint32_t place = place_[Number(block)];
    const uint32_t leaf = place / kLeafCapacity;
    AddressLeaf& l = leaves_[leaf];
    const uint32_t gone = l.gap[place % kLeafCapacity];
    LeafDrop(leaf, place % kLeafCapacity);
    if (l.count < kLeafMinimum && (l.previous != kNoNode || l.next != kNoNode))
        LeafRebalance(leaf);
    else if (gone != 0 && gone == nodes_[leaf].gap)
        LeafSettle(leaf);
}

// Builds the address tree from the block list in one pass: the blocks fill
// leaves of about kLeafFill in turn, and each leaf joins the right spine of
// the tree so far, taking as its left subtree the spine nodes of lower
// priority it displaces (whose subtrees are then complete, so their largest
// gaps are settled as they leave the spine).
void AddressTree::Build(uint32_t blockCount) {
    const uint32_t nil = Nil();
    AddressNode* t = nodes_;
    // The sentinel has no gap below it, but its own stops any descent that
    // reaches it (which only wrong largest gaps could make happen).
    t[nil] = {nil, nil, nil, 0, 0xFFFFFFFFu};
    const uint32_t leaves = (blockCount + kLeafFill - 1) / kLeafFill;
    for (uint32_t i = 0; i < leafRoom_; ++i) {
        leaves_[i].count = 0;
        leaves_[i].next = i + 1 < leafRoom_ ? i + 1 : kNoNode;
        std::memset(leaves_[i].gap, 0, sizeof(leaves_[i].gap));
    }
    freeLeaves_ = leaves < leafRoom_ ? leaves : kNoNode;
    uint32_t spine = nil; // the lowest node of the right spine
    const MemoryBlock* b = blocks_;
    for (uint32_t leaf = 0; leaf < leaves; ++leaf) {
        // Counts differ by at most one, so every leaf holds at least
        // kLeafMinimum when there are several.
        const uint32_t count = blockCount / leaves + (leaf < blockCount % leaves ? 1 : 0);
        leaves_[leaf].previous = leaf > 0 ? leaf - 1 : kNoNode;
        leaves_[leaf].next = leaf + 1 < leaves ? leaf + 1 : kNoNode;
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
        root_ = n;
    }
}

// The lowest gap of a leaf that holds the block at its alignment: the
// smallest key whose gap is large enough, then the next smallest while the
// alignment rules one out.
MemoryBlock* AddressTree::LeafLowest(uint32_t leaf, uint32_t taken, uint32_t alignment,
                                     zkAddr* placement) const {
    const AddressLeaf& l = leaves_[leaf];
    for (uint32_t above = 0;;) {
        // No key is 0xFFFFFFFF: a gap of at least 1 byte follows each one.
        const uint32_t best = SmallestFittingKey<kLeafCapacity>(l.key, l.gap, taken, above);
        if (best == 0xFFFFFFFFu) return nullptr;
        uint32_t slot = 0;
        while (l.key[slot] != best || l.gap[slot] < taken)
            ++slot;
        if (FitsFromBottom(base_ + best, l.gap[slot], taken, alignment, placement))
            return blocks_ + l.block[slot];
        above = best + 1;
    }
}

// The mirror image: the largest key whose gap holds the block placed as
// high as the alignment allows.
MemoryBlock* AddressTree::LeafHighest(uint32_t leaf, uint32_t taken, uint32_t alignment,
                                      zkAddr* placement) const {
    const AddressLeaf& l = leaves_[leaf];
    for (uint32_t below = 0xFFFFFFFFu;;) {
        const uint32_t best = LargestFittingKeyPlusOne<kLeafCapacity>(l.key, l.gap, taken, below);
        if (best == 0) return nullptr;
        uint32_t slot = 0;
        while (l.key[slot] != best - 1 || l.gap[slot] < taken)
            ++slot;
        if (FitsFromTop(base_ + (best - 1), l.gap[slot], taken, alignment, placement))
            return blocks_ + l.block[slot];
        below = best - 1;
    }
}

// The first block in address order whose gap holds the block: an in-order
// walk over the leaves that enters only subtrees whose largest gap is at
// least taken.
MemoryBlock* AddressTree::LowestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    const uint32_t nil = Nil();
    const AddressNode* t = nodes_;
    uint32_t b = root_;
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
MemoryBlock* AddressTree::HighestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    const uint32_t nil = Nil();
    const AddressNode* t = nodes_;
    uint32_t b = root_;
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

} // namespace zk
