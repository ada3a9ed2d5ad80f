// Start-up and shutdown of the memory manager, and the pool table's records.
#include "memory/memory_manager.h"

#include "platform/platform.h"

namespace zk {

namespace {

MemoryPoolTable g_poolTable;
MemoryManager g_memoryManager;

// Just under 4 GiB, page aligned: the most a 32-bit size can describe.
constexpr uint64_t kLargestArena64 = 0xFFFFF000u;
// In a 32-bit address space one contiguous commit of more than this rarely
// succeeds, and the rest of the process needs room too.
constexpr uint64_t kLargestArena32 = 0x40000000u;

zkAddr RoundUp64(zkAddr value) {
    return (value + (kSystemAlignment - 1)) & ~static_cast<zkAddr>(kSystemAlignment - 1);
}

} // namespace

ArenaCommitProc g_arenaCommit = os::VirtualCommit;

MemoryManager& Memory() {
    return g_memoryManager;
}
MemoryPoolTable& PoolTable() {
    return g_poolTable;
}

void MemoryPoolTable::ReclaimAbandoned() {
    for (uint32_t i = 0; i < kPoolRecordCount; ++i) {
        MemoryPool* pool = &records_[i];
        if (!records_.InUse(pool) || pool == systemPool_) continue;
        FixedDescriptorStore nothing(nullptr);
        pool->Destroy(nothing);
        records_.Give(pool);
    }
}

std::size_t MemoryManager::DefaultArenaBytes() {
    uint64_t half = os::AvailablePhysicalMemory() >> 1;
    uint64_t cap = sizeof(void*) == 4 ? kLargestArena32 : kLargestArena64;
    return static_cast<std::size_t>(half < cap ? half : cap);
}

int32_t MemoryManager::Start(uint32_t arenaSize, uint32_t descriptorCount) {
    if (systemPool_) return ZK_OK;
    if (!poolTable_) poolTable_ = &g_poolTable;

    const bool byDefault = arenaSize == kDefaultArenaSize;
    std::size_t bytes = byDefault ? DefaultArenaBytes() : arenaSize;
    if (descriptorCount < 2 || bytes == 0) return ZK_ERR_NO_MEMORY;
    // The table alone must fit in the arena; checked in 64 bits so that a huge
    // descriptor count cannot wrap around.
    const uint64_t tableBytes = MemoryPool::TableBytes(descriptorCount);
    if (tableBytes == 0 || tableBytes >= bytes) return ZK_ERR_NO_MEMORY;

    // Half the available memory can be more contiguous address space than the
    // process has (a 32-bit process rarely has 1 GiB in one piece): a default
    // arena backs off by halves before start-up gives up.
    void* arena = g_arenaCommit(bytes);
    while (!arena && byDefault && bytes / 2 >= kSmallestDefaultArena && bytes / 2 > tableBytes) {
        bytes = (bytes / 2) & ~static_cast<std::size_t>(0xFFFF);
        arena = g_arenaCommit(bytes);
    }
    if (!arena) return ZK_ERR_NO_MEMORY;
    // The descriptor tables (the system pool's and, inside it, every
    // application pool's) are read at random: large pages, where the system
    // offers them, spare most of the address-translation misses.
    os::VirtualAdviseLargePages(arena, bytes);

    defaultMode_ = 0;
    showStatus_ = 0;
    poolTable_->SetSystemPool(nullptr);

    const zkAddr arenaStart = reinterpret_cast<zkAddr>(arena);
    const zkAddr arenaEnd = arenaStart + bytes;
    const zkAddr rangeStart = RoundUp64(arenaStart + static_cast<zkAddr>(tableBytes));
    MemoryPool* pool = nullptr;
    if (rangeStart < arenaEnd) {
        const zkAddr length = (arenaEnd - rangeStart) & ~static_cast<zkAddr>(kSystemAlignment - 1);
        if (length != 0 && length <= 0xFFFFFFFFu) pool = poolTable_->Take();
        if (pool) {
            FixedDescriptorStore store(arena);
            if (pool->Initialize(rangeStart, static_cast<uint32_t>(length), descriptorCount,
                                 store) < 0) {
                poolTable_->Give(pool);
                pool = nullptr;
            }
        }
    }
    if (!pool) {
        os::VirtualRelease(arena, bytes);
        return ZK_ERR_NO_MEMORY;
    }
    poolTable_->SetSystemPool(pool);
    pool->TrackFreeBytes();
    systemPool_ = pool;
    arena_ = arena;
    arenaBytes_ = bytes;
    return ZK_OK;
}

void MemoryManager::Stop() {
    if (systemPool_) {
        FixedDescriptorStore store(arena_);
        systemPool_->Destroy(store);
        if (poolTable_) {
            poolTable_->Give(systemPool_);
            poolTable_->SetSystemPool(nullptr);
        }
        systemPool_ = nullptr;
    }
    if (arena_) {
        os::VirtualRelease(arena_, arenaBytes_);
        arena_ = nullptr;
        arenaBytes_ = 0;
    }
}

MemoryPool* MemoryManager::CreatePool(zkAddr base, uint32_t size, uint32_t maxBlocks) {
    if (!systemPool_ || !poolTable_ || maxBlocks < 2) return nullptr;
    // A range may end exactly at the top of the address space, not past it.
    if (size != 0 && base + (size - 1) < base) return nullptr;
    MemoryPool* pool = poolTable_->Take();
    if (!pool) return nullptr;
    PoolDescriptorStore store(systemPool_);
    if (pool->Initialize(base, size, maxBlocks, store) < 0) {
        poolTable_->Give(pool);
        return nullptr;
    }
    return pool;
}

void MemoryManager::ReleasePool(MemoryPool* pool) {
    if (!pool || !systemPool_ || !poolTable_) return;
    if (pool == systemPool_ || !poolTable_->InUse(pool)) return;
    PoolDescriptorStore store(systemPool_);
    pool->Destroy(store);
    poolTable_->Give(pool);
}

uint32_t MemoryManager::SetDefaultMode(uint32_t mode) {
    const uint32_t previous = defaultMode_ == ZK_ALLOC_BOTTOM ? 1u
                              : defaultMode_ == ZK_ALLOC_TOP  ? 2u
                                                              : 0u;
    switch (mode) {
    case 0:
        defaultMode_ = 0;
        break;
    case 1:
        defaultMode_ = ZK_ALLOC_BOTTOM;
        break;
    case 2:
        defaultMode_ = ZK_ALLOC_TOP;
        break;
    default:
        break;
    }
    return previous;
}

// ---- the system pool's descriptor store for application pools -------------------

void* PoolDescriptorStore::Allocate(uint32_t count) {
    const uint64_t bytes = static_cast<uint64_t>(count) * sizeof(MemoryBlock);
    if (!systemPool_ || bytes > 0xFFFFFFFFu) return nullptr;
    MemoryBlock* block = systemPool_->Allocate(static_cast<uint32_t>(bytes), kSystemAlignment,
                                               systemPool_->Mode(), 0);
    if (!block) return nullptr;
    MemoryPool::Lock(block);
    return reinterpret_cast<void*>(block->address);
}

void PoolDescriptorStore::Free(void* address) {
    if (!systemPool_ || !address) return;
    systemPool_->ReleaseByAddress(reinterpret_cast<zkAddr>(address), false);
}

} // namespace zk
