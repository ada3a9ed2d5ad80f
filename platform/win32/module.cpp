// Module, process and environment services: module handles and paths, the
// command line, the current directory, version resources and debugger output.
#include "platform/platform.h"
#include "platform/win32/library_state.h"

// <windows.h> maps SetCurrentDirectory to its A or W form; the name here is
// the platform layer's own.
#undef SetCurrentDirectory

namespace zk::os {

Handle LibraryModule() {
    return win32::LoadedModule();
}

Handle ExecutableModule() {
    return GetModuleHandleA(nullptr);
}

uint32_t ExecutablePath(char* out, uint32_t size) {
    if (!out || size == 0) return 0;
    DWORD length = GetModuleFileNameA(nullptr, out, size);
    if (length == 0) {
        out[0] = '\0';
        return 0;
    }
    // A path that does not fit comes back cut to size characters, and older
    // systems leave it unterminated: keep size - 1 of them.
    if (length >= size) length = size - 1;
    out[length] = '\0';
    return length;
}

const char* CommandLine() {
    return GetCommandLineA();
}

bool EnvironmentVariable(const char* name, char* out, uint32_t size) {
    if (!name || !out || size == 0) return false;
    out[0] = '\0';
    const DWORD length = GetEnvironmentVariableA(name, out, size);
    if (length == 0 || length >= size) {
        out[0] = '\0';
        return false;
    }
    return true;
}

bool SetCurrentDirectory(const char* path) {
    return path && SetCurrentDirectoryA(path) != 0;
}

const void* ModuleVersionResource(Handle module, uint32_t* size) {
    if (size) *size = 0;
    HMODULE owner = static_cast<HMODULE>(module);
    HRSRC found = FindResourceA(owner, MAKEINTRESOURCEA(1), MAKEINTRESOURCEA(16) /* RT_VERSION */);
    if (!found) return nullptr;
    HGLOBAL loaded = LoadResource(owner, found);
    if (!loaded) return nullptr;
    // Resource data is mapped with the module: it stays valid while the module
    // is loaded and needs no freeing.
    const void* bytes = LockResource(loaded);
    if (bytes && size) *size = SizeofResource(owner, found);
    return bytes;
}

void DebugOutput(const char* text) {
    if (text) OutputDebugStringA(text);
}

} // namespace zk::os
