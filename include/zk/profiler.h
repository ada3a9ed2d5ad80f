/* QAX kernel: the performance counter and the user and system profilers. */
#ifndef ZK_PROFILER_H
#define ZK_PROFILER_H

#include "config.h"

ZK_EXTERN_C_BEGIN

/* Low 32 bits of (counter now - base). */
ZK_API uint32_t ZK_CALL zkGetPerformanceCounter(void);
/* Counts per second. */
ZK_API double ZK_CALL zkGetPerformanceFrequency(void);
/* base = now; non-zero on success. */
ZK_API int32_t ZK_CALL zkResetPerformanceCounter(void);

/* 0, -5 (no memory) or -6 (already initialised). */
ZK_API int32_t ZK_CALL zkInitializeProfiler(uint32_t slotCount, uint32_t reserved);
ZK_API void ZK_CALL zkSetProfileSwitch(uint32_t enabled);
ZK_API void ZK_CALL zkSetProfileInterval(uint32_t milliseconds);
ZK_API void ZK_CALL zkBeginProfile(uint32_t slot);
ZK_API void ZK_CALL zkEndProfile(uint32_t slot);
ZK_API void ZK_CALL zkSetProfileName(uint32_t slot, const char* name);

ZK_API int32_t ZK_CALL zkInitializeSystemProfiler(uint32_t slotCount, uint32_t reserved);
ZK_API void ZK_CALL zkSetSystemProfileSwitch(uint32_t enabled);
ZK_API void ZK_CALL zkSetSystemProfileInterval(uint32_t milliseconds);
ZK_API void ZK_CALL zkBeginSystemProfile(uint32_t slot);
ZK_API void ZK_CALL zkEndSystemProfile(uint32_t slot);
ZK_API void ZK_CALL zkSetSystemProfileName(uint32_t slot, const char* name);

/* Once per frame: the user profiler, then the system profiler. */
ZK_API void ZK_CALL zkUpdateAllProfilers(void);

ZK_EXTERN_C_END

#endif /* ZK_PROFILER_H */
