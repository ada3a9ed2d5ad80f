// Profile (ini) files read from tests/data/profiles through a mount: the
// sections and values the text rules give, lookups without regard to case,
// the table of 32, and the system pool left as it was after every close and
// after every failed open.
#include "support/library_test.h"

#include <span>
#include <string>
#include <vector>

namespace {

// Shift_JIS texts of the data files: "setting", "name", "test".
#define SJ_SETTEI "\x90\xdd\x92\xe8"
#define SJ_NAMAE "\x96\xbc\x91\x4f"
#define SJ_TESUTO "\x83\x65\x83\x58\x83\x67"

class ProfileTest : public zktest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(zkMount("/profiles/", ZK_SOURCE_DIR "/tests/data/profiles", 0), 0);
    }
};

// Every section with its entries, in file order, as one text.
std::string Dump(const ProfileFile* profile) {
    std::string text;
    for (const ProfileSection& section : std::span(profile->sections, profile->sectionCount)) {
        text.append("[").append(section.name).append("]");
        for (const auto& entry : std::span(section.entries, section.entryCount))
            text.append(" <").append(entry.key).append(">=<").append(entry.value).append(">");
        text += "\n";
    }
    return text;
}

TEST_F(ProfileTest, FilesGiveTheSectionsAndValuesOfTheTextRules) {
    struct Case {
        const char* path;
        const char* sections;
    } cases[] = {
        // CR LF lines: comments and lines before the first section skipped,
        // trimming of blanks and quotes, a line without '=', an empty key, a
        // ';' inside a value, text after ']', a header without ']', Shift_JIS
        // names, keys and values, an empty section, a last line without its end.
        {"/profiles/game.ini",
         "[Video] <Width>=<1280> <Height>=<720> <Title>=<Space Trader> "
         "<Caption>=<alpha \"beta\" gamma> <fullscreen>=<> <>=<x> <WIDTH>=<1920> "
         "<Note>=<100% ; not a comment>\n"
         "[Audio] <Volume>=<80> <Device>=<Speakers (USB)>\n"
         // a section name whose second byte is ']', a key with trailing bytes ']' and '['
         "[\x95\x5d\x89\xbf] <\x83\x5d\x81\x5b\x83\x93>=<1>\n"
         "[Unclosed] <k>=<v>\n"
         "[" SJ_SETTEI "] <\x89\xb9\x97\xca>=<\x91\xe5\x82\xab\x82\xa2> <" SJ_NAMAE ">=<" SJ_TESUTO
         ">\n"
         "[VIDEO] <Width>=<640>\n"
         "[Empty]\n"
         "[Tail] <last>=<>\n"},
        // Line feeds alone end no line: the whole rest is the first header's line.
        {"/profiles/lf_only.ini", "[First]\n"},
        // A line feed ends a value but not its line; a zero byte ends the text.
        {"/profiles/mixed.ini", "[S] <a>=<1> <c>=<3>\n[Z] <x>=<1>\n"},
        {"/profiles/no_sections.ini", ""},
    };
    for (const Case& c : cases) {
        const uint32_t before = zktest::UsedBlocks();
        ProfileFile* profile = zkOpenProfile(c.path);
        ASSERT_NE(profile, nullptr) << c.path;
        EXPECT_EQ(Dump(profile), c.sections) << c.path;
        const uint32_t inUse = profile->inUse;
        zkCloseProfile(profile);
        EXPECT_EQ(zktest::Codes({inUse, profile->inUse, zktest::UsedBlocks()}),
                  zktest::Codes({1, 0, before}))
            << c.path;
    }
}

TEST_F(ProfileTest, LookupsIgnoreTheCaseOfLettersAndTakeTheFirstMatch) {
    ProfileFile* profile = zkOpenProfile("/profiles/game.ini");
    ASSERT_NE(profile, nullptr);
    ProfileSection* video = zkGetProfileSection(profile, "VIDEO");
    ASSERT_EQ(video, &profile->sections[0]); // "Video" comes before "VIDEO"
    ProfileSection* settings = zkGetProfileSection(profile, SJ_SETTEI);
    // What is not there, and arguments that name nothing, give null or "".
    EXPECT_EQ(zkGetProfileSection(profile, "Videos"), nullptr);
    const std::vector<std::string> values = {zkGetProfileString(profile, video, "TITLE"),
                                             zkGetProfileString(profile, video, ""),
                                             zkGetProfileString(profile, settings, SJ_NAMAE),
                                             zkGetProfileString(profile, video, "Depth"),
                                             zkGetProfileString(profile, nullptr, "Width"),
                                             zkGetProfileString(profile, video, nullptr)};
    EXPECT_EQ(values, (std::vector<std::string>{"Space Trader", "x", SJ_TESUTO, "", "", ""}));
    zkCloseProfile(profile);
    EXPECT_EQ(zkGetProfileSection(profile, "Video"), nullptr);
    zkCloseProfile(profile); // a second close does nothing
    EXPECT_EQ(zkOpenProfile("/profiles/missing.ini"), nullptr);
}

// The table holds 32 and reuses a closed record; termination closes what is
// left open, and after a restart the whole table is free again.
TEST_F(ProfileTest, ThirtyTwoOpenAtOnceTheThirtyThirdFailsAndTerminationClosesThem) {
    std::vector<ProfileFile*> open;
    for (int i = 0; i < 32; ++i)
        ASSERT_NE(open.emplace_back(zkOpenProfile("/profiles/lf_only.ini")), nullptr);
    EXPECT_EQ(zkOpenProfile("/profiles/lf_only.ini"), nullptr);
    zkCloseProfile(open[7]);
    EXPECT_EQ(zkOpenProfile("/profiles/game.ini"), open[7]); // the freed record again
    ASSERT_EQ(zkTerminate(), 0);
    for (ProfileFile* profile : open)
        EXPECT_TRUE(profile->inUse == 0 && profile->sections == nullptr);
    SetUp();
    const uint32_t restarted = zktest::UsedBlocks();
    zkCloseProfile(open[7]); // closed at termination: nothing to free in the new pool
    for (ProfileFile*& profile : open)
        ASSERT_NE(profile = zkOpenProfile("/profiles/mixed.ini"), nullptr);
    for (ProfileFile* profile : open)
        zkCloseProfile(profile);
    EXPECT_EQ(zktest::UsedBlocks(), restarted);
}

// The text, 8 tables and 40 strings: 49 allocations that each fail once.
TEST_F(ProfileTest, AFailedAllocationAtAnyPointFailsTheOpenAndGivesEverythingBack) {
    auto open = [] {
        ProfileFile* profile = zkOpenProfile("/profiles/game.ini");
        const bool ok = profile && Dump(profile).starts_with("[Video] <Width>=<128");
        zkCloseProfile(profile);
        return ok;
    };
    EXPECT_GT(zktest::WalkRefusals("game.ini", open), 48u);
}

} // namespace
