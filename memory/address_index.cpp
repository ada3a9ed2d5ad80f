// The address index's probing; its invariants are listed in address_index.h.
#include "memory/address_index.h"

#include <bit>
#include <cstring>

namespace zk {

namespace {

// Slots in use when a pool is laid out.
constexpr uint32_t kFirstSlots = 64;

} // namespace

uint64_t AddressIndex::RoomSlots(uint32_t descriptorCount) {
    uint64_t slots = 4;
    while (slots < 2ull * descriptorCount)
        slots <<= 1;
    return slots;
}

void* AddressIndex::Layout(void* room, uint32_t descriptorCount, MemoryBlock* blocks) {
    const uint64_t slots = RoomSlots(descriptorCount);
    blocks_ = blocks;
    slots_ = static_cast<AddressSlot*>(room);
    room_ = static_cast<uint32_t>(slots);
    entries_ = 0;
    Resize(slots < kFirstSlots ? static_cast<uint32_t>(slots) : kFirstSlots);
    return slots_ + slots;
}

void AddressIndex::Clear() {
    blocks_ = nullptr;
    slots_ = nullptr;
    mask_ = 0;
    room_ = 0;
    entries_ = 0;
}

// Uses the first `slots` slots of the room (a power of two) and indexes every
// block of the list in them again.
void AddressIndex::Resize(uint32_t slots) {
    mask_ = slots - 1;
    shift_ = 32 - static_cast<uint32_t>(std::countr_zero(slots));
    std::memset(slots_, 0, sizeof(AddressSlot) * slots);
    entries_ = 0;
    for (MemoryBlock* b = blocks_->next; b; b = b->next)
        Place(b);
}

void AddressIndex::Insert(MemoryBlock* block) {
    // Kept at most a quarter full: past that the part in use doubles, while the
    // room allows. The new block is already in the list, so a resize indexes
    // it with the others.
    if (4 * (entries_ + 1) > mask_ + 1 && mask_ + 1 < room_) {
        Resize(2 * (mask_ + 1));
        return;
    }
    Place(block);
}

void AddressIndex::Place(MemoryBlock* block) {
    ++entries_;
    const uint32_t key = static_cast<uint32_t>(block->address);
    uint32_t i = Home(key);
    while (slots_[i].descriptor)
        i = (i + 1) & mask_;
    slots_[i] = {key, static_cast<uint32_t>(block - blocks_)};
}

// Linear probing with backward-shift deletion: entries after the hole move up
// unless their home slot lies cyclically after the hole.
void AddressIndex::Erase(const MemoryBlock* block) {
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

MemoryBlock* AddressIndex::Find(zkAddr address) const {
    const uint32_t key = static_cast<uint32_t>(address);
    for (uint32_t i = Home(key); slots_[i].descriptor; i = (i + 1) & mask_) {
        MemoryBlock* block = blocks_ + slots_[i].descriptor;
        if (slots_[i].key == key) return block->address == address ? block : nullptr;
    }
    return nullptr;
}

} // namespace zk
