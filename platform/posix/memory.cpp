// Virtual memory for the arena and the available physical memory.
#include "platform/posix/posix_internal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace zk::os {

namespace {

// The large page size of the targets that have one (x86-64, arm64 with 4 KiB
// pages): a commit of several of them starts on such a boundary, so that the
// system can back all of it with large pages.
constexpr size_t kLargePage = size_t{2} << 20;

} // namespace

void* VirtualCommit(size_t size) {
    if (size == 0) return nullptr;
    // Anonymous pages are zero-filled; MAP_NORESERVE lets a large arena be
    // committed without reserving swap for all of it up front.
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    if (size >= 2 * kLargePage && size <= SIZE_MAX - kLargePage) {
        // Map a large page more than asked and give back what lies before
        // the first boundary and after the end.
        void* p = mmap(nullptr, size + kLargePage, PROT_READ | PROT_WRITE, flags, -1, 0);
        if (p != MAP_FAILED) {
            const uintptr_t start = reinterpret_cast<uintptr_t>(p);
            const uintptr_t aligned = (start + kLargePage - 1) & ~uintptr_t{kLargePage - 1};
            if (aligned != start) munmap(p, aligned - start);
            // The mapping's pages end where those of the asked size do.
            const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
            const uintptr_t end = (aligned + size + page - 1) & ~(page - 1);
            const uintptr_t mappedEnd = (start + size + kLargePage + page - 1) & ~(page - 1);
            if (mappedEnd != end) munmap(reinterpret_cast<void*>(end), mappedEnd - end);
            return reinterpret_cast<void*>(aligned);
        }
    }
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

bool VirtualAdviseLargePages(void* address, size_t size) {
#ifdef MADV_HUGEPAGE
    return address && size && madvise(address, size, MADV_HUGEPAGE) == 0;
#else
    (void)address;
    (void)size;
    return false;
#endif
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
