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

// Locks and unlocks on a 16-byte ring, with the regions each lock hands out
// (offsets into the buffer, -1 for null).
TEST_F(RingBufferTest, RegionsWrapAndUnlocksBeyondTheRegionAreRefused) {
    enum Op { kLockWrite, kLockRead, kUnlockWrite, kUnlockRead };
    const struct {
        Op op;
        uint32_t value; // the lock's result, or the unlock's count
        int first = -1, firstSize = 0, second = -1, secondSize = 0;
    } steps[] = {
        {kLockWrite, 16, 0, 16, -1, 0}, // a new buffer is all free in one piece
        {kLockRead, 0, -1, 0, -1, 0},   // nothing to read: outputs cleared
        {kUnlockWrite, 10},
        {kLockRead, 10, 0, 10, -1, 0},
        {kLockRead, 10, 0, 10, -1, 0}, // a lock reserves nothing
        {kUnlockRead, 10},
        {kLockWrite, 16, 10, 6, 0, 10}, // free space wraps round to the start
        {kUnlockWrite, 10},
        {kLockRead, 10, 10, 6, 0, 4},
        {kUnlockRead, 40}, // refused: only 10 to read
        {kUnlockWrite, 7}, // refused: only 6 free
        {kLockRead, 10, 10, 6, 0, 4},
        {kLockWrite, 6, 4, 6, -1, 0},
        {kUnlockWrite, 6},
        {kLockWrite, 0, -1, 0, -1, 0}, // full
        {kLockRead, 16, 10, 6, 0, 10},
        {kUnlockRead, 16},
        {kLockWrite, 16, 10, 6, 0, 10},
        // Unlocks with no lock before them: counts within what is there are
        // taken, however long ago the other side's last lock was.
        {kUnlockWrite, 3},
        {kUnlockWrite, 5},
        {kUnlockRead, 8},
        {kUnlockRead, 1}, // refused: empty
        {kUnlockWrite, 16},
        {kUnlockWrite, 1}, // refused: full
        {kLockRead, 16, 2, 14, 0, 2},
    };
    for (const auto& step : steps) {
        void *first = storage_, *second = storage_;
        uint32_t firstSize = 99, secondSize = 99;
        const int at = static_cast<int>(&step - steps);
        if (step.op == kUnlockWrite) zkUnlockRingBufferForWrite(ring_, step.value);
        if (step.op == kUnlockRead) zkUnlockRingBufferForRead(ring_, step.value);
        if (step.op >= kUnlockWrite) continue;
        auto lock = step.op == kLockWrite ? zkLockRingBufferForWrite : zkLockRingBufferForRead;
        EXPECT_EQ(lock(ring_, &first, &firstSize, &second, &secondSize), step.value) << at;
        EXPECT_EQ(first, step.first < 0 ? nullptr : storage_ + step.first) << at;
        EXPECT_EQ(second, step.second < 0 ? nullptr : storage_ + step.second) << at;
        EXPECT_EQ(firstSize, uint32_t(step.firstSize)) << at;
        EXPECT_EQ(secondSize, uint32_t(step.secondSize)) << at;
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
    zkReleaseRingBuffer(nullptr);
}

TEST_F(RingBufferTest, OneAtATimeAndNoneWithoutAGuard) {
    unsigned char other[8];
    EXPECT_EQ(zkCreateRingBuffer(other, sizeof(other)), nullptr) << "in use";
    zkReleaseRingBuffer(ring_);
    std::vector<SemaphoreRecord*> taken;
    while (SemaphoreRecord* s = zkCreateSemaphore(0, 1))
        taken.push_back(s);
    EXPECT_EQ(zkCreateRingBuffer(other, sizeof(other)), nullptr) << "no semaphore for the guard";
    zkReleaseSemaphore(taken.back()), taken.pop_back();
    RingBuffer* again = zkCreateRingBuffer(other, sizeof(other)); // it stayed free
    EXPECT_EQ(zkGetRingBufferAddress(again), other);
    EXPECT_EQ(zkCreateSemaphore(0, 1), nullptr) << "the guard holds the last record";
    zkReleaseRingBuffer(again);
    taken.push_back(zkCreateSemaphore(0, 1));
    EXPECT_NE(taken.back(), nullptr) << "and gives it back";
    for (SemaphoreRecord* s : taken)
        zkReleaseSemaphore(s);
    ring_ = zkCreateRingBuffer(storage_, 16);
}

// From every start offset of a 13-byte ring, every count from 1 to 13 is
// written through the pieces one lock hands out and read back through the
// pieces of the next: each piece starts and ends where the offsets say, and
// the bytes come back in order.
TEST(RingBufferWrap, EveryOffsetAndCountRoundTrips) {
    constexpr uint32_t kSize = 13;
    unsigned char storage[kSize];
    RingBuffer* ring = zkCreateRingBuffer(storage, kSize);
    ASSERT_NE(ring, nullptr);
    unsigned char serial = 0;
    for (uint32_t start = 0; start < kSize; ++start) {
        for (uint32_t count = 1; count <= kSize; ++count) {
            SCOPED_TRACE(::testing::Message() << "start " << start << ", count " << count);
            // A new ring buffer starts at offset 0; move both offsets to start.
            zkReleaseRingBuffer(ring);
            ASSERT_EQ(zkCreateRingBuffer(storage, kSize), ring);
            zkUnlockRingBufferForWrite(ring, start), zkUnlockRingBufferForRead(ring, start);
            ASSERT_EQ(zkGetRingBufferDataSize(ring), 0u);

            void* piece[2];
            uint32_t length[2];
            ASSERT_EQ(zkLockRingBufferForWrite(ring, &piece[0], &length[0], &piece[1], &length[1]),
                      kSize);
            EXPECT_EQ(piece[0], storage + start);
            EXPECT_EQ(length[0], kSize - start);
            EXPECT_EQ(piece[1], start ? storage : nullptr);
            EXPECT_EQ(length[1], start);
            const unsigned char first = serial;
            for (uint32_t k = 0; k < count; ++k, ++serial) {
                const bool wrapped = k >= length[0];
                static_cast<unsigned char*>(piece[wrapped])[wrapped ? k - length[0] : k] = serial;
            }
            zkUnlockRingBufferForWrite(ring, count);
            EXPECT_EQ(zkGetRingBufferDataSize(ring), count);

            const uint32_t head = std::min(count, kSize - start);
            ASSERT_EQ(zkLockRingBufferForRead(ring, &piece[0], &length[0], &piece[1], &length[1]),
                      count);
            EXPECT_EQ(piece[0], storage + start);
            EXPECT_EQ(length[0], head);
            EXPECT_EQ(piece[1], head < count ? storage : nullptr);
            EXPECT_EQ(length[1], count - head);
            for (uint32_t k = 0; k < count; ++k) {
                const bool wrapped = k >= length[0];
                ASSERT_EQ(static_cast<unsigned char*>(piece[wrapped])[wrapped ? k - length[0] : k],
                          static_cast<unsigned char>(first + k))
                    << "byte " << k;
            }
            const uint32_t end = (start + count) % kSize;
            ASSERT_EQ(zkLockRingBufferForWrite(ring, &piece[0], &length[0], &piece[1], &length[1]),
                      kSize - count);
            if (count < kSize) {
                EXPECT_EQ(piece[0], storage + end);
            }
            zkUnlockRingBufferForRead(ring, count);
            EXPECT_EQ(zkGetRingBufferDataSize(ring), 0u);
        }
    }
    zkReleaseRingBuffer(ring);
    EXPECT_EQ(zkLockRingBufferForWrite(ring, nullptr, nullptr, nullptr, nullptr), 0u)
        << "a released ring has no room";
}

// ---- one producer thread, one consumer thread ----------------------------------

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
        void* piece[2];
        uint32_t size[2];
        uint32_t ready = (kWrite ? zkLockRingBufferForWrite : zkLockRingBufferForRead)(
            t->ring, &piece[0], &size[0], &piece[1], &size[1]);
        auto count = static_cast<uint32_t>(std::min<uint64_t>({ready, step, t->total - position}));
        for (uint32_t k = 0; k < count; ++k) {
            unsigned char* byte = static_cast<unsigned char*>(piece[k < size[0] ? 0 : 1]) +
                                  (k < size[0] ? k : k - size[0]);
            auto expected = static_cast<unsigned char>((position + k) * 0x9E3779B1u >> 13);
            kWrite ? void(*byte = expected) : void(bad += *byte != expected);
        }
        (kWrite ? zkUnlockRingBufferForWrite : zkUnlockRingBufferForRead)(t->ring, count);
        position += count;
        if (ready == 0) std::this_thread::yield();
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
