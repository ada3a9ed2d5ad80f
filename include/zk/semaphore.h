/**
 * @file
 * @brief Counting semaphores (a table of 128 records).
 */
#ifndef ZK_SEMAPHORE_H
#define ZK_SEMAPHORE_H

#include "config.h"

/**
 * @defgroup semaphore Semaphores
 * @brief Counting semaphores from a table of 128 records.
 *
 * Every call may come from any thread. While a unit is there, or no thread
 * sleeps, a wait or a signal makes no system call.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** A semaphore handle. */
typedef struct SemaphoreRecord SemaphoreRecord;

/**
 * @brief Creates a semaphore.
 * @param initialCount units available at once
 * @param maximumCount the most units it holds
 * @return the handle, or null when all 128 are in use or the counts are
 *         refused (initial above maximum)
 * @threads Any thread.
 */
ZK_API SemaphoreRecord* ZK_CALL zkCreateSemaphore(int32_t initialCount, int32_t maximumCount);
/**
 * @brief Frees the semaphore; threads waiting on it are woken (without a
 * unit) and the call does not wait for them.
 * @param semaphore the handle; null does nothing
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkReleaseSemaphore(SemaphoreRecord* semaphore);
/**
 * @brief Waits without time-out for one unit.
 *
 * Returns at once for null or a released semaphore.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkWaitSemaphore(SemaphoreRecord* semaphore);
/**
 * @brief Takes one unit if available.
 * @return 1 when a unit was taken, else 0 (also for null)
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkPollSemaphore(SemaphoreRecord* semaphore);
/**
 * @brief Releases one unit; beyond the maximum it is ignored.
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkSignalSemaphore(SemaphoreRecord* semaphore);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_SEMAPHORE_H */
