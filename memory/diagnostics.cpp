// Exported memory information, walks and dumps, in a system form (the system
// pool) and a pool form. A null pool, a null callback or a missing system
// pool gives 0 without calling anything; the system dumps still write their
// heading.
#include <zk/memdiag.h>
#include <zk/trace.h>

#include "memory/memory_manager.h"
#include "memory/pool_walks.h"
#include "platform/platform.h"

using zk::LivePool;
using zk::SystemPool;

namespace {

constexpr uint32_t kQueryHalfPhysical = 1;

zkAddr HalfAvailablePhysical() {
    const uint64_t half = zk::os::AvailablePhysicalMemory() >> 1;
    const uint64_t largest = static_cast<zkAddr>(~zkAddr{0});
    return static_cast<zkAddr>(half < largest ? half : largest);
}

} // namespace

extern "C" ZK_API void ZK_CALL zkGetMemoryInfo(MemoryInfo* info) {
    if (info && SystemPool()) SystemPool()->Snapshot(info);
}

extern "C" ZK_API void ZK_CALL zkGetMemoryPoolInfo(MemoryPool* pool, MemoryInfo* info) {
    if (info && LivePool(pool)) pool->Snapshot(info);
}

extern "C" ZK_API zkAddr ZK_CALL zkQueryMemoryInfo(uint32_t code) {
    if (code == kQueryHalfPhysical) return HalfAvailablePhysical();
    return SystemPool() ? zk::QueryPool(*SystemPool(), code) : 0;
}

extern "C" ZK_API zkAddr ZK_CALL zkQueryMemoryPoolInfo(MemoryPool* pool, uint32_t code) {
    return LivePool(pool) ? zk::QueryPool(*pool, code) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkEnumerateMemoryBlocks(MemoryBlockCallback callback,
                                                           void* user) {
    return callback && SystemPool() ? zk::WalkBlocks(*SystemPool(), callback, user) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolBlocks(MemoryPool* pool,
                                                               MemoryBlockCallback callback,
                                                               void* user) {
    return callback && LivePool(pool) ? zk::WalkBlocks(*pool, callback, user) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkEnumerateMemoryGaps(MemoryRangeCallback callback, void* user) {
    return callback && SystemPool() ? zk::WalkGaps(*SystemPool(), callback, user) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolGaps(MemoryPool* pool,
                                                             MemoryRangeCallback callback,
                                                             void* user) {
    return callback && LivePool(pool) ? zk::WalkGaps(*pool, callback, user) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkEnumerateMemoryUsed(MemoryRangeCallback callback, void* user) {
    return callback && SystemPool() ? zk::WalkUsed(*SystemPool(), callback, user) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolUsed(MemoryPool* pool,
                                                             MemoryRangeCallback callback,
                                                             void* user) {
    return callback && LivePool(pool) ? zk::WalkUsed(*pool, callback, user) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkEnumerateMemoryPoolCategory(MemoryPool* pool,
                                                                 MemoryCategoryCallback callback,
                                                                 void* user) {
    return callback && LivePool(pool) ? zk::WalkCategories(*pool, callback, user) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkDumpAllMemoryBlocks(uint32_t checkpoint) {
    zkTrace("QaxKrnl : Dumping Memory Blocks.\n");
    return SystemPool() ? zk::DumpBlocks(*SystemPool(), checkpoint) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkDumpAllMemoryPoolBlocks(MemoryPool* pool,
                                                             uint32_t checkpoint) {
    return LivePool(pool) ? zk::DumpBlocks(*pool, checkpoint) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkDumpAllMemoryGaps(uint32_t minimumSize) {
    zkTrace("QaxKrnl : Dumping Memory Gaps.\n");
    return SystemPool() ? zk::DumpGaps(*SystemPool(), minimumSize) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkDumpAllMemoryPoolGaps(MemoryPool* pool, uint32_t minimumSize) {
    return LivePool(pool) ? zk::DumpGaps(*pool, minimumSize) : 0;
}

extern "C" ZK_API void ZK_CALL zkShowMemoryStatus(uint32_t flag) {
    zk::Memory().SetShowStatus(flag);
}
