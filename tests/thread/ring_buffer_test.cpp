// The ring buffer: regions handed out in up to two pieces, commits, the
// output rules, and a producer and a consumer thread moving checked bytes.
#include "support/library_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

struct Region {
    void* first = reinterpret_cast<void*>(1);
    uint32_t firstSize = 99;
    void* second = reinterpret_cast<void*>(1);
    uint32_t secondSize = 99;
};

class RingBufferTest : public ::testing::Test {
protected:
    void SetUp() override {
        ring_ = zkCreateRingBuffer(storage_, sizeof(storage_));
        ASSERT_NE(ring_, nullptr);
    }
    void TearDown() override { zkReleaseRingBuffer(ring_); }

    uint32_t LockWrite(Region& r) {
        return zkLockRingBufferForWrite(ring_, &r.first, &r.firstSize, &r.second, &r.secondSize);
    }
    uint32_t LockRead(Region& r) {
        return zkLockRingBufferForRead(ring_, &r.first, &r.firstSize, &r.second, &r.secondSize);
    }

    unsigned char storage_[16] = {};
    RingBuffer* ring_ = nullptr;
};

// Checks all four outputs of a lock.
void ExpectRegion(const Region& r, const void* first, uint32_t firstSize, const void* second,
                  uint32_t secondSize) {
    EXPECT_EQ(r.first, first);
    EXPECT_EQ(r.firstSize, firstSize);
    EXPECT_EQ(r.second, second);
    EXPECT_EQ(r.secondSize, secondSize);
}

TEST_F(RingBufferTest, NewBufferIsAllFreeInOnePiece) {
    Region w, r;
    EXPECT_EQ(LockWrite(w), 16u);
    ExpectRegion(w, storage_, 16, nullptr, 0);
    EXPECT_EQ(LockRead(r), 0u);
    ExpectRegion(r, nullptr, 0, nullptr, 0);
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 0u);
    EXPECT_EQ(zkGetRingBufferAddress(ring_), storage_);
}

TEST_F(RingBufferTest, WriteTenReadTenThenTheFreeRegionWraps) {
    Region w, r, again, r2;
    ASSERT_EQ(LockWrite(w), 16u);
    std::memcpy(w.first, "0123456789", 10);
    zkUnlockRingBufferForWrite(ring_, 10);
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 10u);
    ASSERT_EQ(LockRead(r), 10u);
    ExpectRegion(r, storage_, 10, nullptr, 0);
    EXPECT_EQ(std::memcmp(r.first, "0123456789", 10), 0);
    zkUnlockRingBufferForRead(ring_, 10);
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 0u);

    ASSERT_EQ(LockWrite(again), 16u);
    ExpectRegion(again, storage_ + 10, 6, storage_, 10);
    // Bytes written across the end come back in two pieces in order.
    std::memcpy(again.first, "abcdef", 6);
    std::memcpy(again.second, "ghij", 4);
    zkUnlockRingBufferForWrite(ring_, 10);
    ASSERT_EQ(LockRead(r2), 10u);
    ExpectRegion(r2, storage_ + 10, 6, storage_, 4);
    EXPECT_EQ(std::memcmp(r2.second, "ghij", 4), 0);
}

TEST_F(RingBufferTest, FullBuffer) {
    Region w, full, r, w2;
    ASSERT_EQ(LockWrite(w), 16u);
    zkUnlockRingBufferForWrite(ring_, 16);
    EXPECT_EQ(LockWrite(full), 0u);
    ExpectRegion(full, nullptr, 0, nullptr, 0);
    EXPECT_EQ(LockRead(r), 16u);
    ExpectRegion(r, storage_, 16, nullptr, 0);
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 16u);
    // Reading all of it brings the offsets round to the start again.
    zkUnlockRingBufferForRead(ring_, 16);
    EXPECT_EQ(LockWrite(w2), 16u);
    ExpectRegion(w2, storage_, 16, nullptr, 0);
}

TEST_F(RingBufferTest, LockReservesNothing) {
    Region a, b;
    ASSERT_EQ(LockWrite(a), 16u);
    ASSERT_EQ(LockWrite(b), 16u);
    EXPECT_EQ(a.first, b.first);
    zkUnlockRingBufferForWrite(ring_, 4);
    Region r1, r2;
    EXPECT_EQ(LockRead(r1), 4u);
    EXPECT_EQ(LockRead(r2), 4u);
    EXPECT_EQ(r1.first, r2.first);
}

