// Frames that keep pace while data loads: the library's frame loop (zkMain,
// paced by its 16 ms vertical blank) doing the loading work an application
// does, beside a plain-threads program doing the same work in the same run
// with the same files: a main loop that sleeps to absolute 16 ms deadlines
// (clock_nanosleep) and one std::thread that serves its reads with pread into
// buffers (its queue's stream reads first, then whole files, each in one
// pread loop into a malloc'd buffer, as a plain loader would).
//
// Scenarios (files: 50 x 4 MiB, a 256 KiB read per frame from a stream file,
// the same 50 files as items of an archive mounted at /fl_arc):
//   stream        : a zkBeginReadFile every frame, ended the next frame
//   batch         : 50 whole-file loads started at once
//                   (zkStartLoadingDataFromFile, the refused ones again each
//                   frame), polled each frame until all came; batch after
//                   batch while frames remain, MB/s over all of them (one
//                   batch lasts a few frames, so a single one would measure
//                   mostly where the frame boundaries fall)
//   continuous    : 32 background loads kept running for the whole scenario
//   archive       : the batch, as items read through the mount
//   stream+loads  : the stream while 32 background loads run all the time
//   ... cold      : the same with the files dropped from the page cache
//                   (posix_fadvise DONTNEED) before the variant and after
//                   every load (by a thread of the benchmark's own, for both
//                   sides, so that eviction never stalls a frame); the
//                   other variants read every file once first, so they
//                   start with all of it cached
//
// Per variant: p99 deviation of the frame period from 16 ms, 16 ms slots
// dropped, the longest time one frame spent in library calls (baseline: in
// its own queue calls), median and p99 of single Begin/End/poll calls, late
// stream reads (not complete at the next frame), loading MB/s and process
// CPU (100 % = one core); then the ratios library / baseline of one run.
// Loaded data are checked (a word every 4 KiB).
//
//   bench_frame_load [--frames N] [--long] [--only NAME] [--switches]
//       (default 60 frames a variant; --long: 600; --only: the scenarios
//       whose name begins with NAME; --switches: also count the frame
//       thread's context switches inside the slowest call, which costs two
//       system calls a call)
#include <zk.h>

#if defined(_WIN32)
#include <cstdio>
int main() {
    std::puts("bench_frame_load: needs clock_nanosleep and posix_fadvise (POSIX only)");
    return 0;
}
#else

#include "frame_load_measure.h"
#include "kiv_pack.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

