// The library registry: record 0 is the kernel itself, records 1 to 16 the
// libraries registered on top of it. Each record carries the module's product
// and file versions, read from its version resource. Changed only from the
// application's main thread.
#ifndef ZK_KERNEL_LIBRARY_REGISTRY_H
#define ZK_KERNEL_LIBRARY_REGISTRY_H

#include "kernel/version_resource.h"
#include "platform/platform.h"

#include <cstdint>

struct LibraryRecord {
    zk::os::Handle module;
    char name[20]; // at most 16 characters, terminated
    uint32_t nameLength;
    uint16_t productVersion[4]; // major, minor, build, revision
    uint16_t fileVersion[4];
};

namespace zk {

class LibraryRegistry {
public:
    static constexpr uint32_t kMaxLibraries = 16;
    static constexpr uint32_t kMaxNameLength = 16;

    // The registry, built on first use.
    static LibraryRegistry& Instance();

    // Fills record 0 with the kernel's own module and the name "Kernel".
    LibraryRecord* SetKernel(os::Handle module);
    // Finds the module's record or takes the next free one; prints its banner.
    // Null (and nothing printed) when all 16 records are taken.
    LibraryRecord* Register(os::Handle module, const char* name);
    uint32_t Count() const { return count_; }

    static void PrintBanner(const LibraryRecord& record);

private:
    void Build();
    static void Fill(LibraryRecord& record, os::Handle module, const char* name);

    LibraryRecord records_[kMaxLibraries + 1]{};
    uint32_t count_ = 0;
    bool built_ = false;
};

// The banner's second line: four spaces, the notice, a line end.
void PrintNoticeLine();

} // namespace zk

#endif // ZK_KERNEL_LIBRARY_REGISTRY_H