TEST_F(RingBufferTest, UnlockCountsBeyondTheRegionAreRefused) {
    Region w, r, w2;
    ASSERT_EQ(LockWrite(w), 16u);
    zkUnlockRingBufferForWrite(ring_, 4);
    zkUnlockRingBufferForRead(ring_, 40); // only 4 bytes to read
    zkUnlockRingBufferForWrite(ring_, 13); // only 12 bytes free
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 4u);
    EXPECT_EQ(LockRead(r), 4u);
    ExpectRegion(r, storage_, 4, nullptr, 0);
    EXPECT_EQ(LockWrite(w2), 12u);
    ExpectRegion(w2, storage_ + 4, 12, nullptr, 0);
}

TEST_F(RingBufferTest, OutputsClearedWhenOnePointerIsMissing) {
    Region w;
    ASSERT_EQ(LockWrite(w), 16u);
    zkUnlockRingBufferForWrite(ring_, 5);

    // first given, secondSize missing: the data size comes back, first is cleared.
    void* first = storage_;
    uint32_t firstSize = 99;
    void* second = storage_;
    EXPECT_EQ(zkLockRingBufferForRead(ring_, &first, &firstSize, &second, nullptr), 5u);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(firstSize, 0u);
    EXPECT_EQ(second, nullptr);

    // first missing: every other output is cleared.
    firstSize = 99;
    second = storage_;
    uint32_t secondSize = 99;
    EXPECT_EQ(zkLockRingBufferForRead(ring_, nullptr, &firstSize, &second, &secondSize), 5u);
    EXPECT_EQ(firstSize, 0u);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(secondSize, 0u);

    // Only the sizes are wanted: the free size still comes back.
    EXPECT_EQ(zkLockRingBufferForWrite(ring_, nullptr, nullptr, nullptr, nullptr), 11u);
    EXPECT_EQ(zkLockRingBufferForRead(ring_, nullptr, nullptr, nullptr, nullptr), 5u);
}

TEST_F(RingBufferTest, SecondCreateFailsUntilRelease) {
    unsigned char other[8];
    EXPECT_EQ(zkCreateRingBuffer(other, sizeof(other)), nullptr);
    zkReleaseRingBuffer(ring_);
    RingBuffer* again = zkCreateRingBuffer(other, sizeof(other));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(zkGetRingBufferAddress(again), other);
    Region w;
    EXPECT_EQ(zkLockRingBufferForWrite(again, &w.first, &w.firstSize, &w.second, &w.secondSize),
              8u);
    zkReleaseRingBuffer(again);
    ring_ = zkCreateRingBuffer(storage_, sizeof(storage_));
    ASSERT_NE(ring_, nullptr);
}

