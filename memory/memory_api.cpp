// Exported functions of the system pool and of block handles.
#include <zk/memory.h>
#include <zk/result.h>

#include "memory/memory_manager.h"

using zk::Memory;

extern "C" ZK_API void* ZK_CALL zkMalloc(uint32_t size) {
    return Memory().AllocateFixed(size, ZK_ALLOC_DEFAULT, 0);
}

extern "C" ZK_API void* ZK_CALL zkMallocEx(uint32_t size, uint32_t flags) {
    return Memory().AllocateFixed(size, flags, 0);
}

extern "C" ZK_API void* ZK_CALL zkAllocateSystemMemory(uint32_t size, uint32_t flags,
                                                       uint32_t category) {
    return Memory().AllocateFixed(size, flags, category);
}

extern "C" ZK_API void ZK_CALL zkFree(void* address) {
    Memory().FreeAddress(address);
}

extern "C" ZK_API void ZK_CALL zkFreeSystemMemory(void* address) {
    Memory().FreeAddress(address);
}

extern "C" ZK_API MemoryBlock* ZK_CALL zkAllocMemoryBlock(uint32_t size, uint32_t flags) {
    return Memory().AllocateHandle(size, flags);
}

extern "C" ZK_API void ZK_CALL zkFreeMemoryBlock(MemoryBlock* block) {
    Memory().FreeHandle(block);
}

// Handles are descriptors in the system pool or in a table the system pool
// holds: without a system pool they point into released memory and are not
// read.
extern "C" ZK_API void* ZK_CALL zkLockMemory(MemoryBlock* block) {
    if (!zk::SystemPool() || !MemoryPool::Lock(block)) return nullptr;
    return reinterpret_cast<void*>(block->address);
}

extern "C" ZK_API void ZK_CALL zkUnlockMemory(MemoryBlock* block) {
    if (zk::SystemPool()) MemoryPool::Unlock(block);
}

extern "C" ZK_API uint32_t ZK_CALL zkGetMemoryBlockSize(MemoryBlock* block) {
    return block && zk::SystemPool() ? block->requestedSize : 0;
}

extern "C" ZK_API MemoryPool* ZK_CALL zkGetSystemMemoryPool(void) {
    return zk::SystemPool();
}

extern "C" ZK_API uint32_t ZK_CALL zkSetAllocMode(uint32_t mode) {
    return Memory().SetDefaultMode(mode);
}

extern "C" ZK_API MemoryAllocHook ZK_CALL zkSetAllocHook(MemoryAllocHook hook) {
    MemoryPool* pool = zk::SystemPool();
    return pool ? pool->SetAllocHook(hook) : nullptr;
}

extern "C" ZK_API MemoryFreeHook ZK_CALL zkSetFreeHook(MemoryFreeHook hook) {
    MemoryPool* pool = zk::SystemPool();
    return pool ? pool->SetFreeHook(hook) : nullptr;
}

extern "C" ZK_API void ZK_CALL zkSetBreakAlloc(uint32_t number) {
    if (MemoryPool* pool = zk::SystemPool()) pool->SetBreakNumber(number);
}

extern "C" ZK_API void ZK_CALL zkSetMemoryCheckpoint(uint32_t n) {
    if (MemoryPool* pool = zk::SystemPool()) pool->SetCheckpoint(n);
}
