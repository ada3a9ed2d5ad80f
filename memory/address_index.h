// The address index: an open-addressing hash table (linear probing) of every
// block of a pool but the head, so that search by address is one probe
// sequence and never walks the block list.
//
// Invariants:
//   - each slot holds the key (the block address's low 32 bits: a pool's
//     range is shorter than 4 GiB, so keys are distinct among its blocks)
//     beside the descriptor's number, so probing reads no descriptor;
//     descriptor 0 (the head block, never indexed) marks an empty slot;
//   - every entry sits at or cyclically after its home slot with no empty
//     slot in between (deletion shifts entries back to keep this);
//   - the room is the smallest power of two of at least twice the descriptor
//     count; the part in use, mask_ + 1 slots, is a power of two at least
//     four times the entry count while the room allows: it starts small and
//     doubles as the pool fills, never shrinking, so that the slots a pool
//     with few blocks touches stay in cache.
#ifndef ZK_MEMORY_ADDRESS_INDEX_H
#define ZK_MEMORY_ADDRESS_INDEX_H

#include "memory/memory_block.h"

#include <cstdint>

namespace zk {

// One slot of the address index.
struct AddressSlot {
    uint32_t key;
    uint32_t descriptor;
};

class AddressIndex {
public:
    // Slots of room a pool of descriptorCount descriptors has.
    static uint64_t RoomSlots(uint32_t descriptorCount);
    static uint64_t TableBytes(uint32_t descriptorCount) {
        return RoomSlots(descriptorCount) * sizeof(AddressSlot);
    }
    // Lays the index out at room (zeroed, TableBytes long) with no entry;
    // returns the first byte after it. blocks is the descriptor table, whose
    // head's list the index covers.
    void* Layout(void* room, uint32_t descriptorCount, MemoryBlock* blocks);
    void Clear();

    // Enters a block already linked into the list. Kept at most a quarter
    // full: past that the part in use doubles, while the room allows. The
    // new block is already in the list, so a resize indexes it with the
    // others.
    void Insert(MemoryBlock* block) {
        if (4 * (entries_ + 1) > mask_ + 1 && mask_ + 1 < room_) [[unlikely]] {
            Resize(2 * (mask_ + 1));
            return;
        }
        Place(block);
    }
    // Linear probing with backward-shift deletion: entries after the hole
    // move up unless their home slot lies cyclically after the hole.
    void Erase(const MemoryBlock* block) {
        --entries_;
        const uint32_t descriptor = static_cast<uint32_t>(block - blocks_);
        uint32_t hole = Home(static_cast<uint32_t>(block->address));
        while (slots_[hole].descriptor != descriptor)
            hole = (hole + 1) & mask_;
        for (uint32_t j = (hole + 1) & mask_; slots_[j].descriptor; j = (j + 1) & mask_) {
            const uint32_t home = Home(slots_[j].key);
            const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
            if (stays) continue;
            slots_[hole] = slots_[j];
            hole = j;
        }
        slots_[hole] = {0, 0};
    }
    // The block at exactly this address, or null.
    MemoryBlock* Find(zkAddr address) const {
        const uint32_t key = static_cast<uint32_t>(address);
        for (uint32_t i = Home(key); slots_[i].descriptor; i = (i + 1) & mask_) {
            if (slots_[i].key == key) {
                MemoryBlock* block = blocks_ + slots_[i].descriptor;
                return block->address == address ? block : nullptr;
            }
        }
        return nullptr;
    }
    // The home slot of a block placed at address, to ask for it early.
    const AddressSlot* HomeSlot(zkAddr address) const {
        return slots_ + Home(static_cast<uint32_t>(address));
    }

private:
    uint32_t Home(uint32_t key) const { return static_cast<uint32_t>(key * 0x9E3779B9u) >> shift_; }
    void Place(MemoryBlock* block) {
        ++entries_;
        const uint32_t key = static_cast<uint32_t>(block->address);
        uint32_t i = Home(key);
        while (slots_[i].descriptor)
            i = (i + 1) & mask_;
        slots_[i] = {key, static_cast<uint32_t>(block - blocks_)};
    }
    void Resize(uint32_t slots);

    MemoryBlock* blocks_ = nullptr;
    AddressSlot* slots_ = nullptr; // room_ slots, the first mask_ + 1 of them in use
    uint32_t room_ = 0;
    uint32_t mask_ = 0;
    uint32_t shift_ = 0;
    uint32_t entries_ = 0;
};

} // namespace zk

#endif // ZK_MEMORY_ADDRESS_INDEX_H
