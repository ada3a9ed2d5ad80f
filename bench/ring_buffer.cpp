// Ring buffer throughput: a producer thread and a consumer thread pass a stream
// of checked bytes through a 64 KiB ring in chunks of 64 B, 1 KiB and 16 KiB,
// in two modes:
//
//   pause-and-yield: a side that finds no room [no data] spins a little with
//       the processor's pause hint, then yields
//   pinned polling: producer and consumer pinned to two different processors
//       (where the system lets a thread pin itself) and polling without pause,
//       the way an audio or capture thread polls its ring
//
// Peers measured in the same run, in interleaved rounds, with the same loop on each side (wait
// until a whole chunk fits [is there], copy the chunk in [compare it out], commit): the JACK ring
// buffer (jack_ringbuffer_*, when ZK_BENCH_JACK is defined) and boost's lock-free spsc_queue<char>
// (when ZK_BENCH_BOOST is defined). Each figure is GB/s; the ratios are the library's (on a
// line-aligned buffer) over each peer's; lib+off is the library on a buffer that starts where
// JACK's own allocation does within its cache line.
#include <zk.h>

#if defined(ZK_BENCH_JACK)
#include <jack/ringbuffer.h>
#endif
#if defined(ZK_BENCH_BOOST)
#include <boost/lockfree/spsc_queue.hpp>
#endif

#if defined(__linux__)
#include <sched.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t kRingSize = 64 * 1024;
constexpr uint64_t kTotal = 256ull << 20; // bytes per measurement
// The stream repeats with an odd period, so chunks never line up with it, and
// each repeat moves it about 0.62 of a page against the ring, so that no one
// relation between source and ring addresses within a page (copies between
// addresses 4 KiB apart can stall) holds through a run, for any ring's buffer.
constexpr uint32_t kPeriod = (1u << 20) + 2531;

std::vector<unsigned char> g_pattern;

const unsigned char* PatternAt(uint64_t position) {
    return &g_pattern[position % kPeriod];
}

