// The library's interface, pinned: every function the public headers declare
// is listed here and its address taken, so an export that is declared but
// missing from the library fails this program's link, and one that resolves
// to nothing fails the test. The names follow the order of the headers.
#include "kernel/export_list.h"

#include <zk.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
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

} // namespace
