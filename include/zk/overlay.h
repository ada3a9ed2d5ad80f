/**
 * @file
 * @brief Overlays. Not supported: the calls exist so that applications link and run.
 */
#ifndef ZK_OVERLAY_H
#define ZK_OVERLAY_H

#include "config.h"
#include "request.h"

/**
 * @defgroup overlay Overlays
 * @brief Overlay loading, not supported: the synchronous loads succeed and
 * load nothing; the asynchronous pair runs the request protocol and ends
 * with -6.
 *
 * Threads: the synchronous loads, any thread; the asynchronous pair, the
 * thread that uses the request.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** @brief Loads nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkLoadOverlayForDebug(const void* a, const void* b);
/** @brief Loads nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkLoadOverlayForRelease(const void* a, const void* b);
/** @brief Loads nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkLoadOverlayFromMemoryForDebug(const void* a, const void* b, const void* c);
/** @brief Loads nothing. @return 0 @threads Any thread. */
ZK_API int32_t ZK_CALL zkLoadOverlayFromMemoryForRelease(const void* a, const void* b,
                                                         const void* c);
/**
 * @brief Begins an overlay load on request.
 *
 * Pushes a frame on the request and completes it at once, so the End never waits.
 * @return 0; -55 for a null request; -56 when the request has an open operation
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkBeginLoadOverlay(const void* a, const void* b, Request* request);
/**
 * @brief Ends the overlay load begun on request.
 * @return -6 (nothing was loaded), or the request's negative status (-55, -56)
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkEndLoadOverlayForDebug(const void* a, Request* request);
/**
 * @brief As zkEndLoadOverlayForDebug.
 * @return -6, or the request's negative status (-55, -56)
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkEndLoadOverlayForRelease(const void* a, Request* request);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_OVERLAY_H */
