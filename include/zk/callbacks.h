/**
 * @file
 * @brief Idle handlers and event callbacks.
 */
#ifndef ZK_CALLBACKS_H
#define ZK_CALLBACKS_H

#include "config.h"

/**
 * @defgroup callbacks Idle handlers and event callbacks
 * @brief Code the frame loop runs while it waits, and at its start and end.
 *
 * Both tables live as long as the library is loaded and are used from the
 * main thread only: add and remove handlers there.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** Idle handlers run on the main thread, in slot order, once each time zkMain's
 * frame loop is about to block waiting for the next frame period (never when a
 * frame overran its period). They receive the user value given at addition. */
typedef void(ZK_CALL* IdleHandler)(zkAddr user);
/** Event callbacks run on the main thread, in slot order, for the frame loop's
 * events (ZK_EVENT_*). */
typedef void(ZK_CALL* EventCallback)(uint32_t event, zkAddr data);

/** @name Events of zkMain's frame loop */
/** @{ */
#define ZK_EVENT_LOOP_START 1u /**< initProc succeeded, before the first pass; data 0 */
#define ZK_EVENT_LOOP_END   2u /**< the loop ended, before termProc; data: ZK_LOOP_END_* */
/** @} */

/** @name Why the frame loop ended */
/** @{ */
#define ZK_LOOP_END_FRAME  0u /**< frameProc returned ZK_FRAME_END */
#define ZK_LOOP_END_QUIT   1u /**< WM_QUIT was taken from the queue */
#define ZK_LOOP_END_CLOSE  2u /**< the main window's close was requested */
/** @} */

/** An idle handler's slot, the handle zkAddIdleHandler returns. */
typedef struct IdleHandlerSlot IdleHandlerSlot;

/**
 * @brief Adds an idle handler.
 * @return the slot taken, or null for a null handler or when all 32 slots are taken
 * @threads The main thread.
 */
ZK_API IdleHandlerSlot* ZK_CALL zkAddIdleHandler(IdleHandler handler, zkAddr user);
/**
 * @brief Frees the slot for the next addition.
 * @param handle the slot; null does nothing
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkRemoveIdleHandler(IdleHandlerSlot* handle);
/**
 * @brief Adds an event callback; callbacks cannot be removed.
 * @return 0; -31 when all 32 slots are taken. A null callback returns 0 and takes no slot.
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkAddEventCallback(EventCallback callback);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_CALLBACKS_H */
