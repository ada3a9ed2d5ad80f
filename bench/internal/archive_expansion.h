// Slide expansion against independent decoders, on the bytes of real files:
//
//   text: the licence texts under /usr/share/common-licenses, one after another
//   binary: the first 8 MB of a large executable (cmake's, else the largest
//       program in /usr/bin)
//
// Each is packed by the archive tool's packer, then expanded by the library's
// bounded expansion and by a textbook ring-buffer decoder written here (a
// 4096-byte ring with the write position starting at 4078, one flag byte per
// eight tokens taken from the least significant bit, every byte through the
// ring). The same bytes are also squeezed by libdeflate (zlib level 6) and
// LZ4 (default level) and decompressed by them, where those libraries are
// installed (ZK_BENCH_LIBDEFLATE, ZK_BENCH_LZ4). Every figure is MB/s of
// output per second of processor time (std::clock, so that other programs
// running meanwhile do not count; on a quiet machine it is wall time), the
// median of several interleaved runs of at least 8 MB of output each; every
// decoder's output is compared with the original.
#ifndef ZK_BENCH_ARCHIVE_EXPANSION_H
#define ZK_BENCH_ARCHIVE_EXPANSION_H

#include "archive/slide_expand.h"
#include "kiv_pack.h"

#if defined(ZK_BENCH_LIBDEFLATE)
#include <libdeflate.h>
#endif
#if defined(ZK_BENCH_LZ4)
#include <lz4.h>
#endif

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

