// Command-line splitting (seen through a child program started with crafted
// arguments), the module directory and module paths.
#include "support/library_test.h"
#include "support/process.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct SplitReport {
    uint32_t count = 0;
    std::vector<std::string> args;
    std::string thirtySecond;
};

// Runs args_child with the arguments and reads back what the library split.
bool RunSplit(const std::vector<std::string>& args, SplitReport* report) {
    if (zktest::RunChildProgram("args_child", args) != 0) return false;
    std::ifstream in(zktest::ChildProgramPath("args_child") + ".args", std::ios::binary);
    if (!in) return false;
    std::string line;
    if (!std::getline(in, line)) return false;
    report->count = static_cast<uint32_t>(std::stoul(line));
    for (uint32_t i = 0; i < report->count && i < 32; ++i) {
        std::string entry;
        if (!std::getline(in, entry)) return false;
        size_t colon = entry.find(':');
        if (colon == std::string::npos) return false;
        size_t length = std::stoul(entry.substr(0, colon));
        std::string text = entry.substr(colon + 1);
        // An argument may hold a line end of its own; read on until it is whole.
        while (text.size() < length) {
            std::string more;
            if (!std::getline(in, more)) return false;
            text += "\n" + more;
        }
        report->args.push_back(text);
    }
    std::getline(in, report->thirtySecond);
    return true;
}

TEST(CommandLine, SplitsQuotesTabsAndEmptyArguments) {
    struct Case {
        std::vector<std::string> given, split;
    } cases[] = {
        {{"a b", "c"}, {"a b", "c"}},               // a quoted argument keeps its space
        {{"\"ab\"cd", "e"}, {"ab", "e"}},           // text after a closing quote is lost
        {{"x\"y\"z", "p\tq"}, {"x\"y\"z", "p\tq"}}, // quotes and tabs inside stay
        {{"", "z"}, {"", "z"}},                     // an empty quoted argument counts
    };
    for (const Case& c : cases) {
        SplitReport report;
        ASSERT_TRUE(RunSplit(c.given, &report));
        std::vector<std::string> expected{zktest::ChildProgramPath("args_child")};
        expected.insert(expected.end(), c.split.begin(), c.split.end());
        EXPECT_EQ(report.count, expected.size());
        EXPECT_EQ(report.args, expected);
    }
}

TEST(CommandLine, MoreThanThirtyTwoArgumentsAreCountedButNotStored) {
    std::vector<std::string> args;
    for (int i = 0; i < 40; ++i)
        args.push_back("arg" + std::to_string(i));
    SplitReport report;
    ASSERT_TRUE(RunSplit(args, &report));
    EXPECT_EQ(report.count, 41u);
    ASSERT_EQ(report.args.size(), 32u);
    EXPECT_EQ(report.args[1], "arg0");
    EXPECT_EQ(report.args[31], "arg30");
    EXPECT_EQ(report.thirtySecond, "null");
}

TEST(CommandLine, OverlongCommandLineIsCutToFit) {
    // 300 arguments of 19 characters: far more than the 4095 characters kept.
    std::vector<std::string> args(300, std::string(19, 'w'));
    SplitReport report;
    ASSERT_TRUE(RunSplit(args, &report));
    size_t programLength = zktest::ChildProgramPath("args_child").size();
    uint32_t whole = static_cast<uint32_t>((4095 - programLength - 1) / 20);
    // Whole arguments that fit, plus at most one cut short at the end.
    EXPECT_GE(report.count, 1 + whole);
    EXPECT_LE(report.count, 2 + whole);
}

TEST(CommandLine, OwnProgramHasAtLeastItsPath) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    EXPECT_GE(zkGetAppArgCount(), 1u);
    ASSERT_NE(zkGetAppArg(0), nullptr);
    EXPECT_EQ(zkGetAppArg(zkGetAppArgCount()), nullptr);
    EXPECT_EQ(zkEndProcess(), 0);
}

// ---- module directory and paths --------------------------------------------------------

class ModulePath : public ::testing::Test {
protected:
    void TearDown() override { zkSetModuleDir("/"); }

    static std::string Compose(const char* name, uint32_t* result = nullptr) {
        char out[300];
        uint32_t needed = zkGetModulePath(name, out, sizeof(out));
        if (result) *result = needed;
        return out;
    }
};

