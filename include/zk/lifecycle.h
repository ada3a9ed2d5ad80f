/**
 * @file
 * @brief Library lifecycle and the frame loop.
 */
#ifndef ZK_LIFECYCLE_H
#define ZK_LIFECYCLE_H

#include "config.h"

/**
 * @defgroup lifecycle Lifecycle and frame loop
 * @brief Opening the process level, starting and stopping the library, the
 * frame loop, and the stubs kept for link compatibility.
 *
 * The application's main thread is the thread that calls zkBeginProcess,
 * zkInitialize and zkMain (or zkMain alone). Every call of this group that
 * starts, stops or runs the library belongs to that thread.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** Called once by zkMain after process begin; returns non-zero to go on,
 * 0 to end without running the loop. Runs on the main thread. */
typedef int(ZK_CALL* zkInitProc)(void);
/** Called once per frame on the main thread; returns ZK_FRAME_END
 * (0xFFFFFFFF) to end the loop, anything else to go on. */
typedef uint32_t(ZK_CALL* zkFrameProc)(void);
/** Called once on the main thread after the loop ends. */
typedef void(ZK_CALL* zkTermProc)(void);

/**
 * @brief Opens the process level.
 *
 * Sets up the library lock, the library registry, the window class record,
 * the frame period, and the application record (name and caption
 * "QAX Application", executable path, arguments).
 * @param reserved ignored; pass 0
 * @return 0, always
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkBeginProcess(uint32_t reserved);
/**
 * @brief Closes the process level.
 *
 * Terminates if needed, then stops the file system: directory listings and
 * files still open are closed, every mount is removed and the device I/O
 * worker is stopped once it has run what is queued. It waits for the worker
 * at most about a second: a worker held inside a host call (an open of a
 * FIFO without a writer) is let go and ends on its own when that call
 * returns, and the next zkInitialize uses it again if it is still there. A
 * file with an asynchronous read still pending stays open. Then closes the
 * single-instance mutex and deletes the library lock.
 * @return 0, always
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkEndProcess(void);
/**
 * @brief Starts the library with the default sizes: zkInitializeEx(0xFFFFFFFF, 1024).
 *
 * Without a preceding zkBeginProcess it performs the process-begin steps
 * itself.
 * @return as zkInitializeEx; -6 (ZK_ERR_NOT_SUPPORTED) while the library runs
 *         (until zkTerminate), changing nothing
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkInitialize(void);
/**
 * @brief Starts every subsystem.
 *
 * When the environment variable QAX_TIMELINE names a file, a timeline of
 * every thread is recorded from here on and written there by zkTerminate
 * (trace-event JSON; see docs/guide.md).
 * @param arenaSize the arena's size in bytes; 0xFFFFFFFF takes half of the
 *        available physical memory
 * @param descriptorCount the most system-pool blocks alive at once
 * @return 0 on success; -6 while the library runs (nothing changes); -5 when
 *         no system pool could be made (nothing else starts); otherwise a
 *         negative start result of the main thread record or of the file
 *         system (such as -19 when the system refuses a thread)
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkInitializeEx(uint32_t arenaSize, uint32_t descriptorCount);
/**
 * @brief Stops what zkInitialize started and writes a timeline being recorded.
 *
 * What lives in the arena goes: the arena itself, profiles, requests,
 * archives with their item streams and their mounts, and background loads
 * (their threads are waited for, since they load into the arena; their
 * handles stay open without a load). A later call on one of these answers its
 * "closed handle" error. The file system stays: open files, host mounts,
 * registered drivers and the device I/O worker go on working from any thread
 * until zkEndProcess, and termination never waits for the worker's current
 * host call. A following zkInitialize keeps them. Safe to call twice.
 * @return 0, always
 * @threads The main thread. Other threads may go on with files, host mounts,
 *          drivers and archive calls meanwhile (an archive call completes
 *          before its archive goes, or answers as for a closed handle);
 *          polling a background load (zkIsFileProcessing, zkGetLoadedData)
 *          from another thread while termination runs is not safe, since
 *          the load's record goes with the arena.
 */
ZK_API int32_t ZK_CALL zkTerminate(void);
/**
 * @brief Process begin, initProc, the frame loop, termProc, process end.
 *
 * A null callback is skipped (a null initProc counts as success). Each pass
 * of the loop dispatches pending window messages, ends the loop when the main
 * window's close was requested or WM_QUIT was taken, waits for the next frame
 * period, raises the loop count and calls frameProc. While the loop runs, an
 * interrupt of a console program (SIGINT, SIGTERM) closes the main window.
 * @param initProc called once before the loop
 * @param frameProc called once per frame
 * @param termProc called once after the loop
 * @param reserved ignored; pass 0
 * @return 0; -1 (ZK_ERR_INIT_REFUSED) when initProc returned 0 (frameProc and
 *         termProc then never run)
 * @threads The main thread; the callbacks run on it too.
 */
ZK_API int32_t ZK_CALL zkMain(zkInitProc initProc, zkFrameProc frameProc, zkTermProc termProc,
                              uint32_t reserved);
/**
 * @brief Frames started by the loop since the last reset (the first frame sees 1).
 * @return the loop count
 * @threads The main thread.
 */
ZK_API uint32_t ZK_CALL zkGetLoopCount(void);
/**
 * @brief Sets the frame count back to 0.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkResetLoopCount(void);
/**
 * @brief The executable's module handle.
 * @return the handle, or null before zkBeginProcess
 * @threads Any thread.
 */
ZK_API zkNativeHandle ZK_CALL zkGetApplicationInstance(void);
/**
 * @brief Milliseconds since the system started (wraps after 49.7 days).
 * @return the tick count
 * @threads Any thread, at any time.
 */
ZK_API uint32_t ZK_CALL zkGetTickCount(void);
/**
 * @brief Gives up the calling thread for at least the given milliseconds.
 * @param milliseconds how long to sleep
 * @threads Any thread, at any time.
 */
ZK_API void ZK_CALL zkSleep(uint32_t milliseconds);

/** @name Stubs
 * Exports kept so that applications written against the full interface link;
 * they do nothing and may be called from any thread at any time. */
/** @{ */
/** @brief Does nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkExecute(void);
/** @brief Does nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkEnableInterrupt(void);
/** @brief Does nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkDisableInterrupt(void);
/** @brief Does nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkInitializeDevice(void);
/** @brief Does nothing. @threads Any thread. */
ZK_API void ZK_CALL zkTrace2(void);
/** @brief Does nothing. @threads Any thread. */
ZK_API void ZK_CALL zkTerminateDevice(void);
/** @brief Does nothing. @threads Any thread. */
ZK_API void ZK_CALL zkSkipLoadModule(void);
/** @brief Does nothing. @threads Any thread. */
ZK_API void ZK_CALL zkReleaseOverlay(void);
/** @brief Does nothing. @threads Any thread. */
ZK_API void ZK_CALL zkSetDisplayFrequency(void);
/** @} */

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_LIFECYCLE_H */
