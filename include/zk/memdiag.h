/**
 * @file
 * @brief Memory information, walks and dumps.
 */
#ifndef ZK_MEMDIAG_H
#define ZK_MEMDIAG_H

#include "config.h"
#include "memory.h"

/**
 * @defgroup memdiag Memory diagnostics
 * @brief Figures, walks and traced dumps of the system pool and of
 * application pools.
 *
 * Threads: only the info calls lock the pool and may run beside other
 * threads' allocations. Queries, walks and dumps must not run while another
 * thread allocates or frees in the same pool, and callbacks must not allocate
 * or free in the pool being walked. Dump addresses print with at least 8
 * hexadecimal digits, more above 4 GiB.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** A pool's figures. */
typedef struct MemoryInfo {
    uint32_t size;          /**< size of the pool's range */
    uint32_t used;          /**< sum of block sizes */
    uint32_t free;          /**< size - used */
    uint32_t blockCount;    /**< blocks, the head block included */
    uint32_t maxBlockCount; /**< descriptor count */
} MemoryInfo;

/** Called for one block (address, requested size, allocation number);
 * returns 0 to stop the walk, anything else to continue. */
typedef int32_t(ZK_CALL* MemoryBlockCallback)(zkAddr address, uint32_t requestedSize,
                                              uint32_t allocationNumber, void* user);
/** Called for one range: its start and length; 0 stops the walk. */
typedef int32_t(ZK_CALL* MemoryRangeCallback)(zkAddr start, uint32_t length, void* user);
/** Called for one used range of one category; 0 stops the walk. */
typedef int32_t(ZK_CALL* MemoryCategoryCallback)(zkAddr start, uint32_t length, uint32_t category,
                                                 void* user);

/**
 * @brief The system pool's figures.
 * @param info receives them; left untouched for null or without a system pool
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkGetMemoryInfo(MemoryInfo* info);
/**
 * @brief A pool's figures.
 * @param pool the pool
 * @param info receives them; left untouched for a null pool or info
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkGetMemoryPoolInfo(MemoryPool* pool, MemoryInfo* info);
/**
 * @brief One figure of the system pool.
 * @param code 1 half the available physical memory, 2 largest gap, 3 gap
 *        count, 4 base, 5 end, 6 size, 7 block count, 8 descriptor count,
 *        9 used, 10 free
 * @return the figure; 0 for other codes, and for 2-10 without a system pool
 * @threads Any thread, while no other thread allocates or frees in the pool.
 */
ZK_API zkAddr ZK_CALL zkQueryMemoryInfo(uint32_t code);
/**
 * @brief As zkQueryMemoryInfo for a pool.
 * @return the figure; 0 for code 1, other codes and a null pool
 * @threads Any thread, while no other thread allocates or frees in the pool.
 */
ZK_API zkAddr ZK_CALL zkQueryMemoryPoolInfo(MemoryPool* pool, uint32_t code);
/**
 * @brief Walks the system pool's blocks in address order.
 *
 * Every walk stops right after a call that returns 0.
 * @return the number of calls made; 0 for a null callback or without a pool
 * @threads See the group: not beside allocations in the same pool.
 */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryBlocks(MemoryBlockCallback callback, void* user);
/**
 * @brief The same for an application pool.
 * @return the number of calls made; 0 for a null pool or callback
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolBlocks(MemoryPool* pool, MemoryBlockCallback callback,
                                                    void* user);
/**
 * @brief Walks the system pool's free gaps, the one at the start of the range included.
 * @return the number of calls made; 0 for a null callback or without a pool
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryGaps(MemoryRangeCallback callback, void* user);
/**
 * @brief The same for an application pool.
 * @return the number of calls made; 0 for a null pool or callback
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolGaps(MemoryPool* pool, MemoryRangeCallback callback,
                                                  void* user);
/**
 * @brief Walks the system pool's maximal used ranges (adjacent blocks form one range).
 * @return the number of calls made; 0 for a null callback or without a pool
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryUsed(MemoryRangeCallback callback, void* user);
/**
 * @brief The same for an application pool.
 * @return the number of calls made; 0 for a null pool or callback
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolUsed(MemoryPool* pool, MemoryRangeCallback callback,
                                                  void* user);
/**
 * @brief Walks a pool's maximal used ranges of one category each.
 * @return the number of calls made; 0 for a null pool or callback
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolCategory(MemoryPool* pool,
                                                      MemoryCategoryCallback callback, void* user);
/**
 * @brief Traces a heading, the system pool's blocks not marked by checkpoint
 * (mod 32) and a summary line.
 * @return the count of blocks listed; 0 without a system pool
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkDumpAllMemoryBlocks(uint32_t checkpoint);
/**
 * @brief The same for an application pool, without the heading.
 * @return the count of blocks listed; 0 for a null pool
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkDumpAllMemoryPoolBlocks(MemoryPool* pool, uint32_t checkpoint);
/**
 * @brief Traces a heading, the system pool's gaps of at least minimumSize and
 * a summary of all gaps.
 * @return the count of all gaps; 0 without a system pool
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkDumpAllMemoryGaps(uint32_t minimumSize);
/**
 * @brief The same for an application pool, without the heading.
 * @return the count of all gaps; 0 for a null pool
 * @threads See the group.
 */
ZK_API uint32_t ZK_CALL zkDumpAllMemoryPoolGaps(MemoryPool* pool, uint32_t minimumSize);
/**
 * @brief Stores a flag; nothing acts on it.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkShowMemoryStatus(uint32_t flag);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_MEMDIAG_H */