namespace {

using namespace frame_load;
namespace fs = std::filesystem;

struct Setup {
    fs::path folder;
    std::vector<std::string> files;    // host paths
    std::vector<uint32_t> itemOffsets; // in the archive file
    std::string archivePath, streamPath;
    uint32_t streamSize = 0;
    int frames = 60;
    const char* only = nullptr; // scenarios whose name begins so
    Evictor* evictor = nullptr; // drops loaded files in cold variants
};
Setup g;

// ---- the library's side: state kept across frames -----------------------------------

struct LibraryRun {
    const Scenario* s = nullptr;
    Result r;
    FileHandle* stream = nullptr;
    Request* request = nullptr;
    std::vector<uint8_t> streamBuffer = std::vector<uint8_t>(kStreamRead);
    bool streamPending = false;
    uint32_t streamAt = 0;
    FileHandle* slots[kLoaders] = {};
    int slotFile[kLoaders] = {};
    int nextFile = 0, finished = 0, batchEnd = kFiles;
    int frame = 0;
    Clock::time_point begin, loadsStart, loadsEnd;
    double cpu0 = 0;
};
LibraryRun* gRun = nullptr;
std::vector<const Scenario*> gQueue;
struct Outcome {
    const Scenario* scenario;
    Result lib, base;
};
std::vector<Outcome> gResults;

std::string LoadPath(const Scenario& s, int file) {
    char name[64];
    std::snprintf(name, sizeof name, s.archive ? "/fl_arc/f%02d.bin" : "/fl_files/f%02d.bin", file);
    return name;
}

// Cold variants drop what a finished load read, on both sides alike: the
// file, or the item's range of the archive.
void DropLoaded(const Scenario& s, int file) {
    if (s.archive)
        g.evictor->Post(g.archivePath, g.itemOffsets[file], kFileSize);
    else
        g.evictor->Post(g.files[file]);
}

bool LoadsWanted(const LibraryRun& run) {
    return run.s->loads == 2 || run.nextFile < run.batchEnd;
}

void LibraryFrame(LibraryRun& run, double* total) {
    CallClock call{&run.r, total};
    const Scenario& s = *run.s;
    if (s.stream) {
        if (run.streamPending) {
            if (!call("zkIsRequestCompleted", true,
                      [&] { return zkIsRequestCompleted(run.request); }))
                ++run.r.late;
            uint32_t got = 0;
            const int32_t e =
                call("zkEndReadFile", true, [&] { return zkEndReadFile(&got, run.request); });
            if (e < 0 || got != kStreamRead) ++run.r.bad;
            run.streamPending = false;
        }
        if (run.streamAt + kStreamRead > g.streamSize) {
            call("zkSeekFile", false,
                 [&] { return zkSeekFile(run.stream, 0, ZK_SEEK_SET, nullptr); });
            run.streamAt = 0;
        }
        if (call("zkBeginReadFile", true, [&] {
                return zkBeginReadFile(run.stream, run.streamBuffer.data(), kStreamRead,
                                       run.request);
            }) == 0) {
            run.streamPending = true;
            run.streamAt += kStreamRead;
        }
    }
    if (!s.loads) return;
    for (int i = 0; i < kLoaders; ++i) {
        FileHandle*& h = run.slots[i];
        if (h && !call("zkIsFileProcessing", true, [&] { return zkIsFileProcessing(h); })) {
            void* data = nullptr;
            uint32_t size = 0;
            const int32_t r =
                call("zkGetLoadedData", true, [&] { return zkGetLoadedData(h, &data, &size); });
            if (r < 0 || !Check(data, size, run.slotFile[i] % kFiles)) ++run.r.bad;
            run.r.bytes += size;
            call("zkFreeData+zkCloseFile", false, [&] {
                zkFreeData(data);
                zkCloseFile(h);
                return 0;
            });
            h = nullptr;
            ++run.finished;
            if (s.cold) DropLoaded(s, run.slotFile[i] % kFiles);
            if (s.loads == 1 && run.finished == run.batchEnd) {
                // A batch is complete: the next begins while frames remain.
                run.loadsEnd = Clock::now();
                if (run.frame < g.frames + 2) run.batchEnd += kFiles;
            }
        }
        if (!h && LoadsWanted(run)) {
            const std::string path = LoadPath(s, run.nextFile % kFiles);
            h = call("zkStartLoadingDataFromFile", false,
                     [&] { return zkStartLoadingDataFromFile(path.c_str()); });
            if (h) run.slotFile[i] = run.nextFile++;
        }
    }
}

void RunBaseline(const Scenario& s, Result& r);

// Cold: every file dropped from the page cache; warm: every file read once.
void PrepareCache(const Scenario& s) {
    g.evictor->Drain(); // the last variant's drops end before this one starts
    void (*prepare)(const std::string&) =
        s.cold ? [](const std::string& path) { Drop(path); } : Warm;
    for (const std::string& f : g.files)
        prepare(f);
    prepare(g.archivePath);
    prepare(g.streamPath);
}

void StartVariant(const Scenario& s) {
    PrepareCache(s);
    gRun = new LibraryRun;
    gRun->s = &s;
    if (s.stream) {
        gRun->stream = zkOpenFile("/fl_files/stream.bin", ZK_OPEN_READ, 0);
        gRun->request = zkCreateRequest();
    }
}

void FinishVariant() {
    LibraryRun& run = *gRun;
    const auto end = Clock::now();
    run.r.wallMs = Ms(run.begin, end);
    run.r.cpu = CpuSeconds() - run.cpu0;
    run.r.loadMs = Ms(run.loadsStart, run.s->loads == 1 ? run.loadsEnd : end);
    if (run.streamPending) zkEndReadFile(nullptr, run.request);
    for (FileHandle* h : run.slots)
        if (h) zkCloseFile(h); // waits for the load; its data are freed
    if (run.stream) zkCloseFile(run.stream);
    if (run.request) zkReleaseRequest(run.request);
    Result base;
    RunBaseline(*run.s, base);
    gResults.push_back(Outcome{run.s, std::move(run.r), std::move(base)});
    delete gRun;
    gRun = nullptr;
}

uint32_t ZK_CALL Frame() {
    if (!gRun) {
        if (gQueue.empty()) return ZK_FRAME_END;
        StartVariant(*gQueue.front());
        gQueue.erase(gQueue.begin());
        return 0;
    }
    LibraryRun& run = *gRun;
    const auto now = Clock::now();
    if (run.frame == 2) { // two frames to settle
        run.begin = run.loadsStart = now;
        run.cpu0 = CpuSeconds();
    }
    double total = 0;
    if (run.frame >= 2) LibraryFrame(run, &total);
    if (run.frame >= 2) {
        run.r.starts.push_back(Ms(run.begin, now));
        run.r.inCalls.push_back(total);
    }
    ++run.frame;
    const bool batchDone = run.s->loads != 1 || run.finished == run.batchEnd;
    if ((run.frame >= g.frames + 2 && batchDone) || run.frame > 2000) FinishVariant();
    return 0;
}

// ---- the plain-threads side -------------------------------------------------------------

struct Job {
    int file; // -1: a stream read
    uint32_t offset;
    uint32_t size;
    uint8_t* into; // the stream's buffer, or null: a new buffer
};
struct PlainLoader {
    std::mutex lock;
    std::condition_variable wake;
    std::deque<Job> jobs;
    std::vector<std::pair<int, uint8_t*>> done; // whole files
    std::atomic<bool> streamDone{true};
    bool stop = false;
    int fds[kFiles] = {}, archiveFd = -1, streamFd = -1;
    std::thread thread;

