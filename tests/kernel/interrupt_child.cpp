// An application interrupted while its frame loop runs: the third frame raises
// SIGINT at the process. The interrupt must close the main window, end the
// loop and still run termProc. Exit codes: 0 as expected; 2 the loop did not
// end through the close request; 3 termProc did not run; 4 init failed.
#include <zk.h>

#include <csignal>

namespace {

uint32_t g_endReason = 0xFFFFFFFFu;
bool g_terminated = false;

void ZK_CALL RecordEvent(uint32_t event, zkAddr data) {
    if (event == ZK_EVENT_LOOP_END) g_endReason = static_cast<uint32_t>(data);
}
int ZK_CALL Init() {
    return zkInitializeEx(8u << 20, 256) == 0 ? 1 : 0;
}
uint32_t ZK_CALL Frame() {
    if (zkGetLoopCount() == 3) std::raise(SIGINT);
    return zkGetLoopCount() >= 300 ? ZK_FRAME_END : 0;
}
void ZK_CALL Term() {
    g_terminated = zkTerminate() == 0;
}

} // namespace

int main() {
    zkAddEventCallback(RecordEvent);
    if (zkMain(Init, Frame, Term, 0) != 0) return 4;
    return !g_terminated ? 3 : g_endReason != ZK_LOOP_END_CLOSE ? 2 : 0;
}
