// Result codes in words: every code the result header lists has a text of
// its own, anything else reads "unknown result", and the guide's table of
// codes says what zkGetResultText says. The header and the guide are read as
// text, so a code added to either without the other fails here.
#include <zk.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace {

// The code of every "#define ZK_OK / ZK_ERR_* value" line of the result header.
std::map<std::string, int32_t> HeaderCodes() {
    std::ifstream in(ZK_SOURCE_DIR "/include/zk/result.h");
    const std::regex define(R"(^#define\s+(ZK_OK|ZK_ERR_\w+)\s+\(?(-?\d+)\)?)");
    std::map<std::string, int32_t> codes;
    std::smatch m;
    for (std::string line; std::getline(in, line);)
        if (std::regex_search(line, m, define)) codes[m[1]] = std::atoi(m[2].str().c_str());
    return codes;
}

TEST(ResultText, EveryCodeOfTheHeaderHasItsOwnTextAndOtherValuesAreUnknown) {
    const auto codes = HeaderCodes();
    ASSERT_GT(codes.size(), 25u);
    std::map<std::string, std::string> owner; // text -> the code's name
    for (const auto& [name, code] : codes) {
        const char* text = zkGetResultText(code);
        ASSERT_NE(text, nullptr) << name;
        EXPECT_STRNE(text, "") << name;
        EXPECT_STRNE(text, "unknown result") << name;
        const auto [it, fresh] = owner.emplace(text, name);
        EXPECT_TRUE(fresh) << name << " and " << it->second << " share \"" << text << '"';
    }
    // Spot checks that the parsed values are the compiled ones.
    EXPECT_EQ(codes.at("ZK_ERR_NO_DEVICE"), ZK_ERR_NO_DEVICE);
    EXPECT_EQ(codes.at("ZK_ERR_OPEN_FAILED"), ZK_ERR_OPEN_FAILED);
    EXPECT_STREQ(zkGetResultText(ZK_OK), "success");
    std::set<int32_t> listed;
    for (const auto& entry : codes)
        listed.insert(entry.second);
    for (int32_t value = -70; value <= 5; ++value)
        EXPECT_STREQ(zkGetResultText(value),
                     listed.count(value) ? zkGetResultText(value) : "unknown result")
            << value;
}

// The guide's table rows read "| code | `NAME` | text | meaning |".
TEST(ResultText, TheGuidesTableMatchesTheHeaderAndTheTexts) {
    std::ifstream in(ZK_SOURCE_DIR "/docs/guide.md");
    ASSERT_TRUE(in.good());
    const std::regex row(R"(^\|\s*(-?\d+)\s*\|\s*`(ZK_\w+)`\s*\|\s*([^|]*?)\s*\|)");
    std::map<std::string, int32_t> rows;
    std::smatch m;
    for (std::string line; std::getline(in, line);) {
        if (!std::regex_search(line, m, row)) continue;
        const int32_t code = std::atoi(m[1].str().c_str());
        rows[m[2]] = code;
        EXPECT_EQ(m[3].str(), zkGetResultText(code)) << line;
    }
    EXPECT_EQ(rows, HeaderCodes());
}

} // namespace
