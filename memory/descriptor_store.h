// Where a pool's descriptor table comes from and where it goes back to.
//
// The heap engine keeps every block's bookkeeping in a table of MemoryBlock
// descriptors outside the memory it manages. A DescriptorStore hands that
// table out at pool initialisation and takes it back when the pool is
// destroyed. The system pool's table sits at the start of the arena
// (FixedDescriptorStore); every application pool's table is a block of the
// system pool (PoolDescriptorStore).
#ifndef ZK_MEMORY_DESCRIPTOR_STORE_H
#define ZK_MEMORY_DESCRIPTOR_STORE_H

#include <zk/memory.h>

#include <cstdint>

namespace zk {

class DescriptorStore {
public:
    // Room for count descriptors, or null.
    virtual void* Allocate(uint32_t count) = 0;
    // Takes back what Allocate returned.
    virtual void Free(void* address) = 0;

protected:
    ~DescriptorStore() = default;
};

// Returns the one address it holds; frees nothing.
class FixedDescriptorStore final : public DescriptorStore {
public:
    explicit FixedDescriptorStore(void* address) : address_(address) {}
    void* Allocate(uint32_t) override { return address_; }
    void Free(void*) override {}

private:
    void* address_;
};

// Takes the table from the system pool: a non-rounded block aligned to 64,
// searched with the system pool's own mode, category 0, locked once so that
// Free can find it again by address. The system pool's hooks see both steps.
class PoolDescriptorStore final : public DescriptorStore {
public:
    explicit PoolDescriptorStore(MemoryPool* systemPool) : systemPool_(systemPool) {}
    void* Allocate(uint32_t count) override;
    void Free(void* address) override;

private:
    MemoryPool* systemPool_;
};

} // namespace zk

#endif // ZK_MEMORY_DESCRIPTOR_STORE_H
