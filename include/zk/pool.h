/* QAX kernel: application memory pools over arbitrary address ranges.
 *
 * A pool hands out blocks of a range it never reads or writes; its descriptor
 * table lives in the system pool. At most 15 pools exist beside the system
 * pool. Pools must be released before the library terminates. Pool blocks are
 * handle blocks of exact size unless ZK_ALLOC_FIXED / ZK_ALLOC_ROUND are given.
 */
#ifndef ZK_POOL_H
#define ZK_POOL_H

#include "config.h"
#include "memory.h"

ZK_EXTERN_C_BEGIN

/* A pool over [base, base + size) holding at most maxBlocks - 1 blocks. Null
 * without a system pool, for maxBlocks < 2, for a range that wraps past the
 * end of the address space, when 15 pools exist, or when the system pool has
 * no room for the descriptor table. */
ZK_API MemoryPool* ZK_CALL zkCreateMemoryPool(zkAddr base, uint32_t size, uint32_t maxBlocks);
/* Destroys a pool; its blocks are forgotten and their handles invalid. Null,
 * the system pool and an already released pool are ignored. */
ZK_API void ZK_CALL zkReleaseMemoryPool(MemoryPool* pool);
/* A block searched with the pool's mode, no rounding (size 0 takes 1 byte,
 * alignment 0 counts as 1). Null for a null pool, when the descriptors are
 * used up, or when no gap fits. */
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryPoolBlock(MemoryPool* pool, uint32_t size,
                                                   uint32_t alignment);
/* As zkAllocMemoryPoolBlock with the caller's flags (ZK_ALLOC_TOP,
 * ZK_ALLOC_BOTTOM, ZK_ALLOC_ROUND, ZK_ALLOC_FIXED act; others are stored). */
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryPoolBlockEx(MemoryPool* pool, uint32_t size,
                                                     uint32_t alignment, uint32_t flags);
/* Frees a block of the pool, merging it with the gaps around it. */
ZK_API void ZK_CALL zkFreeMemoryPoolBlock(MemoryPool* pool, MemoryBlock* block);
/* The fixed or locked block that starts at address, or null. */
ZK_API MemoryBlock* ZK_CALL zkFindMemoryPoolBlock(MemoryPool* pool, zkAddr address);
/* As zkLockMemory: the block's address, null for null or a freed handle. */
ZK_API void* ZK_CALL zkLockMemoryPoolBlock(MemoryBlock* block);
/* As zkUnlockMemory. */
ZK_API void ZK_CALL zkUnlockMemoryPoolBlock(MemoryBlock* block);
/* As zkGetMemoryBlockSize: the requested size, 0 for null. */
ZK_API uint32_t ZK_CALL zkGetMemoryPoolBlockSize(MemoryBlock* block);
/* 1 best fit, 2 highest address; other values change nothing. */
ZK_API void ZK_CALL zkSetMemoryPoolAllocMode(MemoryPool* pool, uint32_t mode);
/* Marks every block alive now with checkpoint n (0-31). */
ZK_API void ZK_CALL zkSetMemoryPoolCheckpoint(MemoryPool* pool, uint32_t n);
/* Stores a break number; nothing acts on it. */
ZK_API void ZK_CALL zkSetBreakPoolAlloc(MemoryPool* pool, uint32_t number);

ZK_EXTERN_C_END

#endif /* ZK_POOL_H */
