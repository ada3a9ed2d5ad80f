// Host-file reads through the file system against the C library's direct
// calls on the same files, in the same run, with a warm cache:
//
//   random    : 4 KiB reads at random 4 KiB-aligned offsets of a 64 MiB file,
//               zkReadFileOffset against pread
//   sequential: one 64 MiB read from the start, zkReadFile against read
//   small     : open + read + close of 10 000 files of 1 KiB, zkOpenFile /
//               zkReadFile / zkCloseFile against fopen / fread / fclose
//   threads   : 4 threads doing the random reads at once, each with its own
//               handle (its own descriptor for the baseline)
//
// Every figure is the median of several timed batches; the ratios are zk time
// over baseline time (1.0 = as fast as the direct call). The files live in a
// folder beside the program, removed at the end.
//
// Each of the library's calls passes to the I/O worker thread and back, so
// its cost depends on how fast two cores exchange a cache line; the first
// line printed is that round trip, measured by two spinning threads (on a
// virtual machine it changes as the host moves the virtual processors).
#include <zk.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#if defined(_WIN32)
#include <io.h>
#else
#include <sys/uio.h>
#endif

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kBigSize = 64u << 20;
constexpr uint32_t kBlock = 4096;
constexpr int kRandomReads = 20000;
constexpr int kSmallFiles = 10000;
constexpr uint32_t kSmallSize = 1024;
constexpr int kThreads = 4;
constexpr int kRounds = 5;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// The baselines' direct calls on a descriptor taken from an unbuffered stream
// (the stream only opens and closes it).
struct Direct {
    std::FILE* stream = nullptr;
    int fd = -1;
    explicit Direct(const std::string& path) {
        stream = std::fopen(path.c_str(), "rb");
        if (!stream) return;
        std::setvbuf(stream, nullptr, _IONBF, 0);
#if defined(_WIN32)
        fd = _fileno(stream);
#else
        fd = fileno(stream);
#endif
    }
    ~Direct() {
        if (stream) std::fclose(stream);
    }
    bool ReadAt(uint32_t offset, void* buffer, uint32_t size) {
#if defined(_WIN32)
        return _lseeki64(fd, offset, SEEK_SET) >= 0 && _read(fd, buffer, size) == int(size);
#else
        iovec piece{buffer, size};
        return preadv(fd, &piece, 1, offset) == ssize_t(size);
#endif
    }
    bool ReadFromStart(void* buffer, uint32_t size) {
        if (std::fseek(stream, 0, SEEK_SET) != 0) return false;
#if defined(_WIN32)
        return _read(fd, buffer, size) == int(size);
#else
        iovec whole{buffer, size};
        return readv(fd, &whole, 1) == ssize_t(size);
#endif
    }
};

std::vector<uint32_t> RandomOffsets(uint32_t seed, int count) {
    std::vector<uint32_t> offsets(count);
    for (uint32_t& o : offsets) {
        seed = seed * 1664525u + 1013904223u;
        o = (seed >> 8) % (kBigSize / kBlock) * kBlock;
    }
    return offsets;
}

// zk reads of the offsets through one handle; false on any failed or short read.
bool ZkRandomReads(const std::vector<uint32_t>& offsets) {
    FileHandle* file = zkOpenFile("/bench_files/big.bin", ZK_OPEN_READ, 0);
    if (!file) return false;
    std::vector<char> buffer(kBlock);
    bool ok = true;
    for (uint32_t offset : offsets) {
        uint32_t got = 0;
        ok = ok && zkReadFileOffset(file, offset, buffer.data(), kBlock, &got, 0) == 0 &&
             got == kBlock;
    }
    zkCloseFile(file);
    return ok;
}

bool DirectRandomReads(const std::string& path, const std::vector<uint32_t>& offsets) {
    Direct file(path);
    std::vector<char> buffer(kBlock);
    bool ok = file.stream != nullptr;
    for (uint32_t offset : offsets)
        ok = ok && file.ReadAt(offset, buffer.data(), kBlock);
    return ok;
}

// Median time of kRounds runs of body, which answers false on failure.
template <typename Body> double Median(Body body, bool* ok) {
    std::vector<double> times;
    for (int round = 0; round < kRounds; ++round) {
        Clock::time_point start = Clock::now();
        if (!body()) *ok = false;
        times.push_back(Seconds(start));
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

void Report(const char* what, double zk, double baseline, const char* unit, double per,
            double goal) {
    std::printf("%-11s zk %9.2f %s   baseline %9.2f %s   ratio %5.2f", what, zk * per, unit,
                baseline * per, unit, zk / baseline);
    if (goal > 0) std::printf("  (goal <= %.1f)", goal);
    std::printf("\n");
}

// Nanoseconds for one cache line to go to another thread and back: two
// threads spin on one atomic, each handing it to the other. Median of five.
double CoreRoundTripNs() {
    constexpr int kTrips = 200000;
    std::vector<double> runs;
    for (int run = 0; run < 5; ++run) {
        alignas(64) std::atomic<int> turn{0};
        std::thread other([&] {
            for (int i = 0; i < kTrips; ++i) {
                while (turn.load(std::memory_order_acquire) != 1) {
                }
                turn.store(0, std::memory_order_release);
            }
        });
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kTrips; ++i) {
            turn.store(1, std::memory_order_release);
            while (turn.load(std::memory_order_acquire) != 0) {
            }
        }
        runs.push_back(Seconds(start) * 1e9 / kTrips);
        other.join();
    }
    std::sort(runs.begin(), runs.end());
    return runs[runs.size() / 2];
}

bool WriteFile(const std::string& path, const std::vector<char>& data) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
    return (std::fclose(f) == 0) && ok;
}

} // namespace

