// Fuzzes the module directory and module path composition through the
// exported functions, with arbitrary directories, names and output sizes.
//
// Checked: the size returned is the same for every output size; a path is
// written only when that size fits, and then it is exactly that long; nothing
// is ever written at or beyond outSize, and nothing at all when the path does
// not fit; the directory read back is what was set (less one trailing
// separator) or unchanged when it was refused.
#include <zk/args.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kPathLimit = 260;
constexpr size_t kGuard = 64;
constexpr unsigned char kFill = 0xA5;

void Check(bool condition) {
    if (!condition) std::abort();
}

// Composes into a heap block of exactly outSize + kGuard bytes, all kFill.
uint32_t Compose(const std::string& name, uint32_t outSize, std::vector<unsigned char>& out) {
    out.assign(outSize + kGuard, kFill);
    return zkGetModulePath(name.c_str(), reinterpret_cast<char*>(out.data()), outSize);
}

bool Untouched(const std::vector<unsigned char>& out, size_t from) {
    for (size_t i = from; i < out.size(); ++i)
        if (out[i] != kFill) return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint32_t outSize = data[0] | ((data[1] & 1u) << 8); // 0 .. 511
    const bool setDirectory = (data[1] & 2u) != 0;
    data += 2;
    size -= 2;

    // "directory\nname", each cut at a zero byte.
    const char* text = reinterpret_cast<const char*>(data);
    const char* newline = static_cast<const char*>(std::memchr(text, '\n', size));
    const size_t dirBytes = newline ? static_cast<size_t>(newline - text) : 0;
    const char* nameStart = newline ? newline + 1 : text;
    const size_t nameBytes = size - static_cast<size_t>(nameStart - text);
    const std::string directory(text, strnlen(text, dirBytes));
    const std::string name(nameStart, strnlen(nameStart, nameBytes));

    if (setDirectory) {
        const std::string before = zkGetModuleDir();
        zkSetModuleDir(directory.c_str());
        const std::string after = zkGetModuleDir();
        if (directory.size() >= kPathLimit) {
            Check(after == before);
        } else {
            std::string expected = directory;
            if (expected.size() > 1 && (expected.back() == '/' || expected.back() == '\\'))
                expected.pop_back();
            Check(after == expected);
        }
    }

    // The full answer, from a buffer large enough for any path.
    std::vector<unsigned char> large;
    const uint32_t needed = Compose(name, 2 * kPathLimit + 2, large);
    Check(needed >= 1 && needed <= 2 * kPathLimit + 2);
    Check(std::strlen(reinterpret_cast<const char*>(large.data())) + 1 == needed);
    Check(Untouched(large, needed));

    std::vector<unsigned char> out;
    Check(Compose(name, outSize, out) == needed);
    if (needed <= outSize) {
        Check(std::memcmp(out.data(), large.data(), needed) == 0);
        Check(Untouched(out, needed));
    } else {
        Check(Untouched(out, 0));
    }

    // Null arguments give 0 and write nothing.
    Check(zkGetModulePath(nullptr, reinterpret_cast<char*>(out.data()), outSize) == 0);
    Check(zkGetModulePath(name.c_str(), nullptr, outSize) == 0);
    return 0;
}
