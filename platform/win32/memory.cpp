// Virtual memory for the arena and the physical-memory figure that sizes it.
#include "platform/platform.h"

#include <windows.h>

namespace zk::os {

void* VirtualCommit(size_t size) {
    if (size == 0) return nullptr;
    // Fresh committed pages are zero-filled by the system.
    return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

// Large pages on this system are committed whole at allocation, cannot be
// paged out and need the right to lock memory, which ordinary programs lack:
// the arena keeps ordinary pages.
bool VirtualAdviseLargePages(void* /*address*/, size_t /*size*/) {
    return false;
}

void VirtualRelease(void* address, size_t /*size*/) {
    // MEM_RELEASE frees the whole reservation and requires a size of 0.
    if (address) VirtualFree(address, 0, MEM_RELEASE);
}

uint64_t AvailablePhysicalMemory() {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    return GlobalMemoryStatusEx(&status) ? status.ullAvailPhys : 0;
}

} // namespace zk::os