    void Run() {
        std::unique_lock<std::mutex> hold(lock);
        for (;;) {
            wake.wait(hold, [&] { return stop || !jobs.empty(); });
            if (jobs.empty()) return;
            Job job = jobs.front();
            jobs.pop_front();
            hold.unlock();
            uint8_t* into = job.into ? job.into : static_cast<uint8_t*>(std::malloc(job.size));
            const int fd = job.file < 0 ? streamFd : archiveFd >= 0 ? archiveFd : fds[job.file];
            for (uint32_t at = 0; at < job.size;) {
                const ssize_t n = pread(fd, into + at, job.size - at, job.offset + at);
                if (n <= 0) break;
                at += uint32_t(n);
            }
            hold.lock();
            if (job.file < 0)
                streamDone.store(true, std::memory_order_release);
            else
                done.emplace_back(job.file, into);
        }
    }
};

void RunBaseline(const Scenario& s, Result& r) {
    PrepareCache(s);
    PlainLoader loader;
    for (int i = 0; i < kFiles; ++i)
        loader.fds[i] = open(g.files[i].c_str(), O_RDONLY);
    if (s.archive) loader.archiveFd = open(g.archivePath.c_str(), O_RDONLY);
    loader.streamFd = open(g.streamPath.c_str(), O_RDONLY);
    loader.thread = std::thread([&] { loader.Run(); });
    std::vector<uint8_t> streamBuffer(kStreamRead);
    uint32_t streamAt = 0;
    int nextFile = 0, finished = 0, inFlight = 0, batchEnd = kFiles;
    bool streamPending = false;
    const auto origin = Clock::now();
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    Clock::time_point begin, loadsEnd;
    double cpu0 = 0;
    for (int frame = 0;; ++frame) {
        deadline.tv_nsec += 16000000;
        if (deadline.tv_nsec >= 1000000000) deadline.tv_nsec -= 1000000000, ++deadline.tv_sec;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
        const auto now = Clock::now();
        if (frame == 2) begin = now, cpu0 = CpuSeconds();
        double total = 0;
        CallClock call{&r, &total};
        if (frame < 2) continue;
        if (s.stream) {
            if (streamPending) {
                if (!call("poll stream", true,
                          [&] { return loader.streamDone.load(std::memory_order_acquire); }))
                    ++r.late;
                while (!loader.streamDone.load(std::memory_order_acquire))
                    std::this_thread::yield();
                streamPending = false;
            }
            if (streamAt + kStreamRead > g.streamSize) streamAt = 0;
            call("queue stream read", true, [&] {
                std::lock_guard<std::mutex> hold(loader.lock);
                loader.streamDone.store(false, std::memory_order_relaxed);
                loader.jobs.push_front(Job{-1, streamAt, kStreamRead, streamBuffer.data()});
                loader.wake.notify_one();
                return 0;
            });
            streamAt += kStreamRead;
            streamPending = true;
        }
        if (s.loads) {
            std::vector<std::pair<int, uint8_t*>> came;
            call("take loaded", true, [&] {
                std::lock_guard<std::mutex> hold(loader.lock);
                came.swap(loader.done);
                return 0;
            });
            for (auto& [file, data] : came) {
                if (!Check(data, kFileSize, file % kFiles)) ++r.bad;
                std::free(data);
                r.bytes += kFileSize;
                --inFlight;
                ++finished;
                if (s.cold) DropLoaded(s, file % kFiles);
                if (s.loads == 1 && finished == batchEnd) {
                    loadsEnd = Clock::now();
                    if (frame < g.frames + 2) batchEnd += kFiles;
                }
            }
            while (inFlight < kLoaders && (s.loads == 2 || nextFile < batchEnd)) {
                const int f = nextFile++ % kFiles;
                const uint32_t offset = s.archive ? g.itemOffsets[f] : 0;
                call("queue load", false, [&] {
                    std::lock_guard<std::mutex> hold(loader.lock);
                    loader.jobs.push_back(Job{f, offset, kFileSize, nullptr});
                    loader.wake.notify_one();
                    return 0;
                });
                ++inFlight;
            }
        }
        if (frame >= 2) {
            r.starts.push_back(Ms(begin, now));
            r.inCalls.push_back(total);
        }
        const bool batchDone = s.loads != 1 || finished == batchEnd;
        if ((frame >= g.frames + 2 && batchDone) || frame > 2000) break;
    }
    const auto end = Clock::now();
    r.wallMs = Ms(begin, end);
    r.cpu = CpuSeconds() - cpu0;
    r.loadMs = Ms(begin, s.loads == 1 ? loadsEnd : end);
    (void)origin;
    {
        std::lock_guard<std::mutex> hold(loader.lock);
        loader.stop = true;
        loader.wake.notify_one();
    }
    loader.thread.join();
    for (auto& d : loader.done)
        std::free(d.second);
    for (int fd : loader.fds)
        close(fd);
    if (loader.archiveFd >= 0) close(loader.archiveFd);
    close(loader.streamFd);
}

// ---- set-up and report ------------------------------------------------------------------

bool WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    const bool ok = f && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    if (f) std::fclose(f);
    return ok;
}

