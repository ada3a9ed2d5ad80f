/* QAX kernel: the system pool, block handles and memory utilities. */
#ifndef ZK_MEMORY_H
#define ZK_MEMORY_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef struct MemoryBlock MemoryBlock; /* a block handle */
typedef struct MemoryPool MemoryPool;   /* a pool handle */

/* 0 refuses the allocation. */
typedef int32_t(ZK_CALL* MemoryAllocHook)(uint32_t requestedSize, uint32_t allocationNumber);
/* 0 refuses the release. */
typedef int32_t(ZK_CALL* MemoryFreeHook)(void* address, uint32_t requestedSize,
                                         uint32_t allocationNumber);

ZK_API void* ZK_CALL zkMalloc(uint32_t size);
ZK_API void* ZK_CALL zkMallocEx(uint32_t size, uint32_t flags);
ZK_API void* ZK_CALL zkAllocateSystemMemory(uint32_t size, uint32_t flags, uint32_t category);
ZK_API void ZK_CALL zkFree(void* address);
ZK_API void ZK_CALL zkFreeSystemMemory(void* address);
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryBlock(uint32_t size, uint32_t flags);
ZK_API void ZK_CALL zkFreeMemoryBlock(MemoryBlock* block);
ZK_API void* ZK_CALL zkLockMemory(MemoryBlock* block);
ZK_API void ZK_CALL zkUnlockMemory(MemoryBlock* block);
ZK_API uint32_t ZK_CALL zkGetMemoryBlockSize(MemoryBlock* block);
ZK_API MemoryPool* ZK_CALL zkGetSystemMemoryPool(void);
/* 0 best fit, 1 lowest address, 2 highest address; returns the previous mode. */
ZK_API uint32_t ZK_CALL zkSetAllocMode(uint32_t mode);
ZK_API MemoryAllocHook ZK_CALL zkSetAllocHook(MemoryAllocHook hook);
ZK_API MemoryFreeHook ZK_CALL zkSetFreeHook(MemoryFreeHook hook);
ZK_API void ZK_CALL zkSetBreakAlloc(uint32_t number);
ZK_API void ZK_CALL zkSetMemoryCheckpoint(uint32_t n);

ZK_API void ZK_CALL zkFillMemory(void* dest, uint32_t count, uint8_t value);
ZK_API void ZK_CALL zkZeroMemory(void* dest, uint32_t count);
ZK_API void ZK_CALL zkCopyMemory(void* dest, const void* src, uint32_t count);
ZK_API uint32_t ZK_CALL zkCopyString(char* dest, uint32_t limit, uint32_t start, const char* src);

ZK_EXTERN_C_END

#endif /* ZK_MEMORY_H */
