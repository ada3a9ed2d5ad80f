// Fuzzes the version-resource parser with arbitrary byte blocks.
//
// The bytes are handed over in a heap block of exactly their length, so any
// read past it is caught by the address sanitizer. Checked besides: a refused
// block leaves both versions zero, and an accepted one holds the fixed
// information's signature inside the block.
#include "kernel/version_resource.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

bool HoldsSignature(const uint8_t* data, size_t size) {
    static const uint8_t kSignature[4] = {0xBD, 0x04, 0xEF, 0xFE};
    for (size_t i = 0; i + 4 <= size; i += 4)
        if (std::memcmp(data + i, kSignature, 4) == 0) return true;
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // libFuzzer's own copy of the input is exactly size bytes long.
    zk::ModuleVersions versions;
    std::memset(&versions, 0xCC, sizeof(versions));
    const bool parsed = zk::ParseVersionResource(data, static_cast<uint32_t>(size), &versions);
    if (parsed) {
        Check(HoldsSignature(data, size));
    } else {
        const zk::ModuleVersions zero{};
        Check(std::memcmp(&versions, &zero, sizeof(zero)) == 0);
    }
    // A prefix of the bytes, in a block of its own: the length given is the
    // only bound the parser may trust.
    if (size > 1) {
        const size_t half = size / 2;
        uint8_t* prefix = new uint8_t[half];
        std::memcpy(prefix, data, half);
        zk::ModuleVersions shorter;
        if (!zk::ParseVersionResource(prefix, static_cast<uint32_t>(half), &shorter)) {
            const zk::ModuleVersions zero{};
            Check(std::memcmp(&shorter, &zero, sizeof(zero)) == 0);
        }
        delete[] prefix;
    }
    return 0;
}
