// The version-resource reader against crafted byte blocks: a well-formed
// resource, then each way a block can be cut short or lie about itself. Every
// block is handed over in a vector of exactly its length, so a read past the
// end shows under the address sanitizer.
#include "kernel/version_resource.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

void Put16(Bytes& b, uint16_t v) {
    b.push_back(static_cast<unsigned char>(v));
    b.push_back(static_cast<unsigned char>(v >> 8));
}

void Put32(Bytes& b, uint32_t v) {
    Put16(b, static_cast<uint16_t>(v));
    Put16(b, static_cast<uint16_t>(v >> 16));
}

// A resource with the given key: header, key and terminator, padding to 4,
// and the fixed information (file 1.2.3.4, product 5.6.7.8) of 13 words.
Bytes Resource(const std::string& key = "VS_VERSION_INFO") {
    Bytes b;
    Put16(b, 0);  // total length, set below
    Put16(b, 52); // value length
    Put16(b, 0);  // binary
    for (char c : key)
        Put16(b, static_cast<unsigned char>(c));
    Put16(b, 0);
    while (b.size() % 4 != 0)
        b.push_back(0);
    Put32(b, 0xFEEF04BDu);
    Put32(b, 0x00010000u);
    Put32(b, 0x00010002u); // file 1.2
    Put32(b, 0x00030004u); //      .3.4
    Put32(b, 0x00050006u); // product 5.6
    Put32(b, 0x00070008u); //         .7.8
    for (int i = 0; i < 7; ++i)
        Put32(b, 0);
    b[0] = static_cast<unsigned char>(b.size());
    b[1] = static_cast<unsigned char>(b.size() >> 8);
    return b;
}

bool Parse(const Bytes& b, zk::ModuleVersions& v) {
    return zk::ParseVersionResource(b.data(), static_cast<uint32_t>(b.size()), &v);
}

void ExpectZero(const zk::ModuleVersions& v) {
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(v.file[i], 0);
        EXPECT_EQ(v.product[i], 0);
    }
}

TEST(VersionResource, ReadsFileAndProductVersions) {
    zk::ModuleVersions v;
    ASSERT_TRUE(Parse(Resource(), v));
    EXPECT_EQ(v.file[0], 1);
    EXPECT_EQ(v.file[1], 2);
    EXPECT_EQ(v.file[2], 3);
    EXPECT_EQ(v.file[3], 4);
    EXPECT_EQ(v.product[0], 5);
    EXPECT_EQ(v.product[3], 8);
}

TEST(VersionResource, KeyLengthMovesTheFixedInformationToTheNextBoundary) {
    // Keys of 1 to 4 characters end at every offset modulo 4.
    for (const char* key : {"A", "AB", "ABC", "ABCD"}) {
        zk::ModuleVersions v;
        ASSERT_TRUE(Parse(Resource(key), v)) << key;
        EXPECT_EQ(v.file[3], 4) << key;
    }
}

TEST(VersionResource, TruncatedHeaderIsRefused) {
    const Bytes full = Resource();
    for (size_t size = 0; size <= 6; ++size) {
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(size));
        zk::ModuleVersions v;
        EXPECT_FALSE(Parse(cut, v)) << size;
        ExpectZero(v);
    }
    zk::ModuleVersions v;
    EXPECT_FALSE(zk::ParseVersionResource(nullptr, 100, &v));
    ExpectZero(v);
}

TEST(VersionResource, KeyWithoutTerminatorIsRefused) {
    // The block ends inside the key, after a whole character and after half
    // of one (an odd length).
    const Bytes full = Resource();
    for (size_t size : {8u, 9u, 20u, 37u}) {
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(size));
        zk::ModuleVersions v;
        EXPECT_FALSE(Parse(cut, v)) << size;
        ExpectZero(v);
    }
    // A key of non-zero characters filling the whole block.
    Bytes noTerminator = {0, 0, 52, 0, 0, 0};
    for (int i = 0; i < 30; ++i)
        Put16(noTerminator, 'K');
    noTerminator[0] = static_cast<unsigned char>(noTerminator.size());
    zk::ModuleVersions v;
    EXPECT_FALSE(Parse(noTerminator, v));
}

TEST(VersionResource, ShortFixedInformationIsRefused) {
    const Bytes full = Resource();
    // Offset 40 starts the fixed information; the versions end 24 bytes later.
    for (size_t size : {38u, 40u, 44u, 63u}) {
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(size));
        zk::ModuleVersions v;
        EXPECT_FALSE(Parse(cut, v)) << size;
        ExpectZero(v);
    }
    const Bytes justEnough(full.begin(), full.begin() + 64);
    zk::ModuleVersions v;
    EXPECT_TRUE(Parse(justEnough, v));
    EXPECT_EQ(v.product[3], 8);
}

TEST(VersionResource, DeclaredLengthShortensTheBlock) {
    Bytes b = Resource();
    b[0] = 50; // the resource claims to end inside its fixed information
    b[1] = 0;
    zk::ModuleVersions v;
    EXPECT_FALSE(Parse(b, v));
    b[0] = 3; // shorter than its own header
    EXPECT_FALSE(Parse(b, v));
    ExpectZero(v);
    // A declared length beyond the bytes given does not extend them.
    b = Resource();
    b[0] = 0xFF;
    b[1] = 0xFF;
    EXPECT_TRUE(Parse(b, v));
}

TEST(VersionResource, ValueTooShortForTheVersionsIsRefused) {
    Bytes b = Resource();
    b[2] = 20; // value length below the 24 bytes the versions take
    zk::ModuleVersions v;
    EXPECT_FALSE(Parse(b, v));
    ExpectZero(v);
}

TEST(VersionResource, WrongSignatureIsRefused) {
    Bytes b = Resource();
    b[40] ^= 1;
    zk::ModuleVersions v;
    EXPECT_FALSE(Parse(b, v));
    ExpectZero(v);
}

} // namespace
