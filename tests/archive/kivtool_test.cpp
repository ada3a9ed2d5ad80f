// The archive tool: its packer, the program run on a tree of 600 files, and
// awkward trees and archives.
#include "archive/archive_builder.h"
#include "kiv_check.h"
#include "support/library_test.h"
#include "support/process.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

namespace zktest {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

TEST(KivPacker, PackedDataExpandsBackThroughBothExpanders) {
    std::mt19937 random(11);
    std::vector<Bytes> inputs;
    for (size_t n : {0, 1, 3, 18, 19, 4096, 4097, 70000}) {
        Bytes noise(n), zeros(n, 0), runs(n);
        for (size_t i = 0; i < n; ++i) {
            noise[i] = uint8_t(random());
            runs[i] = uint8_t((i / 300) % 3 ? 'r' : i);
        }
        for (Bytes* b : {&noise, &zeros, &runs})
            inputs.push_back(*b);
    }
    for (size_t k = 0; k < inputs.size(); ++k) {
        const Bytes& in = inputs[k];
        const Bytes packed = kivtool::SlidePack(in.data(), in.size());
        Bytes plain(in.size() + 1), fast(in.size() + 64, 0xEE);
        const uint32_t n = kivtool::SlideUnpack(plain.data(), uint32_t(plain.size()), packed.data(),
                                                uint32_t(packed.size()));
        EXPECT_EQ(n, in.size()) << "input " << k;
        EXPECT_TRUE(std::equal(in.begin(), in.end(), plain.begin())) << "input " << k;
        _zkSlideExpand(fast.data(), packed.data(), uint32_t(packed.size()));
        EXPECT_TRUE(std::equal(in.begin(), in.end(), fast.begin())) << "input " << k;
        EXPECT_EQ(fast[in.size()], 0xEE) << "input " << k; // nothing written past the stream
    }
}

TEST(KivPacker, LaysOutTheTwoItemArchiveByteForByte) {
    PackOptions options;
    options.header48 = false;
    options.nameOrder = false;
    const std::string bytes = Pack({Item("a", "AAA"), Item("b", "BB")}, options);
    const std::string expected(
        "KIV0\0\0\0\0\x41\0\0\0\0\0\0\0"       // magic, archive size 65
        "\x10\0\0\0\2\0\x0c\0\4\0\0\0\0\0\0\0" // 32-byte header, 2 x 12, names 4
        "\0\0\0\0\0\0\0\0\3\0\0\0"             // a: name 0, data 0, 3 bytes
        "\2\0\0\0\3\0\0\0\2\0\0\0"             // b: name 2, data 3, 2 bytes
        "a\0b\0AAABB",
        65);
    EXPECT_EQ(bytes, expected);
    std::vector<uint8_t> out;
    std::string error;
    options.packedDirectory = true;
    EXPECT_FALSE(kivtool::BuildArchive({Item("a", "")}, options, &out, &error));
    EXPECT_FALSE(
        kivtool::BuildArchive({Item("a", ""), Item("a", "")}, PackOptions{}, &out, &error));
    EXPECT_NE(error.find("duplicate"), std::string::npos);
}

class KivTool : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        if (!fs::exists(ChildProgramPath("kivtool"))) GTEST_SKIP() << "kivtool is not built";
        // The work folder sits beside the program, under the library's root mount.
        work_ = fs::path(ChildProgramPath("kivtool")).parent_path() / "kivtool_work";
        fs::remove_all(work_);
        fs::create_directories(work_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(work_, ec);
        LibraryTest::TearDown();
    }
    // Runs kivtool; its standard error's lines land in *errors when given.
    int Run(const std::vector<std::string>& args, std::vector<std::string>* errors = nullptr) {
        if (!errors) return RunChildProgram("kivtool", args);
        const fs::path file = work_ / "stderr.txt";
        const int code = RunChildProgram("kivtool", args, file.string());
        std::ifstream in(file);
        errors->clear();
        for (std::string line; std::getline(in, line);)
            errors->push_back(line);
        return code;
    }
    static std::string Read(const fs::path& p) {
        std::ifstream in(p, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    static void Write(const fs::path& p, const std::string& data) {
        fs::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << data;
    }
    std::string W(const std::string& name) const { return (work_ / name).string(); }
    fs::path work_;
};

TEST_F(KivTool, PacksExtractsAndVerifiesATreeThatTheLibraryReadsBack) {
    // Nested folders (differing in more than case: Windows folds it), upper
    // case, Shift_JIS bytes where names are bytes, empty files, a few large ones.
    std::map<std::string, std::string> tree;
    std::mt19937 random(5);
    const char* folders[] = {"", "Data/", "levels/Maps/", "snd/se/", "a/b/c/d/"};
#if !defined(_WIN32)
    const std::string sjis = "\x83\x65\x83\x58\x83\x67"; // a katakana word
#else
    const std::string sjis = "kana";
#endif
    for (int i = 0; i < 600; ++i) {
        std::string name = std::string(folders[i % 5]) + (i % 7 == 0 ? sjis : "") +
                           (i % 3 ? "File" : "file") + std::to_string(i) +
                           (i % 2 ? ".BIN" : ".txt");
        std::string data(i % 50 == 0 ? 20000 + i : i % 300, '\0');
        for (char& c : data)
            c = char(random());
        tree[name] = data;
        Write(work_ / "tree" / fs::path(name), data);
    }
    ASSERT_EQ(Run({"pack", W("a.kiv"), W("tree")}), 0);
    ASSERT_EQ(Run({"pack", W("b.kiv"), W("tree")}), 0);
    EXPECT_EQ(Read(work_ / "a.kiv"), Read(work_ / "b.kiv")) << "packing is not deterministic";
    ASSERT_EQ(Run({"pack", "--packed-directory", "--folded-names", "--entry-size", "16", W("c.kiv"),
                   W("tree")}),
              0);
    EXPECT_EQ(Run({"verify", W("c.kiv")}) + Run({"list", W("a.kiv")}), 0);
    ASSERT_EQ(Run({"extract", W("c.kiv"), W("out")}), 0);
    for (const auto& [name, data] : tree) {
        std::string folded = name;
        for (size_t i = 0; i < folded.size(); ++i) {
            const uint8_t c = uint8_t(folded[i]);
            if ((c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC))
                ++i;
            else if (c >= 'A' && c <= 'Z')
                folded[i] = char(c + 32);
        }
        ASSERT_EQ(Read(work_ / "out" / fs::path(folded)), data) << name;
    }
    // Every item through the library, from both archives, in both modes.
    for (const char* a : {"/kivtool_work/a.kiv", "/kivtool_work/c.kiv"}) {
        for (uint32_t mode : {0u, ZK_KIV_MEMORY_IMAGE}) {
            KivArchive* archive = zkOpenKiv(a, mode);
            ASSERT_NE(archive, nullptr) << a;
            EXPECT_EQ(zkGetKivItemCount(archive), tree.size());
            int wrong = 0;
            for (const auto& [name, data] : tree) {
                void* p = nullptr;
                uint32_t size = 0;
                wrong += zkLoadKivItem(archive, name.c_str(), &p, &size) != 0 ||
                         std::string(static_cast<char*>(p), size) != data;
                zkReleaseKivItem(p);
            }
            EXPECT_EQ(wrong, 0) << a << " mode " << mode;
            zkCloseKiv(archive);
        }
    }
}

TEST_F(KivTool, VerifyRejectsDamagedArchivesAndExtractStaysInsideItsFolder) {
    PackOptions packed;
    packed.packedDirectory = true;
    const std::string good = Pack({Item("a", "alpha"), Item("dir/b", "beta")}, packed);
    const std::string plain = Pack({Item("a", "alpha"), Item("dir/b", "beta")});
    std::vector<std::pair<std::string, std::string>> damaged = {
        {"truncated", good.substr(0, good.size() - 2)},
        {"entry past the end", plain},
        {"name not terminated", plain},
        {"packed directory size wrong", good},
        {"not an archive", "hello, world, this is not an archive at all"},
    };
    Put32(damaged[1].second, 48 + 12 + 4, 1000);   // the second entry's data offset
    damaged[2].second[plain.size() - 9 - 1] = 'x'; // the last name's terminator
    Put32(damaged[3].second, 32, Get32(good, 32) - 1);
    Write(work_ / "good.kiv", good);
    EXPECT_EQ(Run({"verify", W("good.kiv")}), 0);
    for (const auto& [what, bytes] : damaged) {
        Write(work_ / "bad.kiv", bytes);
        EXPECT_EQ(Run({"verify", W("bad.kiv")}), 1) << what;
    }
    for (const char* name :
         {"../escape", "dir/../../escape", "/abs", "\\abs", "C:evil", "a//b", ""}) {
        Write(work_ / "evil.kiv", Pack({Item("fine", "f"), Item(name, "x")}));
        EXPECT_NE(Run({"extract", W("evil.kiv"), W("x/y")}), 0) << name;
        EXPECT_FALSE(fs::exists(work_ / "x" / "y" / "fine")) << name << ": nothing is written";
        EXPECT_FALSE(fs::exists(work_ / "x" / "escape")) << name;
    }
    EXPECT_NE(Run({"pack", W("o.kiv"), W("missing-folder")}), 0);
}

// Awkward trees and archives: the tool's own output inside the packed
// folder, empty and cut archives, symbolic links, and its messages.
TEST_F(KivTool, OutputInsideTheFolderEmptyAndCutArchivesAndMessages) {
    Write(work_ / "tree" / "a", "a");
    Write(work_ / "tree" / "d" / "b", "d/b");
    // Packed into the folder being packed, twice: the archive never holds itself.
    for (int round = 0; round < 2; ++round)
        ASSERT_EQ(Run({"pack", W("tree/self.kiv"), W("tree")}), 0) << round;
    KivArchive* self = zkOpenKiv("/kivtool_work/tree/self.kiv", 0);
    EXPECT_EQ(
        Codes({zkGetKivItemCount(self), zkFindKivItem(self, "a"), zkFindKivItem(self, "d/b")}),
        Codes({2, 1, 1}));
    zkCloseKiv(self);
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
TEST_F(KivTool, LinksKeepTheirOwnNames) {
    Write(work_ / "outside.txt", "outside");
    Write(work_ / "tree" / "real" / "x.txt", "x");
    fs::create_symlink("real/x.txt", work_ / "tree" / "alias.txt");
    fs::create_directory_symlink("real", work_ / "tree" / "linked");
    fs::create_symlink(work_ / "outside.txt", work_ / "tree" / "host.txt");
    fs::create_symlink(work_ / "gone", work_ / "tree" / "dangling");
    ASSERT_EQ(Run({"pack", W("tree.kiv"), W("tree")}), 0);
    KivArchive* a = zkOpenKiv("/kivtool_work/tree.kiv", 0);
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
