/* QAX kernel: the emulated vertical blank (a 16 ms tick) and the frame period. */
#ifndef ZK_VBLANK_H
#define ZK_VBLANK_H

#include "config.h"

ZK_EXTERN_C_BEGIN

/* Called on every tick, on the timer's own thread, with the user value given
 * at addition: keep it short. A handler removed while a tick runs may be called
 * once more. */
typedef void(ZK_CALL* VblankHandler)(zkAddr user);
typedef struct VblankHandlerSlot VblankHandlerSlot;

/* Waits for the next tick; returns 1. Every wait of this header returns at
 * once when the timer is stopped (before zkInitialize, after zkTerminate). */
ZK_API uint32_t ZK_CALL zkWaitVblank(void);
/* Mode 2 returns only on an even vblank count; every other mode acts as mode 1. Returns 1. */
ZK_API uint32_t ZK_CALL zkWaitVblankEx(uint32_t mode);
/* Vertical-blank ticks counted since the timer started. */
ZK_API uint32_t ZK_CALL zkGetVblankCount(void);
/* 59.94, or 0.0 before the timer was first started. */
ZK_API float ZK_CALL zkGetDisplayFrequency(void);
/* 1 paces frames on the tick; any other value switches pacing off. */
ZK_API void ZK_CALL zkSetPeriodInterval(uint32_t interval);
/* 1 when a new period started, 0 when a window message arrived first. */
ZK_API int32_t ZK_CALL zkWaitForPeriodStart(void);
/* Handle of the slot taken, or null (null handler, or all 8 slots taken). */
ZK_API VblankHandlerSlot* ZK_CALL zkAddVblankHandler(VblankHandler handler, zkAddr user);
/* Empties the slot zkAddVblankHandler returned; null: nothing. */
ZK_API void ZK_CALL zkRemoveVblankHandler(VblankHandlerSlot* handle);

ZK_EXTERN_C_END

#endif /* ZK_VBLANK_H */
