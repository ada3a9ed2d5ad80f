// Overlays: not supported. The synchronous loads report success and load
// nothing; the asynchronous pair runs the request protocol without an
// operation. The Begin finds nothing to execute, so it completes its frame at
// once on the caller's thread, and the End returns -6 without waiting.
#include "thread/request.h"

#include <zk/overlay.h>
#include <zk/result.h>

namespace zk {

// The overlay loader: an object without state.
class OverlayLoader {
public:
    int32_t Load() const { return 0; }
    int32_t BeginLoad(::Request* request) const {
        RequestWriter writer(request, 4096);
        if (writer.Status() < 0) return writer.Status();
        request->NotifyCompletion();
        return writer.Status();
    }
    int32_t EndLoad(::Request* request) const {
        RequestReader reader(request);
        if (reader.Status() < 0) return reader.Status();
        return ZK_ERR_NOT_SUPPORTED;
    }
};

namespace {
const OverlayLoader g_overlays;
} // namespace

const OverlayLoader* Overlays() {
    return &g_overlays;
}

} // namespace zk

extern "C" ZK_API int32_t ZK_CALL zkLoadOverlayForDebug(const void*, const void*) {
    return zk::g_overlays.Load();
}
extern "C" ZK_API int32_t ZK_CALL zkLoadOverlayForRelease(const void*, const void*) {
    return zk::g_overlays.Load();
}
extern "C" ZK_API int32_t ZK_CALL zkLoadOverlayFromMemoryForDebug(const void*, const void*,
                                                                  const void*) {
    return zk::g_overlays.Load();
}
extern "C" ZK_API int32_t ZK_CALL zkLoadOverlayFromMemoryForRelease(const void*, const void*,
                                                                    const void*) {
    return zk::g_overlays.Load();
}
extern "C" ZK_API int32_t ZK_CALL zkBeginLoadOverlay(const void*, const void*, Request* request) {
    return zk::g_overlays.BeginLoad(request);
}
extern "C" ZK_API int32_t ZK_CALL zkEndLoadOverlayForDebug(const void*, Request* request) {
    return zk::g_overlays.EndLoad(request);
}
extern "C" ZK_API int32_t ZK_CALL zkEndLoadOverlayForRelease(const void*, Request* request) {
    return zk::g_overlays.EndLoad(request);
}
