// The trace channel, assertion reports, memory dumps and the library registry.
#include "support/library_test.h"

#include <string>
#include <vector>

namespace {

using zktest::TraceCapture;

TEST(Trace, EachCallIsOneTextWithoutAddedLineEnd) {
    TraceCapture capture;
    zkTrace("value %d and %s", 42, "text");
    zkTrace("second\n");
    zkAssertFailed("game.cpp", 123); // reports file and line, and returns
    EXPECT_EQ(capture.Lines(), (std::vector<std::string>{"value 42 and text", "second\n",
                                                         "Assert Failed [game.cpp(123)]\n"}));
}

TEST(Trace, LongTextIsCutTo1023Characters) {
    TraceCapture capture;
    std::string longText(2000, 'q');
    zkTrace("%s", longText.c_str());
    std::vector<std::string> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string(1023, 'q'));
}

void ZK_CALL DiscardTrace(const char*) {}

TEST(Trace, NestedCapturesRestoreThePreviousProcedure) {
    TraceCapture outer;
    {
        TraceCapture inner;
        zkTrace("inner");
        EXPECT_EQ(inner.Lines().size(), 1u);
    }
    zkTrace("outer");
    EXPECT_EQ(outer.Lines(), (std::vector<std::string>{"outer"}));
    // A procedure of the application replaces the capture until reset.
    zkSetTraceProc(DiscardTrace);
    zkTrace("dropped");
    zkSetTraceProc(nullptr);
    zkTrace("to the debugger output\n");
    EXPECT_EQ(outer.Lines(), (std::vector<std::string>{"outer"}));
}

TEST(MemoryDump, TwentyBytesGiveAFullRowAShortRowAndTheRule) {
    unsigned char bytes[20];
    for (int i = 0; i < 16; ++i)
        bytes[i] = static_cast<unsigned char>(0x41 + i);
    bytes[16] = 0x1F;
    bytes[17] = 0x7F;
    bytes[18] = 0x20;
    bytes[19] = 0x7E;
    TraceCapture capture;
    zkDumpMemory(bytes, sizeof(bytes));
    std::vector<std::string> lines = capture.Lines();
    // Row 1: 16 cells, 16 characters, a line end. Row 2: 16 cells, 4
    // characters, a line end. Then 64 dashes and a line end.
    ASSERT_EQ(lines.size(), (16u + 16 + 1) + (16 + 4 + 1) + 64 + 1);
    EXPECT_EQ(lines[0], "41 ");
    EXPECT_EQ(lines[15], "50 ");
    EXPECT_EQ(lines[16], "A");
    EXPECT_EQ(lines[32], "\n");
    EXPECT_EQ(lines[33], "1f ");
    EXPECT_EQ(lines[37], "   ");
    EXPECT_EQ(lines[48], "   ");
    EXPECT_EQ(lines[49], ".") << "0x1F";
    EXPECT_EQ(lines[50], ".") << "0x7F";
    EXPECT_EQ(lines[51], " ") << "0x20";
    EXPECT_EQ(lines[52], "~");
    EXPECT_EQ(lines[53], "\n");
    EXPECT_EQ(lines[54], "-");
    EXPECT_EQ(lines.back(), "\n");
    EXPECT_EQ(capture.Text(), "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50 ABCDEFGHIJKLMNOP\n"
                              "1f 7f 20 7e                                     .. ~\n" +
                                  std::string(64, '-') + "\n");
    capture.Clear();
    zkDumpMemory("x", 0); // zero bytes: only the rule
    EXPECT_EQ(capture.Text(), std::string(64, '-') + "\n");
    EXPECT_EQ(capture.Lines().size(), 65u);
}

// ---- library registry -------------------------------------------------------------------

TEST(LibraryVersion, OutputPrintsThirdFourthFirstSecond) {
    TraceCapture capture;
    zkOutputLibraryVersion("Sound", 1, 2, 3, 4);
    std::vector<std::string> lines = capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "QAX Sound Library 3.4.1.2\n");
    EXPECT_EQ(lines[1].rfind("    ", 0), 0u);
    EXPECT_EQ(lines[1].back(), '\n');
}

// Stand-ins for library modules: distinct addresses of memory that holds no
// module, so no version resource is found and every version reads 0.
alignas(64) unsigned char g_fakeModules[17][256];

zkNativeHandle FakeModule(int i) {
    return &g_fakeModules[i][0];
}

TEST(LibraryRegistry, RegistersSixteenFindsAgainAndCutsNames) {
    ASSERT_EQ(zkBeginProcess(0), 0);
    {
        TraceCapture capture;
        LibraryRecord* first = zkRegisterLibrary(FakeModule(0), "AVeryLongLibraryNameIndeed");
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(capture.Lines().at(0), "QAX AVeryLongLibrary Library 0.0.0.0\n");
        EXPECT_EQ(capture.Lines().size(), 2u);

        // The same module again: the same record, its name unchanged, the
        // banner printed again.
        capture.Clear();
        EXPECT_EQ(zkRegisterLibrary(FakeModule(0), "Other"), first);
        EXPECT_EQ(capture.Lines().at(0), "QAX AVeryLongLibrary Library 0.0.0.0\n");
    }
    // Fifteen more fit; the count rose only once for the repeated module.
    for (int i = 1; i < 16; ++i) {
        TraceCapture capture;
        std::string name = "Lib" + std::to_string(i);
        ASSERT_NE(zkRegisterLibrary(FakeModule(i), name.c_str()), nullptr) << i;
        EXPECT_EQ(capture.Lines().at(0), "QAX " + name + " Library 0.0.0.0\n");
    }
    {
        TraceCapture capture;
        EXPECT_EQ(zkRegisterLibrary(FakeModule(16), "Seventeenth"), nullptr);
        EXPECT_TRUE(capture.Lines().empty()) << "a refused registration prints nothing";
        // Registered modules are still found.
        EXPECT_NE(zkRegisterLibrary(FakeModule(7), "Lib7"), nullptr);
    }
    EXPECT_EQ(zkEndProcess(), 0);
}

} // namespace
