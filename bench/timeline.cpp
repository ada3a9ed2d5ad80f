// The cost of one recorded timeline event: a profiler begin/end pair
// (zkBeginProfile / zkEndProfile on a named slot) with the recording off and
// on, beside the same loop without the library (a local profiler slot that
// reads the clock at begin and end and adds the difference).
//
// Each round starts the library (with QAX_TIMELINE naming a scratch file for
// the recording rounds), times batches of kBatch pairs, and terminates (which
// writes the file, outside the timed part). A recording round stays well
// inside one thread's buffer, so no event is dropped. Figures are the median
// batch over every round, in ns per pair; the three loops alternate round by
// round so that a busy moment of the machine hits them alike.
//
//   recorded event = on - off (what recording adds to one pair)
//   off / baseline  (what the library's profiler costs without a recording)
#include <zk.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kBatch = 2000;
constexpr uint32_t kBatchesPerRound = 10; // 20 000 recorded pairs: about 1.8 MB of buffer
constexpr int kRounds = 15;

using Clock = std::chrono::steady_clock;

// The loop without the library: one slot of a plain profiler.
struct LocalSlot {
    Clock::time_point start;
    Clock::duration total{};
    uint32_t calls = 0;
};

#if defined(__GNUC__)
#define ZK_BENCH_NOINLINE __attribute__((noinline))
#else
#define ZK_BENCH_NOINLINE
#endif

ZK_BENCH_NOINLINE void LocalBegin(LocalSlot& slot) {
    ++slot.calls;
    slot.start = Clock::now();
}
ZK_BENCH_NOINLINE void LocalEnd(LocalSlot& slot) {
    slot.total += Clock::now() - slot.start;
}

void SetTimelineVariable(const std::string& value) {
#ifdef _WIN32
    static std::string setting;
    setting = "QAX_TIMELINE=" + value;
    _putenv(setting.c_str());
#else
    if (value.empty()) {
        unsetenv("QAX_TIMELINE");
    } else {
        setenv("QAX_TIMELINE", value.c_str(), 1);
    }
#endif
}

double NsPerPair(Clock::duration d) {
    return std::chrono::duration<double, std::nano>(d).count() / kBatch;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void RunLibraryRound(bool recording, const std::string& file, std::vector<double>* out) {
    SetTimelineVariable(recording ? file : "");
    zkBeginProcess(0);
    if (zkInitializeEx(16u << 20, 256) != 0) {
        std::fprintf(stderr, "bench_timeline: the library did not start\n");
        std::exit(1);
    }
    SetTimelineVariable("");
    zkInitializeProfiler(1, 0);
    zkSetProfileName(0, "bench slot");
    for (uint32_t b = 0; b < kBatchesPerRound; ++b) {
        const Clock::time_point t0 = Clock::now();
        for (uint32_t i = 0; i < kBatch; ++i) {
            zkBeginProfile(0);
            zkEndProfile(0);
        }
        out->push_back(NsPerPair(Clock::now() - t0));
    }
    zkTerminate();
    zkEndProcess();
}

void RunLocalRound(std::vector<double>* out) {
    LocalSlot slot;
    for (uint32_t b = 0; b < kBatchesPerRound; ++b) {
        const Clock::time_point t0 = Clock::now();
        for (uint32_t i = 0; i < kBatch; ++i) {
            LocalBegin(slot);
            LocalEnd(slot);
        }
        out->push_back(NsPerPair(Clock::now() - t0));
    }
    if (slot.calls == 0) std::puts(""); // keeps the slot's work observable
}

} // namespace

int main() {
    const std::string file =
        (std::filesystem::temp_directory_path() / "qax_bench_timeline.json").string();
    std::vector<double> local, off, on;
    for (int round = 0; round < kRounds; ++round) {
        RunLocalRound(&local);
        RunLibraryRound(false, file, &off);
        RunLibraryRound(true, file, &on);
    }
    const bool written = std::filesystem::exists(file);
    std::filesystem::remove(file);

    const double l = Median(local), f = Median(off), n = Median(on);
    std::printf("profiler begin/end pair, ns (median of %d batches of %u pairs)\n",
                kRounds * int(kBatchesPerRound), kBatch);
    std::printf("  without the library (local slot)  %8.1f\n", l);
    std::printf("  zk, timeline off                  %8.1f   %.2fx the loop without the library\n",
                f, f / l);
    std::printf("  zk, timeline on                   %8.1f   %.2fx off\n", n, n / f);
    std::printf("  one recorded event (on - off)     %8.1f   goal <= 50 ns\n", n - f);
    if (!written) {
        std::printf("bench_timeline: no timeline file was written\n");
        return 1;
    }
    return 0;
}
