// The ring buffer: regions handed out in up to two pieces, commits, the
// output rules, and a producer and a consumer thread moving checked bytes.
#include "support/library_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

class RingBufferTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(ring_ = zkCreateRingBuffer(storage_, 16), nullptr); }
    void TearDown() override { zkReleaseRingBuffer(ring_); }
    unsigned char storage_[16] = {};
    RingBuffer* ring_ = nullptr;
};

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

// The region starts at base + first; a second piece, if any, at base itself;
// an empty piece is null.
void ExpectRegion(const Region& r, uint32_t ready, unsigned char* base, uint32_t first,
                  uint32_t firstLength, uint32_t secondLength) {
    EXPECT_EQ(r.ready, ready);
    EXPECT_EQ(r.piece[0], firstLength ? base + first : nullptr);
    EXPECT_EQ(r.length[0], firstLength);
    EXPECT_EQ(r.piece[1], secondLength ? base : nullptr);
    EXPECT_EQ(r.length[1], secondLength);
}

// Locks and unlocks on a 16-byte ring. Unlocks need no lock before them, and
// counts beyond what the other side left are refused.
TEST_F(RingBufferTest, LocksReserveNothingAndUnlocksBeyondTheRegionAreRefused) {
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
        if (step.op == kUnlockWrite) zkUnlockRingBufferForWrite(ring_, step.value);
        if (step.op == kUnlockRead) zkUnlockRingBufferForRead(ring_, step.value);
        if (step.op < kUnlockWrite)
            ExpectRegion(Lock(step.op == kLockWrite, ring_), step.value, storage_, step.first,
                         step.firstLength, step.secondLength);
    }
}

TEST_F(RingBufferTest, OutputsClearedWhenOnePointerIsMissing) {
    zkUnlockRingBufferForWrite(ring_, 5);
    void *first = storage_, *second = storage_;
    uint32_t firstSize = 99;
    // first given, secondSize missing: the data size comes back, the rest is cleared.
    EXPECT_EQ(zkLockRingBufferForRead(ring_, &first, &firstSize, &second, nullptr), 5u);
    EXPECT_TRUE(first == nullptr && firstSize == 0 && second == nullptr);
    EXPECT_EQ(zkLockRingBufferForWrite(ring_, nullptr, nullptr, nullptr, nullptr), 11u);
    first = storage_; // a null ring buffer gives 0 and touches nothing
    EXPECT_EQ(zkLockRingBufferForRead(nullptr, &first, &firstSize, nullptr, nullptr), 0u);
    EXPECT_EQ(first, storage_);
    EXPECT_EQ(zkGetRingBufferDataSize(nullptr) + zkGetRingBufferDataSize(ring_), 5u);
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
            ExpectRegion(free, kSize, storage, start, kSize - start, start);
            const unsigned char first = serial;
            for (uint32_t k = 0; k < count; ++k)
                *free.At(k) = serial++;
            zkUnlockRingBufferForWrite(ring, count);
            EXPECT_EQ(zkGetRingBufferDataSize(ring), count);

            const uint32_t head = std::min(count, kSize - start);
            const Region data = Lock(false, ring);
            ExpectRegion(data, count, storage, start, head, count - head);
            for (uint32_t k = 0; k < count; ++k)
                ASSERT_EQ(*data.At(k), static_cast<unsigned char>(first + k)) << "byte " << k;
            const Region rest = Lock(true, ring);
            EXPECT_EQ(rest.ready, kSize - count);
            if (count < kSize) {
                EXPECT_EQ(rest.piece[0], storage + (start + count) % kSize);
            }
            zkUnlockRingBufferForRead(ring, count);
            EXPECT_EQ(zkGetRingBufferDataSize(ring), 0u);
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
        EXPECT_LE(largest, size);
        EXPECT_EQ(zkReleaseThread(producer) + zkReleaseThread(consumer), 0);
        EXPECT_EQ(t.received, total);
        EXPECT_EQ(t.mismatches, 0u) << "buffer of " << size << " bytes";
        EXPECT_EQ(zkGetRingBufferDataSize(t.ring), 0u);
        zkReleaseRingBuffer(t.ring);
    }
}

} // namespace
