// The soak run: frames back to back for a given time, each doing a little of
// everything an application does — asynchronous reads streaming a file,
// background loads, archive items by name, from a memory image and through a
// mounted path, threads, blocks from a pool and from the system pool with
// checkpoints and dumps. At the end everything is given back and the run
// compares the heap, the open files, archives and item streams, the request
// and thread records and (on Linux) the process's threads with their values
// at the start. Exit status 0 when all came back.
//
//   bench_soak [seconds]     (default 600)
#include "kiv_pack.h"

#include <zk.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Counts {
    uint32_t blocks, usedBytes, files, archives, items, threads;
    bool operator==(const Counts&) const = default;
};

uint32_t ProcessThreads() {
    std::error_code ec;
    uint32_t n = 0;
    for (fs::directory_iterator it("/proc/self/task", ec), end; !ec && it != end; it.increment(ec)) ++n;
    return n; // 0 where there is no /proc
}

Counts Now() {
    MemoryInfo info{};
    zkGetMemoryInfo(&info);
    return {info.blockCount, static_cast<uint32_t>(zkQueryMemoryInfo(9)), zkGetOpenFileCount(),
            zkGetOpenKivCount(), zkGetOpenKivItemCount(), ProcessThreads()};
}

void Print(const char* what, const Counts& c) {
    std::printf("%s: %u blocks (%u bytes), %u files, %u archives, %u item streams, %u threads\n", what,
                c.blocks, c.usedBytes, c.files, c.archives, c.items, c.threads);
}

void ZK_CALL Quiet(const char*) {}

std::mt19937 g_random(2026);
uint32_t g_failures = 0;
void Check(bool ok, const char* what) {
    if (!ok && g_failures++ < 20) std::printf("failed: %s\n", what);
}

