// The memory manager: the arena, the system pool and the table of pools.
//
// What it owns: one arena committed from the operating system at start-up;
// the system pool laid out over it (descriptor table at the arena's start,
// managed range after it); the MemoryPoolTable of 16 pool records shared by
// the system pool and every application pool.
//
// Locks: pool records are taken and given back under the LibraryLock (inside
// RecordTable). Start and Stop run on the main thread during initialisation
// and termination, before and after every other user of the heap.
#ifndef ZK_MEMORY_MEMORY_MANAGER_H
#define ZK_MEMORY_MEMORY_MANAGER_H

#include "memory/memory_pool.h"
#include "thread/record_table.h"

#include <cstddef>
#include <cstdint>

namespace zk {

constexpr uint32_t kPoolRecordCount = 16;
constexpr uint32_t kSystemAlignment = 64;
// arenaSize that asks for half of the available physical memory.
constexpr uint32_t kDefaultArenaSize = 0xFFFFFFFFu;
// A default arena the system refuses is asked for again at half the size,
// down to this; an explicit size is committed as given or not at all.
constexpr std::size_t kSmallestDefaultArena = 16u << 20;

// The call that commits the arena: the platform's, unless a test of the
// manager stands in a system that refuses some sizes.
using ArenaCommitProc = void* (*)(std::size_t size);
extern ArenaCommitProc g_arenaCommit;

// 16 MemoryPool records with a free list, and the system pool's record.
class MemoryPoolTable {
public:
    MemoryPool* Take() { return records_.Take(); }
    bool Give(MemoryPool* pool) { return records_.Give(pool); }
    bool InUse(const MemoryPool* pool) const { return records_.InUse(pool); }
    uint32_t UsedCount() const { return records_.UsedCount(); }
    MemoryPool* SystemPool() const { return systemPool_; }
    void SetSystemPool(MemoryPool* pool) { systemPool_ = pool; }
    // Pools an application left alive past termination lost their descriptor
    // tables with the arena: their locks are deleted and their records freed.
    void ReclaimAbandoned();

private:
    RecordTable<MemoryPool, kPoolRecordCount> records_;
    MemoryPool* systemPool_ = nullptr;
};

class MemoryManager {
public:
    // Commits the arena and builds the system pool. The default size backs
    // off by halves while the commit is refused (not below
    // kSmallestDefaultArena). -5 when no usable system pool results
    // (descriptorCount < 2, arena not committed, descriptor table filling the
    // arena, or no free pool record). Already started: 0, nothing changes.
    int32_t Start(uint32_t arenaSize, uint32_t descriptorCount);
    // Destroys the system pool and releases the arena. Safe to call twice.
    void Stop();

    // An application pool over [base, base + size) with its descriptor table
    // in the system pool. Null without a system pool, for maxBlocks < 2, for a
    // range that wraps past the end of the address space (one that ends
    // exactly at its top is allowed), when all records are
    // taken, or when the system pool has no room for the table.
    MemoryPool* CreatePool(zkAddr base, uint32_t size, uint32_t maxBlocks);
    // Destroys an application pool and gives its record back. The system pool
    // and records not in use are left alone.
    void ReleasePool(MemoryPool* pool);

    // System-pool allocation calls (system_allocator.cpp). Every block is
    // 64-byte aligned with its size rounded to 64. Null without a system pool
    // or when the pool refuses.
    // Fixed block (zkMalloc family): flags + FIXED + ROUND, + the default mode
    // when ZK_ALLOC_DEFAULT is set; ZK_ALLOC_ZERO zeroes size bytes.
    void* AllocateFixed(uint32_t size, uint32_t flags, uint32_t category);
    // Handle block (zkAllocMemoryBlock): flags + ROUND, category 0, lock count 0.
    MemoryBlock* AllocateHandle(uint32_t size, uint32_t flags);
    // Locks the block as zkLockMemory does, then releases it; ignores null and
    // blocks not in use.
    void FreeHandle(MemoryBlock* block);
    // Frees the findable system-pool block that starts at address, finding
    // and freeing under one hold of the pool lock.
    void FreeAddress(void* address);

    void BindTable(MemoryPoolTable* table) { poolTable_ = table; }
    MemoryPool* SystemPool() const { return systemPool_; }
    void SetShowStatus(uint32_t flag) { showStatus_ = flag; }
    uint32_t DefaultMode() const { return defaultMode_; }
    // Stores the search flags for mode 0, 1, 2 (best fit, lowest, highest);
    // other values change nothing. Returns the previous mode's number.
    uint32_t SetDefaultMode(uint32_t mode);

    // Half of the available physical memory, capped so that the system pool's
    // length fits a 32-bit size (and at 1 GiB in a 32-bit address space).
    static std::size_t DefaultArenaBytes();

private:
    MemoryPoolTable* poolTable_ = nullptr;
    MemoryPool* systemPool_ = nullptr;
    void* arena_ = nullptr;
    uint32_t showStatus_ = 0;
    uint32_t defaultMode_ = 0;
    std::size_t arenaBytes_ = 0;
};

// The library's one manager and its pool table.
MemoryManager& Memory();
MemoryPoolTable& PoolTable();
// The system pool, or null when the library is not initialised.
inline MemoryPool* SystemPool() {
    return Memory().SystemPool();
}

// A pool handle the pool functions may act on: null for null, for a pointer
// that is no record of the pool table, and for a released pool (its record
// keeps no descriptor table), so that every pool call answers such a handle
// with 0 or null instead of reading memory that is no pool.
inline MemoryPool* LivePool(MemoryPool* pool) {
    return pool && PoolTable().InUse(pool) && pool->Live() ? pool : nullptr;
}

} // namespace zk

#endif // ZK_MEMORY_MEMORY_MANAGER_H