bool MakeFiles() {
    fs::remove_all(g.folder);
    fs::create_directories(g.folder);
    std::vector<kivtool::PackItem> items(kFiles);
    uint64_t total = 0;
    for (int i = 0; i < kFiles; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "f%02d.bin", i);
        items[i].name = name;
        items[i].data.resize(kFileSize);
        Fill(items[i].data, i);
        g.files.push_back((g.folder / name).string());
        if (!WriteFile(g.files.back(), items[i].data)) return false;
        total += kFileSize;
    }
    std::vector<uint8_t> archive;
    std::string error;
    if (!kivtool::BuildArchive(items, kivtool::PackOptions{}, &archive, &error)) return false;
    for (int i = 0; i < kFiles; ++i)
        g.itemOffsets.push_back(uint32_t(archive.size() - total + uint64_t(i) * kFileSize));
    g.archivePath = (g.folder / "items.kiv").string();
    if (!WriteFile(g.archivePath, archive)) return false;
    g.streamSize = uint32_t(std::min(g.frames + 8, 256)) * kStreamRead;
    std::vector<uint8_t> stream(g.streamSize, 0x5A);
    g.streamPath = (g.folder / "stream.bin").string();
    return WriteFile(g.streamPath, stream);
}

void Report(const Scenario& s, const Result& lib, const Result& base) {
    auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
    std::printf("%-19s %-5s %6.2f %4u %7.3f %7.1f %7.1f %4u %8.0f %6.0f %s\n", s.name, "zk",
                lib.P99Deviation(), lib.Dropped(), lib.MaxInCalls(), Result::Pct(lib.callUs, 0.5),
                Result::Pct(lib.callUs, 0.99), lib.late, lib.MBs(), lib.CpuPct(),
                lib.bad ? "DATA WRONG" : "");
    std::printf("%-19s       slowest call %.3f ms: %s", "", lib.slowestMs, lib.slowest);
    if (lib.slowestVoluntary >= 0)
        std::printf(" (%ld waits, %ld preemptions)", lib.slowestVoluntary, lib.slowestInvoluntary);
    std::printf("\n");
    std::printf("%-19s %-5s %6.2f %4u %7.3f %7.1f %7.1f %4u %8.0f %6.0f %s\n", "", "plain",
                base.P99Deviation(), base.Dropped(), base.MaxInCalls(),
                Result::Pct(base.callUs, 0.5), Result::Pct(base.callUs, 0.99), base.late,
                base.MBs(), base.CpuPct(), base.bad ? "DATA WRONG" : "");
    // CPU per megabyte loaded: the loads' cost when the two moved different amounts.
    auto cpuPerMB = [](const Result& x) { return x.bytes ? x.cpu / double(x.bytes) : 0.0; };
    std::printf("%-19s ratio zk/plain: p99 deviation %.2f, max in calls %.2f, MB/s %.2f, CPU %.2f, "
                "CPU per MB %.2f\n",
                "", ratio(lib.P99Deviation(), base.P99Deviation()),
                ratio(lib.MaxInCalls(), base.MaxInCalls()), ratio(lib.MBs(), base.MBs()),
                ratio(lib.CpuPct(), base.CpuPct()), ratio(cpuPerMB(lib), cpuPerMB(base)));
}

