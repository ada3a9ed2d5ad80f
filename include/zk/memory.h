/* QAX kernel: the system pool, block handles and memory utilities.
 *
 * Every allocation is carved out of one arena committed at initialisation and
 * managed as the system pool. System-pool blocks are 64-byte aligned and their
 * sizes are rounded up to multiples of 64. A fixed block (zkMalloc family) is
 * addressed by pointer; a handle block (zkAllocMemoryBlock) by its handle,
 * and by address only while locked. Without a system pool (before
 * initialisation or after termination) every allocation returns null and every
 * release does nothing.
 */
#ifndef ZK_MEMORY_H
#define ZK_MEMORY_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef struct MemoryBlock MemoryBlock; /* a block handle */
typedef struct MemoryPool MemoryPool;   /* a pool handle */

/* Called before an allocation with the requested size and the number the
 * block would receive; 0 refuses the allocation. */
typedef int32_t(ZK_CALL* MemoryAllocHook)(uint32_t requestedSize, uint32_t allocationNumber);
/* Called before a block is freed; 0 refuses the release (the block stays). */
typedef int32_t(ZK_CALL* MemoryFreeHook)(void* address, uint32_t requestedSize,
                                         uint32_t allocationNumber);

/* A fixed block of size bytes (0 takes 64) searched in the default mode;
 * null when no descriptor or gap is left or the alloc hook refuses. */
ZK_API void* ZK_CALL zkMalloc(uint32_t size);
/* As zkMalloc with the caller's flags: ZK_ALLOC_ZERO zeroes size bytes,
 * ZK_ALLOC_DEFAULT adds the default mode, ZK_ALLOC_TOP / ZK_ALLOC_BOTTOM pick
 * the highest / lowest fitting address. Null on failure. */
ZK_API void* ZK_CALL zkMallocEx(uint32_t size, uint32_t flags);
/* As zkMallocEx, tagging the block with the low 16 bits of category. */
ZK_API void* ZK_CALL zkAllocateSystemMemory(uint32_t size, uint32_t flags, uint32_t category);
/* Frees the fixed or locked system-pool block that starts at address; null,
 * an address inside a block or an unknown address does nothing. */
ZK_API void ZK_CALL zkFree(void* address);
/* The same function as zkFree. */
ZK_API void ZK_CALL zkFreeSystemMemory(void* address);
/* A handle block (lock count 0); ZK_ALLOC_DEFAULT has no effect here.
 * Null on failure. */
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryBlock(uint32_t size, uint32_t flags);
/* Frees a system-pool block by handle; null or a freed handle does nothing. */
ZK_API void ZK_CALL zkFreeMemoryBlock(MemoryBlock* block);
/* Raises the lock count (not for fixed blocks, not past 65535) and returns
 * the block's address; null for null or a freed handle. */
ZK_API void* ZK_CALL zkLockMemory(MemoryBlock* block);
/* Lowers a non-zero lock count of a handle block. */
ZK_API void ZK_CALL zkUnlockMemory(MemoryBlock* block);
/* The size the block was requested with; 0 for null. */
ZK_API uint32_t ZK_CALL zkGetMemoryBlockSize(MemoryBlock* block);
/* The system pool, usable with the pool functions; null when there is none. */
ZK_API MemoryPool* ZK_CALL zkGetSystemMemoryPool(void);
/* 0 best fit, 1 lowest address, 2 highest address; other values change
 * nothing. Returns the previous mode. */
ZK_API uint32_t ZK_CALL zkSetAllocMode(uint32_t mode);
/* Installs the system pool's alloc hook (null removes it); returns the
 * previous hook, null when there is no system pool. */
ZK_API MemoryAllocHook ZK_CALL zkSetAllocHook(MemoryAllocHook hook);
/* Installs the system pool's free hook, likewise. */
ZK_API MemoryFreeHook ZK_CALL zkSetFreeHook(MemoryFreeHook hook);
/* Stores a break number in the system pool; nothing acts on it. */
ZK_API void ZK_CALL zkSetBreakAlloc(uint32_t number);
/* Marks every block alive now with checkpoint n (0-31; others do nothing);
 * zkDumpAllMemoryBlocks(n) then lists only blocks allocated since. */
ZK_API void ZK_CALL zkSetMemoryCheckpoint(uint32_t n);

/* Writes count bytes of value; a null dest writes nothing (so for the others). */
ZK_API void ZK_CALL zkFillMemory(void* dest, uint32_t count, uint8_t value);
/* Writes count zero bytes. */
ZK_API void ZK_CALL zkZeroMemory(void* dest, uint32_t count);
/* Copies count bytes forward; overlapping ranges are not supported. */
ZK_API void ZK_CALL zkCopyMemory(void* dest, const void* src, uint32_t count);
/* Copies src into dest from index start until src ends or the index reaches
 * limit, terminates, and returns the final index; dest holds limit + 1 bytes.
 * A null src copies nothing (dest is still terminated); a null dest: 0. */
ZK_API uint32_t ZK_CALL zkCopyString(char* dest, uint32_t limit, uint32_t start, const char* src);

ZK_EXTERN_C_END

#endif /* ZK_MEMORY_H */
