// Slide expansion: the format's small cases, then random streams against the reference.
#include "kiv_check.h"
#include "archive/slide_expand.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace zktest {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Expand(const Bytes& packed, uint32_t capacity = 4096) {
    Bytes out(capacity + 1, 0xAA); // one guard byte
    const uint32_t n = zk::SlideExpandBounded(out.data(), capacity, packed.data(),
                                              static_cast<uint32_t>(packed.size()));
    EXPECT_EQ(out[capacity], 0xAA) << "wrote past the destination";
    out.resize(n);
    return out;
}

TEST(SlideExpand, SmallStreamsOfTheFormat) {
    struct Case {
        const char* what;
        Bytes packed;
        Bytes expanded;
    };
    Bytes nineteenA(19, 0x41);
    const Case cases[] = {
        {"empty stream", {}, {}},
        {"a flag byte alone", {0xFF}, {}},
        {"eight literals",
         {0xFF, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48},
         {0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48}},
        {"reference to the zeroed window", {0x00, 0x00, 0x00}, {0, 0, 0}},
        {"a reference repeating what it stores", {0x01, 0x41, 0xEE, 0xFF}, nineteenA},
        {"a reference missing its second byte", {0x01, 0x41, 0xEE}, {0x41}},
        {"flag bits from the lowest: reference, literal, reference",
         {0x02, 0x00, 0x00, 0x7A, 0x00, 0x00},
         {0, 0, 0, 0x7A, 0, 0, 0}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Expand(c.packed), c.expanded) << c.what;

    // Eighteen literals wrap the write position to 0; a reference at 0xFFE of
    // length 5 then reads positions 0 and 1 after storing them itself.
    Bytes packed = {0xFF, 1,  2,  3,  4,  5,  6,    7,  8,  0xFF, 9,   10,
                    11,   12, 13, 14, 15, 16, 0x03, 17, 18, 0xFE, 0xF2};
    Bytes expected;
    for (uint8_t b = 1; b <= 18; ++b)
        expected.push_back(b);
    for (uint8_t b : {0x11, 0x12, 0x11, 0x12, 0x11})
        expected.push_back(b);
    EXPECT_EQ(Expand(packed), expected);
}

// Every byte sequence is a stream; up to 40 000 bytes fill and wrap the window many times,
// into destinations that stop the output anywhere.
TEST(SlideExpand, MatchesTheReferenceOnRandomStreams) {
    std::mt19937 random(20261125);
    for (int round = 0; round < 400; ++round) {
        const uint32_t size = round < 100 ? random() % 64 : random() % 40000;
        // Streams biased towards literals resemble packed text; others are
        // mostly references.
        const uint32_t literalBias = random() % 3;
        Bytes packed(size);
        for (uint32_t i = 0; i < size; ++i) {
            packed[i] = static_cast<uint8_t>(random());
            if (literalBias == 1 && i % 17 == 0) packed[i] = 0xFF;
        }
        const uint32_t capacity = random() % 2 ? 1u << 20 : random() % 5000;
        Bytes expected(capacity), actual(capacity + 1, 0x5C);
        const uint32_t n = kivtool::SlideUnpack(expected.data(), capacity, packed.data(), size);
        const uint32_t m = zk::SlideExpandBounded(actual.data(), capacity, packed.data(), size);
        ASSERT_EQ(m, n) << "round " << round;
        ASSERT_EQ(actual[capacity], 0x5C) << "round " << round;
        ASSERT_TRUE(std::equal(expected.begin(), expected.begin() + n, actual.begin()))
            << "round " << round;
    }
}

} // namespace
} // namespace zktest
