// The library's interface, pinned: every function the public headers declare
// is listed here and its address taken, so an export that is declared but
// missing from the library fails this program's link, and one that resolves
// to nothing fails the test. The names follow the order of the headers.
#include "kernel/export_list.h"

#include <zk.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace {

struct Export {
    const char* name;
    void (*address)();
};

#define X(fn) {#fn, reinterpret_cast<void (*)()>(&fn)},
const Export kExports[] = {ZK_PINNED_EXPORTS(X)};
#undef X

TEST(Exports, EveryDeclaredFunctionResolvesOnceUnderThePrefix) {
    std::set<std::string> seen;
    for (const Export& e : kExports) {
        EXPECT_NE(e.address, nullptr) << e.name;
        const char* unprefixed = e.name[0] == '_' ? e.name + 1 : e.name; // _zkSlideExpand
        EXPECT_EQ(std::strncmp(unprefixed, "zk", 2), 0) << e.name;
        EXPECT_TRUE(seen.insert(e.name).second) << e.name << " listed twice";
    }
}

// qaxkrnl.def, from which Microsoft's tools make an import library, names
// exactly the functions above: no more, no fewer.
TEST(Exports, ModuleDefinitionFileListsExactlyTheExports) {
    std::FILE* def = std::fopen(ZK_SOURCE_DIR "/platform/win32/qaxkrnl.def", "r");
    ASSERT_NE(def, nullptr);
    std::set<std::string> listed;
    char line[256];
    bool inExports = false;
    while (std::fgets(line, sizeof line, def)) {
        char name[256];
        if (std::sscanf(line, " %255s", name) != 1 || name[0] == ';') continue;
        if (inExports) listed.insert(name);
        inExports = inExports || std::strcmp(name, "EXPORTS") == 0;
    }
    std::fclose(def);
    std::set<std::string> pinned;
    for (const Export& e : kExports)
        pinned.insert(e.name);
    EXPECT_EQ(listed, pinned) << "run scripts/update-def.sh after changing the exports";
}

// The headers are the reference: every exported function and callback type
// has its own comment right above its declaration.
TEST(Exports, EveryDeclarationInThePublicHeadersHasItsComment) {
    int headers = 0;
    for (const auto& entry : std::filesystem::directory_iterator(ZK_SOURCE_DIR "/include/zk")) {
        std::ifstream in(entry.path());
        ++headers;
        std::string line, previous;
        while (std::getline(in, line)) {
            const bool declaration =
                line.rfind("ZK_API", 0) == 0 ||
                (line.rfind("typedef ", 0) == 0 && line.find("(ZK_CALL") != std::string::npos);
            if (declaration) {
                const size_t first = previous.find_first_not_of(' ');
                const bool commented =
                    (previous.size() >= 2 && previous.compare(previous.size() - 2, 2, "*/") == 0) ||
                    (first != std::string::npos && previous.compare(first, 2, "//") == 0);
                EXPECT_TRUE(commented) << entry.path().filename().string() << ": " << line;
            }
            previous = line;
        }
    }
    EXPECT_GT(headers, 10);
}

} // namespace
