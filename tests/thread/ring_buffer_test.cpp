// The ring buffer: regions handed out in up to two pieces, commits, the
// output rules, and a producer and a consumer thread moving checked bytes.
#include <zk.h>

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

TEST_F(RingBufferTest, NewBufferIsAllFreeInOnePiece) {
    Region w;
    EXPECT_EQ(LockWrite(w), 16u);
    EXPECT_EQ(w.first, storage_);
    EXPECT_EQ(w.firstSize, 16u);
    EXPECT_EQ(w.second, nullptr);
    EXPECT_EQ(w.secondSize, 0u);

    Region r;
    EXPECT_EQ(LockRead(r), 0u);
    EXPECT_EQ(r.first, nullptr);
    EXPECT_EQ(r.firstSize, 0u);
    EXPECT_EQ(r.second, nullptr);
    EXPECT_EQ(r.secondSize, 0u);
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 0u);
    EXPECT_EQ(zkGetRingBufferAddress(ring_), storage_);
}

TEST_F(RingBufferTest, WriteTenReadTenThenTheFreeRegionWraps) {
    Region w;
    ASSERT_EQ(LockWrite(w), 16u);
    std::memcpy(w.first, "0123456789", 10);
    zkUnlockRingBufferForWrite(ring_, 10);
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 10u);

    Region r;
    ASSERT_EQ(LockRead(r), 10u);
    EXPECT_EQ(r.first, storage_);
    EXPECT_EQ(r.firstSize, 10u);
    EXPECT_EQ(r.second, nullptr);
    EXPECT_EQ(std::memcmp(r.first, "0123456789", 10), 0);
    zkUnlockRingBufferForRead(ring_, 10);
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 0u);

    Region again;
    ASSERT_EQ(LockWrite(again), 16u);
    EXPECT_EQ(again.first, storage_ + 10);
    EXPECT_EQ(again.firstSize, 6u);
    EXPECT_EQ(again.second, storage_);
    EXPECT_EQ(again.secondSize, 10u);

    // Bytes written across the end come back in two pieces in order.
    std::memcpy(again.first, "abcdef", 6);
    std::memcpy(again.second, "ghij", 4);
    zkUnlockRingBufferForWrite(ring_, 10);
    Region r2;
    ASSERT_EQ(LockRead(r2), 10u);
    EXPECT_EQ(r2.first, storage_ + 10);
    EXPECT_EQ(r2.firstSize, 6u);
    EXPECT_EQ(r2.second, storage_);
    EXPECT_EQ(r2.secondSize, 4u);
    EXPECT_EQ(std::memcmp(r2.second, "ghij", 4), 0);
}

TEST_F(RingBufferTest, FullBuffer) {
    Region w;
    ASSERT_EQ(LockWrite(w), 16u);
    zkUnlockRingBufferForWrite(ring_, 16);
    Region full;
    EXPECT_EQ(LockWrite(full), 0u);
    EXPECT_EQ(full.first, nullptr);
    EXPECT_EQ(full.firstSize, 0u);
    EXPECT_EQ(full.second, nullptr);
    EXPECT_EQ(full.secondSize, 0u);
    Region r;
    EXPECT_EQ(LockRead(r), 16u);
    EXPECT_EQ(r.first, storage_);
    EXPECT_EQ(r.firstSize, 16u);
    EXPECT_EQ(zkGetRingBufferDataSize(ring_), 16u);
    // Reading all of it brings the offsets round to the start again.
    zkUnlockRingBufferForRead(ring_, 16);
    Region w2;
    EXPECT_EQ(LockWrite(w2), 16u);
    EXPECT_EQ(w2.first, storage_);
    EXPECT_EQ(w2.second, nullptr);
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

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#else
constexpr bool kThreadSanitizer = false;
#endif

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

// Produces in commits of changing sizes, so that pieces end everywhere.
void ZK_CALL Produce(void* argument) {
    Transfer* t = static_cast<Transfer*>(argument);
    uint64_t position = 0;
    uint32_t step = 1;
    while (position < t->total) {
        void* first;
        void* second;
        uint32_t firstSize, secondSize;
        uint32_t free = zkLockRingBufferForWrite(t->ring, &first, &firstSize, &second, &secondSize);
        if (free == 0) {
            std::this_thread::yield();
            continue;
        }
        step = step * 5 % 1021 + 1;
        uint64_t count = std::min<uint64_t>({free, step * 7ull, t->total - position});
        uint64_t inFirst = std::min<uint64_t>(count, firstSize);
        for (uint64_t k = 0; k < inFirst; ++k)
            static_cast<unsigned char*>(first)[k] = Pattern(position + k);
        for (uint64_t k = inFirst; k < count; ++k)
            static_cast<unsigned char*>(second)[k - inFirst] = Pattern(position + k);
        zkUnlockRingBufferForWrite(t->ring, static_cast<uint32_t>(count));
        position += count;
    }
}

void ZK_CALL Consume(void* argument) {
    Transfer* t = static_cast<Transfer*>(argument);
    uint64_t position = 0;
    uint64_t bad = 0;
    uint32_t step = 3;
    while (position < t->total) {
        void* first;
        void* second;
        uint32_t firstSize, secondSize;
        uint32_t available =
            zkLockRingBufferForRead(t->ring, &first, &firstSize, &second, &secondSize);
        if (available == 0) {
            std::this_thread::yield();
            continue;
        }
        step = step * 3 % 509 + 1;
        uint32_t count = std::min<uint32_t>(available, step * 11);
        uint32_t inFirst = std::min(count, firstSize);
        for (uint32_t k = 0; k < inFirst; ++k)
            bad += static_cast<const unsigned char*>(first)[k] != Pattern(position + k);
        for (uint32_t k = inFirst; k < count; ++k)
            bad += static_cast<const unsigned char*>(second)[k - inFirst] != Pattern(position + k);
        zkUnlockRingBufferForRead(t->ring, count);
        position += count;
    }
    t->mismatches.store(bad);
    t->received = position;
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
    ASSERT_EQ(zkStartThread(consumer, Consume, &t), 0);
    ASSERT_EQ(zkStartThread(producer, Produce, &t), 0);
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
constexpr uint64_t kScale = kThreadSanitizer ? 4 : 1;

TEST(RingBufferStress, SixtyOneBytes) {
    MoveThrough(61, 16 * kMiB / kScale);
}
TEST(RingBufferStress, NineHundredNinetySevenBytes) {
    MoveThrough(997, 80 * kMiB / kScale);
}
TEST(RingBufferStress, FourThousandNinetyThreeBytes) {
    MoveThrough(4093, 160 * kMiB / kScale);
}

} // namespace