TEST_F(ModulePath, ComposesRelativeRootedDeviceAndEmptyNames) {
    struct Case {
        const char* dir;
        const char* name;
        const char* path;
        uint32_t result;
    } cases[] = {
        {"/", "a.bin", "/a.bin", 7},
        {"/", "", "", 1},
        {"/", "./", "", 1},
        {"host0:/data", "a.bin", "host0:/data/a.bin", 18},
        {"host0:/data", "./a.bin", "host0:/data/a.bin", 18},
        {"host0:/data", ".\\a.bin", "host0:/data/a.bin", 18},
        {"host0:/data", "\\a.bin", "host0:/data/\\a.bin", 19}, // a backslash start is relative
        {"host0:/data", "hdd0:/a.bin", "hdd0:/a.bin", 12},
        {"host0:/data", "/a.bin", "/a.bin", 7},
        {"host0:/data", "sub/x:y", "sub/x:y", 8}, // a colon anywhere keeps the name
        {"host0:/data", "", "host0:/data", 12},
    };
    for (const Case& c : cases) {
        zkSetModuleDir(c.dir);
        EXPECT_STREQ(zkGetModuleDir(), c.dir);
        uint32_t result = 0;
        EXPECT_EQ(Compose(c.name, &result), c.path) << c.dir << " + " << c.name;
        EXPECT_EQ(result, c.result) << c.dir << " + " << c.name;
    }
}

TEST_F(ModulePath, DirectoryLosesOneTrailingSeparator) {
    zkSetModuleDir("host0:/data/");
    EXPECT_STREQ(zkGetModuleDir(), "host0:/data");
    zkSetModuleDir("dir\\\\");
    EXPECT_STREQ(zkGetModuleDir(), "dir\\");
    EXPECT_EQ(Compose("m"), "dir\\/m") << "the separator written is always a slash";
    zkSetModuleDir("/");
    EXPECT_STREQ(zkGetModuleDir(), "/");
}

TEST_F(ModulePath, OverlongOrNullDirectoryIsIgnored) {
    zkSetModuleDir("keep");
    zkSetModuleDir(nullptr);
    EXPECT_STREQ(zkGetModuleDir(), "keep");
    zkSetModuleDir(std::string(260, 'd').c_str());
    EXPECT_STREQ(zkGetModuleDir(), "keep");
    std::string longest(259, 'd');
    zkSetModuleDir(longest.c_str());
    EXPECT_EQ(std::string(zkGetModuleDir()), longest);
}

TEST_F(ModulePath, TooSmallOutputWritesNothingAndReportsTheSize) {
    zkSetModuleDir("host0:/data");
    char out[32];
    std::memset(out, '#', sizeof(out));
    EXPECT_EQ(zkGetModulePath("a.bin", out, 17), 18u);
    EXPECT_EQ(out[0], '#');
    EXPECT_EQ(zkGetModulePath("a.bin", out, 18), 18u);
    EXPECT_STREQ(out, "host0:/data/a.bin");
    std::memset(out, '#', sizeof(out));
    EXPECT_EQ(zkGetModulePath("/abc", out, 4), 5u);
    EXPECT_EQ(out[0], '#');
    EXPECT_EQ(zkGetModulePath(nullptr, out, 4), 0u);
    EXPECT_EQ(zkGetModulePath("a", nullptr, 4), 0u);
}

TEST_F(ModulePath, OutputMayOverlapTheName) {
    zkSetModuleDir("base");
    char buffer[64] = "a.bin";
    EXPECT_EQ(zkGetModulePath(buffer, buffer, sizeof(buffer)), 11u);
    EXPECT_STREQ(buffer, "base/a.bin");
}

TEST_F(ModulePath, LongNamesAreCutAt260Characters) {
    zkSetModuleDir("/");
    std::string name = "/" + std::string(299, 'x');
    std::vector<char> out(400);
    EXPECT_EQ(zkGetModulePath(name.c_str(), out.data(), 400), 261u);
    EXPECT_EQ(std::string(out.data()).size(), 260u);
}

TEST(Modules, NothingIsLoaded) {
    EXPECT_EQ(zkLoadModuleEx(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(zkLoadModule(), ZK_ERR_NOT_SUPPORTED);
    EXPECT_EQ(zkUnloadModule(), ZK_ERR_NOT_SUPPORTED);
    EXPECT_EQ(zkLoadDefaultModule(), ZK_ERR_NOT_SUPPORTED);
}

} // namespace
