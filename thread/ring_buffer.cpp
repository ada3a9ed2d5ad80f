// The library's one ring buffer: a byte stream from one producer thread to
// one consumer thread through a buffer the application supplies.
//
// Locks and threads: only the consumer moves the read offset and only the
// producer moves the write offset, so each offset is its own side's private
// state. The data size is the one field both sides change, and each change is
// one atomic read-modify-write (an add for the producer, a subtract for the
// consumer): the step the guard semaphore would make indivisible already is,
// so the hot path takes no semaphore. The guard is still created with the
// ring buffer and released with it, and holds its semaphore record meanwhile.
// A lock or a data-size query reads the data size with one acquire load; the
// value is always one that some commit left behind, the same value a read
// between the guard's take and give would return.
//
// Ordering: the producer fills its region before its add (release), and the
// consumer's acquire load of the larger size orders its reads after; the
// consumer finishes reading before its subtract (release), and the producer's
// acquire load orders its writes into the freed space after that.
//
// Cache lines: base, size and the in-use flag are written only by create and
// release, which the application calls while neither side is working, so
// both sides keep them cached. The data size has a line of its own, and so
// has each side's offset together with the count of bytes that side knows it
// may commit; that count is what lets an unlock check its count without
// reading the shared line again. The two sides meet only on the data size.
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
        readable = DataSize();
        return HandOut(readOffset, readable, first, firstSize, second, secondSize);
    }
    uint32_t LockForWrite(void** first, uint32_t* firstSize, void** second, uint32_t* secondSize) {
        writable = size - DataSize();
        return HandOut(writeOffset, writable, first, firstSize, second, secondSize);
    }
    // A count above the bytes now readable [free] is refused: nothing moves.
    // The data size only grows behind the consumer's back (and only shrinks
    // behind the producer's), so a count within what this side last saw, less
    // what it has committed since, always fits.
    void UnlockForRead(uint32_t count) {
        if (count > readable && count > (readable = DataSize())) return;
        readable -= count;
        readOffset = Advance(readOffset, count);
        dataSize.fetch_sub(count, std::memory_order_release);
    }
    void UnlockForWrite(uint32_t count) {
        if (count > writable && count > (writable = size - DataSize())) return;
        writable -= count;
        writeOffset = Advance(writeOffset, count);
        dataSize.fetch_add(count, std::memory_order_release);
    }

    uint32_t inUse = 0;
    zkAddr base = 0;
    uint32_t size = 0;
    alignas(64) std::atomic<uint32_t> dataSize{0}; // both sides; one atomic step per change
    alignas(64) uint32_t readOffset = 0;           // consumer's
    uint32_t readable = 0;                         // consumer's: at most the data size
    alignas(64) uint32_t writeOffset = 0;          // producer's
    uint32_t writable = 0;                         // producer's: at most size - data size
    alignas(64) SemaphoreRecord* guard = nullptr;

private:
    uint32_t HandOut(uint32_t offset, uint32_t amount, void** first, uint32_t* firstSize,
                     void** second, uint32_t* secondSize) const;
    // offset + count, less size once when that reaches the end (no overflow
    // for buffers above 2 GiB).
    uint32_t Advance(uint32_t offset, uint32_t count) const {
        uint32_t toEnd = size - offset;
        return count >= toEnd ? count - toEnd : offset + count;
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
    readOffset = readable = 0;
    writeOffset = writable = 0;
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
    readOffset = readable = 0;
    writeOffset = writable = 0;
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
