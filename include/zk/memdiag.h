/* QAX kernel: memory information, walks and dumps.
 *
 * Only the info calls lock the pool; queries, walks and dumps must not run
 * while another thread allocates or frees in the same pool, and callbacks
 * must not allocate or free in the pool being walked. Dump addresses print
 * with at least 8 hexadecimal digits, more above 4 GiB. */
#ifndef ZK_MEMDIAG_H
#define ZK_MEMDIAG_H

#include "config.h"
#include "memory.h"

ZK_EXTERN_C_BEGIN

typedef struct MemoryInfo {
    uint32_t size;          /* size of the pool's range */
    uint32_t used;          /* sum of block sizes */
    uint32_t free;          /* size - used */
    uint32_t blockCount;    /* head block included */
    uint32_t maxBlockCount; /* descriptor count */
} MemoryInfo;

/* Callbacks return 0 to stop the walk, anything else to continue. */
typedef int32_t(ZK_CALL* MemoryBlockCallback)(zkAddr address, uint32_t requestedSize,
                                              uint32_t allocationNumber, void* user);
/* One range: its start and length. */
typedef int32_t(ZK_CALL* MemoryRangeCallback)(zkAddr start, uint32_t length, void* user);
/* One used range of one category. */
typedef int32_t(ZK_CALL* MemoryCategoryCallback)(zkAddr start, uint32_t length, uint32_t category,
                                                 void* user);

/* The system pool's figures; leaves info untouched for null or without a system pool. */
ZK_API void ZK_CALL zkGetMemoryInfo(MemoryInfo* info);
/* A pool's figures; leaves info untouched for a null pool or info. */
ZK_API void ZK_CALL zkGetMemoryPoolInfo(MemoryPool* pool, MemoryInfo* info);
/* 1 half the available physical memory, 2 largest gap, 3 gap count, 4 base,
 * 5 end, 6 size, 7 block count, 8 descriptor count, 9 used, 10 free; other
 * codes, and 2-10 without a system pool, give 0. */
ZK_API zkAddr ZK_CALL zkQueryMemoryInfo(uint32_t code);
/* As zkQueryMemoryInfo for a pool; code 1 and a null pool give 0. */
ZK_API zkAddr ZK_CALL zkQueryMemoryPoolInfo(MemoryPool* pool, uint32_t code);
/* Walks the blocks in address order (address, requested size, number);
 * returns the number of calls. Every walk returns 0 for a null pool or
 * callback, and stops right after a call that returns 0. */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryBlocks(MemoryBlockCallback callback, void* user);
/* The same for an application pool. */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolBlocks(MemoryPool* pool, MemoryBlockCallback callback,
                                                    void* user);
/* Walks the free gaps, the one at the start of the range included. */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryGaps(MemoryRangeCallback callback, void* user);
/* The same for an application pool. */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolGaps(MemoryPool* pool, MemoryRangeCallback callback,
                                                  void* user);
/* Walks the maximal used ranges (adjacent blocks form one range). */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryUsed(MemoryRangeCallback callback, void* user);
/* The same for an application pool. */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolUsed(MemoryPool* pool, MemoryRangeCallback callback,
                                                  void* user);
/* Walks the maximal used ranges of one category. */
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolCategory(MemoryPool* pool,
                                                      MemoryCategoryCallback callback, void* user);
/* Traces the blocks not marked by checkpoint (mod 32) and a summary line;
 * returns the count listed. The system form first traces a heading. */
ZK_API uint32_t ZK_CALL zkDumpAllMemoryBlocks(uint32_t checkpoint);
/* The same for an application pool. */
ZK_API uint32_t ZK_CALL zkDumpAllMemoryPoolBlocks(MemoryPool* pool, uint32_t checkpoint);
/* Traces the gaps of at least minimumSize and a summary of all gaps; returns
 * the count of all gaps. The system form first traces a heading. */
ZK_API uint32_t ZK_CALL zkDumpAllMemoryGaps(uint32_t minimumSize);
/* The same for an application pool. */
ZK_API uint32_t ZK_CALL zkDumpAllMemoryPoolGaps(MemoryPool* pool, uint32_t minimumSize);
/* Stores a flag; nothing acts on it. */
ZK_API void ZK_CALL zkShowMemoryStatus(uint32_t flag);

ZK_EXTERN_C_END

#endif /* ZK_MEMDIAG_H */
