/* QAX kernel: counting semaphores (a table of 128 records). */
#ifndef ZK_SEMAPHORE_H
#define ZK_SEMAPHORE_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef struct SemaphoreRecord SemaphoreRecord; /* a semaphore handle */

/* Null when all 128 are in use or the counts are refused (initial above maximum). */
ZK_API SemaphoreRecord* ZK_CALL zkCreateSemaphore(int32_t initialCount, int32_t maximumCount);
/* Frees the semaphore; threads waiting on it are woken. Null: nothing. */
ZK_API void ZK_CALL zkReleaseSemaphore(SemaphoreRecord* semaphore);
/* Waits without time-out for one unit. */
ZK_API void ZK_CALL zkWaitSemaphore(SemaphoreRecord* semaphore);
/* Takes one unit if available: 1, else 0. */
ZK_API int32_t ZK_CALL zkPollSemaphore(SemaphoreRecord* semaphore);
/* Releases one unit; beyond the maximum it is ignored. */
ZK_API void ZK_CALL zkSignalSemaphore(SemaphoreRecord* semaphore);

ZK_EXTERN_C_END

#endif /* ZK_SEMAPHORE_H */
