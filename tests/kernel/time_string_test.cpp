// Local time, calendar seconds, string length and the signed-byte comparison.
#include "support/library_test.h"

#include <cstring>
#include <ctime>
#include <string>

namespace {

TEST(Time, CalendarSecondsMatchTheRuntime) {
    std::time_t before = std::time(nullptr);
    int32_t seconds = zkGetTimeSec();
    std::time_t after = std::time(nullptr);
    EXPECT_GE(seconds, static_cast<int32_t>(before));
    EXPECT_LE(seconds, static_cast<int32_t>(after));
}

TEST(Time, LocalTimeMatchesTheRuntimesLocalTime) {
    // Read both within the same second; try again if a second boundary fell between.
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::time_t now = std::time(nullptr);
        DateTime date{};
        zkGetTime(&date);
        if (std::time(nullptr) != now) continue;
        std::tm local = *std::localtime(&now);
        EXPECT_EQ(date.year, local.tm_year + 1900);
        EXPECT_EQ(date.month, local.tm_mon + 1);
        EXPECT_EQ(date.day, local.tm_mday);
        EXPECT_EQ(date.hour, local.tm_hour);
        EXPECT_EQ(date.minute, local.tm_min);
        EXPECT_EQ(date.second, local.tm_sec);
        return;
    }
    FAIL() << "no quiet second to compare in";
}

TEST(Strings, LengthCountsBytesAndCompareUsesSignedBytes) {
    EXPECT_EQ(zkGetStringLength(""), 0u);
    EXPECT_EQ(zkGetStringLength("abc"), 3u);
    EXPECT_EQ(zkGetStringLength("\x82\xa0z"), 3u);
    EXPECT_EQ(zkCompareString("abc", "abc"), 0);
    EXPECT_EQ(zkCompareString("abc", "abd"), -1);
    EXPECT_EQ(zkCompareString("abc", "ab"), 99);
    EXPECT_EQ(zkCompareString("ab", "abc"), 0) << "the walk ends with the first string";
    EXPECT_EQ(zkCompareString("x\xE0y", "xay"), -32 - 97);
    EXPECT_EQ(zkCompareString("xay", "x\xE0y"), 97 + 32);
    EXPECT_EQ(zkCompareString("ABC", "abc"), 'A' - 'a') << "case-sensitive";
    EXPECT_EQ(zkCompareString("", ""), 0);
}

TEST(Strings, CopyWithAStartPastTheLimitStaysInsideTheDestination) {
    // The destination holds limit + 1 bytes; the rest is a guard.
    char text[16];
    std::memset(text, '#', sizeof(text));
    EXPECT_EQ(zkCopyString(text, 7, 9, "xyz"), 7u);
    EXPECT_EQ(text[7], '\0');
    EXPECT_EQ(std::string(text + 8, 8), std::string(8, '#'));
}

} // namespace
