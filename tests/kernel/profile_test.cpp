// Profile (ini) files read from tests/data/profiles through a mount: the
// sections and values the text rules give, lookups without regard to case,
// the table of 32, and the system pool left as it was after every close and
// after every failed open.
#include "support/library_test.h"

#include <string>
#include <vector>

namespace {

// Shift_JIS texts used by the data files. The first one's second byte is
// 0x5D (']'), the key's first two characters have trailing bytes 0x5D and
// 0x5B ('[').
#define SJ_HYOUKA "\x95\x5d\x89\xbf"
#define SJ_ZOON "\x83\x5d\x81\x5b\x83\x93"
#define SJ_SETTEI "\x90\xdd\x92\xe8"
#define SJ_ONRYOU "\x89\xb9\x97\xca"
#define SJ_OOKII "\x91\xe5\x82\xab\x82\xa2"
#define SJ_NAMAE "\x96\xbc\x91\x4f"
#define SJ_TESUTO "\x83\x65\x83\x58\x83\x67"

class ProfileTest : public zktest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(zkMount("/profiles/", ZK_SOURCE_DIR "/tests/data/profiles", 0), 0);
    }
    void TearDown() override {
        zkUnmount("/profiles/");
        LibraryTest::TearDown();
    }
    // Every section with its entries, in file order, as one text.
    static std::string Dump(const ProfileFile* profile) {
        std::string text;
        for (uint32_t i = 0; i < profile->sectionCount; ++i) {
            const ProfileSection& section = profile->sections[i];
            text.append("[").append(section.name).append("]");
            for (uint32_t k = 0; k < section.entryCount; ++k) {
                text.append(" <").append(section.entries[k].key).append(">=<");
                text.append(section.entries[k].value).append(">");
            }
            text += "\n";
        }
        return text;
    }
};

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
         "[" SJ_HYOUKA "] <" SJ_ZOON ">=<1>\n"
         "[Unclosed] <k>=<v>\n"
         "[" SJ_SETTEI "] <" SJ_ONRYOU ">=<" SJ_OOKII "> <" SJ_NAMAE ">=<" SJ_TESUTO ">\n"
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
        EXPECT_EQ(profile->inUse, 1u);
        EXPECT_EQ(Dump(profile), c.sections) << c.path;
        zkCloseProfile(profile);
        EXPECT_EQ(profile->inUse, 0u);
        EXPECT_EQ(zktest::UsedBlocks(), before) << c.path << ": blocks left after close";
    }
}

TEST_F(ProfileTest, LookupsIgnoreTheCaseOfLettersAndTakeTheFirstMatch) {
    ProfileFile* profile = zkOpenProfile("/profiles/game.ini");
    ASSERT_NE(profile, nullptr);
    ProfileSection* video = zkGetProfileSection(profile, "VIDEO");
    ASSERT_EQ(video, &profile->sections[0]); // "Video" comes before "VIDEO"
    EXPECT_STREQ(zkGetProfileString(profile, video, "TITLE"), "Space Trader");
    EXPECT_STREQ(zkGetProfileString(profile, video, ""), "x");
    ProfileSection* settings = zkGetProfileSection(profile, SJ_SETTEI);
    EXPECT_STREQ(zkGetProfileString(profile, settings, SJ_NAMAE), SJ_TESUTO);
    // What is not there, and arguments that name nothing, give null or "".
    EXPECT_EQ(zkGetProfileSection(profile, "Videos"), nullptr);
    for (const char* value : {zkGetProfileString(profile, video, "Depth"),
                              zkGetProfileString(profile, nullptr, "Width"),
                              zkGetProfileString(profile, video, nullptr)})
        EXPECT_STREQ(value, "");
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
        open.push_back(zkOpenProfile("/profiles/lf_only.ini"));
    for (ProfileFile* profile : open)
        ASSERT_NE(profile, nullptr);
    EXPECT_EQ(zkOpenProfile("/profiles/lf_only.ini"), nullptr);
    zkCloseProfile(open[7]);
    EXPECT_EQ(zkOpenProfile("/profiles/game.ini"), open[7]); // the freed record again
    ASSERT_EQ(zkTerminate(), 0);
    for (ProfileFile* profile : open) {
        EXPECT_EQ(profile->inUse, 0u);
        EXPECT_EQ(profile->sections, nullptr);
    }
    ASSERT_EQ(zkInitializeEx(zktest::kArenaSize, zktest::kDescriptors), 0);
    ASSERT_EQ(zkMount("/profiles/", ZK_SOURCE_DIR "/tests/data/profiles", 0), 0);
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
    EXPECT_GT(zktest::WalkRefusals("game.ini",
                                   [] {
                                       ProfileFile* profile = zkOpenProfile("/profiles/game.ini");
                                       const bool ok = profile && Dump(profile).substr(0, 20) ==
                                                                      "[Video] <Width>=<128";
                                       zkCloseProfile(profile);
                                       return ok;
                                   }),
              48u);
}

} // namespace
