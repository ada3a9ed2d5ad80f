// Command-line splitting (seen through a child program started with crafted
// arguments), the module directory and module paths.
#include "support/library_test.h"
#include "support/process.h"

#include <cstring>
#include <fstream>

namespace {

using Strings = std::vector<std::string>;

// Runs args_child with the arguments and reads back what the library split:
// the count, the stored arguments, and "null" for the one past them.
Strings RunSplit(const Strings& args) {
    if (zktest::RunChildProgram("args_child", args) != 0) return {"child failed"};
    std::ifstream in(zktest::ChildProgramPath("args_child") + ".args", std::ios::binary);
    Strings fields;
    for (std::string field; std::getline(in, field, '\0');)
        fields.push_back(field);
    return fields;
}

TEST(CommandLine, SplitsQuotesTabsAndEmptyArgumentsAndStoresThirtyTwo) {
    const std::string path = zktest::ChildProgramPath("args_child");
    Strings many;
    for (int i = 0; i < 40; ++i)
        many.push_back("arg" + std::to_string(i));
    Strings firstThirtyTwo = {"41", path};
    firstThirtyTwo.insert(firstThirtyTwo.end(), many.begin(), many.begin() + 31);
    firstThirtyTwo.push_back("null");
    // clang-format off
    struct Case { Strings given, split; } cases[] = {
        {{"a b", "c"}, {"3", path, "a b", "c", "null"}},     // a quoted space stays
        {{"\"ab\"cd", "e"}, {"3", path, "ab", "e", "null"}}, // text after a closing quote is lost
        {{"x\"y\"z", "p\tq"}, {"3", path, "x\"y\"z", "p\tq", "null"}}, // inner quotes and tabs stay
        {{"", "z"}, {"3", path, "", "z", "null"}}, // an empty quoted argument counts
        {many, firstThirtyTwo},                    // more than 32 are counted, not stored
    };
    // clang-format on
    for (const Case& c : cases)
        EXPECT_EQ(RunSplit(c.given), c.split);
}

TEST(CommandLine, OverlongCommandLineIsCutToFit) {
    // 300 arguments of 19 characters: far more than the 4095 characters kept.
    // Whole arguments that fit, plus at most one cut short at the end.
    const size_t count = std::stoul(RunSplit(Strings(300, std::string(19, 'w')))[0]),
                 whole = (4095 - zktest::ChildProgramPath("args_child").size() - 1) / 20;
    EXPECT_TRUE(count >= 1 + whole && count <= 2 + whole) << count;
}

// ---- module directory and paths --------------------------------------------------------

TEST(ModulePath, ComposesRelativeRootedDeviceAndEmptyNames) {
    // clang-format off
    struct Case { const char *dir, *name, *path; uint32_t result; } cases[] = {
        {"/", "a.bin", "/a.bin", 7}, {"/", "", "", 1}, {"/", "./", "", 1},
        {"host0:/data", "a.bin", "host0:/data/a.bin", 18}, {"hd:", ".\\a.bin", "hd:/a.bin", 10},
        {"host0:/data/", "./a.bin", "host0:/data/a.bin", 18}, // one trailing separator goes
        {"host0:/data", "\\a.bin", "host0:/data/\\a.bin", 19}, // a backslash start is relative
        {"host0:/data", "hdd0:/a.bin", "hdd0:/a.bin", 12},
        {"host0:/data", "/a.bin", "/a.bin", 7},
        {"host0:/data", "sub/x:y", "sub/x:y", 8}, // a colon anywhere keeps the name
        {"host0:/data", "", "host0:/data", 12},
        {"dir\\\\", "m", "dir\\/m", 7}, // the separator written is always a slash
    };
    // clang-format on
    for (const Case& c : cases) {
        zkSetModuleDir(c.dir);
        char out[300];
        EXPECT_EQ(zkGetModulePath(c.name, out, sizeof(out)), c.result) << c.dir << " + " << c.name;
        EXPECT_STREQ(out, c.path) << c.dir << " + " << c.name;
    }
    zkSetModuleDir("/");
}

// A short output gets nothing and the size needed; long names are cut; the
// output may be the name; an overlong directory is ignored.
TEST(ModulePath, ShortOutputsLongNamesOverlapAndOverlongDirectories) {
    zkSetModuleDir("host0:/data");
    char out[400] = "#";
    EXPECT_EQ(zkGetModulePath("a.bin", out, 17), 18u);
    EXPECT_EQ(out[0], '#');
    EXPECT_EQ(zkGetModulePath(("/" + std::string(299, 'x')).c_str(), out, 400), 261u);
    EXPECT_EQ(std::strlen(out), 260u);
    std::strcpy(out, "a.bin");
    EXPECT_EQ(zkGetModulePath(out, out, sizeof(out)), 18u);
    EXPECT_STREQ(out, "host0:/data/a.bin");
    const std::string longest(259, 'd'), tooLong(260, 'd');
    zkSetModuleDir(longest.c_str()), zkSetModuleDir(tooLong.c_str());
    EXPECT_EQ(zkGetModuleDir(), longest);
    zkSetModuleDir("/");
}

} // namespace
