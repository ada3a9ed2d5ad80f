// The version-resource reader. The block starts with a 6-byte header (total
// length, value length, type, little-endian 16-bit each), then the key in
// UTF-16 with its terminator, padding to the next 4-byte boundary, and the
// fixed file information: signature, structure version, file version (high,
// low), product version (high, low), 32-bit each.
#include "kernel/version_resource.h"

namespace zk {

namespace {

constexpr uint32_t kFixedInfoSignature = 0xFEEF04BDu;
constexpr uint32_t kResourceHeaderSize = 6; // total length, value length, type
constexpr uint32_t kFixedInfoBytes = 6 * 4; // signature .. product version low

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
    if (!bytes || size < kResourceHeaderSize) return false;
    const unsigned char* base = static_cast<const unsigned char*>(bytes);
    // Bytes past the resource's own length belong to something else.
    const uint32_t declared = ReadU16(base);
    if (declared < size) size = declared;
    if (size < kResourceHeaderSize || ReadU16(base + 2) < kFixedInfoBytes) return false;

    // The key: UTF-16 characters up to and including the terminator.
    uint32_t offset = kResourceHeaderSize;
    for (;;) {
        if (size - offset < 2) return false;
        const uint16_t character = ReadU16(base + offset);
        offset += 2;
        if (character == 0) break;
    }
    // The fixed information starts on the next 4-byte boundary of the resource.
    offset = (offset + 3u) & ~3u;
    if (offset > size || size - offset < kFixedInfoBytes) return false;
    const unsigned char* info = base + offset;
    if (ReadU32(info) != kFixedInfoSignature) return false;
    SplitVersion(ReadU32(info + 8), ReadU32(info + 12), out->file);
    SplitVersion(ReadU32(info + 16), ReadU32(info + 20), out->product);
    return true;
}

} // namespace zk
