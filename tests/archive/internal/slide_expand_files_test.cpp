// Slide expansion on the packed bytes of real files against the archive
// tool's ring-buffer expander: whole streams, streams cut short anywhere,
// and the unbounded form, which must leave every byte after its output as it
// was.
#include "kiv_check.h"
#include "kiv_pack.h"
#include "archive/slide_expand.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace zktest {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
constexpr uint8_t kGuard = 0x5C;

Bytes ReadPrefix(const fs::path& path, size_t limit) {
    std::ifstream f(path, std::ios::binary);
    Bytes data((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (data.size() > limit) data.resize(limit);
    return data;
}

// Text and machine code as this system has them: the licence texts, the
// start of this test program itself and of the largest program in /usr/bin.
std::vector<std::pair<std::string, Bytes>> Samples() {
    std::vector<std::pair<std::string, Bytes>> samples;
    std::error_code error;
    Bytes text;
    for (const auto& entry : fs::directory_iterator("/usr/share/common-licenses", error)) {
        const Bytes b = ReadPrefix(entry.path(), 1u << 20);
        text.insert(text.end(), b.begin(), b.end());
    }
    samples.emplace_back("licence texts", text);
    samples.emplace_back("this program", ReadPrefix("/proc/self/exe", 512u << 10));
    fs::path largest;
    uintmax_t best = 0;
    for (const auto& entry : fs::directory_iterator("/usr/bin", error)) {
        std::error_code e;
        if (entry.is_regular_file(e) && entry.file_size(e) > best)
            best = entry.file_size(e), largest = entry.path();
    }
    if (!largest.empty()) samples.emplace_back(largest.string(), ReadPrefix(largest, 1u << 20));
    return samples;
}

// The library's expansion of packed[0, size) into room bytes, with guard
// bytes behind; fails the test when a guard byte changed.
Bytes Expand(const Bytes& packed, uint32_t size, uint32_t room, uint32_t limit) {
    Bytes out(size_t(room) + 64, kGuard);
    const uint32_t n = zk::SlideExpandBounded(out.data(), limit, packed.data(), size);
    EXPECT_LE(n, room);
    EXPECT_TRUE(std::all_of(out.begin() + std::min(n, room), out.end(), [](uint8_t b) {
        return b == kGuard;
    })) << "bytes written past the output";
    out.resize(std::min(n, room));
    return out;
}

TEST(SlideExpandFiles, RealFilesExpandAsTheRingExpanderDoes) {
    std::mt19937 random(7);
    int tested = 0;
    for (const auto& [name, original] : Samples()) {
        if (original.empty()) continue;
        ++tested;
        const Bytes packed = kivtool::SlidePack(original.data(), original.size());
        const uint32_t n = uint32_t(original.size()), p = uint32_t(packed.size());
        // Whole, bounded by the exact size and unbounded.
        EXPECT_EQ(Expand(packed, p, n, n), original) << name;
        EXPECT_EQ(Expand(packed, p, n, 0xFFFFFFFFu), original) << name;
        // Cut short at random points, and bounded below the full size: equal
        // to the ring expander, nothing written after the last byte.
        for (int round = 0; round < 24; ++round) {
            const uint32_t cut = random() % (p + 1);
            Bytes expected(n);
            expected.resize(kivtool::SlideUnpack(expected.data(), n, packed.data(), cut));
            EXPECT_EQ(Expand(packed, cut, n, 0xFFFFFFFFu), expected) << name << " cut " << cut;
            const uint32_t limit = random() % (n + 1);
            EXPECT_EQ(Expand(packed, p, limit, limit),
                      Bytes(original.begin(), original.begin() + limit))
                << name << " limit " << limit;
        }
    }
    if (tested == 0) GTEST_SKIP() << "this system has none of the files";
}

} // namespace
} // namespace zktest
