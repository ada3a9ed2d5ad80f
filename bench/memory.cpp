// zkMalloc / zkFree against the C runtime's malloc / free, in the same run and
// on the same sequence of requests.
//
//   random-1k   : random sizes 16 B .. 16 KiB, 1 000 blocks alive; each step
//                 frees a random live block and allocates a new one
//   random-50k  : the same with 50 000 blocks alive
//   frames      : 300 short-lived blocks (16 B .. 1 KiB) per frame, freed in
//                 random order at the frame's end, plus 3 long-lived blocks
//                 per frame that live for 200 frames
//
// For each, the median and the 99.9th percentile of one allocate + free pair,
// and the largest single allocate or free, in nanoseconds; then the ratios
// zk / C runtime. A real-time heap is judged by its worst case.
#include <zk.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Allocator {
    const char* name;
    void* (*allocate)(uint32_t size);
    void (*release)(void* p);
};

void* ZkAllocate(uint32_t size) {
    return zkMalloc(size);
}
void ZkRelease(void* p) {
    zkFree(p);
}
void* CAllocate(uint32_t size) {
    return std::malloc(size);
}
void CRelease(void* p) {
    std::free(p);
}

const Allocator kZk{"zkMalloc", ZkAllocate, ZkRelease};
const Allocator kC{"malloc", CAllocate, CRelease};

struct Figures {
    double median = 0;
    double p999 = 0;
    double worst = 0;
    bool failed = false;
};

// Records one allocate+free pair time and the longer of its two operations.
class Recorder {
public:
    void Pair(int64_t allocateNs, int64_t freeNs) {
        pairs_.push_back(allocateNs + freeNs);
        worst_ = std::max({worst_, allocateNs, freeNs});
    }
    Figures Summarise() {
        Figures f;
        if (pairs_.empty()) return f;
        std::sort(pairs_.begin(), pairs_.end());
        f.median = static_cast<double>(pairs_[pairs_.size() / 2]);
        f.p999 =
            static_cast<double>(pairs_[std::min(pairs_.size() - 1, pairs_.size() * 999 / 1000)]);
        f.worst = static_cast<double>(worst_);
        return f;
    }

private:
    std::vector<int64_t> pairs_;
    int64_t worst_ = 0;
};

int64_t Ns(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(b - a).count();
}

uint32_t RandomSize(std::mt19937& rng, uint32_t low, uint32_t high) {
    return low + rng() % (high - low + 1);
}

Figures RunRandom(const Allocator& a, uint32_t live, uint32_t steps, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<void*> blocks(live);
    Figures failed;
    failed.failed = true;
    for (void*& p : blocks)
        if (!(p = a.allocate(RandomSize(rng, 16, 16384)))) return failed;
    Recorder recorder;
    for (uint32_t i = 0; i < steps; ++i) {
        const uint32_t slot = rng() % live;
        const uint32_t size = RandomSize(rng, 16, 16384);
        const auto t0 = Clock::now();
        a.release(blocks[slot]);
        const auto t1 = Clock::now();
        blocks[slot] = a.allocate(size);
        const auto t2 = Clock::now();
        if (!blocks[slot]) return failed;
        recorder.Pair(Ns(t1, t2), Ns(t0, t1));
    }
    for (void* p : blocks)
        a.release(p);
    return recorder.Summarise();
}

Figures RunFrames(const Allocator& a, uint32_t frames, uint32_t seed) {
    constexpr uint32_t kShortPerFrame = 300;
    constexpr uint32_t kLongPerFrame = 3;
    constexpr uint32_t kLongLife = 200;
    std::mt19937 rng(seed);
    std::vector<std::vector<void*>> longLived(kLongLife);
    std::vector<void*> shortLived;
    std::vector<int64_t> allocateTimes;
    Recorder recorder;
    Figures failed;
    failed.failed = true;
    for (uint32_t frame = 0; frame < frames; ++frame) {
        std::vector<void*>& retiring = longLived[frame % kLongLife];
        for (void* p : retiring)
            a.release(p);
        retiring.clear();
        for (uint32_t i = 0; i < kLongPerFrame; ++i) {
            void* p = a.allocate(RandomSize(rng, 1024, 65536));
            if (!p) return failed;
            retiring.push_back(p);
        }
        shortLived.clear();
        allocateTimes.clear();
        for (uint32_t i = 0; i < kShortPerFrame; ++i) {
            const uint32_t size = RandomSize(rng, 16, 1024);
            const auto t0 = Clock::now();
            void* p = a.allocate(size);
            const auto t1 = Clock::now();
            if (!p) return failed;
            shortLived.push_back(p);
            allocateTimes.push_back(Ns(t0, t1));
        }
        std::shuffle(shortLived.begin(), shortLived.end(), rng);
        for (uint32_t i = 0; i < kShortPerFrame; ++i) {
            const auto t0 = Clock::now();
            a.release(shortLived[i]);
            const auto t1 = Clock::now();
            recorder.Pair(allocateTimes[i], Ns(t0, t1));
        }
    }
    for (auto& list : longLived)
        for (void* p : list)
            a.release(p);
    return recorder.Summarise();
}

void Report(const char* test, const Figures& zk, const Figures& c) {
    if (zk.failed || c.failed) {
        std::printf("%-11s  allocation failed (%s)\n", test, zk.failed ? "zk" : "malloc");
        return;
    }
    std::printf("%-11s  zk: median %7.0f  p99.9 %8.0f  worst %9.0f | malloc: median %6.0f  "
                "p99.9 %7.0f  worst %8.0f | ratio median %5.2f  p99.9 %6.2f  worst %6.2f\n",
                test, zk.median, zk.p999, zk.worst, c.median, c.p999, c.worst, zk.median / c.median,
                zk.p999 / c.p999, zk.worst / c.worst);
}

} // namespace

int main(int argc, char** argv) {
    const uint32_t scale = argc > 1 ? static_cast<uint32_t>(std::atoi(argv[1])) : 1;
    zkBeginProcess(0);
    // 50 000 blocks of up to 16 KiB plus room for fragmentation; pages of the
    // arena are never touched by the heap itself.
    if (zkInitializeEx(1536u << 20, 60000) != 0) {
        std::printf("zkInitializeEx failed\n");
        return 1;
    }
    std::printf("times in ns; pair = one allocate + one free\n");
    Report("random-1k", RunRandom(kZk, 1000, 200000 * scale, 1),
           RunRandom(kC, 1000, 200000 * scale, 1));
    Report("random-50k", RunRandom(kZk, 50000, 100000 * scale, 2),
           RunRandom(kC, 50000, 100000 * scale, 2));
    Report("frames", RunFrames(kZk, 1000 * scale, 3), RunFrames(kC, 1000 * scale, 3));
    zkTerminate();
    zkEndProcess();
    return 0;
}
