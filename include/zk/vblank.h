/**
 * @file
 * @brief The emulated vertical blank (a 16 ms tick) and the frame period.
 */
#ifndef ZK_VBLANK_H
#define ZK_VBLANK_H

#include "config.h"

/**
 * @defgroup vblank Vertical blank and frame period
 * @brief The 16 ms tick that paces the frame loop, waits on it, and handlers
 * called on every tick.
 *
 * The tick runs on a timer thread of its own from zkInitialize to
 * zkTerminate. Every wait of this group returns at once when the timer is
 * stopped (before zkInitialize, after zkTerminate).
 * @{
 */

ZK_EXTERN_C_BEGIN

/** Called on every tick, on the timer's own thread, with the user value given
 * at addition: keep it short. A handler removed while a tick runs may be called
 * once more. */
typedef void(ZK_CALL* VblankHandler)(zkAddr user);
/** A vblank handler's slot, the handle zkAddVblankHandler returns. */
typedef struct VblankHandlerSlot VblankHandlerSlot;

/**
 * @brief Waits for the next tick.
 * @return 1, always (also when the timer is stopped and the wait ends at once)
 * @threads Any thread; several threads may wait at once.
 */
ZK_API uint32_t ZK_CALL zkWaitVblank(void);
/**
 * @brief Waits for the next tick; mode 2 returns only on an even vblank count.
 * @param mode 2 for an even count; every other mode acts as mode 1
 * @return 1, always
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkWaitVblankEx(uint32_t mode);
/**
 * @brief Vertical-blank ticks counted since the timer started.
 * @return the count
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetVblankCount(void);
/**
 * @brief The display frequency the tick emulates.
 * @return 59.94, or 0.0 before the timer was first started
 * @threads Any thread.
 */
ZK_API float ZK_CALL zkGetDisplayFrequency(void);
/**
 * @brief Switches frame pacing on the tick on or off.
 * @param interval 1 paces frames on the tick; any other value switches pacing off
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetPeriodInterval(uint32_t interval);
/**
 * @brief Waits for the next frame period, or for a window message.
 * @return 1 when a new period started, 0 when a window message arrived first
 * @threads The main thread (the frame loop's own wait).
 */
ZK_API int32_t ZK_CALL zkWaitForPeriodStart(void);
/**
 * @brief Adds a handler called on every tick.
 * @param handler the handler; runs on the timer's thread
 * @param user passed to every call
 * @return the slot taken, or null for a null handler or when all 8 slots are taken
 * @threads The main thread.
 */
ZK_API VblankHandlerSlot* ZK_CALL zkAddVblankHandler(VblankHandler handler, zkAddr user);
/**
 * @brief Empties the slot zkAddVblankHandler returned.
 * @param handle the slot; null does nothing
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkRemoveVblankHandler(VblankHandlerSlot* handle);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_VBLANK_H */
