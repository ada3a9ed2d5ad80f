// Virtual memory for the arena and the physical-memory figure that sizes it.
#include "platform/platform.h"

#include <windows.h>

namespace zk::os {

void* VirtualCommit(size_t size) {
    if (size == 0) return nullptr;
    // Fresh committed pages are zero-filled by the system.
    return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
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
