// The library's version resource: the compiled-in four-part version served
// in the Windows VS_VERSIONINFO layout, so that the version reader works the
// same on both systems.
#include "platform/posix/posix_internal.h"

#include "zk_version.h"

#include <pthread.h>

#include <cstring>

namespace zk::os::posix {
namespace {

// Header (6 bytes) + L"VS_VERSION_INFO" with its terminator (32) + padding to
// 4 (2) + VS_FIXEDFILEINFO (13 double words).
constexpr uint32_t kFixedInfoSize = 13 * 4;
constexpr uint32_t kResourceSize = 6 + 32 + 2 + kFixedInfoSize;

unsigned char gResource[kResourceSize];
uint32_t gResourceSize = 0;
pthread_once_t gResourceOnce = PTHREAD_ONCE_INIT;

void Put16(unsigned char* p, uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

void Put32(unsigned char* p, uint32_t v) {
    Put16(p, static_cast<uint16_t>(v));
    Put16(p + 2, static_cast<uint16_t>(v >> 16));
}

void BuildLibraryResource() {
    gResourceSize = BuildVersionResource(ZK_VERSION_MAJOR, ZK_VERSION_MINOR, ZK_VERSION_BUILD,
                                         ZK_VERSION_REVISION, gResource, sizeof(gResource));
}

} // namespace

uint32_t BuildVersionResource(uint16_t major, uint16_t minor, uint16_t build, uint16_t revision,
                              unsigned char* out, uint32_t capacity) {
    if (!out || capacity < kResourceSize) return 0;
    std::memset(out, 0, kResourceSize);
    Put16(out, kResourceSize);      // wLength
    Put16(out + 2, kFixedInfoSize); // wValueLength
    Put16(out + 4, 0);              // wType: binary
    const char key[] = "VS_VERSION_INFO";
    for (uint32_t i = 0; i < sizeof(key); ++i)
        Put16(out + 6 + 2 * i, static_cast<unsigned char>(key[i]));
    unsigned char* info = out + 40;
    uint32_t ms = static_cast<uint32_t>(major) << 16 | minor;
    uint32_t ls = static_cast<uint32_t>(build) << 16 | revision;
    Put32(info + 0, 0xFEEF04BDu); // dwSignature
    Put32(info + 4, 0x00010000u); // dwStrucVersion
    Put32(info + 8, ms);          // dwFileVersionMS
    Put32(info + 12, ls);         // dwFileVersionLS
    Put32(info + 16, ms);         // dwProductVersionMS
    Put32(info + 20, ls);         // dwProductVersionLS
    return kResourceSize;         // flags, OS, type and dates stay 0
}

} // namespace zk::os::posix

namespace zk::os {

const void* ModuleVersionResource(Handle module, uint32_t* size) {
    if (size) *size = 0;
    if (!module || module != LibraryModule()) return nullptr;
    pthread_once(&posix::gResourceOnce, posix::BuildLibraryResource);
    if (size) *size = posix::gResourceSize;
    return posix::gResource;
}

} // namespace zk::os
