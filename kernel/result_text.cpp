// Result codes in words: one short English text per code the library returns.
// The texts are static; the switch is the one list the texts live in.
#include <zk/result.h>

namespace zk {
namespace {

const char* ResultText(int32_t result) {
    switch (result) {
    case ZK_OK: return "success";
    case ZK_ERR_INIT_REFUSED: return "the init procedure refused to start";
    case ZK_ERR_INVALID_ARGUMENT: return "invalid argument";
    case ZK_ERR_INVALID_HANDLE: return "invalid handle";
    case ZK_ERR_NO_MEMORY: return "out of memory";
    case ZK_ERR_NOT_SUPPORTED: return "not supported, or already done";
    case ZK_ERR_HOST_REMOVE_OR_COPY: return "host directory not removed or host file not copied";
    case ZK_ERR_SHORT_READ: return "read delivered less than asked";
    case ZK_ERR_NOT_ARCHIVE: return "not an archive";
    case ZK_ERR_NO_ITEM: return "no such archive item";
    case ZK_ERR_NO_SLOT: return "no free slot";
    case ZK_ERR_NO_DEVICE: return "no device";
    case ZK_ERR_PATH_TOO_LONG: return "path too long";
    case ZK_ERR_WINDOW_CLASS: return "window class not registered";
    case ZK_ERR_CALLBACKS_FULL: return "event callback table full";
    case ZK_ERR_BUFFER_TOO_SMALL: return "buffer too small";
    case ZK_ERR_HOST_READ: return "host read failed";
    case ZK_ERR_HOST_WRITE: return "host write failed";
    case ZK_ERR_HOST_POSITION: return "host positioning failed";
    case ZK_ERR_HOST_MKDIR: return "host directory not created";
    case ZK_ERR_NO_MOUNT_SLOT: return "no free mount slot";
    case ZK_ERR_NOT_MOUNTED: return "not mounted";
    case ZK_ERR_BAD_MOUNT_PATH: return "invalid mount path";
    case ZK_ERR_HOST_SEEK: return "host seek failed";
    case ZK_ERR_OPEN_FAILED: return "file could not be opened";
    case ZK_ERR_REQUESTS_NOT_READY: return "requests not initialised";
    case ZK_ERR_NULL_REQUEST: return "null request";
    case ZK_ERR_REQUEST_STATE: return "request state does not allow the call";
    case ZK_ERR_NO_SUCH_FILE: return "no such file";
    default: return "unknown result";
    }
}

} // namespace
} // namespace zk

extern "C" ZK_API const char* ZK_CALL zkGetResultText(int32_t result) {
    return zk::ResultText(result);
}
