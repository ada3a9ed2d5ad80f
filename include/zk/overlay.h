/* QAX kernel: overlays. Not supported: the calls exist so that applications link and run. */
#ifndef ZK_OVERLAY_H
#define ZK_OVERLAY_H

#include "config.h"
#include "request.h"

ZK_EXTERN_C_BEGIN

/* Returns 0 and loads nothing. */
ZK_API int32_t ZK_CALL zkLoadOverlayForDebug(const void* a, const void* b);
/* Returns 0 and loads nothing. */
ZK_API int32_t ZK_CALL zkLoadOverlayForRelease(const void* a, const void* b);
/* Returns 0 and loads nothing. */
ZK_API int32_t ZK_CALL zkLoadOverlayFromMemoryForDebug(const void* a, const void* b, const void* c);
/* Returns 0 and loads nothing. */
ZK_API int32_t ZK_CALL zkLoadOverlayFromMemoryForRelease(const void* a, const void* b,
                                                         const void* c);
/* The Begin pushes a frame on the request and completes it at once, so the
 * End never waits. 0, -55 (null request) or -56 (the request has an open
 * operation). */
ZK_API int32_t ZK_CALL zkBeginLoadOverlay(const void* a, const void* b, Request* request);
/* -6, or the request's negative status. */
ZK_API int32_t ZK_CALL zkEndLoadOverlayForDebug(const void* a, Request* request);
/* -6, or the request's negative status. */
ZK_API int32_t ZK_CALL zkEndLoadOverlayForRelease(const void* a, Request* request);

ZK_EXTERN_C_END

#endif /* ZK_OVERLAY_H */
