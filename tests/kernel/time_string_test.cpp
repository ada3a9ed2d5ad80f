// Local time and calendar seconds, string length, the signed-byte comparison
// and the bounded string copy.
#include "support/library_test.h"

#include <cstring>
#include <ctime>

namespace {

TEST(Time, LocalTimeAndSecondsMatchTheRuntimeWithinTwelveBytes) {
    // Read within one second; try again if a second boundary fell between.
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::time_t now = std::time(nullptr);
        std::vector<uint16_t> raw(8, 0xEEEE); // 6 and 7 lie past the structure
        zkGetTime(reinterpret_cast<DateTime*>(raw.data()));
        int32_t seconds = zkGetTimeSec();
        if (std::time(nullptr) != now) continue;
        std::tm t = *std::localtime(&now);
        EXPECT_EQ(seconds, static_cast<int32_t>(now));
        EXPECT_EQ(std::vector<int>(raw.begin(), raw.end()),
                  (std::vector<int>{t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min,
                                    t.tm_sec, 0xEEEE, 0xEEEE}));
        return;
    }
    FAIL() << "no quiet second to compare in";
}

TEST(Strings, LengthAndCompareWalkUntilTheFirstStringEndsOnSignedBytes) {
    EXPECT_EQ(zkGetStringLength("") + zkGetStringLength("\x82\xa0z"), 3u);
    // clang-format off
    struct Case { const char *first, *second; int32_t result; } cases[] = {
        {"abc", "abc", 0}, {"abc", "abd", -1}, {"abc", "ab", 99}, {"ab", "abc", 0}, {"", "x", 0},
        {"ABC", "abc", 'A' - 'a'}, {"x\xE0y", "xay", -32 - 97}, {"xay", "x\xE0y", 97 + 32}};
    // clang-format on
    for (const Case& c : cases)
        EXPECT_EQ(zkCompareString(c.first, c.second), c.result) << c.first << " vs " << c.second;
}

TEST(Strings, CopyStaysWithinLimitPlusOneBytes) {
    // text: the 16-byte destination afterwards; the limit is 7.
    // clang-format off
    struct Case { uint32_t start; const char* src; uint32_t result; const char* text; } cases[] = {
        {2, "abc", 5, "##abc\0##########"}, {3, "defghij", 7, "###defg\0########"},
        {9, "xyz", 7, "#######\0########"}}; // a start past the limit only terminates
    // clang-format on
    for (const Case& c : cases) {
        char text[16];
        std::memset(text, '#', sizeof(text));
        EXPECT_EQ(zkCopyString(text, 7, c.start, c.src), c.result) << c.start;
        EXPECT_EQ(std::string(text, 16), std::string(c.text, 16)) << c.start;
    }
}

} // namespace
