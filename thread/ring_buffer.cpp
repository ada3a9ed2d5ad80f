// The library's one ring buffer: a byte stream from one producer thread to
// one consumer thread through a buffer the application supplies.
//
// Locks and threads: only the consumer moves the read offset and only the
// producer moves the write offset, so each offset is its own side's private
// state. The data size is the one field both sides change; it changes only
// while holding the guard, a binary semaphore whose uncontended take and give
// are one atomic step each. A lock reads the data size without the guard (an
// acquire load: any value it sees was complete, and the region it reports is
// one the other side will not touch until the matching unlock). The producer
// fills its region before it stores the larger data size with release order,
// and the consumer's acquire load of that size orders its reads after; the
// same holds the other way round for space handed back by the consumer.
// The fields each side writes sit on cache lines of their own, so the two
// sides meet only on the data size and the guard.
// base, size, the guard and the in-use flag are set by create and release,
// which the application calls while neither side is working.
#include <zk/ringbuffer.h>
#include <zk/semaphore.h>

#include <atomic>

struct RingBuffer {
    // Takes the ring buffer for the caller's buffer; false when it is in use
    // or the guard cannot be created.
    bool Create(void* buffer, uint32_t bufferSize);
    void Release();
    uint32_t DataSize() const { return dataSize.load(std::memory_order_acquire); }
    uint32_t LockForRead(void** first, uint32_t* firstSize, void** second, uint32_t* secondSize) {
        return HandOut(readOffset, DataSize(), first, firstSize, second, secondSize);
    }
    uint32_t LockForWrite(void** first, uint32_t* firstSize, void** second, uint32_t* secondSize) {
        return HandOut(writeOffset, size - DataSize(), first, firstSize, second, secondSize);
    }
    // A count above the bytes now readable [free] is refused: nothing moves.
    void UnlockForRead(uint32_t count) {
        if (Commit(count, false)) readOffset = Advance(readOffset, count);
    }
    void UnlockForWrite(uint32_t count) {
        if (Commit(count, true)) writeOffset = Advance(writeOffset, count);
    }

    uint32_t inUse = 0;
    zkAddr base = 0;
    uint32_t size = 0;
    SemaphoreRecord* guard = nullptr;
    alignas(64) std::atomic<uint32_t> dataSize{0}; // changed under the guard
    alignas(64) uint32_t readOffset = 0;           // consumer's
    alignas(64) uint32_t writeOffset = 0;          // producer's

private:
    uint32_t HandOut(uint32_t offset, uint32_t amount, void** first, uint32_t* firstSize,
                     void** second, uint32_t* secondSize) const;
    uint32_t Advance(uint32_t offset, uint32_t count) const {
        uint32_t next = offset + count;
        return next >= size ? next - size : next;
    }
    // Under the guard: adds (produced) or takes away count bytes when they are
    // there to take; false, and nothing changed, otherwise.
    bool Commit(uint32_t count, bool produced) {
        zkWaitSemaphore(guard);
        uint32_t now = dataSize.load(std::memory_order_relaxed);
        bool fits = count <= (produced ? size - now : now);
        if (fits) dataSize.store(produced ? now + count : now - count, std::memory_order_release);
        zkSignalSemaphore(guard);
        return fits;
    }
};

namespace {
RingBuffer g_ring;

// The one ring buffer, when ring is its handle; a pointer to anything else is
// no ring buffer and every call answers it as it answers null.
RingBuffer* Ring(RingBuffer* ring) {
    return ring == &g_ring ? ring : nullptr;
}
} // namespace

bool RingBuffer::Create(void* buffer, uint32_t bufferSize) {
    if (inUse || !buffer || bufferSize == 0) return false;
    inUse = 1;
    base = reinterpret_cast<zkAddr>(buffer);
    size = bufferSize;
    dataSize.store(0, std::memory_order_relaxed);
    readOffset = 0;
    writeOffset = 0;
    guard = zkCreateSemaphore(1, 1);
    if (!guard) {
        Release();
        return false;
    }
    return true;
}

void RingBuffer::Release() {
    base = 0;
    size = 0;
    dataSize.store(0, std::memory_order_relaxed);
    readOffset = 0;
    writeOffset = 0;
    zkReleaseSemaphore(guard);
    guard = nullptr;
    inUse = 0;
}

// Hands out `amount` bytes from `offset` in up to two pieces, the second being
// the part that wraps round to the buffer's start. Returns amount.
uint32_t RingBuffer::HandOut(uint32_t offset, uint32_t amount, void** first, uint32_t* firstSize,
                             void** second, uint32_t* secondSize) const {
    if (!first || !firstSize || !second || !secondSize || amount == 0) {
        // Outputs that cannot all be written are all cleared, as is an empty region.
        if (first) *first = nullptr;
        if (firstSize) *firstSize = 0;
        if (second) *second = nullptr;
        if (secondSize) *secondSize = 0;
        return amount;
    }
    *first = reinterpret_cast<void*>(base + offset);
    if (uint64_t(offset) + amount <= size) {
        *firstSize = amount;
        *second = nullptr;
        *secondSize = 0;
    } else {
        *firstSize = size - offset;
        *second = reinterpret_cast<void*>(base);
        *secondSize = amount - *firstSize;
    }
    return amount;
}

extern "C" ZK_API RingBuffer* ZK_CALL zkCreateRingBuffer(void* buffer, uint32_t size) {
    return g_ring.Create(buffer, size) ? &g_ring : nullptr;
}

extern "C" ZK_API void ZK_CALL zkReleaseRingBuffer(RingBuffer* ring) {
    if (Ring(ring) && ring->inUse) ring->Release();
}

extern "C" ZK_API uint32_t ZK_CALL zkGetRingBufferDataSize(RingBuffer* ring) {
    return Ring(ring) ? ring->DataSize() : 0;
}

extern "C" ZK_API void* ZK_CALL zkGetRingBufferAddress(RingBuffer* ring) {
    return Ring(ring) ? reinterpret_cast<void*>(ring->base) : nullptr;
}

extern "C" ZK_API uint32_t ZK_CALL zkLockRingBufferForRead(RingBuffer* ring, void** first,
                                                           uint32_t* firstSize, void** second,
                                                           uint32_t* secondSize) {
    return Ring(ring) ? ring->LockForRead(first, firstSize, second, secondSize) : 0;
}

extern "C" ZK_API void ZK_CALL zkUnlockRingBufferForRead(RingBuffer* ring, uint32_t count) {
    if (Ring(ring) && ring->inUse) ring->UnlockForRead(count);
}

extern "C" ZK_API uint32_t ZK_CALL zkLockRingBufferForWrite(RingBuffer* ring, void** first,
                                                            uint32_t* firstSize, void** second,
                                                            uint32_t* secondSize) {
    return Ring(ring) ? ring->LockForWrite(first, firstSize, second, secondSize) : 0;
}

extern "C" ZK_API void ZK_CALL zkUnlockRingBufferForWrite(RingBuffer* ring, uint32_t count) {
    if (Ring(ring) && ring->inUse) ring->UnlockForWrite(count);
}
