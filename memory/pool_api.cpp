// Exported functions of application pools. The same calls work on the system
// pool's handle (zkGetSystemMemoryPool), except zkReleaseMemoryPool.
#include <zk/pool.h>
#include <zk/result.h>

#include "memory/memory_manager.h"

using zk::LivePool;

extern "C" ZK_API MemoryPool* ZK_CALL zkCreateMemoryPool(zkAddr base, uint32_t size,
                                                         uint32_t maxBlocks) {
    return zk::Memory().CreatePool(base, size, maxBlocks);
}

extern "C" ZK_API void ZK_CALL zkReleaseMemoryPool(MemoryPool* pool) {
    zk::Memory().ReleasePool(pool);
}

extern "C" ZK_API MemoryBlock* ZK_CALL zkAllocMemoryPoolBlock(MemoryPool* pool, uint32_t size,
                                                              uint32_t alignment) {
    pool = LivePool(pool);
    return pool ? pool->Allocate(size, alignment, pool->Mode(), 0) : nullptr;
}

extern "C" ZK_API MemoryBlock* ZK_CALL zkAllocMemoryPoolBlockEx(MemoryPool* pool, uint32_t size,
                                                                uint32_t alignment,
                                                                uint32_t flags) {
    pool = LivePool(pool);
    return pool ? pool->Allocate(size, alignment, flags, 0) : nullptr;
}

extern "C" ZK_API void ZK_CALL zkFreeMemoryPoolBlock(MemoryPool* pool, MemoryBlock* block) {
    pool = LivePool(pool);
    if (pool) pool->Release(block);
}

extern "C" ZK_API MemoryBlock* ZK_CALL zkFindMemoryPoolBlock(MemoryPool* pool, zkAddr address) {
    pool = LivePool(pool);
    return pool ? pool->FindByAddress(address) : nullptr;
}

// A block handle locks, unlocks and reports its size the same way whatever
// pool it belongs to: these are the system forms under their pool names.
extern "C" ZK_API void* ZK_CALL zkLockMemoryPoolBlock(MemoryBlock* block) {
    return zkLockMemory(block);
}

extern "C" ZK_API void ZK_CALL zkUnlockMemoryPoolBlock(MemoryBlock* block) {
    zkUnlockMemory(block);
}

extern "C" ZK_API uint32_t ZK_CALL zkGetMemoryPoolBlockSize(MemoryBlock* block) {
    return zkGetMemoryBlockSize(block);
}

extern "C" ZK_API void ZK_CALL zkSetMemoryPoolAllocMode(MemoryPool* pool, uint32_t mode) {
    pool = LivePool(pool);
    if (!pool) return;
    if (mode == 1) pool->SetMode(0);
    if (mode == 2) pool->SetMode(ZK_ALLOC_TOP);
}

extern "C" ZK_API void ZK_CALL zkSetMemoryPoolCheckpoint(MemoryPool* pool, uint32_t n) {
    pool = LivePool(pool);
    if (pool) pool->SetCheckpoint(n);
}

extern "C" ZK_API void ZK_CALL zkSetBreakPoolAlloc(MemoryPool* pool, uint32_t number) {
    pool = LivePool(pool);
    if (pool) pool->SetBreakNumber(number);
}
