// Application arguments, the module directory, module paths, and the module
// entry points (which load nothing).
#include "kernel/arguments.h"
#include "kernel/context.h"

#include <zk/args.h>
#include <zk/result.h>

#include <cctype>
#include <cstring>

namespace zk {

uint32_t SplitCommandLine(char* text, char** args, uint32_t maxArgs) {
    uint32_t count = 0;
    char* p = text;
    while (*p != '\0') {
        bool quoted = false;
        if (*p == '"') {
            quoted = true;
            ++p;
        }
        if (count < maxArgs) args[count] = p;
        ++count;
        while (*p != '\0') {
            if (quoted) {
                if (*p == '"') {
                    *p = '\0';
                    quoted = false;
                }
                ++p;
            } else if (*p == ' ') {
                *p++ = '\0';
                break;
            } else {
                ++p;
            }
        }
        while (*p != '\0' && std::isspace(static_cast<unsigned char>(*p)))
            ++p;
    }
    return count;
}

namespace {

// The module directory: "/" until the application sets one.
struct ModuleDirectory {
    char text[kPathSize] = "/";
    uint32_t length = 1;
};
ModuleDirectory g_moduleDirectory;

bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

void SetModuleDirectory(const char* directory) {
    size_t length = std::strlen(directory);
    if (length >= kPathSize) return;
    if (length > 1 && IsSeparator(directory[length - 1])) --length;
    std::memcpy(g_moduleDirectory.text, directory, length);
    g_moduleDirectory.text[length] = '\0';
    g_moduleDirectory.length = static_cast<uint32_t>(length);
}

uint32_t ComposeModulePath(const char* name, char* out, uint32_t outSize) {
    // A private copy, so out may overlap name.
    char scratch[kPathSize + 1];
    std::strncpy(scratch, name, kPathSize);
    scratch[kPathSize] = '\0';
    uint32_t length = static_cast<uint32_t>(std::strlen(scratch));
    const ModuleDirectory& dir = g_moduleDirectory;

    if (scratch[0] == '/' || dir.length == 0 || std::strchr(scratch, ':') != nullptr) {
        if (length < outSize) std::memcpy(out, scratch, length + 1);
        return length + 1;
    }

    const char* relative = scratch;
    if (relative[0] == '.' && IsSeparator(relative[1])) relative += 2;
    uint32_t remaining = static_cast<uint32_t>(std::strlen(relative));
    uint32_t nameLength = remaining != 0 ? remaining + 1 : 0;
    uint32_t dirLength = dir.length == 1 ? 0 : dir.length;
    uint32_t total = nameLength + dirLength;
    if (total >= outSize) return total + 1;
    std::memcpy(out, dir.text, dirLength);
    out[dirLength] = '\0';
    // An empty name gives the directory alone: no separator is written, so the
    // text never needs more than the size returned.
    if (nameLength != 0) {
        out[dirLength] = '/';
        std::memcpy(out + dirLength + 1, relative, remaining + 1);
    }
    return total + 1;
}

} // namespace

} // namespace zk

extern "C" ZK_API uint32_t ZK_CALL zkGetAppArgCount(void) {
    return zk::Kernel().application.argCount;
}

extern "C" ZK_API const char* ZK_CALL zkGetAppArg(uint32_t index) {
    const zk::ApplicationInfo& app = zk::Kernel().application;
    if (index >= app.argCount || index >= zk::kMaxStoredArgs) return nullptr;
    return app.args[index];
}

extern "C" ZK_API void ZK_CALL zkSetModuleDir(const char* directory) {
    if (!directory) return;
    zk::SetModuleDirectory(directory);
}

extern "C" ZK_API const char* ZK_CALL zkGetModuleDir(void) {
    return zk::g_moduleDirectory.text;
}

extern "C" ZK_API uint32_t ZK_CALL zkGetModulePath(const char* name, char* out, uint32_t outSize) {
    if (!name || !out) return 0;
    return zk::ComposeModulePath(name, out, outSize);
}

extern "C" ZK_API int32_t ZK_CALL zkLoadModuleEx(void*, void*, void*) {
    return ZK_OK;
}
extern "C" ZK_API int32_t ZK_CALL zkLoadModule(void) {
    return ZK_ERR_NOT_SUPPORTED;
}
extern "C" ZK_API int32_t ZK_CALL zkUnloadModule(void) {
    return ZK_ERR_NOT_SUPPORTED;
}
extern "C" ZK_API int32_t ZK_CALL zkLoadDefaultModule(void) {
    return ZK_ERR_NOT_SUPPORTED;
}