namespace expansion {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
constexpr int kRuns = 7;
constexpr size_t kOutputPerRun = 8u << 20;

// The textbook decoder: every output byte also goes into the ring, and a
// reference reads the ring, never the output.
inline uint32_t RingDecode(uint8_t* out, const uint8_t* in, uint32_t size) {
    uint8_t ring[4096];
    std::memset(ring, 0, sizeof ring);
    const uint8_t* const end = in + size;
    uint8_t* o = out;
    uint32_t r = 4078, flags = 0;
    for (;;) {
        if (((flags >>= 1) & 0x100) == 0) {
            if (in == end) break;
            flags = *in++ | 0xFF00u;
        }
        if (flags & 1) {
            if (in == end) break;
            const uint8_t c = *in++;
            *o++ = c;
            ring[r++] = c;
            r &= 0xFFF;
        } else {
            if (in == end) break;
            uint32_t i = *in++;
            if (in == end) break;
            uint32_t j = *in++;
            i |= (j & 0xF0) << 4;
            j = (j & 0x0F) + 2;
            for (uint32_t k = 0; k <= j; ++k) {
                const uint8_t c = ring[(i + k) & 0xFFF];
                *o++ = c;
                ring[r++] = c;
                r &= 0xFFF;
            }
        }
    }
    return uint32_t(o - out);
}

inline Bytes ReadFile(const fs::path& path, size_t limit = SIZE_MAX) {
    std::ifstream f(path, std::ios::binary);
    Bytes data((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (data.size() > limit) data.resize(limit);
    return data;
}

inline Bytes LicenceTexts() {
    std::vector<fs::path> paths;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/usr/share/common-licenses", error))
        if (entry.is_regular_file() && !entry.is_symlink()) paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    Bytes text;
    for (const fs::path& p : paths) {
        const Bytes b = ReadFile(p);
        text.insert(text.end(), b.begin(), b.end());
    }
    return text;
}

inline fs::path LargeExecutable() {
    if (const char* path = std::getenv("PATH")) {
        std::string rest = path;
        for (size_t at = 0; at <= rest.size();) {
            const size_t colon = std::min(rest.find(':', at), rest.size());
            const fs::path candidate = fs::path(rest.substr(at, colon - at)) / "cmake";
            std::error_code error;
            if (fs::is_regular_file(candidate, error)) return fs::canonical(candidate, error);
            at = colon + 1;
        }
    }
    fs::path largest;
    uintmax_t best = 0;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/usr/bin", error)) {
        std::error_code e;
        if (!entry.is_regular_file(e) || entry.is_symlink(e)) continue;
        if (entry.file_size(e) > best) best = entry.file_size(e), largest = entry.path();
    }
    return largest;
}

// A decoder under test: its name, what it decodes and how (returns the bytes
// it produced), and the MB/s of its runs.
struct Decoder {
    std::string name;
    std::function<size_t()> decode;
    std::vector<double> rates;
    double Median() {
        std::sort(rates.begin(), rates.end());
        return rates[rates.size() / 2];
    }
};

// kRuns rounds; each round runs every decoder once, starting with a
// different one each time, so that load from elsewhere on the machine falls
// on all of them alike. A run decodes as many times as it takes to produce
// kOutputPerRun bytes. False in *ok when a decoder does not give back the
// original.
inline void Measure(const Bytes& original, Bytes& out, std::vector<Decoder>& decoders, bool* ok) {
    const size_t repeats =
        std::max<size_t>(1, kOutputPerRun / std::max<size_t>(1, original.size()));
    for (int run = 0; run < kRuns; ++run) {
        for (size_t i = 0; i < decoders.size(); ++i) {
            Decoder& d = decoders[(run + i) % decoders.size()];
            std::fill(out.begin(), out.end(), 0);
            const std::clock_t start = std::clock();
            bool all = true;
            for (size_t k = 0; k < repeats; ++k)
                all = d.decode() == original.size() && all;
            const double seconds = double(std::clock() - start) / CLOCKS_PER_SEC;
            if (!all || !std::equal(original.begin(), original.end(), out.begin())) {
                std::printf("FAILED: %s did not give back the original\n", d.name.c_str());
                *ok = false;
            }
            d.rates.push_back(double(original.size()) * double(repeats) / seconds / 1e6);
        }
    }
}

inline bool Compare(const char* what, const Bytes& original) {
    if (original.empty()) {
        std::printf("expand %-6s: no input file found, skipped\n", what);
        return true;
    }
    const uint32_t n = uint32_t(original.size());
    const Bytes packed = kivtool::SlidePack(original.data(), original.size());
    const uint32_t p = uint32_t(packed.size());
    Bytes out(n + 64);
    std::vector<Decoder> decoders;
    decoders.push_back(
        {"library", [&] { return zk::SlideExpandBounded(out.data(), n, packed.data(), p); }, {}});
    decoders.push_back(
        {"ring decoder", [&] { return RingDecode(out.data(), packed.data(), p); }, {}});
    std::vector<std::string> notes = {"", ""};
#if defined(ZK_BENCH_LIBDEFLATE)
    libdeflate_compressor* compressor = libdeflate_alloc_compressor(6);
    libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
    Bytes deflated(libdeflate_zlib_compress_bound(compressor, n));
    deflated.resize(
        libdeflate_zlib_compress(compressor, original.data(), n, deflated.data(), deflated.size()));
    decoders.push_back({"libdeflate",
                        [&]() -> size_t {
                            size_t got = 0;
                            return libdeflate_zlib_decompress(decompressor, deflated.data(),
                                                              deflated.size(), out.data(), n,
                                                              &got) == LIBDEFLATE_SUCCESS
                                       ? got
                                       : 0;
                        },
                        {}});
    char note[96];
    std::snprintf(note, sizeof note, "libdeflate %s, zlib -6 to %.1f%%", LIBDEFLATE_VERSION_STRING,
                  100.0 * deflated.size() / n);
    notes.push_back(note);
#endif
#if defined(ZK_BENCH_LZ4)
    Bytes lz4(static_cast<size_t>(LZ4_compressBound(int(n))));
    lz4.resize(
        size_t(LZ4_compress_default(reinterpret_cast<const char*>(original.data()),
                                    reinterpret_cast<char*>(lz4.data()), int(n), int(lz4.size()))));
    decoders.push_back({"LZ4",
                        [&]() -> size_t {
                            const int got = LZ4_decompress_safe(
                                reinterpret_cast<const char*>(lz4.data()),
                                reinterpret_cast<char*>(out.data()), int(lz4.size()), int(n));
                            return got < 0 ? 0 : size_t(got);
                        },
                        {}});
    char lz4Note[96];
    std::snprintf(lz4Note, sizeof lz4Note, "LZ4 %s, default level to %.1f%%", LZ4_versionString(),
                  100.0 * lz4.size() / n);
    notes.push_back(lz4Note);
#endif
    bool ok = true;
    Measure(original, out, decoders, &ok);
    const double library = decoders[0].Median();
    std::printf("expand %s: %.2f MB, slide-packed to %.1f%%, MB/s of output\n", what, n / 1e6,
                100.0 * p / n);
    for (size_t i = 0; i < decoders.size(); ++i) {
        const double rate = decoders[i].Median();
        std::printf("  %-12s %8.1f MB/s", decoders[i].name.c_str(), rate);
        if (i > 0) std::printf("   library/%s %5.2f", decoders[i].name.c_str(), library / rate);
        if (i == 1) std::printf(" (goal >= 2.5)");
        if (i > 1 && decoders[i].name == "libdeflate" && std::strcmp(what, "text") == 0)
            std::printf(" (goal >= 1.0)");
        if (!notes[i].empty()) std::printf("   [%s]", notes[i].c_str());
        std::printf("\n");
    }
#if defined(ZK_BENCH_LIBDEFLATE)
    libdeflate_free_decompressor(decompressor);
    libdeflate_free_compressor(compressor);
#endif
    return ok;
}

// False when a decoder did not give back its input.
inline bool Run() {
    std::printf("slide expansion, median of %d runs of >= %zu MB of output each\n", kRuns,
                kOutputPerRun >> 20);
    const bool text = Compare("text", LicenceTexts());
    const fs::path executable = LargeExecutable();
    std::printf("binary: the first 8 MB of %s\n", executable.string().c_str());
    return Compare("binary", executable.empty() ? Bytes() : ReadFile(executable, 8u << 20)) && text;
}

} // namespace expansion

#endif
