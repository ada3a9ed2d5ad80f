/**
 * @file
 * @brief The system pool, block handles and memory utilities.
 */
#ifndef ZK_MEMORY_H
#define ZK_MEMORY_H

#include "config.h"

/**
 * @defgroup memory System pool and memory utilities
 * @brief Allocation from the system pool, block handles, allocation hooks,
 * checkpoints, and byte fill and copy helpers.
 *
 * Every allocation is carved out of one arena committed at initialisation and
 * managed as the system pool. System-pool blocks are 64-byte aligned and their
 * sizes are rounded up to multiples of 64. A fixed block (zkMalloc family) is
 * addressed by pointer; a handle block (zkAllocMemoryBlock) by its handle,
 * and by address only while locked. Without a system pool (before
 * initialisation or after termination) every allocation returns null and every
 * release does nothing.
 *
 * Threads: allocations and releases may come from any thread at once; each
 * pool has a lock of its own, held only inside the call. A block belongs to
 * one thread at a time. Checkpoints, like the walks of memdiag.h, must not run
 * while another thread allocates or frees in the same pool.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** A block handle. */
typedef struct MemoryBlock MemoryBlock;
/** A pool handle. */
typedef struct MemoryPool MemoryPool;

/** Called before an allocation with the requested size and the number the
 * block would receive; 0 refuses the allocation. Runs on the allocating
 * thread, outside the pool's lock. */
typedef int32_t(ZK_CALL* MemoryAllocHook)(uint32_t requestedSize, uint32_t allocationNumber);
/** Called before a block is freed; 0 refuses the release (the block stays).
 * Runs on the freeing thread, outside the pool's lock. */
typedef int32_t(ZK_CALL* MemoryFreeHook)(void* address, uint32_t requestedSize,
                                         uint32_t allocationNumber);

/**
 * @brief A fixed block of the system pool, searched in the default mode.
 * @param size bytes; 0 takes 64
 * @return the block's address, or null when there is no system pool, no
 *         descriptor or gap is left, or the alloc hook refuses
 * @threads Any thread.
 */
ZK_API void* ZK_CALL zkMalloc(uint32_t size);
/**
 * @brief As zkMalloc with the caller's flags.
 *
 * ZK_ALLOC_ZERO zeroes size bytes, ZK_ALLOC_DEFAULT adds the default mode,
 * ZK_ALLOC_TOP / ZK_ALLOC_BOTTOM pick the highest / lowest fitting address.
 * @return the block's address, or null as zkMalloc
 * @threads Any thread.
 */
ZK_API void* ZK_CALL zkMallocEx(uint32_t size, uint32_t flags);
/**
 * @brief As zkMallocEx, tagging the block with the low 16 bits of category.
 * @return the block's address, or null as zkMalloc
 * @threads Any thread.
 */
ZK_API void* ZK_CALL zkAllocateSystemMemory(uint32_t size, uint32_t flags, uint32_t category);
/**
 * @brief Frees the fixed or locked system-pool block that starts at address.
 * @param address the block's start; null, an address inside a block or an
 *        unknown address does nothing
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkFree(void* address);
/**
 * @brief The same function as zkFree.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkFreeSystemMemory(void* address);
/**
 * @brief A handle block of the system pool (lock count 0).
 * @param size bytes
 * @param flags as zkMallocEx; ZK_ALLOC_DEFAULT has no effect here
 * @return the handle, or null on failure (as zkMalloc)
 * @threads Any thread.
 */
ZK_API MemoryBlock* ZK_CALL zkAllocMemoryBlock(uint32_t size, uint32_t flags);
/**
 * @brief Frees a system-pool block by handle.
 * @param block the handle; null or a freed handle does nothing
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkFreeMemoryBlock(MemoryBlock* block);
/**
 * @brief Raises the lock count (not for fixed blocks, not past 65535) and
 * returns the block's address.
 * @return the address, or null for null or a freed handle
 * @threads Any thread.
 */
ZK_API void* ZK_CALL zkLockMemory(MemoryBlock* block);
/**
 * @brief Lowers a non-zero lock count of a handle block.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkUnlockMemory(MemoryBlock* block);
/**
 * @brief The size the block was requested with.
 * @return the size; 0 for null
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetMemoryBlockSize(MemoryBlock* block);
/**
 * @brief The system pool, usable with the pool functions.
 * @return the pool, or null when there is none
 * @threads Any thread.
 */
ZK_API MemoryPool* ZK_CALL zkGetSystemMemoryPool(void);
/**
 * @brief Sets the system pool's default search mode.
 * @param mode 0 best fit, 1 lowest address, 2 highest address; other values
 *        change nothing
 * @return the previous mode
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkSetAllocMode(uint32_t mode);
/**
 * @brief Installs the system pool's alloc hook.
 * @param hook the hook; null removes it
 * @return the previous hook; null when there is no system pool
 * @threads Any thread; an allocation running meanwhile may see either hook.
 */
ZK_API MemoryAllocHook ZK_CALL zkSetAllocHook(MemoryAllocHook hook);
/**
 * @brief Installs the system pool's free hook, likewise.
 * @return the previous hook; null when there is no system pool
 * @threads Any thread; a release running meanwhile may see either hook.
 */
ZK_API MemoryFreeHook ZK_CALL zkSetFreeHook(MemoryFreeHook hook);
/**
 * @brief Stores a break number in the system pool; nothing acts on it.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkSetBreakAlloc(uint32_t number);
/**
 * @brief Marks every block alive now with checkpoint n.
 *
 * zkDumpAllMemoryBlocks(n) then lists only blocks allocated since.
 * @param n 0 to 31; other values do nothing
 * @threads Any thread, while no other thread allocates or frees in the system pool.
 */
ZK_API void ZK_CALL zkSetMemoryCheckpoint(uint32_t n);

/**
 * @brief Writes count bytes of value.
 * @param dest the first byte; null writes nothing (so for the helpers below)
 * @param count bytes to write
 * @param value the byte to write
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkFillMemory(void* dest, uint32_t count, uint8_t value);
/**
 * @brief Writes count zero bytes.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkZeroMemory(void* dest, uint32_t count);
/**
 * @brief Copies count bytes forward; overlapping ranges are not supported.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkCopyMemory(void* dest, const void* src, uint32_t count);
/**
 * @brief Copies src into dest from index start until src ends or the index
 * reaches limit, and terminates.
 * @param dest holds limit + 1 bytes
 * @param limit the highest index a character may take
 * @param start the index in dest to copy to
 * @param src the text; null copies nothing (dest is still terminated)
 * @return the final index; 0 for a null dest
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkCopyString(char* dest, uint32_t limit, uint32_t start, const char* src);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_MEMORY_H */
