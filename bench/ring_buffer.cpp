// Ring buffer throughput: a producer thread and a consumer thread pass 1 GiB
// of checked bytes through a 64 KiB ring buffer. The baseline, measured in the
// same run, moves the same bytes through a 64 KiB buffer on one thread with
// the same copy in and comparison out, without the ring buffer.
#include <zk.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr uint64_t kTotal = 1ull << 30;
constexpr uint32_t kRingSize = 64 * 1024;
// The stream repeats with an odd period, so pieces never line up with it.
constexpr uint32_t kPeriod = (1u << 20) + 4099;

std::vector<unsigned char> g_pattern;

const unsigned char* PatternAt(uint64_t position) {
    return &g_pattern[position % kPeriod];
}

struct Transfer {
    RingBuffer* ring;
    uint64_t mismatches = 0;
};

void CopyIn(void* to, uint32_t size, uint64_t& position) {
    std::memcpy(to, PatternAt(position), size);
    position += size;
}

uint64_t CheckOut(const void* from, uint32_t size, uint64_t& position) {
    uint64_t bad = std::memcmp(from, PatternAt(position), size) != 0;
    position += size;
    return bad;
}

void ZK_CALL Produce(void* argument) {
    Transfer* t = static_cast<Transfer*>(argument);
    uint64_t position = 0;
    while (position < kTotal) {
        void *first, *second;
        uint32_t firstSize, secondSize;
        uint32_t free = zkLockRingBufferForWrite(t->ring, &first, &firstSize, &second, &secondSize);
        if (free == 0) {
            std::this_thread::yield();
            continue;
        }
        uint64_t left = kTotal - position;
        if (firstSize > left)
            firstSize = static_cast<uint32_t>(left), secondSize = 0;
        else if (firstSize + secondSize > left)
            secondSize = static_cast<uint32_t>(left - firstSize);
        CopyIn(first, firstSize, position);
        if (secondSize) CopyIn(second, secondSize, position);
        zkUnlockRingBufferForWrite(t->ring, firstSize + secondSize);
    }
}

void ZK_CALL Consume(void* argument) {
    Transfer* t = static_cast<Transfer*>(argument);
    uint64_t position = 0;
    while (position < kTotal) {
        void *first, *second;
        uint32_t firstSize, secondSize;
        uint32_t available =
            zkLockRingBufferForRead(t->ring, &first, &firstSize, &second, &secondSize);
        if (available == 0) {
            std::this_thread::yield();
            continue;
        }
        t->mismatches += CheckOut(first, firstSize, position);
        if (secondSize) t->mismatches += CheckOut(second, secondSize, position);
        zkUnlockRingBufferForRead(t->ring, available);
    }
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

} // namespace

int main() {
    g_pattern.resize(kPeriod + kRingSize);
    for (size_t i = 0; i < g_pattern.size(); ++i)
        g_pattern[i] = static_cast<unsigned char>(((i % kPeriod) * 2654435761u) >> 11);

    // Baseline: the same bytes copied into one 64 KiB buffer and compared out.
    std::vector<unsigned char> plain(kRingSize);
    uint64_t baselineBad = 0;
    auto start = std::chrono::steady_clock::now();
    for (uint64_t in = 0, out = 0; in < kTotal;) {
        CopyIn(plain.data(), kRingSize, in);
        baselineBad += CheckOut(plain.data(), kRingSize, out);
    }
    double baseline = Seconds(start);

    std::vector<unsigned char> storage(kRingSize);
    Transfer t;
    t.ring = zkCreateRingBuffer(storage.data(), kRingSize);
    ThreadRecord* producer = zkCreateThread(0);
    ThreadRecord* consumer = zkCreateThread(0);
    if (!t.ring || !producer || !consumer) {
        std::fprintf(stderr, "could not set up the ring buffer and its threads\n");
        return 1;
    }
    start = std::chrono::steady_clock::now();
    zkStartThread(consumer, Consume, &t);
    zkStartThread(producer, Produce, &t);
    zkReleaseThread(producer);
    zkReleaseThread(consumer);
    double ring = Seconds(start);
    zkReleaseRingBuffer(t.ring);

    const double gb = static_cast<double>(kTotal) / 1e9;
    std::printf("bytes moved            : %llu (1 GiB), ring buffer %u bytes\n",
                static_cast<unsigned long long>(kTotal), kRingSize);
    std::printf("memcpy + memcmp, 1 thread: %7.2f GB/s  (%.3f s)\n", gb / baseline, baseline);
    std::printf("ring buffer, 2 threads   : %7.2f GB/s  (%.3f s)\n", gb / ring, ring);
    std::printf("ring / baseline          : %7.2f\n", baseline / ring);
    std::printf("mismatched pieces        : %llu (baseline %llu)\n",
                static_cast<unsigned long long>(t.mismatches),
                static_cast<unsigned long long>(baselineBad));
    return t.mismatches == 0 && baselineBad == 0 ? 0 : 1;
}
