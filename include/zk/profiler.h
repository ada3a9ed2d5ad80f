/* QAX kernel: the performance counter and the user and system profilers. */
#ifndef ZK_PROFILER_H
#define ZK_PROFILER_H

#include "config.h"

ZK_EXTERN_C_BEGIN

/* Low 32 bits of (counter now - base). Before zkInitialize the base is 0. */
ZK_API uint32_t ZK_CALL zkGetPerformanceCounter(void);
/* Counts per second (read from the system on first use). */
ZK_API double ZK_CALL zkGetPerformanceFrequency(void);
/* base = now; non-zero on success. */
ZK_API int32_t ZK_CALL zkResetPerformanceCounter(void);

/* Takes slotCount slots from the system pool; reports every 5000 ms. 0, -5 (no
 * memory, also before zkInitialize) or -6 (already initialised since the last
 * zkInitialize; zkTerminate forgets both profilers). */
ZK_API int32_t ZK_CALL zkInitializeProfiler(uint32_t slotCount, uint32_t reserved);
/* A different value clears every slot and name and starts a new window; 0 stops reports. */
ZK_API void ZK_CALL zkSetProfileSwitch(uint32_t enabled);
/* Milliseconds between two reports of the profiler. */
ZK_API void ZK_CALL zkSetProfileInterval(uint32_t milliseconds);
/* Begin and end of one slot belong in the same frame; slots out of range are ignored. */
ZK_API void ZK_CALL zkBeginProfile(uint32_t slot);
/* Ends the slot's measurement begun in this frame. */
ZK_API void ZK_CALL zkEndProfile(uint32_t slot);
/* At most 15 characters are kept. */
ZK_API void ZK_CALL zkSetProfileName(uint32_t slot, const char* name);

/* The system profiler: the same calls for a second, independent profiler. */
ZK_API int32_t ZK_CALL zkInitializeSystemProfiler(uint32_t slotCount, uint32_t reserved);
/* As zkSetProfileSwitch, for the system profiler. */
ZK_API void ZK_CALL zkSetSystemProfileSwitch(uint32_t enabled);
/* As zkSetProfileInterval, for the system profiler. */
ZK_API void ZK_CALL zkSetSystemProfileInterval(uint32_t milliseconds);
/* As zkBeginProfile, for the system profiler. */
ZK_API void ZK_CALL zkBeginSystemProfile(uint32_t slot);
/* As zkEndProfile, for the system profiler. */
ZK_API void ZK_CALL zkEndSystemProfile(uint32_t slot);
/* As zkSetProfileName, for the system profiler. */
ZK_API void ZK_CALL zkSetSystemProfileName(uint32_t slot, const char* name);

/* Once per frame: the user profiler, then the system profiler. A profiler
 * whose window reached its interval traces one line per slot that measured
 * anything: "QaxKrnl : [slot] name: ms (msec) share (percent) calls (calls)". */
ZK_API void ZK_CALL zkUpdateAllProfilers(void);

ZK_EXTERN_C_END

#endif /* ZK_PROFILER_H */