TEST(RingBuffer, NullRingBuffer) {
    void* first = reinterpret_cast<void*>(1);
    uint32_t firstSize = 7;
    EXPECT_EQ(zkLockRingBufferForRead(nullptr, &first, &firstSize, nullptr, nullptr), 0u);
    EXPECT_EQ(first, reinterpret_cast<void*>(1)); // untouched
    EXPECT_EQ(firstSize, 7u);
    EXPECT_EQ(zkLockRingBufferForWrite(nullptr, nullptr, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(zkGetRingBufferDataSize(nullptr), 0u);
    EXPECT_EQ(zkGetRingBufferAddress(nullptr), nullptr);
    zkUnlockRingBufferForRead(nullptr, 3);
    zkUnlockRingBufferForWrite(nullptr, 3);
    zkReleaseRingBuffer(nullptr);
}

TEST(RingBuffer, NoGuardNoRingBuffer) {
    std::vector<SemaphoreRecord*> taken;
    while (SemaphoreRecord* s = zkCreateSemaphore(0, 1))
        taken.push_back(s);
    unsigned char storage[16];
    EXPECT_EQ(zkCreateRingBuffer(storage, sizeof(storage)), nullptr);
    zkReleaseSemaphore(taken.back());
    taken.pop_back();
    // It stayed free: with a semaphore to spare the create succeeds.
    RingBuffer* ring = zkCreateRingBuffer(storage, sizeof(storage));
    EXPECT_NE(ring, nullptr);
    zkReleaseRingBuffer(ring);
    for (SemaphoreRecord* s : taken)
        zkReleaseSemaphore(s);
}

// ---- one producer thread, one consumer thread ----------------------------------

// The byte at stream position i.
inline unsigned char Pattern(uint64_t i) {
    return static_cast<unsigned char>((i * 0x9E3779B1u) >> 13 ^ (i >> 8));
}

struct Transfer {
    RingBuffer* ring;
    uint64_t total;
    std::atomic<uint64_t> mismatches{0};
    uint64_t received = 0;
};

// Walks the stream in locks of changing sizes, so that pieces end everywhere:
// the producer fills bytes with the pattern, the consumer counts mismatches.
template <bool kWrite> void ZK_CALL Walk(void* argument) {
    Transfer* t = static_cast<Transfer*>(argument);
    uint64_t position = 0, bad = 0;
    uint32_t step = kWrite ? 1 : 3;
    while (position < t->total) {
        void* piece[2];
        uint32_t size[2];
        uint32_t ready =
            kWrite ? zkLockRingBufferForWrite(t->ring, &piece[0], &size[0], &piece[1], &size[1])
                   : zkLockRingBufferForRead(t->ring, &piece[0], &size[0], &piece[1], &size[1]);
        if (ready == 0) {
            std::this_thread::yield();
            continue;
        }
        step = kWrite ? step * 5 % 1021 + 1 : step * 3 % 509 + 1;
        uint32_t count = static_cast<uint32_t>(
            std::min<uint64_t>({ready, step * (kWrite ? 7ull : 11ull), t->total - position}));
        for (uint32_t k = 0; k < count; ++k) {
            unsigned char* byte = k < size[0]
                                      ? static_cast<unsigned char*>(piece[0]) + k
                                      : static_cast<unsigned char*>(piece[1]) + (k - size[0]);
            if (kWrite)
                *byte = Pattern(position + k);
            else
                bad += *byte != Pattern(position + k);
        }
        if (kWrite)
            zkUnlockRingBufferForWrite(t->ring, count);
        else
            zkUnlockRingBufferForRead(t->ring, count);
        position += count;
    }
    if (!kWrite) {
        t->mismatches.store(bad);
        t->received = position;
    }
}

void MoveThrough(uint32_t bufferSize, uint64_t total) {
    std::vector<unsigned char> buffer(bufferSize);
    Transfer t;
    t.ring = zkCreateRingBuffer(buffer.data(), bufferSize);
    ASSERT_NE(t.ring, nullptr);
    t.total = total;
    ThreadRecord* producer = zkCreateThread(0);
    ThreadRecord* consumer = zkCreateThread(0);
    ASSERT_NE(producer, nullptr);
    ASSERT_NE(consumer, nullptr);
    ASSERT_EQ(zkStartThread(consumer, Walk<false>, &t), 0);
    ASSERT_EQ(zkStartThread(producer, Walk<true>, &t), 0);
    EXPECT_EQ(zkReleaseThread(producer), 0);
    EXPECT_EQ(zkReleaseThread(consumer), 0);
    EXPECT_EQ(t.received, total);
    EXPECT_EQ(t.mismatches.load(), 0u) << "buffer of " << bufferSize << " bytes";
    EXPECT_EQ(zkGetRingBufferDataSize(t.ring), 0u);
    zkReleaseRingBuffer(t.ring);
}

// 256 MiB in all (a quarter of it under ThreadSanitizer), most of it through
// the larger buffers, where each lock hands out more bytes.
constexpr uint64_t kMiB = 1ull << 20;
constexpr uint64_t kScale = zktest::kThreadSanitizer ? 4 : 1;

TEST(RingBufferStress, PrimeSizedBuffersMoveEveryByteInOrder) {
    MoveThrough(61, 16 * kMiB / kScale);
    MoveThrough(997, 80 * kMiB / kScale);
    MoveThrough(4093, 160 * kMiB / kScale);
}

} // namespace
