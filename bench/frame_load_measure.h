// The measuring side of bench_frame_load: the files' contents and checks,
// page-cache control, the scenarios, what one variant records and the clock
// around each call a frame makes. Included by frame_load.cpp only (POSIX).
#ifndef ZK_BENCH_FRAME_LOAD_MEASURE_H
#define ZK_BENCH_FRAME_LOAD_MEASURE_H

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

namespace frame_load {

using Clock = std::chrono::steady_clock;

constexpr int kFiles = 50;
constexpr uint32_t kFileSize = 4u << 20;
constexpr int kLoaders = 32;
constexpr uint32_t kStreamRead = 256u << 10;
constexpr double kPeriodMs = 16.0;

double Ms(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}
double CpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}
uint32_t Word(int file, uint32_t at) {
    return uint32_t(file) * 0x9E3779B9u ^ at;
}
void Fill(std::vector<uint8_t>& bytes, int file) {
    for (uint32_t at = 0; at + 4 <= bytes.size(); at += 4) {
        const uint32_t w = Word(file, at);
        std::memcpy(&bytes[at], &w, 4);
    }
}
bool Check(const void* data, uint32_t size, int file) {
    if (!data || size != kFileSize) return false;
    for (uint32_t at = 0; at < size; at += 4096) {
        uint32_t w;
        std::memcpy(&w, static_cast<const uint8_t*>(data) + at, 4);
        if (w != Word(file, at)) return false;
    }
    return true;
}
// Drops a file, or length bytes of it from offset, from the page cache.
void Drop(const std::string& path, uint32_t offset = 0, uint32_t length = 0) {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return;
    fdatasync(fd);
    posix_fadvise(fd, offset, length, POSIX_FADV_DONTNEED);
    close(fd);
}

// Drops loaded files from the page cache on a thread of its own, for both
// sides alike. Evicting is how the benchmark keeps its files cold, not work
// an application does: done in the frame, fdatasync and fadvise stall the
// frame thread for tens of milliseconds while other reads keep the disk busy,
// and those stalls would be counted against whichever side ran the frame.
// The thread runs at the idle policy: its wake-ups never take a core from
// either side's frame thread. An archive item is dropped as its range of the
// archive: dropping the whole archive would also take what the loads still
// running have read ahead.
class Evictor {
public:
    Evictor() : thread_([this] { Run(); }) {}
    ~Evictor() {
        {
            std::lock_guard<std::mutex> hold(lock_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    void Post(const std::string& path, uint32_t offset = 0, uint32_t length = 0) {
        {
            std::lock_guard<std::mutex> hold(lock_);
            paths_.push_back(Range{path, offset, length});
        }
        wake_.notify_all();
    }
    // Returns when every posted file has been dropped.
    void Drain() {
        std::unique_lock<std::mutex> hold(lock_);
        wake_.wait(hold, [this] { return paths_.empty() && !busy_; });
    }

private:
    void Run() {
        sched_param param{};
        sched_setscheduler(0, SCHED_IDLE, &param);
        std::unique_lock<std::mutex> hold(lock_);
        for (;;) {
            wake_.wait(hold, [this] { return stop_ || !paths_.empty(); });
            if (paths_.empty()) return;
            const Range range = std::move(paths_.front());
            paths_.pop_front();
            busy_ = true;
            hold.unlock();
            Drop(range.path, range.offset, range.length);
            hold.lock();
            busy_ = false;
            wake_.notify_all();
        }
    }

    std::mutex lock_;
    std::condition_variable wake_;
    struct Range {
        std::string path;
        uint32_t offset, length;
    };
    std::deque<Range> paths_;
    bool busy_ = false, stop_ = false;
    std::thread thread_;
};

// Reads a file through once, so that a warm variant finds it in the page cache.
void Warm(const std::string& path) {
    static std::vector<uint8_t> scratch(1u << 20);
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return;
    while (read(fd, scratch.data(), scratch.size()) > 0) {
    }
    close(fd);
}

struct Scenario {
    const char* name;
    bool stream;
    int loads; // 0 none, 1 batch of kFiles, 2 continuous
    bool archive;
    bool cold;
};

// What one variant measured.
struct Result {
    std::vector<double> starts;  // frame starts, ms
    std::vector<double> inCalls; // per frame, ms in library (queue) calls
    std::vector<double> callUs;  // single Begin/End/poll calls
    uint32_t late = 0, bad = 0;
    double slowestMs = 0;
    const char* slowest = "";
    long slowestVoluntary = -1, slowestInvoluntary = -1; // context switches in it

    uint64_t bytes = 0;
    double loadMs = 0, wallMs = 0, cpu = 0;

    static double Pct(std::vector<double> v, double p) {
        if (v.empty()) return 0;
        std::sort(v.begin(), v.end());
        return v[std::min(v.size() - 1, size_t(p * double(v.size())))];
    }
    double P99Deviation() const {
        std::vector<double> d;
        for (size_t i = 1; i < starts.size(); ++i)
            d.push_back(std::abs(starts[i] - starts[i - 1] - kPeriodMs));
        return Pct(d, 0.99);
    }
    uint32_t Dropped() const {
        uint32_t n = 0;
        for (size_t i = 1; i < starts.size(); ++i) {
            const double slots = (starts[i] - starts[i - 1]) / kPeriodMs;
            if (slots > 1.5) n += uint32_t(slots + 0.5) - 1;
        }
        return n;
    }
    double MaxInCalls() const {
        return inCalls.empty() ? 0 : *std::max_element(inCalls.begin(), inCalls.end());
    }
    double MBs() const { return loadMs > 0 ? double(bytes) / 1048576.0 / (loadMs / 1000.0) : 0; }
    double CpuPct() const { return wallMs > 0 ? 100.0 * cpu * 1000.0 / wallMs : 0; }
};

// Whether calls also count the frame thread's context switches (--switches):
// waiting (voluntary) or preempted (involuntary) inside the slowest call.
inline bool gSwitches = false;

// Times one library call into the frame's total and, for the calls a frame
// makes every time (Begin, End, polling), into the per-call list.
struct CallClock {
    Result* r;
    double* frameTotal;
    template <typename F> auto operator()(const char* name, bool single, F f) {
        rusage ua{};
        if (gSwitches) getrusage(RUSAGE_THREAD, &ua);
        const auto a = Clock::now();
        auto v = f();
        const auto b = Clock::now();
        const double ms = Ms(a, b);
        *frameTotal += ms;
        if (single) r->callUs.push_back(ms * 1000.0);
        if (ms > r->slowestMs) {
            r->slowestMs = ms, r->slowest = name;
            if (gSwitches) {
                rusage ub{};
                getrusage(RUSAGE_THREAD, &ub);
                r->slowestVoluntary = ub.ru_nvcsw - ua.ru_nvcsw;
                r->slowestInvoluntary = ub.ru_nivcsw - ua.ru_nivcsw;
            }
        }
        return v;
    }
};

} // namespace frame_load

#endif // ZK_BENCH_FRAME_LOAD_MEASURE_H
