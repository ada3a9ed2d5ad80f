// The gap classes' trees; their invariants are listed in gap_classes.h.
#include "memory/gap_classes.h"
#include "memory/placement.h"

#include <bit>

namespace zk {

namespace {

// Treap priority of a gap size: a hash of the size, so that a class tree's
// shape depends only on the sizes it holds.
uint32_t GapPriority(uint32_t gap) {
    return (gap * 0x9E3779B9u) ^ (gap >> 16);
}

} // namespace

void GapClasses::Layout(void* room, uint32_t descriptorCount, MemoryBlock* blocks) {
    blocks_ = blocks;
    nodes_ = static_cast<GapNode*>(room);
    for (uint32_t i = 0; i < descriptorCount; ++i)
        nodes_[i].parent = i + 1 < descriptorCount ? i + 1 : kNoNode;
    freeNodes_ = 0;
    for (auto& root : roots_)
        root = kNoNode;
    nonEmpty_ = 0;
}

void GapClasses::Clear() {
    blocks_ = nullptr;
    nodes_ = nullptr;
    for (auto& root : roots_)
        root = kNoNode;
    freeNodes_ = kNoNode;
    nonEmpty_ = 0;
}

// Rotates x above its parent in its class tree; the in-order sequence stays
// as it was.
void GapClasses::RotateUp(uint32_t x) {
    GapNode* t = nodes_;
    const uint32_t p = t[x].parent;
    const uint32_t g = t[p].parent;
    if (t[p].left == x) {
        t[p].left = t[x].right;
        if (t[x].right != kNoNode) t[t[x].right].parent = p;
        t[x].right = p;
    } else {
        t[p].right = t[x].left;
        if (t[x].left != kNoNode) t[t[x].left].parent = p;
        t[x].left = p;
    }
    t[p].parent = x;
    t[x].parent = g;
    if (g == kNoNode)
        roots_[SizeClass(t[x].size)] = x;
    else if (t[g].left == p)
        t[g].left = x;
    else
        t[g].right = x;
}

void GapClasses::Insert(MemoryBlock* block) {
    GapNode* t = nodes_;
    const uint32_t gap = block->gapAfter;
    const uint32_t k = static_cast<uint32_t>(block - blocks_);
    block->gapNewer = kNoNode;
    const uint32_t c = SizeClass(gap);
    nonEmpty_ |= 1u << c;
    uint32_t parent = kNoNode;
    uint32_t* link = &roots_[c];
    while (*link != kNoNode) {
        const uint32_t at = *link;
        if (t[at].size == gap) {
            const uint32_t front = t[at].newest;
            blocks_[front].gapNewer = k;
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
    const uint32_t n = freeNodes_;
    freeNodes_ = t[n].parent;
    t[n] = {kNoNode, kNoNode, parent, gap, k};
    *link = n;
    block->gapOlder = kNoNode;
    block->gapNode = n;
    const uint32_t priority = GapPriority(gap);
    while (t[n].parent != kNoNode && priority > GapPriority(t[t[n].parent].size))
        RotateUp(n);
}

void GapClasses::Remove(MemoryBlock* block) {
    GapNode* t = nodes_;
    const uint32_t n = block->gapNode;
    const uint32_t newer = block->gapNewer;
    const uint32_t older = block->gapOlder;
    if (newer != kNoNode)
        blocks_[newer].gapOlder = older;
    else
        t[n].newest = older;
    if (older != kNoNode) blocks_[older].gapNewer = newer;
    block->gapNewer = block->gapOlder = block->gapNode = kNoNode;
    if (t[n].newest != kNoNode) return;

    // The last block of its size: the size leaves the tree.
    const uint32_t c = SizeClass(t[n].size);
    while (t[n].left != kNoNode && t[n].right != kNoNode)
        RotateUp(GapPriority(t[t[n].left].size) > GapPriority(t[t[n].right].size) ? t[n].left
                                                                                  : t[n].right);
    const uint32_t child = t[n].left != kNoNode ? t[n].left : t[n].right;
    const uint32_t parent = t[n].parent;
    if (child != kNoNode) t[child].parent = parent;
    if (parent == kNoNode)
        roots_[c] = child;
    else if (t[parent].left == n)
        t[parent].left = child;
    else
        t[parent].right = child;
    t[n].left = t[n].right = kNoNode;
    t[n].parent = freeNodes_;
    freeNodes_ = n;
    if (roots_[c] == kNoNode) nonEmpty_ &= ~(1u << c);
}

uint32_t GapClasses::Largest() const {
    if (!nonEmpty_) return 0;
    uint32_t n = roots_[std::bit_width(nonEmpty_) - 1];
    while (nodes_[n].right != kNoNode)
        n = nodes_[n].right;
    return nodes_[n].size;
}

MemoryBlock* GapClasses::BestFit(uint32_t taken, uint32_t alignment, zkAddr* placement) const {
    const GapNode* t = nodes_;
    uint32_t classes = nonEmpty_ & ~((1u << SizeClass(taken)) - 1u);
    while (classes) {
        const uint32_t c = static_cast<uint32_t>(std::countr_zero(classes));
        classes &= classes - 1;
        uint32_t at = kNoNode;
        for (uint32_t n = roots_[c]; n != kNoNode;) {
            if (t[n].size >= taken) {
                at = n;
                n = t[n].left;
            } else {
                n = t[n].right;
            }
        }
        while (at != kNoNode) {
            for (uint32_t k = t[at].newest; k != kNoNode; k = blocks_[k].gapOlder) {
                MemoryBlock* b = blocks_ + k;
                if (FitsFromBottom(GapStart(b), b->gapAfter, taken, alignment, placement)) return b;
            }
            if (t[at].right != kNoNode) { // the next size up
                at = t[at].right;
                while (t[at].left != kNoNode)
                    at = t[at].left;
            } else {
                uint32_t from = at;
                at = t[at].parent;
                while (at != kNoNode && t[at].right == from) {
                    from = at;
                    at = t[at].parent;
                }
            }
        }
    }
    return nullptr;
}

} // namespace zk
