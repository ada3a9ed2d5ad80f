// Exports that exist so that applications written against the full interface
// link. They read no arguments and do nothing.
#include <zk/lifecycle.h>

extern "C" ZK_API int32_t ZK_CALL zkExecute(void) {
    return 0;
}
extern "C" ZK_API int32_t ZK_CALL zkEnableInterrupt(void) {
    return 0;
}
extern "C" ZK_API int32_t ZK_CALL zkDisableInterrupt(void) {
    return 0;
}
extern "C" ZK_API int32_t ZK_CALL zkInitializeDevice(void) {
    return 0;
}
extern "C" ZK_API void ZK_CALL zkTrace2(void) {}
extern "C" ZK_API void ZK_CALL zkTerminateDevice(void) {}
extern "C" ZK_API void ZK_CALL zkSkipLoadModule(void) {}
extern "C" ZK_API void ZK_CALL zkReleaseOverlay(void) {}
extern "C" ZK_API void ZK_CALL zkSetDisplayFrequency(void) {}
