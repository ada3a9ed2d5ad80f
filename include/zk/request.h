/* QAX kernel: requests, the application's handles on asynchronous operations. */
#ifndef ZK_REQUEST_H
#define ZK_REQUEST_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef struct Request Request;

/* Allocates count requests from the system pool, replacing (and returning) a
 * previous pool. 0, -54 before zkInitialize, -5 without memory (no requests
 * then). zkTerminate returns the pool. */
ZK_API int32_t ZK_CALL zkInitializeRequest(uint32_t count);
/* A free request with its 16384-byte arena, or null when none is free or the
 * arena cannot be allocated. */
ZK_API Request* ZK_CALL zkCreateRequest(void);
/* Returns the request to the pool. 0, or -55 for null. Must not be called
 * while an operation is pending on it. */
ZK_API int32_t ZK_CALL zkReleaseRequest(Request* request);
/* 1 when no operation is pending on the request, else 0. */
ZK_API int32_t ZK_CALL zkIsRequestCompleted(Request* request);
/* Waits for the pending operation. 0, -55 (null) or -56 (nothing pending). */
ZK_API int32_t ZK_CALL zkWaitForRequestCompletion(Request* request);
/* Runs the continuations of completed operations on the calling thread. */
ZK_API void ZK_CALL zkUpdateAllRequests(void);

ZK_EXTERN_C_END

#endif /* ZK_REQUEST_H */
