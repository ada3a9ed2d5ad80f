/* QAX kernel: idle handlers and event callbacks. */
#ifndef ZK_CALLBACKS_H
#define ZK_CALLBACKS_H

#include "config.h"

ZK_EXTERN_C_BEGIN

/* Idle handlers run on the main thread, in slot order, once each time zkMain's
 * frame loop is about to block waiting for the next frame period (never when a
 * frame overran its period). They receive the user value given at addition. */
typedef void(ZK_CALL* IdleHandler)(zkAddr user);
/* Event callbacks run on the main thread, in slot order, for the frame loop's
 * events below. */
typedef void(ZK_CALL* EventCallback)(uint32_t event, zkAddr data);

/* Events of zkMain's frame loop. */
#define ZK_EVENT_LOOP_START 1u /* initProc succeeded, before the first pass; data 0 */
#define ZK_EVENT_LOOP_END   2u /* the loop ended, before termProc; data: ZK_LOOP_END_* */

/* Why the frame loop ended. */
#define ZK_LOOP_END_FRAME  0u /* frameProc returned ZK_FRAME_END */
#define ZK_LOOP_END_QUIT   1u /* WM_QUIT was taken from the queue */
#define ZK_LOOP_END_CLOSE  2u /* the main window's close was requested */
typedef struct IdleHandlerSlot IdleHandlerSlot;

/* Handle of the slot taken, or null (null handler, or all 32 slots taken). */
ZK_API IdleHandlerSlot* ZK_CALL zkAddIdleHandler(IdleHandler handler, zkAddr user);
/* Frees the slot for the next addition; null does nothing. */
ZK_API void ZK_CALL zkRemoveIdleHandler(IdleHandlerSlot* handle);
/* 0, or -31 when all 32 slots are taken. A null callback returns 0 and takes no slot. */
ZK_API int32_t ZK_CALL zkAddEventCallback(EventCallback callback);

ZK_EXTERN_C_END

#endif /* ZK_CALLBACKS_H */
