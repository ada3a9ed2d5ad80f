/**
 * @file
 * @brief The performance counter and the user and system profilers.
 */
#ifndef ZK_PROFILER_H
#define ZK_PROFILER_H

#include "config.h"

/**
 * @defgroup profiler Profilers and performance counter
 * @brief A high-resolution counter, and two independent profilers (user and
 * system) that time numbered slots within frames and trace a report.
 *
 * The profilers are not locked and belong to the main thread: initialise,
 * switch, name, begin, end and update them there. The counter may be read
 * from any thread.
 * @{
 */

ZK_EXTERN_C_BEGIN

/**
 * @brief Low 32 bits of (counter now - base). Before zkInitialize the base is 0.
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetPerformanceCounter(void);
/**
 * @brief Counts per second (read from the system on first use).
 * @threads Any thread.
 */
ZK_API double ZK_CALL zkGetPerformanceFrequency(void);
/**
 * @brief Sets the counter's base to now.
 * @return non-zero (1), always
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkResetPerformanceCounter(void);

/**
 * @brief Starts the user profiler with slotCount slots from the system pool;
 * it reports every 5000 ms.
 * @param slotCount the slots to measure
 * @param reserved ignored
 * @return 0; -5 without memory (also before zkInitialize); -6 when already
 *         initialised since the last zkInitialize (zkTerminate forgets both profilers)
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkInitializeProfiler(uint32_t slotCount, uint32_t reserved);
/**
 * @brief Switches the user profiler's reports on or off.
 * @param enabled a value different from the current one clears every slot and
 *        name and starts a new window; 0 stops reports
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetProfileSwitch(uint32_t enabled);
/**
 * @brief Milliseconds between two reports of the user profiler.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetProfileInterval(uint32_t milliseconds);
/**
 * @brief Begins measuring a slot of the user profiler.
 *
 * Begin and end of one slot belong in the same frame; slots out of range are
 * ignored.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkBeginProfile(uint32_t slot);
/**
 * @brief Ends the slot's measurement begun in this frame.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkEndProfile(uint32_t slot);
/**
 * @brief Names a slot of the user profiler; at most 15 characters are kept.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetProfileName(uint32_t slot, const char* name);

/**
 * @brief As zkInitializeProfiler, for the system profiler (a second,
 * independent profiler).
 * @return as zkInitializeProfiler
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkInitializeSystemProfiler(uint32_t slotCount, uint32_t reserved);
/**
 * @brief As zkSetProfileSwitch, for the system profiler.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetSystemProfileSwitch(uint32_t enabled);
/**
 * @brief As zkSetProfileInterval, for the system profiler.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetSystemProfileInterval(uint32_t milliseconds);
/**
 * @brief As zkBeginProfile, for the system profiler.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkBeginSystemProfile(uint32_t slot);
/**
 * @brief As zkEndProfile, for the system profiler.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkEndSystemProfile(uint32_t slot);
/**
 * @brief As zkSetProfileName, for the system profiler.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetSystemProfileName(uint32_t slot, const char* name);

/**
 * @brief Once per frame: updates the user profiler, then the system profiler.
 *
 * A profiler whose window reached its interval traces one line per slot that
 * measured anything: "QaxKrnl : [slot] name: ms (msec) share (percent) calls (calls)".
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkUpdateAllProfilers(void);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_PROFILER_H */
