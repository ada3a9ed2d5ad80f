/* QAX kernel: application memory pools over arbitrary address ranges. */
#ifndef ZK_POOL_H
#define ZK_POOL_H

#include "config.h"
#include "memory.h"

ZK_EXTERN_C_BEGIN

ZK_API MemoryPool* ZK_CALL zkCreateMemoryPool(zkAddr base, uint32_t size, uint32_t maxBlocks);
ZK_API void ZK_CALL zkReleaseMemoryPool(MemoryPool* pool);
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryPoolBlock(MemoryPool* pool, uint32_t size,
                                                   uint32_t alignment);
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryPoolBlockEx(MemoryPool* pool, uint32_t size,
                                                     uint32_t alignment, uint32_t flags);
ZK_API void ZK_CALL zkFreeMemoryPoolBlock(MemoryPool* pool, MemoryBlock* block);
ZK_API MemoryBlock* ZK_CALL zkFindMemoryPoolBlock(MemoryPool* pool, zkAddr address);
ZK_API void* ZK_CALL zkLockMemoryPoolBlock(MemoryBlock* block);
ZK_API void ZK_CALL zkUnlockMemoryPoolBlock(MemoryBlock* block);
ZK_API uint32_t ZK_CALL zkGetMemoryPoolBlockSize(MemoryBlock* block);
/* 1 best fit, 2 highest address; other values change nothing. */
ZK_API void ZK_CALL zkSetMemoryPoolAllocMode(MemoryPool* pool, uint32_t mode);
ZK_API void ZK_CALL zkSetMemoryPoolCheckpoint(MemoryPool* pool, uint32_t n);
ZK_API void ZK_CALL zkSetBreakPoolAlloc(MemoryPool* pool, uint32_t number);

ZK_EXTERN_C_END

#endif /* ZK_POOL_H */
