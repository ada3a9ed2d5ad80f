// Virtual memory for the arena and the available physical memory.
#include "platform/posix/posix_internal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace zk::os {

void* VirtualCommit(size_t size) {
    if (size == 0) return nullptr;
    // Anonymous pages are zero-filled; MAP_NORESERVE lets a large arena be
    // committed without reserving swap for all of it up front.
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

void VirtualRelease(void* address, size_t size) {
    if (address && size) munmap(address, size);
}

uint64_t AvailablePhysicalMemory() {
    // MemAvailable counts reclaimable caches too; older kernels lack it, and
    // then the free RAM of sysinfo is the answer.
    int fd = open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char text[4096];
        ssize_t n = read(fd, text, sizeof(text) - 1);
        close(fd);
        if (n > 0) {
            text[n] = '\0';
            const char* line = std::strstr(text, "MemAvailable:");
            if (line) {
                unsigned long long kib = std::strtoull(line + 13, nullptr, 10);
                if (kib) return static_cast<uint64_t>(kib) * 1024u;
            }
        }
    }
    struct sysinfo info {};
    if (sysinfo(&info) != 0) return 0;
    return static_cast<uint64_t>(info.freeram) * info.mem_unit;
}

} // namespace zk::os
