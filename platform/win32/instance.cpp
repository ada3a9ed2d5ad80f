// The single-instance check: named mutexes and whether the system has a
// global namespace for them.
#include "platform/platform.h"

#include <windows.h>

namespace zk::os {

bool SystemSupportsGlobalNames() {
    OSVERSIONINFOA version{};
    version.dwOSVersionInfoSize = sizeof(version);
    if (!GetVersionExA(&version)) return false;
    // Terminal-services namespaces arrived with NT 5.0; the 9x line reports
    // its own numbering and qualifies from 9.0 on.
    if (version.dwPlatformId == VER_PLATFORM_WIN32_NT) return version.dwMajorVersion >= 5;
    if (version.dwPlatformId == VER_PLATFORM_WIN32_WINDOWS) return version.dwMajorVersion >= 9;
    return false;
}

Handle NamedMutexCreate(const char* name, bool* alreadyExisted) {
    if (alreadyExisted) *alreadyExisted = false;
    if (!name) return nullptr;
    SetLastError(ERROR_SUCCESS);
    HANDLE mutex = CreateMutexA(nullptr, FALSE, name);
    if (mutex && alreadyExisted) *alreadyExisted = GetLastError() == ERROR_ALREADY_EXISTS;
    return mutex;
}

} // namespace zk::os
