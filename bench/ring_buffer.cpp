// Ring buffer throughput: a producer thread and a consumer thread pass a stream
// of checked bytes through a 64 KiB ring in chunks of 64 B, 1 KiB and 16 KiB.
//
// Peers measured in the same run, in interleaved rounds, with the same loop on each side (wait
// until a whole chunk fits [is there], copy the chunk in [compare it out], commit): the JACK ring
// buffer (jack_ringbuffer_*, when ZK_BENCH_JACK is defined) and boost's lock-free spsc_queue<char>
// (when ZK_BENCH_BOOST is defined). Each figure is GB/s; the ratios are the library's over each
// peer's.
#include <zk.h>

#if defined(ZK_BENCH_JACK)
#include <jack/ringbuffer.h>
#endif
#if defined(ZK_BENCH_BOOST)
#include <boost/lockfree/spsc_queue.hpp>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t kRingSize = 64 * 1024;
constexpr uint64_t kTotal = 256ull << 20; // bytes per measurement
// The stream repeats with an odd period, so chunks never line up with it.
constexpr uint32_t kPeriod = (1u << 20) + 4099;

std::vector<unsigned char> g_pattern;

const unsigned char* PatternAt(uint64_t position) {
    return &g_pattern[position % kPeriod];
}

// The library's ring buffer.
struct LibraryRing {
    RingBuffer* ring;
    // Copies the chunk into the region when it has room; false otherwise.
    bool Put(const unsigned char* chunk, uint32_t n) {
        void *first, *second;
        uint32_t firstSize, secondSize;
        if (zkLockRingBufferForWrite(ring, &first, &firstSize, &second, &secondSize) < n)
            return false;
        uint32_t head = firstSize < n ? firstSize : n;
        std::memcpy(first, chunk, head);
        if (head < n) std::memcpy(second, chunk + head, n - head);
        zkUnlockRingBufferForWrite(ring, n);
        return true;
    }
    // Compares the next chunk with expected when it is there; -1 when it is not.
    int Take(const unsigned char* expected, uint32_t n) {
        void *first, *second;
        uint32_t firstSize, secondSize;
        if (zkLockRingBufferForRead(ring, &first, &firstSize, &second, &secondSize) < n) return -1;
        uint32_t head = firstSize < n ? firstSize : n;
        int bad = std::memcmp(first, expected, head) != 0;
        if (head < n) bad |= std::memcmp(second, expected + head, n - head) != 0;
        zkUnlockRingBufferForRead(ring, n);
        return bad;
    }
};

#if defined(ZK_BENCH_JACK)
struct JackRing {
    jack_ringbuffer_t* ring;
    bool Put(const unsigned char* chunk, uint32_t n) {
        if (jack_ringbuffer_write_space(ring) < n) return false;
        jack_ringbuffer_data_t v[2];
        jack_ringbuffer_get_write_vector(ring, v);
        size_t head = v[0].len < n ? v[0].len : n;
        std::memcpy(v[0].buf, chunk, head);
        if (head < n) std::memcpy(v[1].buf, chunk + head, n - head);
        jack_ringbuffer_write_advance(ring, n);
        return true;
    }
    int Take(const unsigned char* expected, uint32_t n) {
        if (jack_ringbuffer_read_space(ring) < n) return -1;
        jack_ringbuffer_data_t v[2];
        jack_ringbuffer_get_read_vector(ring, v);
        size_t head = v[0].len < n ? v[0].len : n;
        int bad = std::memcmp(v[0].buf, expected, head) != 0;
        if (head < n) bad |= std::memcmp(v[1].buf, expected + head, n - head) != 0;
        jack_ringbuffer_read_advance(ring, n);
        return bad;
    }
};
#endif

#if defined(ZK_BENCH_BOOST)
struct BoostRing {
    boost::lockfree::spsc_queue<char, boost::lockfree::capacity<kRingSize>>* queue;
    char out[16 * 1024];
    bool Put(const unsigned char* chunk, uint32_t n) {
        if (queue->write_available() < n) return false;
        queue->push(reinterpret_cast<const char*>(chunk), n);
        return true;
    }
    int Take(const unsigned char* expected, uint32_t n) {
        if (queue->read_available() < n) return -1;
        queue->pop(out, n);
        return std::memcmp(out, expected, n) != 0;
    }
};
#endif

