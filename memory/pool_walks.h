// Read-only views of a pool: queries, walks with a callback, and the block
// and gap dumps on the trace channel. None of them locks the pool or
// allocates; callers must keep other threads from changing the pool meanwhile,
// and callbacks must not allocate or free in the pool being walked.
#ifndef ZK_MEMORY_POOL_WALKS_H
#define ZK_MEMORY_POOL_WALKS_H

#include <zk/memdiag.h>

#include "memory/memory_pool.h"

namespace zk {

// Query codes 2-10 (code 1 and unknown codes give 0 here).
zkAddr QueryPool(const MemoryPool& pool, uint32_t code);

// Each walk returns the number of callback calls, the refusing call included,
// and stops at once when a callback returns 0.
uint32_t WalkBlocks(const MemoryPool& pool, MemoryBlockCallback callback, void* user);
uint32_t WalkGaps(const MemoryPool& pool, MemoryRangeCallback callback, void* user);
// Maximal used ranges in address order (adjacent blocks form one range).
uint32_t WalkUsed(const MemoryPool& pool, MemoryRangeCallback callback, void* user);
// Maximal used ranges of one category; a gap or a change of category ends one.
uint32_t WalkCategories(const MemoryPool& pool, MemoryCategoryCallback callback, void* user);

// Lists the blocks whose checkpoint bit (checkpoint mod 32) is clear and the
// completion line; returns the count listed.
uint32_t DumpBlocks(const MemoryPool& pool, uint32_t checkpoint);
// Lists the gaps of at least minimumSize and the completion line over all
// gaps; returns the count of all gaps.
uint32_t DumpGaps(const MemoryPool& pool, uint32_t minimumSize);

} // namespace zk

#endif // ZK_MEMORY_POOL_WALKS_H