// The library's ring buffer on a buffer of the caller's. The library has one
// ring, so each run takes it afresh on its own buffer (a run leaves it empty).
struct LibraryRing {
    unsigned char* buffer;
    RingBuffer* ring = nullptr;
    bool Take() {
        Release();
        ring = taken = zkCreateRingBuffer(buffer, kRingSize);
        return ring != nullptr;
    }
    static void Release() {
        zkReleaseRingBuffer(taken);
        taken = nullptr;
    }
    static inline RingBuffer* taken = nullptr; // the one ring, while one of these has it
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
    alignas(64) char out[16 * 1024]; // the consumer's, apart from the queue pointer
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

enum class Mode { kPauseAndYield, kPinnedPolling };

// A side that finds no room [no data]: in pause-and-yield mode it spins a
// little before it yields the processor, the same for every ring; in pinned
// polling mode it tries again at once.
struct Backoff {
    Mode mode;
    int spins = 0;
    void Idle() {
        if (mode == Mode::kPinnedPolling) return;
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

// Pins the calling thread to one processor; false where the system does not
// let it (then the mode runs unpinned and says so).
bool PinTo(int processor) {
#if defined(__linux__)
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    return sched_setaffinity(0, sizeof set, &set) == 0;
#else
    (void)processor;
    return false;
#endif
}

// The two processors the pinned mode uses: the first two this process may run on.
int g_processors[2] = {0, 1};
bool g_pinned = true;

// Moves total bytes through ring in chunks of n; returns GB/s, counts mismatches.
// Each side works on copies of what it reads and keeps its count of bad chunks
// to itself, so that the only lines the two sides share are the ring's own.
template <typename Ring>
double Run(Ring& ring, uint32_t n, uint64_t total, Mode mode, uint64_t* mismatches) {
    std::atomic<int> ready{0};
    auto pin = [&ready, mode](int side) {
        if (mode == Mode::kPinnedPolling && !PinTo(g_processors[side])) g_pinned = false;
        // Both sides start together, so that pinning is not timed.
        ready.fetch_add(1);
        while (ready.load() < 2)
            std::this_thread::yield();
    };
    std::chrono::steady_clock::time_point start;
    Ring* const r = &ring;
    std::thread producer([r, n, total, mode, &pin] {
        pin(0);
        Backoff backoff{mode};
        for (uint64_t position = 0; position < total;) {
            if (r->Put(PatternAt(position), n))
                position += n;
            else
                backoff.Idle();
        }
    });
    uint64_t bad = 0;
    std::thread consumer([r, n, total, mode, &pin, &start, &bad] {
        pin(1);
        start = std::chrono::steady_clock::now();
        Backoff backoff{mode};
        uint64_t wrong = 0;
        for (uint64_t position = 0; position < total;) {
            const int result = r->Take(PatternAt(position), n);
            if (result < 0) {
                backoff.Idle();
                continue;
            }
            wrong += static_cast<uint64_t>(result);
            position += n;
        }
        bad = wrong;
    });
    producer.join();
    consumer.join();
    *mismatches += bad;
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return static_cast<double>(total) / 1e9 / seconds;
}

// The middle figure (0 when there are none).
double Median(std::vector<double> figures) {
    if (figures.empty()) return 0;
    std::sort(figures.begin(), figures.end());
    return figures[figures.size() / 2];
}

} // namespace

// Arguments: the chunk sizes to measure (default 64 1024 16384).
int main(int argc, char** argv) {
    std::vector<uint32_t> chunks;
    for (int i = 1; i < argc; ++i) {
        const unsigned long n = std::strtoul(argv[i], nullptr, 10);
        if (n == 0 || n > 16384) {
            std::fprintf(stderr, "chunk sizes are 1 to 16384 bytes\n");
            return 2;
        }
        chunks.push_back(static_cast<uint32_t>(n));
    }
    if (chunks.empty()) chunks = {64u, 1024u, 16384u};

    g_pattern.resize(kPeriod + 16 * 1024);
    for (size_t i = 0; i < g_pattern.size(); ++i)
        g_pattern[i] = static_cast<unsigned char>(((i % kPeriod) * 2654435761u) >> 11);

#if defined(ZK_BENCH_JACK)
    JackRing jack{jack_ringbuffer_create(kRingSize)};
    const unsigned jackOffset = unsigned(reinterpret_cast<uintptr_t>(jack.ring->buf) % 64);
#else
    const unsigned jackOffset = 16; // where a plain allocation usually puts it
#endif
#if defined(ZK_BENCH_BOOST)
    static boost::lockfree::spsc_queue<char, boost::lockfree::capacity<kRingSize>> queue;
    static BoostRing boost{&queue, {}};
#endif
    // The library's ring works in the caller's buffer: once on a buffer that
    // starts a cache line (so that 64-byte chunks lie on one line each, as an
    // application that cares would allocate it), once as far past a line
    // start as JACK's own buffer lies. Both come from the heap, as JACK's does.
    std::vector<unsigned char> storage(kRingSize + 128);
    unsigned char* const aligned =
        storage.data() + (64 - reinterpret_cast<uintptr_t>(storage.data()) % 64);
    LibraryRing library{aligned}, offset{aligned + (jackOffset ? jackOffset : 16)};
    if (!library.Take()) {
        std::fprintf(stderr, "could not create the ring buffer\n");
        return 1;
    }
    std::printf("buffers' offsets past a cache line start: library 0 and %u, jack %u\n",
                unsigned(reinterpret_cast<uintptr_t>(offset.buffer) % 64), jackOffset);

#if defined(__linux__)
    {
        cpu_set_t set;
        CPU_ZERO(&set);
        int found = 0;
        if (sched_getaffinity(0, sizeof set, &set) == 0)
            for (int cpu = 0; cpu < CPU_SETSIZE && found < 2; ++cpu)
                if (CPU_ISSET(cpu, &set)) g_processors[found++] = cpu;
        if (found < 2) g_pinned = false;
    }
#endif

    // Each chunk size is measured in kRounds rounds; every round runs each ring
    // once, starting with a different ring each time, so that a burst of load
    // from elsewhere on the machine falls on all of them alike. The figures are
    // the medians over the rounds, and the ratios are those of the medians.
    constexpr int kRounds = 5;
    uint64_t mismatches = 0;
    for (Mode mode : {Mode::kPauseAndYield, Mode::kPinnedPolling}) {
        const bool polling = mode == Mode::kPinnedPolling;
        std::printf("%s: through a %u-byte ring, median of %d rounds, GB/s\n",
                    polling ? "pinned polling" : "pause-and-yield", kRingSize, kRounds);
        std::printf("%8s %8s %9s %9s %9s %9s %11s %11s\n", "chunk", "MiB/run", "library", "lib+off",
                    "jack", "boost", "lib/jack", "lib/boost");
        for (uint32_t n : chunks) {
            // Small chunks move fewer bytes per run, so that a run takes a
            // similar time at every size.
            const uint64_t total = n <= 64 ? kTotal / 4 : kTotal;
            std::vector<double> figures[4];
            for (int round = 0; round < kRounds; ++round) {
                for (int k = 0; k < 4; ++k) {
                    switch ((round + k) % 4) {
                    case 0:
                        if (library.Take())
                            figures[0].push_back(Run(library, n, total, mode, &mismatches));
                        break;
                    case 1:
                        if (offset.Take())
                            figures[1].push_back(Run(offset, n, total, mode, &mismatches));
                        break;
#if defined(ZK_BENCH_JACK)
                    case 2:
                        figures[2].push_back(Run(jack, n, total, mode, &mismatches));
                        break;
#endif
#if defined(ZK_BENCH_BOOST)
                    case 3:
                        figures[3].push_back(Run(boost, n, total, mode, &mismatches));
                        break;
#endif
                    default:
                        break;
                    }
                }
            }
            double lib = Median(figures[0]), off = Median(figures[1]), j = Median(figures[2]),
                   b = Median(figures[3]);
            std::printf("%8u %8llu %9.2f %9.2f %9.2f %9.2f %11.2f %11.2f\n", n,
                        static_cast<unsigned long long>(total >> 20), lib, off, j, b,
                        j > 0 ? lib / j : 0.0, b > 0 ? lib / b : 0.0);
        }
        if (polling && g_pinned)
            std::printf("(producer on processor %d, consumer on processor %d)\n", g_processors[0],
                        g_processors[1]);
        else if (polling)
            std::printf("(the threads could not be pinned: they ran unpinned)\n");
    }
    std::printf("mismatched chunks: %llu\n", static_cast<unsigned long long>(mismatches));
#if defined(ZK_BENCH_JACK)
    jack_ringbuffer_free(jack.ring);
#endif
    LibraryRing::Release();
    return mismatches == 0 ? 0 : 1;
}
