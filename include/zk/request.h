/**
 * @file
 * @brief Requests, the application's handles on asynchronous operations.
 */
#ifndef ZK_REQUEST_H
#define ZK_REQUEST_H

#include "config.h"

/**
 * @defgroup request Requests
 * @brief Handles on asynchronous operations: the asynchronous file calls
 * (file.h) and overlay loads run inside a request.
 *
 * Threads: the request table is not locked. zkInitializeRequest,
 * zkCreateRequest, zkReleaseRequest and zkUpdateAllRequests belong to the main
 * thread. A request carries one operation at a time and is used by one thread
 * at a time; the I/O worker completes its operations.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** A request handle. */
typedef struct Request Request;

/**
 * @brief Allocates count requests from the system pool, replacing (and
 * returning) a previous pool. zkTerminate returns the pool.
 * @return 0; -54 before zkInitialize; -5 without memory (no requests then)
 * @threads The main thread, while no request is in use.
 */
ZK_API int32_t ZK_CALL zkInitializeRequest(uint32_t count);
/**
 * @brief A free request with its 16384-byte arena.
 * @return the request, or null when none is free (also before
 *         zkInitializeRequest) or the arena cannot be allocated
 * @threads The main thread.
 */
ZK_API Request* ZK_CALL zkCreateRequest(void);
/**
 * @brief Returns the request to the pool. Must not be called while an
 * operation is pending on it.
 * @return 0 (also for a request already released); -55 for null
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkReleaseRequest(Request* request);
/**
 * @brief Whether the request is idle.
 * @return 1 when no operation is pending on the request, else 0 (also for
 *         null or a pointer that is no request)
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkIsRequestCompleted(Request* request);
/**
 * @brief Waits for the pending operation.
 * @return 0; -55 for null; -56 when nothing is pending (or the pointer is no request)
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkWaitForRequestCompletion(Request* request);
/**
 * @brief Runs the continuations of completed operations on the calling thread.
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkUpdateAllRequests(void);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_REQUEST_H */
