/**
 * @file
 * @brief Application memory pools over arbitrary address ranges.
 */
#ifndef ZK_POOL_H
#define ZK_POOL_H

#include "config.h"
#include "memory.h"

/**
 * @defgroup pool Memory pools
 * @brief Pools that hand out blocks of an address range the application owns.
 *
 * A pool hands out blocks of a range it never reads or writes; its descriptor
 * table lives in the system pool. At most 15 pools exist beside the system
 * pool. Pools must be released before the library terminates. Pool blocks are
 * handle blocks of exact size unless ZK_ALLOC_FIXED / ZK_ALLOC_ROUND are given.
 *
 * Threads: as for the system pool (memory.h): blocks may be allocated and
 * freed from any thread at once; a pool is created and released by one thread
 * while no other thread uses it.
 * @{
 */

ZK_EXTERN_C_BEGIN

/**
 * @brief A pool over [base, base + size) holding at most maxBlocks - 1 blocks.
 * @return the pool, or null without a system pool, for maxBlocks < 2, for a
 *         range that wraps past the end of the address space, when 15 pools
 *         exist, or when the system pool has no room for the descriptor table
 * @threads Any thread.
 */
ZK_API MemoryPool* ZK_CALL zkCreateMemoryPool(zkAddr base, uint32_t size, uint32_t maxBlocks);
/**
 * @brief Destroys a pool; its blocks are forgotten and their handles invalid.
 * @param pool the pool; null, the system pool and an already released pool are ignored
 * @threads Any thread, while no other thread uses the pool.
 */
ZK_API void ZK_CALL zkReleaseMemoryPool(MemoryPool* pool);
/**
 * @brief A block searched with the pool's mode, no rounding.
 * @param pool the pool
 * @param size bytes; 0 takes 1 byte
 * @param alignment the block's alignment; 0 counts as 1
 * @return the handle, or null for a null pool, when the descriptors are used
 *         up, or when no gap fits
 * @threads Any thread.
 */
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryPoolBlock(MemoryPool* pool, uint32_t size,
                                                   uint32_t alignment);
/**
 * @brief As zkAllocMemoryPoolBlock with the caller's flags (ZK_ALLOC_TOP,
 * ZK_ALLOC_BOTTOM, ZK_ALLOC_ROUND, ZK_ALLOC_FIXED act; others are stored).
 * @return the handle, or null as zkAllocMemoryPoolBlock
 * @threads Any thread.
 */
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryPoolBlockEx(MemoryPool* pool, uint32_t size,
                                                     uint32_t alignment, uint32_t flags);
/**
 * @brief Frees a block of the pool, merging it with the gaps around it.
 *
 * A null pool or block, or a block that is not in use, is ignored.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkFreeMemoryPoolBlock(MemoryPool* pool, MemoryBlock* block);
/**
 * @brief The fixed or locked block that starts at address.
 * @return the handle, or null (also for a null pool)
 * @threads Any thread.
 */
ZK_API MemoryBlock* ZK_CALL zkFindMemoryPoolBlock(MemoryPool* pool, zkAddr address);
/**
 * @brief As zkLockMemory: raises the lock count and returns the block's address.
 * @return the address, or null for null or a freed handle
 * @threads Any thread.
 */
ZK_API void* ZK_CALL zkLockMemoryPoolBlock(MemoryBlock* block);
/**
 * @brief As zkUnlockMemory.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkUnlockMemoryPoolBlock(MemoryBlock* block);
/**
 * @brief As zkGetMemoryBlockSize: the requested size.
 * @return the size; 0 for null
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetMemoryPoolBlockSize(MemoryBlock* block);
/**
 * @brief Sets the pool's search mode.
 * @param pool the pool; null does nothing
 * @param mode 1 best fit, 2 highest address; other values change nothing
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkSetMemoryPoolAllocMode(MemoryPool* pool, uint32_t mode);
/**
 * @brief Marks every block alive now with checkpoint n (0-31).
 * @threads Any thread, while no other thread allocates or frees in the pool.
 */
ZK_API void ZK_CALL zkSetMemoryPoolCheckpoint(MemoryPool* pool, uint32_t n);
/**
 * @brief Stores a break number; nothing acts on it.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkSetBreakPoolAlloc(MemoryPool* pool, uint32_t number);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_POOL_H */
