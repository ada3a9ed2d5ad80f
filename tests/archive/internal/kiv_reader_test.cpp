// What the archive calls cannot show: damaged names and the buffered file source.
#include "archive/archive_builder.h"
#include "archive/kiv_reader.h"
#include "file/memory_device.h"

namespace zktest {
namespace {

int32_t OpenMemory(const std::string& bytes, uint32_t flags, zk::KivDirectory* d) {
    return zk::KivOpenFromMemory(reinterpret_cast<const uint8_t*>(bytes.data()),
                                 static_cast<uint32_t>(bytes.size()), flags, d);
}

class KivReader : public LibraryTest {};

// A name offset outside the name area, or a last name without terminator, names nothing.
TEST_F(KivReader, NamesNeverReachPastTheNameArea) {
    // Two items a and b: a 32-byte header, entries at 32 and 44, names at 56
    // (the bytes KivPacker.LaysOutTheTwoItemArchiveByteForByte checks).
    PackOptions options;
    options.header48 = options.nameOrder = false;
    std::string s = Pack({Item("a", "AAA"), Item("b", "BB")}, options);
    Put32(s, 32, 4);      // entry 0 names nothing
    s[59] = 'c';          // "b" loses its terminator: the area ends "bc"
    Put16(s, 18, 0x0001); // folded names, not stored in name order: sorted
    for (uint32_t flags : {0u, uint32_t(zk::kKivByIndex)}) {
        zk::KivDirectory d;
        ASSERT_EQ(OpenMemory(s, flags, &d), 0);
        if (!flags) {
            EXPECT_EQ(Codes({d.Find("bc"), d.Find("BC"), d.Find("b"), d.Find("a"), d.Find("")}),
                      Codes({1, 1, -1, -1, -1}));
        }
        EXPECT_EQ(d.Entry(0).nameOffset, 4u); // the nameless entry sorts first
        d.Release();
    }
    // The child's own bytes are not folded or sorted in place.
    EXPECT_EQ(s.substr(56, 4), std::string("a\0bc", 4));
}

class KivSourceTest : public MemoryDeviceTest {};

// Header and small directory in one device read; nothing outside the range.
TEST_F(KivSourceTest, ReadsOnlyInsideItsRangeInFewDeviceReads) {
    std::string file(10000, '\0');
    for (size_t i = 0; i < file.size(); ++i)
        file[i] = char(i * 7);
    FileHandle* f = Make("src.bin", file);
    ASSERT_NE(f, nullptr);
    zk::KivSource source(f, 100, 5000);
    std::string out(6000, '\0');
    const uint32_t before = Device().Count(kFileReadAt);
    EXPECT_EQ(Codes({source.Read(&out[0], 32), source.Read(&out[32], 16),
                     source.Read(&out[48], 100), Device().Count(kFileReadAt) - before,
                     source.Read(&out[148], 5000), source.Read(&out[0], 10), source.Tell()}),
              Codes({32, 16, 100, 1, 5000 - 148, 0, 5100}));
    EXPECT_EQ(out.substr(0, 4852), file.substr(100, 4852));
    zkCloseFile(f);
}

} // namespace
} // namespace zktest