int main() {
    if (zkBeginProcess(0) != 0 || zkInitializeEx(32u << 20, 1024) < 0) {
        std::fprintf(stderr, "the library did not start\n");
        return 1;
    }
    char root[261];
    if (zkGetPhysicalPath("/", root, sizeof(root)) < 0) {
        std::fprintf(stderr, "no root mount\n");
        return 1;
    }
    const fs::path folder = fs::path(root) / "bench_files";
    const std::string big = (folder / "big.bin").string();
    fs::remove_all(folder);
    fs::create_directories(folder / "small");

    std::vector<char> data(kBigSize);
    for (uint32_t i = 0; i < kBigSize; ++i)
        data[i] = char(i * 7 + (i >> 12));
    bool ok = WriteFile(big, data);
    std::vector<char> small(kSmallSize, 's');
    std::vector<std::string> smallHost(kSmallFiles), smallZk(kSmallFiles);
    for (int i = 0; ok && i < kSmallFiles; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "%05d.bin", i);
        smallHost[i] = (folder / "small" / name).string();
        smallZk[i] = std::string("/bench_files/small/") + name;
        ok = WriteFile(smallHost[i], small);
    }
    if (!ok) {
        std::fprintf(stderr, "could not write the test files in %s\n", folder.string().c_str());
        return 1;
    }
    std::printf("files: %s, 64 MiB and %d x 1 KiB; median of %d rounds\n", folder.string().c_str(),
                kSmallFiles, kRounds);
    std::printf("core-to-core round trip of a cache line: %.0f ns\n", CoreRoundTripNs());

    // Warm the cache with one untimed pass of everything.
    const std::vector<uint32_t> offsets = RandomOffsets(12345, kRandomReads);
    {
        Direct whole(big);
        ok = whole.stream && whole.ReadFromStart(data.data(), kBigSize);
    }
    ok = ok && ZkRandomReads(offsets);

    double zk = Median([&] { return ZkRandomReads(offsets); }, &ok);
    double base = Median([&] { return DirectRandomReads(big, offsets); }, &ok);
    Report("random", zk, base, "us/read", 1e6 / kRandomReads, 2.0);

    zk = Median(
        [&] {
            FileHandle* file = zkOpenFile("/bench_files/big.bin", ZK_OPEN_READ, 0);
            uint32_t got = 0;
            bool read =
                file && zkReadFile(file, data.data(), kBigSize, &got) == 0 && got == kBigSize;
            zkCloseFile(file);
            return read;
        },
        &ok);
    base = Median(
        [&] {
            Direct file(big);
            return file.stream && file.ReadFromStart(data.data(), kBigSize);
        },
        &ok);
    Report("sequential", zk, base, "ms", 1e3, 1.1);

    char buffer[kSmallSize];
    zk = Median(
        [&] {
            bool all = true;
            for (const std::string& path : smallZk) {
                FileHandle* file = zkOpenFile(path.c_str(), ZK_OPEN_READ, 0);
                uint32_t got = 0;
                all = all && file && zkReadFile(file, buffer, kSmallSize, &got) == 0 &&
                      got == kSmallSize;
                zkCloseFile(file);
            }
            return all;
        },
        &ok);
    base = Median(
        [&] {
            bool all = true;
            for (const std::string& path : smallHost) {
                std::FILE* file = std::fopen(path.c_str(), "rb");
                all = all && file && std::fread(buffer, 1, kSmallSize, file) == kSmallSize;
                if (file) std::fclose(file);
            }
            return all;
        },
        &ok);
    Report("small", zk, base, "us/file", 1e6 / kSmallFiles, 1.5);

    auto inThreads = [&](auto body) {
        bool all = true;
        std::vector<char> results(kThreads, 1);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                results[t] = body(RandomOffsets(777u + t, kRandomReads / kThreads)) ? 1 : 0;
            });
        for (std::thread& thread : threads)
            thread.join();
        for (char r : results)
            all = all && r;
        return all;
    };
    zk = Median([&] { return inThreads([](const auto& o) { return ZkRandomReads(o); }); }, &ok);
    base = Median(
        [&] { return inThreads([&](const auto& o) { return DirectRandomReads(big, o); }); }, &ok);
    Report("threads", zk, base, "us/read", 1e6 / kRandomReads, 0);

    fs::remove_all(folder);
    zkTerminate();
    zkEndProcess();
    if (!ok) {
        std::fprintf(stderr, "a read failed or came up short\n");
        return 1;
    }
    return 0;
}
