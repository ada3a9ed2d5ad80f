// Asynchronous reads against synchronous ones, in the same run, warm cache,
// on one 64 MiB host file:
//
//   one at a time : 4 KiB reads at the file position, zkBeginReadFile +
//                   zkEndReadFile against zkReadFile (the cost of going through
//                   a request instead of a direct hand-off)
//   in flight     : the same reads spread over 4 requests, each carrying one
//                   read at a time (a request holds one operation until its
//                   End), so 4 are queued at once; ended in the order begun and
//                   begun again at once; against one thread doing the same
//                   reads with zkReadFile
//   frame thread  : a loop of frames that each begin one 64 KiB read and end
//                   the previous one; how long Begin takes on the frame thread
//                   (median and worst of 1024 frames)
//
// Every figure is the best of several timed batches; ratios are asynchronous
// time over synchronous time.
#include <zk.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kFileSize = 64u << 20;
constexpr uint32_t kSmall = 4096;
constexpr uint32_t kLarge = 64 * 1024;
constexpr uint32_t kReads = 8192; // 32 MiB of 4 KiB reads per batch
constexpr int kBatches = 5;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

FileHandle* OpenAtStart(const char* path) {
    return zkOpenFile(path, ZK_OPEN_READ, 0);
}

double SyncReads(const char* path, uint32_t count) {
    FileHandle* file = OpenAtStart(path);
    std::vector<char> buffer(kSmall);
    const Clock::time_point start = Clock::now();
    uint32_t got = 0;
    for (uint32_t i = 0; i < count; ++i)
        zkReadFile(file, buffer.data(), kSmall, &got);
    const double seconds = Seconds(start);
    zkCloseFile(file);
    return seconds;
}

double AsyncOneAtATime(const char* path, Request* request) {
    FileHandle* file = OpenAtStart(path);
    std::vector<char> buffer(kSmall);
    const Clock::time_point start = Clock::now();
    uint32_t got = 0;
    for (uint32_t i = 0; i < kReads; ++i) {
        zkBeginReadFile(file, buffer.data(), kSmall, request);
        zkEndReadFile(&got, request);
    }
    const double seconds = Seconds(start);
    zkCloseFile(file);
    return seconds;
}

// Four requests kept busy: the oldest read is ended and its request begins the
// next one at once.
double AsyncInFlight(const char* path, Request* const* requests) {
    FileHandle* file = OpenAtStart(path);
    std::vector<char> buffer(4 * kSmall);
    const Clock::time_point start = Clock::now();
    uint32_t got = 0, begun = 0;
    for (int r = 0; r < 4; ++r) {
        zkBeginReadFile(file, buffer.data() + r * kSmall, kSmall, requests[r]);
        ++begun;
    }
    for (uint32_t done = 0; done < kReads; ++done) {
        Request* request = requests[done % 4];
        zkEndReadFile(&got, request);
        if (begun < kReads) {
            zkBeginReadFile(file, buffer.data() + (done % 4) * kSmall, kSmall, request);
            ++begun;
        }
    }
    const double seconds = Seconds(start);
    zkCloseFile(file);
    return seconds;
}

template <typename F> double Best(F run) {
    double best = 1e9;
    for (int i = 0; i < kBatches; ++i)
        best = std::min(best, run());
    return best;
}

} // namespace

int main() {
    if (zkBeginProcess(0) != 0 || zkInitializeEx(32u << 20, 1024) < 0 ||
        zkInitializeRequest(8) < 0) {
        std::fprintf(stderr, "async_io: the library did not start\n");
        return 1;
    }
    char root[261];
    zkGetPhysicalPath("/", root, sizeof(root));
    const fs::path host = fs::path(root) / "bench_async.bin";
    {
        std::vector<char> data(kFileSize);
        for (uint32_t i = 0; i < kFileSize; ++i)
            data[i] = char(i * 31 + (i >> 12));
        std::ofstream(host, std::ios::binary).write(data.data(), kFileSize);
    }
    const char* path = "/bench_async.bin";
    Request* requests[4];
    for (Request*& r : requests)
        r = zkCreateRequest();
    SyncReads(path, kReads); // warm the cache

    const double sync = Best([&] { return SyncReads(path, kReads); });
    const double one = Best([&] { return AsyncOneAtATime(path, requests[0]); });
    const double flight = Best([&] { return AsyncInFlight(path, requests); });
    std::printf("4 KiB reads, %u per batch (best of %d)\n", kReads, kBatches);
    std::printf("  synchronous zkReadFile     %7.2f us/read\n", sync / kReads * 1e6);
    std::printf("  Begin+End, one at a time   %7.2f us/read   ratio %.2f\n", one / kReads * 1e6,
                one / sync);
    std::printf("  4 in flight on 4 requests %7.2f us/read   ratio %.2f\n", flight / kReads * 1e6,
                flight / sync);

    // Frames: each begins a 64 KiB read and ends the one begun before.
    FileHandle* file = OpenAtStart(path);
    std::vector<char> buffers(2 * kLarge);
    std::vector<double> begins;
    uint32_t got = 0;
    const uint32_t frames = kFileSize / kLarge;
    for (uint32_t frame = 0; frame < frames; ++frame) {
        Request* request = requests[frame % 2];
        if (frame >= 2) zkEndReadFile(&got, request);
        const Clock::time_point start = Clock::now();
        zkBeginReadFile(file, buffers.data() + (frame % 2) * kLarge, kLarge, request);
        begins.push_back(Seconds(start));
    }
    zkEndReadFile(&got, requests[frames % 2]);
    zkEndReadFile(&got, requests[(frames + 1) % 2]);
    zkCloseFile(file);
    std::sort(begins.begin(), begins.end());
    std::printf("frame thread: zkBeginReadFile of 64 KiB over %u frames: median %.2f us, "
                "99th percentile %.2f us, worst %.2f us\n",
                frames, begins[begins.size() / 2] * 1e6, begins[begins.size() * 99 / 100] * 1e6,
                begins.back() * 1e6);

    for (Request* r : requests)
        zkReleaseRequest(r);
    fs::remove(host);
    zkTerminate();
    zkEndProcess();
    return 0;
}
