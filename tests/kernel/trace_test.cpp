// The trace channel, assertion reports, memory dumps and the library registry.
#include "support/library_test.h"

namespace {

using zktest::TraceCapture;
using Lines = std::vector<std::string>;

std::string g_applicationTrace;
void ZK_CALL ApplicationTrace(const char* text) {
    g_applicationTrace += text;
}

TEST(Trace, EachCallIsOneTextCutTo1023CharactersAndGoesToTheInstalledProcedure) {
    TraceCapture capture;
    zkTrace("value %d and %s", 42, "text");
    zkAssertFailed("game.cpp", 123); // reports file and line, and returns
    zkTrace("%s", std::string(2000, 'q').c_str());
    EXPECT_EQ(capture.Lines(), (Lines{"value 42 and text", "Assert Failed [game.cpp(123)]\n",
                                      std::string(1023, 'q')}));
    // An application's procedure replaces the capture until reset to the default.
    g_applicationTrace.clear();
    zkSetTraceProc(ApplicationTrace);
    zkTrace("mine %u", 7u);
    zkSetTraceProc(nullptr);
    zkTrace("to the debugger output\n");
    EXPECT_EQ(g_applicationTrace, "mine 7");
    EXPECT_EQ(capture.Lines().size(), 3u);
}

TEST(MemoryDump, RowsOfSixteenCellsThenTheRule) {
    const char bytes[] = "ABCDEFGHIJKLMNOP\x1F\x7F\x20\x7E";
    TraceCapture capture;
    zkDumpMemory(bytes, sizeof(bytes) - 1);
    zkDumpMemory("x", 0); // zero bytes: only the rule
    std::string rule(64, '-');
    rule += '\n';
    EXPECT_EQ(capture.Text(), "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50 ABCDEFGHIJKLMNOP\n"
                              "1f 7f 20 7e                                     .. ~\n" +
                                  rule + rule);
}

// ---- version banners and the library registry --------------------------------------

// Stand-ins for library modules: distinct addresses of memory that holds no
// module, so no version resource is found and every version reads 0.
alignas(64) unsigned char g_fakeModules[17][256];

TEST(LibraryRegistry, HoldsSixteenFindsModulesAgainAndCutsNames) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    TraceCapture capture;
    LibraryRecord* first = zkRegisterLibrary(g_fakeModules[0], "AVeryLongLibraryNameIndeed");
    for (int i = 1; i < 16; ++i)
        ASSERT_NE(zkRegisterLibrary(g_fakeModules[i], ("Lib" + std::to_string(i)).c_str()),
                  nullptr);
    ASSERT_NE(first, nullptr);
    // The same module again: the same record, its name unchanged, the banner
    // printed again; the count rose only once, so a seventeenth is refused.
    EXPECT_EQ(zkRegisterLibrary(g_fakeModules[0], "Other"), first);
    EXPECT_EQ(zkRegisterLibrary(g_fakeModules[16], "Seventeenth"), nullptr);
    const Lines lines = capture.Lines(); // a refused registration prints nothing
    ASSERT_EQ(lines.size(), 2u * 17);
    EXPECT_EQ((Lines{lines[0], lines[30], lines[32]}),
              (Lines{"QAX AVeryLongLibrary Library 0.0.0.0\n", "QAX Lib15 Library 0.0.0.0\n",
                     "QAX AVeryLongLibrary Library 0.0.0.0\n"}));
    EXPECT_EQ(zkEndProcess(), 0);
}

} // namespace
