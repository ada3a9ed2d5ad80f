// Queries, walks and dumps over a pool's block list.
//
// Addresses in dump lines are printed with at least eight hexadecimal digits
// and more when an address needs them (64-bit hosts), so lines are identical
// to the 32-bit form for every address below 4 GiB.
#include "memory/pool_walks.h"

#include <zk/trace.h>

namespace zk {

namespace {

unsigned long long Hex(zkAddr address) {
    return static_cast<unsigned long long>(address);
}

} // namespace

zkAddr QueryPool(const MemoryPool& pool, uint32_t code) {
    switch (code) {
    case 2:
        return pool.LargestGap();
    case 3:
        return pool.GapCount();
    case 4:
        return pool.Base();
    case 5:
        return pool.End();
    case 6:
        return pool.Size();
    case 7:
        return pool.BlockCount();
    case 8:
        return pool.DescriptorCount();
    case 9:
        return pool.Used();
    case 10:
        return pool.Size() - pool.Used();
    default:
        return 0;
    }
}

uint32_t WalkBlocks(const MemoryPool& pool, MemoryBlockCallback callback, void* user) {
    uint32_t calls = 0;
    for (const MemoryBlock* b = pool.Head()->next; b; b = b->next) {
        ++calls;
        if (!callback(b->address, b->requestedSize, b->allocationNumber, user)) break;
    }
    return calls;
}

uint32_t WalkGaps(const MemoryPool& pool, MemoryRangeCallback callback, void* user) {
    uint32_t calls = 0;
    for (const MemoryBlock* b = pool.Head(); b; b = b->next) {
        if (!b->gapAfter) continue;
        ++calls;
        if (!callback(b->address + b->size, b->gapAfter, user)) break;
    }
    return calls;
}

uint32_t WalkUsed(const MemoryPool& pool, MemoryRangeCallback callback, void* user) {
    uint32_t calls = 0;
    zkAddr position = pool.Base();
    for (const MemoryBlock* b = pool.Head(); b; b = b->next) {
        if (!b->gapAfter) continue;
        const zkAddr gapStart = b->address + b->size;
        if (gapStart != position) {
            ++calls;
            if (!callback(position, static_cast<uint32_t>(gapStart - position), user)) return calls;
        }
        position = gapStart + b->gapAfter;
    }
    if (position != pool.End()) {
        ++calls;
        callback(position, static_cast<uint32_t>(pool.End() - position), user);
    }
    return calls;
}

uint32_t WalkCategories(const MemoryPool& pool, MemoryCategoryCallback callback, void* user) {
    uint32_t calls = 0;
    zkAddr position = pool.Base();
    uint32_t current = 0;
    for (const MemoryBlock* b = pool.Head(); b; b = b->next) {
        if (b->category != current) {
            if (b->address != position) {
                ++calls;
                if (!callback(position, static_cast<uint32_t>(b->address - position), current,
                              user))
                    return calls;
            }
            position = b->address;
            current = b->category;
        }
        if (b->gapAfter) {
            const zkAddr gapStart = b->address + b->size;
            if (gapStart != position) {
                ++calls;
                if (!callback(position, static_cast<uint32_t>(gapStart - position), current, user))
                    return calls;
            }
            position = gapStart + b->gapAfter;
        }
    }
    if (position != pool.End()) {
        ++calls;
        callback(position, static_cast<uint32_t>(pool.End() - position), current, user);
    }
    return calls;
}

uint32_t DumpBlocks(const MemoryPool& pool, uint32_t checkpoint) {
    const uint32_t bit = 1u << (checkpoint % 32);
    uint32_t count = 0;
    uint32_t total = 0;
    for (const MemoryBlock* b = pool.Head()->next; b; b = b->next) {
        if (b->checkpoints & bit) continue;
        zkTrace("  {%u} block at 0x%08llx, %u bytes long.\n", b->allocationNumber, Hex(b->address),
                b->requestedSize);
        ++count;
        total += b->requestedSize;
    }
    zkTrace("Block Dump Complete. Count = %u Total = %u bytes.\n", count, total);
    return count;
}

uint32_t DumpGaps(const MemoryPool& pool, uint32_t minimumSize) {
    uint32_t index = 0;
    uint32_t total = 0;
    uint32_t largest = 0;
    for (const MemoryBlock* b = pool.Head(); b; b = b->next) {
        if (!b->gapAfter) continue;
        const zkAddr start = b->address + b->size;
        if (b->gapAfter >= minimumSize)
            zkTrace("  gap[%u] 0x%08llx-0x%08llx %u bytes\n", index, Hex(start),
                    Hex(start + b->gapAfter), b->gapAfter);
        ++index;
        total += b->gapAfter;
        if (b->gapAfter > largest) largest = b->gapAfter;
    }
    zkTrace("Gap Dump Complete. Count = %u MaxSize = %u Total = %u bytes.\n", index, largest,
            total);
    return index;
}

} // namespace zk
