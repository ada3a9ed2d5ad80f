// Result codes in words: one short English text per code the library returns.
// The table is the one list the texts live in; a lookup walks it (a few dozen
// entries, and no caller asks on a hot path).
#include <zk/result.h>

namespace zk {
namespace {

struct ResultTextEntry {
    int32_t code;
    const char* text;
};

constexpr ResultTextEntry kResultTexts[] = {
    {ZK_OK, "success"},
    {ZK_ERR_INIT_REFUSED, "the init procedure refused to start"},
    {ZK_ERR_INVALID_ARGUMENT, "invalid argument"},
    {ZK_ERR_INVALID_HANDLE, "invalid handle"},
    {ZK_ERR_NO_MEMORY, "out of memory"},
    {ZK_ERR_NOT_SUPPORTED, "not supported, or already done"},
    {ZK_ERR_HOST_REMOVE_OR_COPY, "host directory not removed or host file not copied"},
    {ZK_ERR_SHORT_READ, "read delivered less than asked"},
    {ZK_ERR_NOT_ARCHIVE, "not an archive"},
    {ZK_ERR_NO_ITEM, "no such archive item"},
    {ZK_ERR_NO_SLOT, "no free slot"},
    {ZK_ERR_NO_DEVICE, "no device"},
    {ZK_ERR_PATH_TOO_LONG, "path too long"},
    {ZK_ERR_WINDOW_CLASS, "window class not registered"},
    {ZK_ERR_CALLBACKS_FULL, "event callback table full"},
    {ZK_ERR_BUFFER_TOO_SMALL, "buffer too small"},
    {ZK_ERR_HOST_READ, "host read failed"},
    {ZK_ERR_HOST_WRITE, "host write failed"},
    {ZK_ERR_HOST_POSITION, "host positioning failed"},
    {ZK_ERR_HOST_MKDIR, "host directory not created"},
    {ZK_ERR_NO_MOUNT_SLOT, "no free mount slot"},
    {ZK_ERR_NOT_MOUNTED, "not mounted"},
    {ZK_ERR_BAD_MOUNT_PATH, "invalid mount path"},
    {ZK_ERR_HOST_SEEK, "host seek failed"},
    {ZK_ERR_OPEN_FAILED, "file could not be opened"},
    {ZK_ERR_REQUESTS_NOT_READY, "requests not initialised"},
    {ZK_ERR_NULL_REQUEST, "null request"},
    {ZK_ERR_REQUEST_STATE, "request state does not allow the call"},
    {ZK_ERR_NO_SUCH_FILE, "no such file"},
};

} // namespace
} // namespace zk

extern "C" ZK_API const char* ZK_CALL zkGetResultText(int32_t result) {
    for (const zk::ResultTextEntry& entry : zk::kResultTexts)
        if (entry.code == result) return entry.text;
    return "unknown result";
}
