// The archive tool on awkward trees and archives: symbolic links, its own
// output inside the packed folder, empty and cut archives, and its messages.
#include "archive/archive_builder.h"
#include "support/library_test.h"
#include "support/process.h"

#include <filesystem>
#include <fstream>

namespace zktest {
namespace {

namespace fs = std::filesystem;

class KivToolTree : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        if (!fs::exists(ChildProgramPath("kivtool"))) GTEST_SKIP() << "kivtool is not built";
        // Under the library's root mount, beside the program.
        work_ = fs::path(ChildProgramPath("kivtool")).parent_path() / "kivtool_tree";
        fs::remove_all(work_);
        fs::create_directories(work_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(work_, ec);
        LibraryTest::TearDown();
    }
    // Runs kivtool; its standard error's lines land in *errors.
    int Run(const std::vector<std::string>& args, std::vector<std::string>* errors = nullptr) {
        const fs::path file = work_ / "stderr.txt";
        const int code = RunChildProgram("kivtool", args, file.string());
        std::ifstream in(file);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        if (errors) *errors = lines;
        return code;
    }
    void Write(const fs::path& p, const std::string& data) {
        fs::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << data;
    }
    std::string W(const std::string& name) const { return (work_ / name).string(); }
    // The names of the archive's items, through the library.
    static std::vector<std::string> Names(const std::string& name) {
        std::vector<std::string> names;
        KivArchive* a = zkOpenKiv(("/kivtool_tree/" + name).c_str(), ZK_KIV_BY_INDEX);
        for (uint32_t i = 0; a && i < zkGetKivItemCount(a); ++i) {
            KivItemStream* s = zkOpenKivItemByIndex(a, i);
            uint32_t size = 0;
            zkGetKivItemSize(s, &size);
            std::string data(size, '\0');
            uint32_t got = 0;
            zkReadKivItem(s, data.data(), size, &got);
            names.push_back(data); // items hold their own names in these tests
            zkCloseKivItem(s);
        }
        zkCloseKiv(a);
        std::sort(names.begin(), names.end());
        return names;
    }
    fs::path work_;
};

TEST_F(KivToolTree, OutputInsideTheFolderEmptyAndCutArchivesAndMessages) {
    Write(work_ / "tree" / "a", "a");
    Write(work_ / "tree" / "d" / "b", "d/b");
    // Packed into the folder being packed, twice: the archive never holds itself.
    for (int round = 0; round < 2; ++round)
        ASSERT_EQ(Run({"pack", W("tree/self.kiv"), W("tree")}), 0) << round;
    EXPECT_EQ(Names("tree/self.kiv"), (std::vector<std::string>{"a", "d/b"}));
    std::vector<std::string> errors;
    EXPECT_EQ(Run({"verify", W("tree/self.kiv")}, &errors), 0);
    EXPECT_TRUE(errors.empty());

    // An archive without items extracts to an empty folder.
    Write(work_ / "empty.kiv", Pack({}));
    EXPECT_EQ(Run({"extract", W("empty.kiv"), W("out/empty")}), 0);
    EXPECT_TRUE(fs::is_directory(work_ / "out" / "empty"));

    // A cut archive: list shows what it can and, like verify, says on one
    // line of standard error which file is at fault and how.
    std::string cut = Pack({Item("a", "alpha"), Item("b", "beta-beta")});
    cut.resize(cut.size() - 4);
    Write(work_ / "cut.kiv", cut);
    for (const char* command : {"list", "verify"}) {
        EXPECT_EQ(Run({command, W("cut.kiv")}, &errors), 1) << command;
        ASSERT_EQ(errors.size(), 1u) << command;
        EXPECT_NE(errors[0].find(W("cut.kiv")), std::string::npos) << errors[0];
        EXPECT_GT(errors[0].size(), W("cut.kiv").size() + 12) << errors[0];
    }
    EXPECT_EQ(Run({"--version"}, &errors), 0);
    EXPECT_EQ(Run({"--help"}, &errors), 0);
}

#if !defined(_WIN32)
// Links are followed for their contents and named by their own path under
// the packed folder, never by where they lead.
TEST_F(KivToolTree, LinksKeepTheirOwnNames) {
    Write(work_ / "outside.txt", "outside");
    Write(work_ / "tree" / "real" / "x.txt", "x");
    fs::create_symlink("real/x.txt", work_ / "tree" / "alias.txt");
    fs::create_directory_symlink("real", work_ / "tree" / "linked");
    fs::create_symlink(work_ / "outside.txt", work_ / "tree" / "host.txt");
    fs::create_symlink(work_ / "gone", work_ / "tree" / "dangling");
    ASSERT_EQ(Run({"pack", W("tree.kiv"), W("tree")}), 0);
    KivArchive* a = zkOpenKiv("/kivtool_tree/tree.kiv", 0);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(zkGetKivItemCount(a), 4u);
    for (const char* name : {"alias.txt", "linked/x.txt", "host.txt", "real/x.txt"})
        EXPECT_EQ(zkFindKivItem(a, name), 1) << name;
    void* data = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(zkLoadKivItem(a, "host.txt", &data, &size), 0);
    EXPECT_EQ(std::string(static_cast<char*>(data), size), "outside");
    zkReleaseKivItem(data);
    zkCloseKiv(a);
    EXPECT_EQ(Run({"extract", W("tree.kiv"), W("back")}), 0);
    EXPECT_TRUE(fs::is_regular_file(work_ / "back" / "linked" / "x.txt"));

    // A link back into a folder being packed would never end: refused, with a message.
    fs::create_directory_symlink("..", work_ / "tree" / "real" / "up");
    std::vector<std::string> errors;
    EXPECT_NE(Run({"pack", W("loop.kiv"), W("tree")}, &errors), 0);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("up"), std::string::npos) << errors[0];
    EXPECT_FALSE(fs::exists(work_ / "loop.kiv"));
}
#endif

} // namespace
} // namespace zktest
