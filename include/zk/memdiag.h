/* QAX kernel: memory information, walks and dumps. */
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
typedef int32_t(ZK_CALL* MemoryRangeCallback)(zkAddr start, uint32_t length, void* user);
typedef int32_t(ZK_CALL* MemoryCategoryCallback)(zkAddr start, uint32_t length,
                                                 uint32_t category, void* user);

ZK_API void ZK_CALL zkGetMemoryInfo(MemoryInfo* info);
ZK_API void ZK_CALL zkGetMemoryPoolInfo(MemoryPool* pool, MemoryInfo* info);
ZK_API zkAddr ZK_CALL zkQueryMemoryInfo(uint32_t code);
ZK_API zkAddr ZK_CALL zkQueryMemoryPoolInfo(MemoryPool* pool, uint32_t code);
ZK_API uint32_t ZK_CALL zkEnumerateMemoryBlocks(MemoryBlockCallback callback, void* user);
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolBlocks(MemoryPool* pool, MemoryBlockCallback callback,
                                                    void* user);
ZK_API uint32_t ZK_CALL zkEnumerateMemoryGaps(MemoryRangeCallback callback, void* user);
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolGaps(MemoryPool* pool, MemoryRangeCallback callback,
                                                  void* user);
ZK_API uint32_t ZK_CALL zkEnumerateMemoryUsed(MemoryRangeCallback callback, void* user);
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolUsed(MemoryPool* pool, MemoryRangeCallback callback,
                                                  void* user);
ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolCategory(MemoryPool* pool,
                                                      MemoryCategoryCallback callback, void* user);
ZK_API uint32_t ZK_CALL zkDumpAllMemoryBlocks(uint32_t checkpoint);
ZK_API uint32_t ZK_CALL zkDumpAllMemoryPoolBlocks(MemoryPool* pool, uint32_t checkpoint);
ZK_API uint32_t ZK_CALL zkDumpAllMemoryGaps(uint32_t minimumSize);
ZK_API uint32_t ZK_CALL zkDumpAllMemoryPoolGaps(MemoryPool* pool, uint32_t minimumSize);
ZK_API void ZK_CALL zkShowMemoryStatus(uint32_t flag);

ZK_EXTERN_C_END

#endif /* ZK_MEMDIAG_H */
