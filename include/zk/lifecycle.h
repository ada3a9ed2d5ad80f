/* QAX kernel: library lifecycle and the frame loop. */
#ifndef ZK_LIFECYCLE_H
#define ZK_LIFECYCLE_H

#include "config.h"

ZK_EXTERN_C_BEGIN

/* Callbacks of zkMain. initProc returns non-zero to go on; frameProc returns
 * ZK_FRAME_END (0xFFFFFFFF) to end the loop. */
typedef int(ZK_CALL* zkInitProc)(void);
/* Called once per frame. */
typedef uint32_t(ZK_CALL* zkFrameProc)(void);
/* Called once after the loop ends. */
typedef void(ZK_CALL* zkTermProc)(void);

/* Opens the process level: the library lock, the library registry, the window
 * class record, the frame period, and the application record (name and caption
 * "QAX Application", executable path, arguments). Returns 0. */
ZK_API int32_t ZK_CALL zkBeginProcess(uint32_t reserved);
/* Terminates if needed, then stops the file system: directory listings and
 * files still open are closed, every mount is removed and the device I/O
 * worker is stopped once it has run what is queued. It waits for the worker
 * at most about a second: a worker held inside a host call (an open of a
 * FIFO without a writer) is let go and ends on its own when that call
 * returns, and the next zkInitialize uses it again if it is still there. A
 * file with an asynchronous read still pending stays open. Then closes the
 * single-instance mutex and deletes the library lock. Returns 0. */
ZK_API int32_t ZK_CALL zkEndProcess(void);
/* zkInitializeEx(0xFFFFFFFF, 1024). Without a preceding zkBeginProcess it
 * performs the process-begin steps itself; while the library runs (until
 * zkTerminate) a second call returns -6 and changes nothing. */
ZK_API int32_t ZK_CALL zkInitialize(void);
/* Starts every subsystem. arenaSize 0xFFFFFFFF takes half of the available
 * physical memory; descriptorCount is the most system-pool blocks alive at once.
 * Returns 0, -5 when no system pool could be made, or the file system's start result.
 * When the environment variable QAX_TIMELINE names a file, a timeline of
 * every thread is recorded from here on and written there by zkTerminate
 * (trace-event JSON; see docs/guide.md). */
ZK_API int32_t ZK_CALL zkInitializeEx(uint32_t arenaSize, uint32_t descriptorCount);
/* Stops what zkInitialize started and writes a timeline being recorded.
 * What lives in the arena goes: the arena itself, profiles, requests,
 * archives with their item streams and their mounts, and background loads
 * (their threads are waited for, since they load into the arena; their
 * handles stay open without a load). A later call on one of these answers its
 * "closed handle" error. The file system stays: open files, host mounts,
 * registered drivers and the device I/O worker go on working from any thread
 * until zkEndProcess, and termination never waits for the worker's current
 * host call. A following zkInitialize keeps them. Safe to call twice. Returns 0. */
ZK_API int32_t ZK_CALL zkTerminate(void);
/* Process begin, initProc, the frame loop, termProc, process end.
 * Returns 0, or -1 when initProc returned 0 (frameProc and termProc then never run).
 * A null callback is skipped (a null initProc counts as success). While the loop
 * runs, an interrupt of a console program (SIGINT, SIGTERM) closes the main window. */
ZK_API int32_t ZK_CALL zkMain(zkInitProc initProc, zkFrameProc frameProc, zkTermProc termProc,
                              uint32_t reserved);
/* Frames started by the loop since the last reset (the first frame sees 1). */
ZK_API uint32_t ZK_CALL zkGetLoopCount(void);
/* Sets the frame count back to 0. */
ZK_API void ZK_CALL zkResetLoopCount(void);
/* The executable's module handle. */
ZK_API zkNativeHandle ZK_CALL zkGetApplicationInstance(void);
/* Milliseconds since the system started (wraps after 49.7 days). */
ZK_API uint32_t ZK_CALL zkGetTickCount(void);
/* Gives up the calling thread for at least the given milliseconds. */
ZK_API void ZK_CALL zkSleep(uint32_t milliseconds);

/* Exports kept so that applications written against the full interface link;
 * they do nothing. Returns 0. */
ZK_API int32_t ZK_CALL zkExecute(void);
/* Returns 0. */
ZK_API int32_t ZK_CALL zkEnableInterrupt(void);
/* Returns 0. */
ZK_API int32_t ZK_CALL zkDisableInterrupt(void);
/* Returns 0. */
ZK_API int32_t ZK_CALL zkInitializeDevice(void);
/* Does nothing. */
ZK_API void ZK_CALL zkTrace2(void);
/* Does nothing. */
ZK_API void ZK_CALL zkTerminateDevice(void);
/* Does nothing. */
ZK_API void ZK_CALL zkSkipLoadModule(void);
/* Does nothing. */
ZK_API void ZK_CALL zkReleaseOverlay(void);
/* Does nothing. */
ZK_API void ZK_CALL zkSetDisplayFrequency(void);

ZK_EXTERN_C_END

#endif /* ZK_LIFECYCLE_H */