// A side that finds no room [no data] spins a little before it yields the
// processor, the same for every ring.
struct Backoff {
    int spins = 0;
    void Idle() {
        if (++spins < 128) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
            return;
        }
        spins = 0;
        std::this_thread::yield();
    }
};

// Moves kTotal bytes through ring in chunks of n; returns GB/s, counts mismatches.
template <typename Ring> double Run(Ring& ring, uint32_t n, uint64_t* mismatches) {
    auto start = std::chrono::steady_clock::now();
    std::thread producer([&] {
        Backoff backoff;
        for (uint64_t position = 0; position < kTotal;) {
            if (ring.Put(PatternAt(position), n))
                position += n;
            else
                backoff.Idle();
        }
    });
    uint64_t bad = 0;
    Backoff backoff;
    for (uint64_t position = 0; position < kTotal;) {
        int r = ring.Take(PatternAt(position), n);
        if (r < 0) {
            backoff.Idle();
            continue;
        }
        bad += static_cast<uint64_t>(r);
        position += n;
    }
    producer.join();
    *mismatches += bad;
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return static_cast<double>(kTotal) / 1e9 / seconds;
}

// The middle figure (0 when there are none).
double Median(std::vector<double> figures) {
    if (figures.empty()) return 0;
    std::sort(figures.begin(), figures.end());
    return figures[figures.size() / 2];
}

} // namespace

int main() {
    g_pattern.resize(kPeriod + 16 * 1024);
    for (size_t i = 0; i < g_pattern.size(); ++i)
        g_pattern[i] = static_cast<unsigned char>(((i % kPeriod) * 2654435761u) >> 11);

    std::vector<unsigned char> storage(kRingSize);
    LibraryRing library{zkCreateRingBuffer(storage.data(), kRingSize)};
    if (!library.ring) {
        std::fprintf(stderr, "could not create the ring buffer\n");
        return 1;
    }
#if defined(ZK_BENCH_JACK)
    JackRing jack{jack_ringbuffer_create(kRingSize)};
#endif
#if defined(ZK_BENCH_BOOST)
    static boost::lockfree::spsc_queue<char, boost::lockfree::capacity<kRingSize>> queue;
    static BoostRing boost{&queue, {}};
#endif

    // Each chunk size is measured in kRounds rounds; every round runs each ring
    // once, starting with a different ring each time, so that a burst of load
    // from elsewhere on the machine falls on all of them alike. The figures are
    // the medians over the rounds, and the ratios are those of the medians.
    constexpr int kRounds = 5;
    uint64_t mismatches = 0;
    std::printf("%llu MiB per run through a %u-byte ring, median of %d rounds, GB/s\n",
                static_cast<unsigned long long>(kTotal >> 20), kRingSize, kRounds);
    std::printf("%8s %9s %9s %9s %11s %11s\n", "chunk", "library", "jack", "boost", "lib/jack",
                "lib/boost");
    for (uint32_t n : {64u, 1024u, 16384u}) {
        std::vector<double> figures[3];
        for (int round = 0; round < kRounds; ++round) {
            for (int k = 0; k < 3; ++k) {
                switch ((round + k) % 3) {
                case 0:
                    figures[0].push_back(Run(library, n, &mismatches));
                    break;
#if defined(ZK_BENCH_JACK)
                case 1:
                    figures[1].push_back(Run(jack, n, &mismatches));
                    break;
#endif
#if defined(ZK_BENCH_BOOST)
                case 2:
                    figures[2].push_back(Run(boost, n, &mismatches));
                    break;
#endif
                default:
                    break;
                }
            }
        }
        double lib = Median(figures[0]), j = Median(figures[1]), b = Median(figures[2]);
        std::printf("%8u %9.2f %9.2f %9.2f %11.2f %11.2f\n", n, lib, j, b, j > 0 ? lib / j : 0.0,
                    b > 0 ? lib / b : 0.0);
    }
    std::printf("mismatched chunks: %llu\n", static_cast<unsigned long long>(mismatches));
#if defined(ZK_BENCH_JACK)
    jack_ringbuffer_free(jack.ring);
#endif
    zkReleaseRingBuffer(library.ring);
    return mismatches == 0 ? 0 : 1;
}
