// The library registry and the version banners.
#include "kernel/library_registry.h"

#include <zk/trace.h>

#include <cstring>

namespace zk {

LibraryRegistry& LibraryRegistry::Instance() {
    static LibraryRegistry registry;
    if (!registry.built_) registry.Build();
    return registry;
}

void LibraryRegistry::Build() {
    for (LibraryRecord& record : records_) {
        record.name[0] = '\0';
        record.nameLength = 0;
    }
    count_ = 0;
    built_ = true;
}

void LibraryRegistry::Fill(LibraryRecord& record, os::Handle module, const char* name) {
    record.module = module;
    uint32_t length = 0;
    while (name && length < kMaxNameLength && name[length] != '\0') {
        record.name[length] = name[length];
        ++length;
    }
    record.name[length] = '\0';
    record.nameLength = length;

    uint32_t size = 0;
    const void* resource = os::ModuleVersionResource(module, &size);
    ModuleVersions versions{};
    ParseVersionResource(resource, size, &versions);
    std::memcpy(record.productVersion, versions.product, sizeof(record.productVersion));
    std::memcpy(record.fileVersion, versions.file, sizeof(record.fileVersion));
}

LibraryRecord* LibraryRegistry::SetKernel(os::Handle module) {
    Fill(records_[0], module, "Kernel");
    return &records_[0];
}

LibraryRecord* LibraryRegistry::Register(os::Handle module, const char* name) {
    if (!module) return nullptr; // no module to register
    LibraryRecord* record = nullptr;
    for (uint32_t i = 1; i <= count_; ++i) {
        if (records_[i].module == module) {
            record = &records_[i];
            break;
        }
    }
    if (!record) {
        if (count_ >= kMaxLibraries) return nullptr;
        record = &records_[++count_];
        Fill(*record, module, name);
    }
    PrintBanner(*record);
    return record;
}

void PrintNoticeLine() {
    zkTrace("    Copyright (C) QAX kernel developers. All rights reserved.\n");
}

void LibraryRegistry::PrintBanner(const LibraryRecord& record) {
    zkTrace("QAX %s Library %u.%u.%u.%u\n", record.name, record.fileVersion[0],
            record.fileVersion[1], record.fileVersion[2], record.fileVersion[3]);
    PrintNoticeLine();
}

} // namespace zk

extern "C" ZK_API LibraryRecord* ZK_CALL zkRegisterLibrary(zkNativeHandle module,
                                                           const char* name) {
    return zk::LibraryRegistry::Instance().Register(module, name);
}

extern "C" ZK_API void ZK_CALL zkOutputLibraryVersion(const char* name, uint32_t first,
                                                      uint32_t second, uint32_t third,
                                                      uint32_t fourth) {
    zkTrace("QAX %s Library %u.%u.%u.%u\n", name ? name : "", third, fourth, first, second);
    zk::PrintNoticeLine();
}
