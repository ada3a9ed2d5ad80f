// The archive calls in directory and memory-image mode, on archives on the memory device.
#include "archive/archive_builder.h"
#include "file/memory_device.h"

#include <algorithm>
#include <map>

namespace zktest {
namespace {

class Archives : public MemoryDeviceTest {
protected:
    void TearDown() override {
        EXPECT_EQ(zkGetOpenKivCount(), 0u) << "an archive was left open";
        EXPECT_EQ(zkGetOpenKivItemCount(), 0u) << "an item stream was left open";
        MemoryDeviceTest::TearDown();
    }
    static std::string Store(const std::string& name, const std::string& bytes) {
        Device().Put("mem:/" + name, bytes);
        return "/m/" + name;
    }
    // An item loaded by name, or by index when name is null.
    static std::string Load(KivArchive* a, const char* name, int32_t* code = nullptr,
                            uint32_t index = 0) {
        void* data = nullptr;
        uint32_t size = 0;
        const int32_t result = name ? zkLoadKivItem(a, name, &data, &size)
                                    : zkLoadKivItemByIndex(a, index, &data, &size);
        if (code) *code = result;
        std::string out(static_cast<const char*>(data ? data : ""), size);
        zkReleaseKivItem(data);
        return out;
    }
};

const std::vector<PackItem> kItems = {
    Item("zeta.txt", "last by name, first stored"),
    Item("dir/b.bin", std::string("\0\1\2", 3)),
    Item("alpha", "a"),
    Item("dir/a.bin", "AAAA"),
    Item("empty", ""),
    Item("dir/sub/long.dat", std::string(5000, 'x') + "end"),
};

TEST_F(Archives, EveryLayoutGivesTheSameItemsByNameAndByIndexInBothModes) {
    for (const Layout& layout : AllLayouts()) {
        SCOPED_TRACE(layout.name);
        const std::string path = Store("all.kiv", Pack(kItems, layout.options));
        for (uint32_t mode : {0u, ZK_KIV_MEMORY_IMAGE}) {
            KivArchive* a = zkOpenKiv(path.c_str(), mode);
            ASSERT_NE(a, nullptr) << "mode " << mode;
            EXPECT_EQ(zkGetKivItemCount(a), kItems.size());
            for (const PackItem& item : kItems) {
                const std::string data(item.data.begin(), item.data.end());
                EXPECT_EQ(zkFindKivItem(a, item.name.c_str()), 1) << item.name;
                EXPECT_EQ(Load(a, item.name.c_str()), data);
                // In place only inside a memory image.
                void* p = nullptr;
                uint32_t size = 0;
                const int32_t got = zkGetKivItem(a, item.name.c_str(), &p, &size);
                const std::string inPlace(p ? static_cast<char*>(p) : "", size);
                EXPECT_EQ(Codes({got, p == nullptr}), mode ? Codes({0, 0}) : Codes({-14, 1}));
                EXPECT_EQ(inPlace, mode ? data : "");
            }
            int32_t code = 0;
            EXPECT_EQ(Load(a, "dir", &code), "");
            EXPECT_EQ(code, -14);
            EXPECT_EQ(zkFindKivItem(a, "dir/c.bin"), 0);
            zkCloseKiv(a);

            // By index: the order given to the packer (data order of a name-ordered archive).
            a = zkOpenKiv(path.c_str(), mode | ZK_KIV_BY_INDEX);
            ASSERT_NE(a, nullptr);
            for (uint32_t i = 0; i < kItems.size(); ++i)
                EXPECT_EQ(Load(a, nullptr, nullptr, i),
                          std::string(kItems[i].data.begin(), kItems[i].data.end()))
                    << i;
            zkCloseKiv(a);
        }
    }
}

TEST_F(Archives, FoldedNamesMatchEitherCaseButLeaveDoubleByteCharactersAlone) {
    // 0x83 0x41 is one double-byte character whose second byte is "A".
    const std::vector<PackItem> items = {Item("Data/Stage1.MAP", "map"),
                                         Item("\x83\x41x.txt", "sjis"), Item("lowerz", "l"),
                                         Item(std::string(1024, 'q'), "q")};
    struct Case {
        std::string query;
        int folded, exact;
    };
    const Case cases[] = {
        {"data/stage1.map", 1, 0},
        {"DATA/STAGE1.MAP", 1, 0},
        {"Data/Stage1.MAP", 1, 1},
        {"LOWERZ", 1, 0},
        {"lowerz", 1, 1},
        {"\x83\x41X.TXT", 1, 0},
        {"\x83\x61x.txt", 0, 0}, // the second byte was not folded in the name area
        // A folded query is compared by its first 1024 bytes.
        {std::string(1024, 'Q') + "TAIL", 1, 0},
        {std::string(1500, 'L'), 0, 0}};
    for (bool folded : {false, true}) {
        PackOptions options;
        options.foldedNames = folded;
        // Without folding the packer stores names as given; with it, in lower case.
        const std::string path = Store("fold.kiv", Pack(items, options));
        for (uint32_t mode : {0u, ZK_KIV_MEMORY_IMAGE}) {
            KivArchive* a = zkOpenKiv(path.c_str(), mode);
            ASSERT_NE(a, nullptr);
            for (const Case& c : cases)
                EXPECT_EQ(zkFindKivItem(a, c.query.c_str()), folded ? c.folded : c.exact)
                    << c.query.substr(0, 20) << (folded ? " folded" : " exact");
            zkCloseKiv(a);
        }
    }
}

TEST_F(Archives, ChildrenNestTwoLevelsInBothModesAndInsideImages) {
    const std::string grandchild =
        Pack({Item("leaf.txt", "deep"), Item("tiny", std::string(19, 't'))});
    PackOptions folded;
    folded.foldedNames = true;
    folded.nameOrder = false;
    const std::string child = Pack({Item("inner.kiv", grandchild), Item("c.txt", "child")}, folded);
    const std::string path =
        Store("root.kiv", Pack({Item("x.bin", "root item"), Item("sub/child.kiv", child)}));
    for (uint32_t rootMode : {0u, ZK_KIV_MEMORY_IMAGE}) {
        for (uint32_t childMode : {0u, ZK_KIV_MEMORY_IMAGE}) {
            SCOPED_TRACE(std::to_string(rootMode) + "/" + std::to_string(childMode));
            KivArchive* root = zkOpenKiv(path.c_str(), rootMode);
            ASSERT_NE(root, nullptr);
            // Opened twice while the root stays open: the second opening must
            // find the directory as stored, not folded or sorted twice.
            for (int twice = 0; twice < 2; ++twice) {
                KivArchive* c = zkOpenChildKiv(root, "sub/child.kiv", childMode);
                ASSERT_NE(c, nullptr);
                EXPECT_EQ(Load(c, "C.TXT"), "child");
                KivArchive* g = zkOpenChildKiv(c, "inner.kiv", 0);
                ASSERT_NE(g, nullptr);
                EXPECT_EQ(Load(g, "leaf.txt"), "deep");
                EXPECT_EQ(zkGetOpenKivCount(), 3u);
                // An item of 19 bytes is no archive, held in memory or not.
                EXPECT_FALSE(zkOpenChildKiv(g, "tiny", 0) || zkOpenChildKiv(g, "missing", 0) ||
                             zkOpenChildKiv(g, "tiny", ZK_KIV_MEMORY_IMAGE));
                zkCloseKiv(g);
                zkCloseKiv(c);
            }
            // A child opened by index from a parent opened by index.
            KivArchive* byIndex = zkOpenKiv(path.c_str(), rootMode | ZK_KIV_BY_INDEX);
            EXPECT_EQ(zkOpenChildKiv(byIndex, "sub/child.kiv", 0), nullptr); // by name refused
            KivArchive* c = zkOpenChildKivByIndex(byIndex, 1, ZK_KIV_BY_INDEX);
            ASSERT_NE(c, nullptr);
            EXPECT_EQ(Load(c, nullptr, nullptr, 1), "child");
            EXPECT_EQ(zkOpenChildKivByIndex(byIndex, 2, 0), nullptr);
            EXPECT_EQ(zkOpenChildKivByIndex(root, 1, 0), nullptr); // root opened by name
            zkCloseKiv(c);
            zkCloseKiv(byIndex);
            zkCloseKiv(root);
        }
    }
    // A null parent opens the name as a path.
    KivArchive* a = zkOpenChildKiv(nullptr, path.c_str(), 0);
    EXPECT_EQ(Load(a, "x.bin"), "root item");
    zkCloseKiv(a);
}

TEST_F(Archives, ItemStreamsReadSeekAndStopAtTheEnd) {
    const std::string path =
        Store("s.kiv", Pack({Item("abc", "abc"), Item("long", std::string(3000, 'z'))}));
    for (uint32_t mode : {0u, ZK_KIV_MEMORY_IMAGE}) {
        KivArchive* a = zkOpenKiv(path.c_str(), mode);
        KivItemStream* s = zkOpenKivItem(a, "abc");
        ASSERT_NE(s, nullptr);
        uint32_t size = 0, got = 9, position = 9;
        EXPECT_EQ(Codes({zkGetKivItemSize(s, &size), size}), Codes({0, 3}));
        char buffer[8] = {};
        EXPECT_EQ(Codes({zkReadKivItem(s, buffer, 2, &got), got}), Codes({0, 2}));
        EXPECT_EQ(Codes({zkReadKivItem(s, buffer + 2, 8, &got), got}), Codes({0, 1}));
        EXPECT_EQ(std::string(buffer), "abc");
        EXPECT_EQ(Codes({zkReadKivItem(s, buffer, 8, &got), got}), Codes({0, 0}));
        // The seek table: from the start, the position and the end, held in 0..size.
        const std::vector<std::array<int64_t, 4>> seeks = {
            // {offset, origin, result, new position}
            {-5, 2, 0, 0}, {10, 0, 0, 3}, {1, 0, 0, 1},  {1, 1, 0, 2},  {-1, 1, 0, 1},
            {-9, 1, 0, 0}, {5, 2, 0, 3},  {-1, 2, 0, 2}, {1, 3, -3, 2}, {-3, 0, 0, 0},
        };
        for (const auto& k : seeks)
            EXPECT_EQ(Codes({zkSeekKivItem(s, int32_t(k[0]), uint32_t(k[1]), &position), position}),
                      Codes({k[2], k[3]}))
                << k[0] << "," << k[1];
        EXPECT_EQ(Codes({zkReadKivItem(s, nullptr, 1, &got), got}), Codes({-3, 0}));
        zkCloseKivItem(s);
        EXPECT_EQ(zkOpenKivItem(a, "missing"), nullptr);
        EXPECT_EQ(zkOpenKivItemByIndex(a, 0), nullptr); // opened by name
        s = zkOpenKivItem(a, "long");
        std::string all;
        char piece[700];
        while (zkReadKivItem(s, piece, sizeof piece, &got) == 0 && got)
            all.append(piece, got);
        EXPECT_EQ(all, std::string(3000, 'z')); // in pieces, up to a read of 0
        zkCloseKivItem(s);
        zkCloseKiv(a);
    }
}

// Null and stale handles are the argument sweep's; here, the modes and the index range.
TEST_F(Archives, ModesAndIndexRangeAreChecked) {
    const std::string path = Store("c.kiv", Pack({Item("a", "1")}));
    KivArchive* byName = zkOpenKiv(path.c_str(), ZK_KIV_MEMORY_IMAGE);
    KivArchive* byIndex = zkOpenKiv(path.c_str(), ZK_KIV_MEMORY_IMAGE | ZK_KIV_BY_INDEX);
    void* p = reinterpret_cast<void*>(1);
    uint32_t size = 7;
    EXPECT_EQ(Codes({zkLoadKivItem(byName, "a", nullptr, &size), size,
                     zkLoadKivItem(byName, nullptr, &p, &size), p != nullptr}),
              Codes({-3, 0, -3, 0}));
    EXPECT_EQ(
        Codes({zkLoadKivItem(byIndex, "a", &p, &size), zkLoadKivItemByIndex(byName, 0, &p, &size),
               zkLoadKivItemByIndex(byIndex, 1, &p, &size), zkGetKivItem(byIndex, "a", &p, &size),
               zkGetKivItemByIndex(byName, 0, &p, &size),
               zkGetKivItemByIndex(byIndex, 1, &p, &size), zkFindKivItem(byIndex, "a")}),
        Codes({-6, -6, -14, -6, -6, -14, 0}));
    EXPECT_EQ(Codes({zkGetKivItemByIndex(byIndex, 0, &p, &size), size, *static_cast<char*>(p)}),
              Codes({0, 1, '1'}));
    EXPECT_EQ(zkLoadKivFileItem("/m/none.kiv", "a", &p, &size), -51);
    EXPECT_EQ(Codes({zkLoadKivFileItem(path.c_str(), "a", &p, &size), size}), Codes({0, 1}));
    zkReleaseKivItem(p);
    zkCloseKiv(byName);
    zkCloseKiv(byIndex);
}

TEST_F(Archives, TheTablesHoldThirtyTwoAndClosingAParentClosesWhatCameFromIt) {
    const std::string child = Pack({Item("i", "inner")});
    const std::string path = Store("t.kiv", Pack({Item("child.kiv", child), Item("x", "xx")}));
    std::vector<KivArchive*> open(32);
    for (KivArchive*& a : open)
        ASSERT_NE(a = zkOpenKiv(path.c_str(), 0), nullptr);
    EXPECT_EQ(zkOpenKiv(path.c_str(), 0), nullptr);
    EXPECT_EQ(zkOpenChildKiv(open[0], "child.kiv", 0), nullptr); // no record for it
    zkCloseKiv(open.back());
    open.pop_back();
    KivArchive* c = zkOpenChildKiv(open[0], "child.kiv", 0);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(zkGetOpenKivCount(), 32u); // the closed record was taken again

    std::vector<KivItemStream*> streams(32);
    for (size_t i = 0; i < streams.size(); ++i)
        ASSERT_NE(streams[i] = zkOpenKivItem(i % 2 ? c : open[1], i % 2 ? "i" : "x"), nullptr);
    EXPECT_EQ(zkOpenKivItem(c, "i"), nullptr);
    EXPECT_EQ(zkGetOpenKivItemCount(), 32u);

    // Closing the parent closes its child and the child's sixteen streams;
    // their handles then answer as closed ones.
    zkCloseKiv(open[0]);
    EXPECT_EQ(Codes({zkGetOpenKivCount(), zkGetOpenKivItemCount()}), Codes({30, 16}));
    uint32_t got = 5;
    char buffer[4];
    EXPECT_EQ(Codes({zkReadKivItem(streams[1], buffer, 4, &got), got, zkGetKivItemCount(c)}),
              Codes({-4, 0, 0}));
    EXPECT_EQ(Codes({zkReadKivItem(streams[0], buffer, 4, &got), got}), Codes({0, 2}));
    zkCloseKiv(c); // already closed with its parent: nothing
    for (size_t i = 1; i < open.size(); ++i)
        zkCloseKiv(open[i]);
    EXPECT_EQ(zkGetOpenKivItemCount(), 0u);
}

TEST_F(Archives, DamagedArchivesAreRefusedAndShortItemsReported) {
    PackOptions packed;
    packed.packedDirectory = true;
    const std::string good = Pack({Item("a", "alpha"), Item("b", "beta")}, packed);
    const uint32_t blocksBefore = UsedBlocks();
    std::vector<std::pair<std::string, std::string>> bad = {
        {"shorter than a header", good.substr(0, 31)},
        {"wrong magic", "KIV1" + good.substr(4)},
        {"directory cut short", good.substr(0, 60)},
        {"packed directory with a 32-byte header", good},
        {"entry size below 12", good},
        {"packed directory that expands short", good},
        {"header length of 40", good},
    };
    Put16(bad[3].second, 16, 16);
    Put16(bad[4].second, 22, 8);
    Put32(bad[5].second, 32, Get32(good, 32) - 2);
    Put16(bad[6].second, 16, 24);
    for (const auto& [what, bytes] : bad) {
        const std::string path = Store("bad.kiv", bytes);
        for (uint32_t mode : {0u, ZK_KIV_MEMORY_IMAGE, ZK_KIV_BY_INDEX})
            EXPECT_EQ(zkOpenKiv(path.c_str(), mode), nullptr) << what << " mode " << mode;
    }
    EXPECT_EQ(Codes({UsedBlocks(), zkGetOpenFileCount()}), Codes({blocksBefore, 0}));

    // Items whose bytes run past the end of their archive, on the device or a
    // child packed in front of a parent item of 'Z's: loads and streams read
    // short (-11) in every mode, never on into what follows, and a stream
    // moves by what it delivered.
    std::string cut = Pack({Item("a", "alpha"), Item("b", std::string(64, 'B'))});
    Put32(cut, 8, uint32_t(cut.size()) - 53);
    cut.resize(cut.size() - 53);
    PackOptions stored;
    stored.nameOrder = false; // data in the order given: the child, then the Z's
    const std::string path = Store("cut.kiv", cut);
    const std::string parentPath =
        Store("p.kiv", Pack({Item("c.kiv", cut), Item("z", std::string(256, 'Z'))}, stored));
    for (uint32_t parentMode : {0u, ZK_KIV_MEMORY_IMAGE, ~0u}) { // ~0u: no parent
        for (uint32_t mode : {0u, ZK_KIV_MEMORY_IMAGE}) {
            SCOPED_TRACE(std::to_string(parentMode) + "/" + std::to_string(mode));
            KivArchive* parent = ~parentMode ? zkOpenKiv(parentPath.c_str(), parentMode) : nullptr;
            KivArchive* a =
                parent ? zkOpenChildKiv(parent, "c.kiv", mode) : zkOpenKiv(path.c_str(), mode);
            ASSERT_NE(a, nullptr);
            int32_t code = 0;
            EXPECT_EQ(Load(a, "a", &code), "alpha");
            EXPECT_EQ(Load(a, "b", &code), "");
            EXPECT_EQ(code, -11);
            KivItemStream* s = zkOpenKivItem(a, "b");
            char buffer[64];
            uint32_t got = 0, position = 0;
            EXPECT_EQ(
                Codes({zkReadKivItem(s, buffer, 64, &got), zkSeekKivItem(s, 0, 1, &position)}),
                Codes({-11, 0}));
            EXPECT_EQ(Codes({position, std::string(buffer, got) == std::string(got, 'B')}),
                      Codes({got, 1}));
            zkCloseKivItem(s);
            zkCloseKiv(parent ? parent : a); // a parent closes its child with it
        }
    }

    // A read of the device that fails: the load returns the file layer's code.
    KivArchive* a = zkOpenKiv(path.c_str(), 0);
    const int64_t readsSoFar = Device().Count(kFileReadAt);
    Device().plan.faults[kFileReadAt] = {readsSoFar + 1, readsSoFar + 100, -35};
    int32_t code = 0;
    EXPECT_EQ(Load(a, "a", &code), "");
    EXPECT_LT(code, 0);
    zkCloseKiv(a);
}

TEST_F(Archives, EveryRefusedAllocationFailsTheOpenAndLeaksNothing) {
    PackOptions packed;
    packed.packedDirectory = true;
    packed.nameOrder = false;
    const std::string child = Pack({Item("c", "see")}, packed);
    const std::string path =
        Store("m.kiv", Pack({Item("child.kiv", child), Item("b", "b")}, packed));
    for (uint32_t mode : {0u, ZK_KIV_MEMORY_IMAGE}) {
        EXPECT_GT(WalkRefusals("archive and child",
                               [&] {
                                   KivArchive* a = zkOpenKiv(path.c_str(), mode);
                                   KivArchive* c =
                                       a ? zkOpenChildKiv(a, "child.kiv", mode) : nullptr;
                                   const bool ok = c && Load(c, "c") == "see";
                                   zkCloseKiv(a);
                                   return ok;
                               }),
                  0u);
    }
}

} // namespace
} // namespace zktest
