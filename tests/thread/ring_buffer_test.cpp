// The ring buffer: regions handed out in up to two pieces, commits, the
// output rules, and a producer and a consumer thread moving checked bytes.
#include "support/library_test.h"

#include <algorithm>
#include <thread>
#include <vector>

namespace {

// What one lock hands out: the count, and up to two pieces.
struct Region {
    uint32_t ready, length[2];
    void* piece[2];
    // The k-th byte of the region, across the wrap.
    unsigned char* At(uint32_t k) const {
        return static_cast<unsigned char*>(piece[k >= length[0]]) +
               (k >= length[0] ? k - length[0] : k);
    }
};

// The outputs start as garbage, so that a lock that clears them shows.
Region Lock(bool write, RingBuffer* ring) {
    Region r{99, {99, 99}, {ring, ring}};
    r.ready = (write ? zkLockRingBufferForWrite : zkLockRingBufferForRead)(
        ring, &r.piece[0], &r.length[0], &r.piece[1], &r.length[1]);
    return r;
}

// {ready, first piece's offset from base, its length, second piece's offset,
// its length}; a missing piece's offset is -1.
zktest::Codes Summary(const Region& r, unsigned char* base) {
    auto at = [base](void* p) { return p ? int64_t(static_cast<unsigned char*>(p) - base) : -1; };
    return {r.ready, at(r.piece[0]), r.length[0], at(r.piece[1]), r.length[1]};
}
zktest::Codes Expected(uint32_t ready, uint32_t first, uint32_t firstLength, uint32_t second) {
    return {ready, firstLength ? int64_t(first) : -1, firstLength, second ? 0 : -1, second};
}

// Locks and unlocks on a 16-byte ring. Unlocks need no lock before them, and
// counts beyond what the other side left are refused. With an output missing
// a lock gives the count and clears every other output.
TEST(RingBuffer, LocksReserveNothingAndUnlocksBeyondTheRegionAreRefused) {
    unsigned char storage[16];
    RingBuffer* ring = zkCreateRingBuffer(storage, 16);
    enum Op { kLockWrite, kLockRead, kUnlockWrite, kUnlockRead };
    const struct {
        Op op;
        uint32_t value; // the lock's result, or the unlock's count
        uint32_t first = 0, firstLength = 0, secondLength = 0;
    } steps[] = {
        {kLockRead, 0},   // nothing to read: outputs cleared
        {kUnlockRead, 1}, // refused: empty
        {kUnlockWrite, 10},
        {kLockRead, 10, 0, 10},
        {kLockRead, 10, 0, 10}, // a lock reserves nothing
        {kUnlockWrite, 7},      // refused: only 6 free
        {kUnlockWrite, 6},
        {kLockWrite, 0},   // full: outputs cleared
        {kUnlockWrite, 1}, // refused: full
        {kUnlockRead, 17}, // refused: only 16 to read
        {kUnlockRead, 12},
        {kLockWrite, 12, 0, 12}, // free space up to the reader, in one piece
        {kUnlockWrite, 10},
        {kLockRead, 14, 12, 4, 10}, // data wraps round to the start
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        if (step.op == kUnlockWrite) zkUnlockRingBufferForWrite(ring, step.value);
        if (step.op == kUnlockRead) zkUnlockRingBufferForRead(ring, step.value);
        if (step.op >= kUnlockWrite) continue;
        EXPECT_EQ(Summary(Lock(step.op == kLockWrite, ring), storage),
                  Expected(step.value, step.first, step.firstLength, step.secondLength));
    }
    void *first = storage, *second = storage;
    uint32_t firstSize = 99;
    EXPECT_EQ(zkLockRingBufferForRead(ring, &first, &firstSize, &second, nullptr), 14u);
    EXPECT_TRUE(first == nullptr && firstSize == 0 && second == nullptr);
    EXPECT_EQ(zkLockRingBufferForWrite(ring, nullptr, nullptr, nullptr, nullptr), 2u);
    zkReleaseRingBuffer(ring);
}

// From every start offset of a 13-byte ring, every count from 1 to 13 is
// written through the pieces one lock hands out and read back through the
// pieces of the next: each piece starts and ends where the offsets say, and
// the bytes come back in order. There is one ring buffer: a second create
// while it is in use fails, and a released one is free again.
TEST(RingBufferWrap, EveryOffsetAndCountRoundTrips) {
    constexpr uint32_t kSize = 13;
    unsigned char storage[kSize];
    RingBuffer* ring = zkCreateRingBuffer(storage, kSize);
    ASSERT_NE(ring, nullptr);
    EXPECT_EQ(zkCreateRingBuffer(storage, kSize), nullptr) << "in use";
    EXPECT_EQ(zkGetRingBufferAddress(ring), storage);
    unsigned char serial = 0;
    for (uint32_t start = 0; start < kSize; ++start) {
        for (uint32_t count = 1; count <= kSize; ++count) {
            SCOPED_TRACE(::testing::Message() << "start " << start << ", count " << count);
            // A new ring buffer starts at offset 0; move both offsets to start.
            zkReleaseRingBuffer(ring);
            ASSERT_EQ(zkCreateRingBuffer(storage, kSize), ring);
            zkUnlockRingBufferForWrite(ring, start), zkUnlockRingBufferForRead(ring, start);
            ASSERT_EQ(zkGetRingBufferDataSize(ring), 0u);

            const Region free = Lock(true, ring);
            EXPECT_EQ(Summary(free, storage), Expected(kSize, start, kSize - start, start));
            const unsigned char first = serial;
            for (uint32_t k = 0; k < count; ++k)
                *free.At(k) = serial++;
            zkUnlockRingBufferForWrite(ring, count);
            EXPECT_EQ(zkGetRingBufferDataSize(ring), count);
            const uint32_t head = std::min(count, kSize - start);
            const Region data = Lock(false, ring);
            EXPECT_EQ(Summary(data, storage), Expected(count, start, head, count - head));
            for (uint32_t k = 0; k < count; ++k)
                ASSERT_EQ(*data.At(k), static_cast<unsigned char>(first + k)) << "byte " << k;
            const zktest::Codes rest = Summary(Lock(true, ring), storage);
            EXPECT_EQ(
                zktest::Codes(rest.begin(), rest.begin() + 2),
                zktest::Codes({kSize - count, count < kSize ? (start + count) % kSize : -1ll}));
            zkUnlockRingBufferForRead(ring, count);
        }
    }
    zkReleaseRingBuffer(ring);
    EXPECT_EQ(Lock(true, ring).ready, 0u) << "a released ring has no room";
}

struct Transfer {
    RingBuffer* ring;
    uint64_t total, received = 0, mismatches = 0;
};

// Walks the stream in locks of changing sizes, so that pieces end everywhere:
// the producer fills bytes with the pattern, the consumer counts mismatches.
template <bool kWrite> void ZK_CALL Walk(void* argument) {
    Transfer* t = static_cast<Transfer*>(argument);
    uint64_t position = 0, bad = 0;
    for (uint32_t step = 1; position < t->total; step = step * (kWrite ? 5 : 3) % 1021 + 1) {
        const Region r = Lock(kWrite, t->ring);
        auto count =
            static_cast<uint32_t>(std::min<uint64_t>({r.ready, step, t->total - position}));
        for (uint32_t k = 0; k < count; ++k) {
            auto expected = static_cast<unsigned char>((position + k) * 0x9E3779B1u >> 13);
            kWrite ? void(*r.At(k) = expected) : void(bad += *r.At(k) != expected);
        }
        (kWrite ? zkUnlockRingBufferForWrite : zkUnlockRingBufferForRead)(t->ring, count);
        position += count;
        if (r.ready == 0) std::this_thread::yield();
    }
    if (!kWrite) t->received = position, t->mismatches = bad;
}

// 256 MiB in all (a quarter of it under ThreadSanitizer), most of it through
// the larger buffers, where each lock hands out more bytes.
TEST(RingBufferStress, PrimeSizedBuffersMoveEveryByteInOrder) {
    constexpr uint64_t kMiB = (1ull << 20) / (zktest::kThreadSanitizer ? 4 : 1);
    for (auto [size, total] : {std::pair{61u, 16 * kMiB}, {997u, 80 * kMiB}, {4093u, 160 * kMiB}}) {
        std::vector<unsigned char> buffer(size);
        Transfer t{zkCreateRingBuffer(buffer.data(), size), total};
        ThreadRecord *producer = zkCreateThread(0), *consumer = zkCreateThread(0);
        ASSERT_EQ(zkStartThread(consumer, Walk<false>, &t), 0);
        ASSERT_EQ(zkStartThread(producer, Walk<true>, &t), 0);
        // Meanwhile, the data size seen from a third thread never leaves 0..size.
        uint32_t largest = 0;
        for (int k = 0; k < 20000; ++k)
            largest = std::max(largest, zkGetRingBufferDataSize(t.ring));
        // {largest <= size, releases, received, mismatches, data size at the end}
        EXPECT_EQ(
            zktest::Codes({largest <= size, zkReleaseThread(producer) + zkReleaseThread(consumer),
                           int64_t(t.received), int64_t(t.mismatches),
                           zkGetRingBufferDataSize(t.ring)}),
            zktest::Codes({1, 0, int64_t(total), 0, 0}))
            << "buffer of " << size << " bytes";
        zkReleaseRingBuffer(t.ring);
    }
}

} // namespace
