// Reading the four-part versions out of a version resource (the VS_VERSIONINFO
// byte layout). A pure function over a byte block: it reads nothing outside
// the block it is given, whatever the bytes say.
#ifndef ZK_KERNEL_VERSION_RESOURCE_H
#define ZK_KERNEL_VERSION_RESOURCE_H

#include <cstdint>

namespace zk {

// The four-part versions of a version resource.
struct ModuleVersions {
    uint16_t product[4]; // major, minor, build, revision
    uint16_t file[4];
};

// Reads the fixed file information of the version resource in the size bytes
// at bytes. The resource's own length field can only shorten the bytes read.
// False (versions all 0) when the bytes are missing, too short, the key has
// no terminator, the value is shorter than the versions, or the fixed
// information's signature is wrong.
bool ParseVersionResource(const void* bytes, uint32_t size, ModuleVersions* out);

} // namespace zk

#endif // ZK_KERNEL_VERSION_RESOURCE_H
