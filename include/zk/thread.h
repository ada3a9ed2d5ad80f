/* QAX kernel: application threads (a table of 32 records). */
#ifndef ZK_THREAD_H
#define ZK_THREAD_H

#include "config.h"

ZK_EXTERN_C_BEGIN

/* A thread handle. It names one record of the table for as long as the record
 * is taken: once zkReleaseThread has given the record back, the handle is
 * refused (-4, or nothing done) even after the record is handed out again
 * under a new handle. */
typedef struct ThreadRecord ThreadRecord;
/* A thread's body; argument as given to zkStartThread. */
typedef void(ZK_CALL* ThreadProc)(void* argument);

/* A free record, or null when all 32 are in use. No system thread exists yet. */
ZK_API ThreadRecord* ZK_CALL zkCreateThread(uint32_t stackSize);
/* Waits for a previous run of this record, then runs proc(argument) on a new
 * thread below normal priority. 0, -4 (null, released or foreign handle), -3 (null proc) or -19. */
ZK_API int32_t ZK_CALL zkStartThread(ThreadRecord* thread, ThreadProc proc, void* argument);
/* Blocks until the record's current run has ended; null or an idle record
 * returns at once. */
ZK_API void ZK_CALL zkWaitForThread(ThreadRecord* thread);
/* 1 while the procedure runs; 0 for an invalid handle, a record never
 * started, or a run that has ended. */
ZK_API int32_t ZK_CALL zkIsThreadRunning(ThreadRecord* thread);
/* Waits for a running procedure and frees the record. 0, or -4 for a null,
 * released or foreign handle. */
ZK_API int32_t ZK_CALL zkReleaseThread(ThreadRecord* thread);

ZK_EXTERN_C_END

#endif /* ZK_THREAD_H */
