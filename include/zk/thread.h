/**
 * @file
 * @brief Application threads (a table of 32 records).
 */
#ifndef ZK_THREAD_H
#define ZK_THREAD_H

#include "config.h"

/**
 * @defgroup thread Threads
 * @brief Application threads from a table of 32 records, each run below
 * normal priority.
 *
 * Below normal is the Windows level one under normal; on Linux, where an
 * unprivileged thread can only lower itself, it is a nice value 5 above the
 * process's (about a third of a normal thread's share of a busy core) and the
 * batch scheduling policy (its wake-ups never preempt a running thread),
 * applied before the thread first runs.
 *
 * Records are taken and given back under the library lock, so any thread may
 * create and release threads. One record is driven by one controlling thread
 * at a time (start, wait, release); a thread must not wait for or release its
 * own record.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** A thread handle. It names one record of the table for as long as the record
 * is taken: once zkReleaseThread has given the record back, the handle is
 * refused (-4, or nothing done) even after the record is handed out again
 * under a new handle. */
typedef struct ThreadRecord ThreadRecord;
/** A thread's body; argument as given to zkStartThread. */
typedef void(ZK_CALL* ThreadProc)(void* argument);

/**
 * @brief Takes a free record. No system thread exists yet.
 * @param stackSize the stack size for the thread's runs
 * @return the handle, or null when all 32 are in use
 * @threads Any thread.
 */
ZK_API ThreadRecord* ZK_CALL zkCreateThread(uint32_t stackSize);
/**
 * @brief Runs proc(argument) on a new thread below normal priority, after
 * waiting for a previous run of this record.
 * @return 0; -4 for a null, released or foreign handle; -3 for a null proc;
 *         -19 when the system refused the thread
 * @threads Any thread but the record's own.
 */
ZK_API int32_t ZK_CALL zkStartThread(ThreadRecord* thread, ThreadProc proc, void* argument);
/**
 * @brief Blocks until the record's current run has ended.
 * @param thread the handle; null or an idle record returns at once
 * @threads Any thread but the record's own.
 */
ZK_API void ZK_CALL zkWaitForThread(ThreadRecord* thread);
/**
 * @brief Whether the record's procedure runs.
 * @return 1 while the procedure runs; 0 for an invalid handle, a record never
 *         started, or a run that has ended
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkIsThreadRunning(ThreadRecord* thread);
/**
 * @brief Waits for a running procedure and frees the record.
 * @return 0; -4 for a null, released or foreign handle
 * @threads Any thread but the record's own.
 */
ZK_API int32_t ZK_CALL zkReleaseThread(ThreadRecord* thread);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_THREAD_H */
