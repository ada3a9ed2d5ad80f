// A small application on the kernel: runs the frame loop for about three
// seconds (190 frames of 16 ms) with the trace routed to standard output,
// then prints how many frames ran and the mean frame period it measured.
#include <zk.h>

#include <chrono>
#include <cstdio>

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kFrames = 190;

Clock::time_point g_firstFrame;
Clock::time_point g_lastFrame;
uint32_t g_framesRun = 0;

void ZK_CALL PrintTrace(const char* text) {
    std::fputs(text, stdout);
}

int ZK_CALL Init() {
    zkSetTitle("QAX Demo", "QAX Demo");
    return zkInitializeEx(16u << 20, 1024) >= 0;
}

uint32_t ZK_CALL Frame() {
    Clock::time_point now = Clock::now();
    if (g_framesRun == 0) g_firstFrame = now;
    g_lastFrame = now;
    ++g_framesRun;
    return zkGetLoopCount() >= kFrames ? ZK_FRAME_END : 0;
}

void ZK_CALL Term() {
    zkTerminate();
}

} // namespace

int main() {
    zkSetTraceProc(PrintTrace);
    int32_t result = zkMain(Init, Frame, Term, 0);
    if (result != 0) {
        std::printf("the library did not start (%d)\n", static_cast<int>(result));
        return 1;
    }
    std::printf("frames run: %u\n", g_framesRun);
    if (g_framesRun > 1) {
        double elapsed =
            std::chrono::duration<double, std::milli>(g_lastFrame - g_firstFrame).count();
        std::printf("mean frame period: %.3f ms\n", elapsed / (g_framesRun - 1));
    }
    return 0;
}
