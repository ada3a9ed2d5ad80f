// The library registry, version-resource reading and the version banners.
#include "kernel/library_registry.h"

#include <zk/trace.h>

#include <cstring>

namespace zk {

namespace {

constexpr uint32_t kFixedInfoSignature = 0xFEEF04BDu;
constexpr uint32_t kResourceHeaderSize = 6; // total length, value length, type
constexpr uint32_t kFixedInfoWords = 6;     // signature .. product version low

uint16_t ReadU16(const unsigned char* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t ReadU32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void SplitVersion(uint32_t high, uint32_t low, uint16_t (&out)[4]) {
    out[0] = static_cast<uint16_t>(high >> 16);
    out[1] = static_cast<uint16_t>(high & 0xFFFFu);
    out[2] = static_cast<uint16_t>(low >> 16);
    out[3] = static_cast<uint16_t>(low & 0xFFFFu);
}

} // namespace

bool ParseVersionResource(const void* bytes, uint32_t size, ModuleVersions* out) {
    *out = ModuleVersions{};
    if (!bytes) return false;
    const unsigned char* base = static_cast<const unsigned char*>(bytes);
    uint32_t offset = kResourceHeaderSize;
    // The key: UTF-16 characters up to and including the terminator.
    for (;;) {
        if (offset + 2 > size) return false;
        uint16_t character = ReadU16(base + offset);
        offset += 2;
        if (character == 0) break;
    }
    // The fixed information starts on the next 4-byte boundary of the resource.
    offset = (offset + 3u) & ~3u;
    if (offset > size || size - offset < kFixedInfoWords * 4) return false;
    const unsigned char* info = base + offset;
    if (ReadU32(info) != kFixedInfoSignature) return false;
    SplitVersion(ReadU32(info + 8), ReadU32(info + 12), out->file);
    SplitVersion(ReadU32(info + 16), ReadU32(info + 20), out->product);
    return true;
}

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
