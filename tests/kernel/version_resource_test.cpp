// The version-resource reader against crafted byte blocks: well-formed
// resources, then each way a block can be cut short or lie about itself. Every
// block is handed over in a vector of exactly its length, so a read past the
// end shows under the address sanitizer.
#include "kernel/version_resource.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Bytes = std::vector<unsigned char>;

void Put16(Bytes& b, uint32_t v) {
    b.push_back(static_cast<unsigned char>(v));
    b.push_back(static_cast<unsigned char>(v >> 8));
}

// A resource with the given key: header, key and terminator, padding to 4,
// and the fixed information (file 1.2.3.4, product 5.6.7.8) of 13 words.
Bytes Resource(const std::string& key = "VS_VERSION_INFO") {
    Bytes b;
    for (uint32_t v : {0u, 52u, 0u}) // total length (set below), value length, binary
        Put16(b, v);
    for (char c : key + '\0')
        Put16(b, static_cast<unsigned char>(c));
    b.resize((b.size() + 3) & ~size_t{3});
    for (uint32_t v : {0x04BDu, 0xFEEFu, 0u, 1u, 2u, 1u, 4u, 3u, 6u, 5u, 8u, 7u})
        Put16(b, v);
    b.resize(b.size() + 28);
    b[0] = static_cast<unsigned char>(b.size());
    return b;
}

// "file product" as dotted numbers; versions are pre-set to garbage so that a
// refusal must clear them.
std::string Parse(const Bytes& b) {
    zk::ModuleVersions v;
    std::memset(&v, 0x5A, sizeof(v));
    bool ok = zk::ParseVersionResource(b.empty() ? nullptr : b.data(),
                                       static_cast<uint32_t>(b.size()), &v);
    char text[64];
    std::snprintf(text, sizeof(text), "%s %u.%u.%u.%u %u.%u.%u.%u", ok ? "ok" : "refused",
                  v.file[0], v.file[1], v.file[2], v.file[3], v.product[0], v.product[1],
                  v.product[2], v.product[3]);
    return text;
}

TEST(VersionResource, ReadsBothVersionsAfterKeysOfEveryLength) {
    // Keys of 1 to 4 characters end at every offset modulo 4.
    for (const char* key : {"VS_VERSION_INFO", "A", "AB", "ABC", "ABCD"})
        EXPECT_EQ(Parse(Resource(key)), "ok 1.2.3.4 5.6.7.8") << key;
}

TEST(VersionResource, CutOrLyingBlocksAreRefusedWithZeroVersions) {
    // size: bytes handed over, cut from the block, -1 for all of them; at: a
    // byte overwritten with value, or -1.
    // clang-format off
    struct Case { const char* what; int size, at; unsigned char value;
                  std::string key = "VS_VERSION_INFO"; };
    // clang-format on
    std::vector<Case> cases = {
        {"declared length inside the fixed information", -1, 0, 50},
        {"declared length shorter than the header", -1, 0, 3},
        {"value too short for the versions", -1, 2, 20},
        {"wrong signature", -1, 40, 0xBC},
        {"key without terminator fills the block", 66, 0, 66, std::string(30, 'K')},
    };
    // Cut in the header, inside the key (also in the middle of a character),
    // and inside the fixed information, which starts at 40.
    for (int size : {1, 3, 5, 9, 38, 40, 63})
        cases.push_back({"cut", size, -1, 0});
    for (const Case& c : cases) {
        Bytes b = Resource(c.key);
        if (c.size >= 0) b.resize(static_cast<size_t>(c.size));
        if (c.at >= 0) b[static_cast<size_t>(c.at)] = c.value;
        EXPECT_EQ(Parse(b), "refused 0.0.0.0 0.0.0.0") << c.what << " " << c.size;
    }
}

} // namespace
