// The library's one ring buffer: a byte stream from one producer thread to
// one consumer thread through a buffer the application supplies.
//
// Locks and threads: only the consumer moves the read offset and only the
// producer moves the write offset, so each offset is its own side's private
// state. The data size is kept as two running totals, each written by one
// side only: the bytes the producer has committed and the bytes the consumer
// has consumed (both modulo 2^32). The data size is their difference. A
// commit is one plain release store of the committing side's total, which
// is the step the guard semaphore would make indivisible: no side ever
// writes what the other writes, so the hot path takes no semaphore and no
// locked instruction. The guard is still created with the ring buffer and
// released with it, and holds its semaphore record meanwhile.
//
// A lock reads the other side's total with one acquire load; with its own
// total that gives exactly the data size after the other side's latest
// commit. A query from any thread reads both totals and takes the pair only
// when the consumed total did not move while the committed one was read, so
// the value is one the data size really had.
//
// Ordering: the producer fills its region before the release store of its
// total, and the consumer's acquire load of that total orders its reads
// after; the consumer finishes reading before its release store, and the
// producer's acquire load orders its writes into the freed space after that.
//
// Cache lines: base, size and the in-use flag are written only by create and
// release, which the application calls while neither side is working, so
// both sides keep them cached. The two totals share one line: every lock
// reads both, so one transfer brings a side the other's latest commit
// together with its own total, where a line for each total cost a lock two.
// Each side's offset and the count of bytes it knows it may commit sit on a
// further line that the other side never touches, so that a side polling an
// empty [full] ring with locks writes only a line of its own. That count is
// what lets an unlock check its count without reading the totals' line again.
// (Measured with producer and consumer pinned to two processors: with a line
// for each total 64-byte chunks passed 5-15 % slower; with everything on the
// totals' line, 1 KiB chunks passed up to 10 % slower.)
#include <zk/ringbuffer.h>
#include <zk/semaphore.h>

#include <atomic>

struct RingBuffer {
    // Takes the ring buffer for the caller's buffer; false when it is in use
    // or the guard cannot be created.
    bool Create(void* buffer, uint32_t bufferSize);
    void Release();
    // The data size from any thread: the consumed total before and after the
    // committed total is read must agree.
    uint32_t DataSize() const {
        for (;;) {
            const uint32_t consumedBefore = consumed.load(std::memory_order_acquire);
            const uint32_t data = committed.load(std::memory_order_acquire) - consumedBefore;
            if (consumed.load(std::memory_order_acquire) == consumedBefore) return data;
        }
    }
    uint32_t LockForRead(void** first, uint32_t* firstSize, void** second, uint32_t* secondSize) {
        readable =
            committed.load(std::memory_order_acquire) - consumed.load(std::memory_order_relaxed);
        return HandOut(readOffset, readable, first, firstSize, second, secondSize);
    }
    uint32_t LockForWrite(void** first, uint32_t* firstSize, void** second, uint32_t* secondSize) {
        writable = size - (committed.load(std::memory_order_relaxed) -
                           consumed.load(std::memory_order_acquire));
        return HandOut(writeOffset, writable, first, firstSize, second, secondSize);
    }
    // A count above the bytes now readable [free] is refused: nothing moves.
    // The data size only grows behind the consumer's back (and only shrinks
    // behind the producer's), so a count within what this side last saw, less
    // what it has committed since, always fits. A released (or never created)
    // ring has size 0 and both totals 0, so there every count but 0 is
    // refused and 0 moves nothing.
    void UnlockForRead(uint32_t count) {
        const uint32_t own = consumed.load(std::memory_order_relaxed);
        if (count > readable &&
            count > (readable = committed.load(std::memory_order_acquire) - own)) [[unlikely]]
            return;
        readable -= count;
        readOffset = Advance(readOffset, count);
        consumed.store(own + count, std::memory_order_release);
    }
    void UnlockForWrite(uint32_t count) {
        const uint32_t own = committed.load(std::memory_order_relaxed);
        if (count > writable &&
            count > (writable = size - (own - consumed.load(std::memory_order_acquire))))
            [[unlikely]]
            return;
        writable -= count;
        writeOffset = Advance(writeOffset, count);
        committed.store(own + count, std::memory_order_release);
    }

    uint32_t inUse = 0;
    zkAddr base = 0;
    uint32_t size = 0;
    alignas(64) std::atomic<uint32_t> consumed{0}; // consumer's; the producer reads it
    std::atomic<uint32_t> committed{0};            // producer's; the consumer reads it
    alignas(64) uint32_t readOffset = 0;           // consumer's alone
    uint32_t readable = 0;                         // consumer's: at most the data size
    alignas(64) uint32_t writeOffset = 0;          // producer's alone
    uint32_t writable = 0;                         // producer's: at most size - data size
    alignas(64) SemaphoreRecord* guard = nullptr;

private:
    // Hands out `amount` bytes from `offset` in up to two pieces, the second
    // being the part that wraps round to the buffer's start. Returns amount.
    uint32_t HandOut(uint32_t offset, uint32_t amount, void** first, uint32_t* firstSize,
                     void** second, uint32_t* secondSize) const {
        if (!first || !firstSize || !second || !secondSize || amount == 0) [[unlikely]]
            return Clear(amount, first, firstSize, second, secondSize);
        *first = reinterpret_cast<void*>(base + offset);
        const uint32_t toEnd = size - offset;
        if (amount <= toEnd) {
            *firstSize = amount;
            *second = nullptr;
            *secondSize = 0;
        } else {
            *firstSize = toEnd;
            *second = reinterpret_cast<void*>(base);
            *secondSize = amount - toEnd;
        }
        return amount;
    }
    // Outputs that cannot all be written are all cleared, as is an empty region.
    static uint32_t Clear(uint32_t amount, void** first, uint32_t* firstSize, void** second,
                          uint32_t* secondSize);
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
    consumed.store(0, std::memory_order_relaxed);
    committed.store(0, std::memory_order_relaxed);
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
    consumed.store(0, std::memory_order_relaxed);
    committed.store(0, std::memory_order_relaxed);
    readOffset = readable = 0;
    writeOffset = writable = 0;
    zkReleaseSemaphore(guard);
    guard = nullptr;
    inUse = 0;
}

uint32_t RingBuffer::Clear(uint32_t amount, void** first, uint32_t* firstSize, void** second,
                           uint32_t* secondSize) {
    if (first) *first = nullptr;
    if (firstSize) *firstSize = 0;
    if (second) *second = nullptr;
    if (secondSize) *secondSize = 0;
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
    if (Ring(ring)) ring->UnlockForRead(count);
}

extern "C" ZK_API uint32_t ZK_CALL zkLockRingBufferForWrite(RingBuffer* ring, void** first,
                                                            uint32_t* firstSize, void** second,
                                                            uint32_t* secondSize) {
    return Ring(ring) ? ring->LockForWrite(first, firstSize, second, secondSize) : 0;
}

extern "C" ZK_API void ZK_CALL zkUnlockRingBufferForWrite(RingBuffer* ring, uint32_t count) {
    if (Ring(ring)) ring->UnlockForWrite(count);
}