void ZK_CALL Quiet(const char*) {}

// The first pass is not reported: it loads every file once on both sides, so
// that the memory either side loads into has been touched before anything is
// measured (the library's arena, the C heap's recycled blocks).
const Scenario kScenarios[] = {
    {"(prime)", false, 1, false, false},         {"stream", true, 0, false, false},
    {"batch", false, 1, false, false},           {"batch cold", false, 1, false, true},
    {"continuous", false, 2, false, false},      {"archive", false, 1, true, false},
    {"archive cold", false, 1, true, true},      {"stream+loads", true, 2, false, false},
    {"stream+loads cold", true, 2, false, true},
};

int ZK_CALL Init() {
    if (zkInitializeEx(768u << 20, 4096) < 0 || zkInitializeRequest(4) < 0) {
        std::fprintf(stderr, "the library did not start\n");
        return 0;
    }
    zkSetTraceProc(Quiet);
    char root[261];
    if (zkGetPhysicalPath("/", root, sizeof root) < 0) return 0;
    g.folder = fs::path(root) / "fl_files";
    if (!MakeFiles()) {
        std::fprintf(stderr, "could not write the files in %s\n", g.folder.string().c_str());
        return 0;
    }
    if (zkMountKiv("/fl_arc", "/fl_files/items.kiv", 0) < 0) {
        std::fprintf(stderr, "could not mount the archive\n");
        return 0;
    }
    for (const Scenario& s : kScenarios)
        if (!g.only || s.name[0] == '(' || std::strstr(s.name, g.only) == s.name)
            gQueue.push_back(&s);
    return 1;
}

void ZK_CALL Term() {
    zkUnmountKiv("/fl_arc");
    fs::remove_all(g.folder);
}

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--long")) g.frames = 600;
        if (!std::strcmp(argv[i], "--switches")) gSwitches = true;
        if (!std::strcmp(argv[i], "--frames") && i + 1 < argc)
            g.frames = std::max(10, std::atoi(argv[++i]));
        if (!std::strcmp(argv[i], "--only") && i + 1 < argc) g.only = argv[++i];
    }
    std::printf("frame_load: %d frames a variant, %d files of %u MiB, %d loaders, %u KiB stream "
                "reads; plain = clock_nanosleep loop + one pread std::thread\n",
                g.frames, kFiles, kFileSize >> 20, kLoaders, kStreamRead >> 10);
    Evictor evictor;
    g.evictor = &evictor;
    if (zkMain(Init, Frame, Term, 0) != 0) return 1;
    std::printf("%-19s %-5s %6s %4s %7s %7s %7s %4s %8s %6s\n", "scenario", "", "p99dev", "drop",
                "maxcall", "med_us", "p99_us", "late", "MB/s", "CPU%");
    std::printf("%-19s %-5s %6s %4s %7s %7s %7s\n", "", "", "ms", "", "ms", "call", "call");
    for (const Outcome& o : gResults)
        if (o.scenario->name[0] != '(') Report(*o.scenario, o.lib, o.base);
    return 0;
}

#endif
