// Streams a large file with asynchronous reads while the frame loop keeps its
// pace: each frame collects the read that finished and begins the next one,
// so the frame thread never waits for the disk. Prints a progress line and,
// at the end, the frames run and the longest frame period seen.
//
//   stream_file [MiB]     (default 64; the file is made beside the program)
#include <zk.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kChunk = 1u << 20;
const char kPath[] = "/stream_example.bin";

uint32_t g_size = 64u << 20;
FileHandle* g_file = nullptr;
Request* g_request = nullptr;
std::vector<uint8_t> g_buffer(kChunk);
uint32_t g_done = 0, g_checksum = 0;
bool g_reading = false, g_failed = false;
Clock::time_point g_lastFrame;
double g_longestMs = 0;

// The file to stream: g_size bytes of a known pattern, written once.
bool MakeFile() {
    FileHandle* f = zkOpenFile(kPath, ZK_OPEN_WRITE | ZK_OPEN_CREATE | ZK_OPEN_TRUNCATE, 0);
    if (!f) return false;
    std::vector<uint8_t> chunk(kChunk);
    bool ok = true;
    for (uint32_t at = 0; ok && at < g_size; at += kChunk) {
        for (uint32_t i = 0; i < kChunk; ++i)
            chunk[i] = uint8_t((at + i) * 31 >> 8);
        uint32_t written = 0;
        ok = zkWriteFile(f, chunk.data(), std::min(kChunk, g_size - at), &written) == 0;
    }
    zkCloseFile(f);
    return ok;
}

int ZK_CALL Init() {
    if (zkInitialize() < 0 || !MakeFile() || zkInitializeRequest(4) < 0) return 0;
    g_request = zkCreateRequest();
    g_file = zkOpenFile(kPath, ZK_OPEN_READ, 0);
    return g_request && g_file;
}

uint32_t ZK_CALL Frame() {
    const Clock::time_point now = Clock::now();
    if (zkGetLoopCount() > 1)
        g_longestMs = std::max(
            g_longestMs, std::chrono::duration<double, std::milli>(now - g_lastFrame).count());
    g_lastFrame = now;

    if (g_reading && zkIsRequestCompleted(g_request)) {
        uint32_t got = 0;
        g_failed = zkEndReadFile(&got, g_request) != 0 || got == 0;
        for (uint32_t i = 0; i < got; i += 4096)
            g_checksum = g_checksum * 33 + g_buffer[i];
        g_done += got;
        g_reading = false;
        std::printf("\rread %3u of %u MiB (frame %u)", g_done >> 20, g_size >> 20,
                    zkGetLoopCount());
        std::fflush(stdout);
    }
    if (g_failed || g_done >= g_size) return ZK_FRAME_END;
    if (!g_reading) {
        g_reading = zkBeginReadFile(g_file, g_buffer.data(), kChunk, g_request) == 0;
        g_failed = !g_reading;
    }
    return 0; // the frame's own work would run here, while the read goes on
}

void ZK_CALL Term() {
    std::printf("\n%s: %u bytes in %u frames, longest frame period %.1f ms, checksum %08x\n",
                g_failed ? "failed" : "done", g_done, zkGetLoopCount(), g_longestMs, g_checksum);
    zkCloseFile(g_file);
    zkReleaseRequest(g_request);
    char host[261];
    if (zkGetPhysicalPath(kPath, host, sizeof host) == 0) std::remove(host);
    zkTerminate();
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1) g_size = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) << 20;
    if (zkMain(Init, Frame, Term, 0) != 0) return 1;
    return g_failed || g_done != g_size ? 1 : 0;
}
