// The system pool's allocation calls: fixed blocks for zkMalloc and its
// relatives, handle blocks for zkAllocMemoryBlock, and the two ways back.
#include "memory/memory_manager.h"

#include <zk/memory.h>

namespace zk {

void* MemoryManager::AllocateFixed(uint32_t size, uint32_t flags, uint32_t category) {
    if (!systemPool_) return nullptr;
    flags |= ZK_ALLOC_FIXED | ZK_ALLOC_ROUND;
    if (flags & ZK_ALLOC_DEFAULT) flags |= defaultMode_;
    MemoryBlock* block = systemPool_->Allocate(size, kSystemAlignment, flags, category & 0xFFFFu);
    // Locking a fixed block only checks that it is in use, which a block
    // just allocated is: its address is taken directly.
    if (!block) return nullptr;
    void* address = reinterpret_cast<void*>(block->address);
    if (flags & ZK_ALLOC_ZERO) zkZeroMemory(address, size);
    return address;
}

MemoryBlock* MemoryManager::AllocateHandle(uint32_t size, uint32_t flags) {
    if (!systemPool_) return nullptr;
    MemoryBlock* block = systemPool_->Allocate(size, kSystemAlignment, flags | ZK_ALLOC_ROUND, 0);
    if (block && (flags & ZK_ALLOC_ZERO)) {
        MemoryPool::Lock(block);
        zkZeroMemory(reinterpret_cast<void*>(block->address), size);
        MemoryPool::Unlock(block);
    }
    return block;
}

void MemoryManager::FreeHandle(MemoryBlock* block) {
    if (!systemPool_ || !systemPool_->OwnsDescriptor(block)) return; // not a system-pool block
    // The lock taken first outlives the call only when a free hook refuses
    // the release; without a hook it would be cleared with the descriptor.
    if (systemPool_->HasFreeHook() && !MemoryPool::Lock(block)) return;
    systemPool_->Release(block);
}

void MemoryManager::FreeAddress(void* address) {
    if (!systemPool_ || !address) return;
    systemPool_->ReleaseByAddress(reinterpret_cast<zkAddr>(address), true);
}

} // namespace zk
