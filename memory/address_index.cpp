// The address index's layout and growth; its probing is inline in
// address_index.h, with its invariants.
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

} // namespace zk
