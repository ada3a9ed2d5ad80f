// The frame loop with the main window shown: runs until the window is closed
// (or, given a number, closes its own window after that many frames, as CI
// does), and prints the frames run.
//
//   window_loop [frames]
#include <zk.h>

#include <cstdio>
#include <cstdlib>

namespace {

uint32_t g_closeAfter = 0; // 0: run until the user closes the window

int ZK_CALL Init() {
    zkSetTitle("QAX window", "QAX window loop");
    if (zkInitialize() < 0) return 0;
    zkSetWindowVisibility(zkGetMainWindow(), 1);
    return 1;
}

uint32_t ZK_CALL Frame() {
    const uint32_t frame = zkGetLoopCount();
    if (frame % 60 == 0) std::printf("frame %u\n", frame);
    // The same message a click on the close box sends: the loop sees the
    // window close and ends before the next frame.
    if (g_closeAfter && frame == g_closeAfter)
        zkPostWindowMessage(zkGetMainWindow(), ZK_WM_CLOSE, 0, 0);
    return 0;
}

void ZK_CALL Term() {
    std::printf("closed after %u frames\n", zkGetLoopCount());
    zkTerminate();
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1) g_closeAfter = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
    return zkMain(Init, Frame, Term, 0) == 0 ? 0 : 1;
}
