// Archives made by the archive tool's packer, and their little-endian fields.
#ifndef ZK_TESTS_ARCHIVE_ARCHIVE_BUILDER_H
#define ZK_TESTS_ARCHIVE_ARCHIVE_BUILDER_H

#include "kiv_pack.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace zktest {

using kivtool::PackItem;
using kivtool::PackOptions;

inline PackItem Item(const std::string& name, const std::string& data) {
    return PackItem{name, std::vector<uint8_t>(data.begin(), data.end())};
}

inline std::string Pack(const std::vector<PackItem>& items, const PackOptions& options = {}) {
    std::vector<uint8_t> bytes;
    std::string error;
    EXPECT_TRUE(kivtool::BuildArchive(items, options, &bytes, &error)) << error;
    return std::string(bytes.begin(), bytes.end());
}

// Little-endian fields of an archive's bytes.
inline void Put16(std::string& s, size_t at, uint16_t v) {
    s[at] = char(v & 0xFF);
    s[at + 1] = char(v >> 8);
}
inline void Put32(std::string& s, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        s[at + i] = char((v >> (8 * i)) & 0xFF);
}
inline uint32_t Get32(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i)
        v = (v << 8) | uint8_t(s[at + i]);
    return v;
}

// Every combination of the packer's layout options, with a name for messages.
struct Layout {
    std::string name;
    PackOptions options;
};
inline std::vector<Layout> AllLayouts() {
    std::vector<Layout> out;
    for (int bits = 0; bits < 16; ++bits) {
        PackOptions o;
        o.header48 = bits & 1;
        o.packedDirectory = (bits & 2) && o.header48;
        if ((bits & 2) && !o.header48) continue;
        o.foldedNames = bits & 4;
        o.nameOrder = bits & 8;
        for (uint16_t entrySize : {12, 20}) {
            o.entrySize = entrySize;
            out.push_back({std::string(o.header48 ? "48" : "32") +
                               (o.packedDirectory ? "+packed" : "") +
                               (o.foldedNames ? "+folded" : "") + (o.nameOrder ? "+ordered" : "") +
                               "+entry" + std::to_string(entrySize),
                           o});
        }
    }
    return out;
}

} // namespace zktest

#endif