void ZK_CALL ThreadBody(void* argument) {
    auto* sum = static_cast<uint32_t*>(argument);
    for (uint32_t i = 0; i < 1000; ++i) *sum += i;
}

} // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 600;
    if (zkBeginProcess(0) != 0 || zkInitializeEx(64u << 20, 8192) < 0 || zkInitializeRequest(8) < 0) return 1;
    zkSetTraceProc(Quiet);
    char rootBuffer[261];
    if (zkGetPhysicalPath("/", rootBuffer, sizeof rootBuffer) < 0) return 1;
    const fs::path folder = fs::path(rootBuffer) / "soak_files";
    fs::remove_all(folder);
    fs::create_directories(folder);

    // Data: a 4 MiB file to stream, and an archive of 300 items.
    {
        std::vector<uint8_t> big(4u << 20);
        for (size_t i = 0; i < big.size(); ++i) big[i] = uint8_t(i * 13);
        std::FILE* f = std::fopen((folder / "stream.bin").string().c_str(), "wb");
        if (!f || std::fwrite(big.data(), 1, big.size(), f) != big.size()) return 1;
        std::fclose(f);
        std::vector<kivtool::PackItem> items(300);
        for (size_t i = 0; i < items.size(); ++i) {
            items[i].name = "item" + std::to_string(i);
            items[i].data.assign(64 + i * 37 % 4000, uint8_t(i));
        }
        std::vector<uint8_t> archive;
        std::string error;
        kivtool::PackOptions options;
        options.packedDirectory = true;
        if (!kivtool::BuildArchive(items, options, &archive, &error)) return 1;
        f = std::fopen((folder / "items.kiv").string().c_str(), "wb");
        if (!f || std::fwrite(archive.data(), 1, archive.size(), f) != archive.size()) return 1;
        std::fclose(f);
    }
    static uint8_t poolRegion[1u << 20];

    const Counts start = Now();
    Print("start", start);
    Request* request = zkCreateRequest();
    FileHandle* stream = zkOpenFile("/soak_files/stream.bin", ZK_OPEN_READ, 0);
    KivArchive* archive = zkOpenKiv("/soak_files/items.kiv", 0);
    MemoryPool* pool = zkCreateMemoryPool(reinterpret_cast<zkAddr>(poolRegion), sizeof poolRegion, 512);
    Check(request && stream && archive && pool && zkMountKiv("/arc", "/soak_files/items.kiv", 0) == 0, "set-up");
    std::vector<uint8_t> chunk(64 * 1024);
    std::vector<void*> live;
    std::vector<MemoryBlock*> poolLive;
    bool reading = false;
    FileHandle* background = nullptr;
    uint64_t frames = 0, bytesStreamed = 0;
    const Clock::time_point begin = Clock::now();
    Clock::time_point lastReport = begin;
    while (std::chrono::duration<double>(Clock::now() - begin).count() < seconds) {
        ++frames;
        // Streaming: collect the finished read, begin the next (from the start at the end).
        if (reading && zkIsRequestCompleted(request)) {
            uint32_t got = 0;
            Check(zkEndReadFile(&got, request) == 0, "streamed read");
            bytesStreamed += got;
            reading = false;
            if (got < chunk.size()) zkSeekFile(stream, 0, ZK_SEEK_SET, nullptr);
        }
        if (!reading) reading = zkBeginReadFile(stream, chunk.data(), uint32_t(chunk.size()), request) == 0;
        // Archive items: by name, a stream, a mounted path.
        const std::string name = "item" + std::to_string(g_random() % 300);
        void* data = nullptr;
        uint32_t size = 0;
        Check(zkLoadKivItem(archive, name.c_str(), &data, &size) == 0, "archive load");
        zkReleaseKivItem(data);
        if (KivItemStream* s = zkOpenKivItem(archive, name.c_str())) {
            uint32_t got = 0;
            Check(zkReadKivItem(s, chunk.data(), 100, &got) == 0, "item stream");
            zkCloseKivItem(s);
        }
        if (FileHandle* f = zkOpenFile(("/arc/" + name).c_str(), ZK_OPEN_READ, 0)) {
            uint32_t got = 0;
            Check(zkReadFile(f, chunk.data(), 4096, &got) == 0 && got > 0, "mounted read");
            zkCloseFile(f);
        } else {
            Check(false, "mounted open");
        }
        if (frames % 50 == 0) {
            KivArchive* image = zkOpenKiv("/soak_files/items.kiv", ZK_KIV_MEMORY_IMAGE);
            Check(image && zkGetKivItem(image, name.c_str(), &data, &size) == 0, "memory image");
            zkCloseKiv(image);
        }
        // A background load at a time.
        if (!background && frames % 20 == 0) background = zkStartLoadingDataFromFile("/soak_files/items.kiv");
        if (background && !zkIsFileProcessing(background)) {
            Check(zkGetLoadedData(background, &data, &size) == 0 && data, "background load");
            zkFreeData(data);
            zkCloseFile(background);
            background = nullptr;
        }
        // Blocks: a live set of system and pool blocks, replaced at random.
        for (int i = 0; i < 8; ++i) {
            if (live.size() > 500 || (!live.empty() && g_random() % 2)) {
                const size_t at = g_random() % live.size();
                zkFree(live[at]);
                live[at] = live.back();
                live.pop_back();
            } else if (void* p = zkMalloc(16 + g_random() % 4096)) {
                live.push_back(p);
            }
            if (poolLive.size() > 200 || (!poolLive.empty() && g_random() % 2)) {
                const size_t at = g_random() % poolLive.size();
                zkFreeMemoryPoolBlock(pool, poolLive[at]);
                poolLive[at] = poolLive.back();
                poolLive.pop_back();
            } else if (MemoryBlock* b = zkAllocMemoryPoolBlock(pool, 8 + g_random() % 2048, 16)) {
                poolLive.push_back(b);
            }
        }
        if (frames % 1000 == 0) {
            zkSetMemoryCheckpoint(frames / 1000 % 32);
            zkDumpAllMemoryBlocks(frames / 1000 % 32);
            zkSetMemoryPoolCheckpoint(pool, 1);
            zkDumpAllMemoryPoolGaps(pool, 1024);
        }
        // A thread now and then.
        if (frames % 500 == 0) {
            uint32_t sum = 0;
            ThreadRecord* t = zkCreateThread(0);
            Check(t && zkStartThread(t, ThreadBody, &sum) == 0, "thread start");
            zkWaitForThread(t);
            Check(zkReleaseThread(t) == 0 && sum == 499500, "thread run");
        }
        zkUpdateAllRequests();
        if (std::chrono::duration<double>(Clock::now() - lastReport).count() >= 30) {
            lastReport = Clock::now();
            std::printf("%.0f s: %llu frames, %.1f MB streamed, %zu + %zu live blocks, %u failures\n",
                        std::chrono::duration<double>(lastReport - begin).count(),
                        static_cast<unsigned long long>(frames), bytesStreamed / 1e6, live.size(),
                        poolLive.size(), g_failures);
            std::fflush(stdout);
        }
    }

    // Everything back.
    if (reading) {
        uint32_t got = 0;
        zkEndReadFile(&got, request);
    }
    if (background) {
        zkCloseFile(background);
    }
    for (void* p : live) zkFree(p);
    for (MemoryBlock* b : poolLive) zkFreeMemoryPoolBlock(pool, b);
    zkReleaseMemoryPool(pool);
    zkUnmountKiv("/arc");
    zkCloseKiv(archive);
    zkCloseFile(stream);
    zkReleaseRequest(request);
    const Counts end = Now();
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("%.0f s, %llu frames (%.0f per second), %.1f MB streamed, %u failures\n", elapsed,
                static_cast<unsigned long long>(frames), frames / elapsed, bytesStreamed / 1e6, g_failures);
    Print("start", start);
    Print("end  ", end);
    const bool back = end == start && g_failures == 0;
    std::printf("%s\n", back ? "everything came back" : "NOT everything came back");
    fs::remove_all(folder);
    zkTerminate();
    zkEndProcess();
    return back ? 0 : 1;
}
