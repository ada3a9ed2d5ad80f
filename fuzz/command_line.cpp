// Fuzzes the in-place command-line splitter with arbitrary text.
//
// Checked: every stored argument starts inside the text and ends at a
// terminator inside it, the count returned is at least the number stored,
// only the first maxArgs slots are written, and the splitter changes no byte
// of the text except by writing terminators. The text is copied into a heap
// block of exactly its length plus the terminator, so a read past the
// terminator is caught by the address sanitizer.
#include "kernel/arguments.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint32_t maxArgs = data[0] % 40; // 0 covers "count only"
    ++data;
    --size;

    // The text ends at its first zero byte.
    const size_t length = strnlen(reinterpret_cast<const char*>(data), size);
    char* text = new char[length + 1];
    std::memcpy(text, data, length);
    text[length] = '\0';
    const std::vector<char> original(text, text + length + 1);

    // Exactly maxArgs slots (at least one so new[] never returns a shared
    // empty block); the sentinel values show which slots were written.
    const uint32_t slots = maxArgs ? maxArgs : 1;
    char** args = new char*[slots];
    char* const sentinel = reinterpret_cast<char*>(&args);
    for (uint32_t i = 0; i < slots; ++i)
        args[i] = sentinel;

    const uint32_t count = zk::SplitCommandLine(text, args, maxArgs);
    const uint32_t stored = count < maxArgs ? count : maxArgs;

    for (uint32_t i = 0; i < stored; ++i) {
        Check(args[i] >= text && args[i] <= text + length);
        // The argument ends at a terminator inside the text.
        const size_t room = static_cast<size_t>(text + length - args[i]);
        Check(strnlen(args[i], room + 1) <= room);
        if (i > 0) Check(args[i] > args[i - 1]);
    }
    for (uint32_t i = stored; i < slots; ++i)
        Check(args[i] == sentinel);
    // Text that is not empty holds at least one argument.
    if (length > 0 && maxArgs > 0) Check(count >= 1);
    // Only terminators are written.
    for (size_t i = 0; i <= length; ++i)
        Check(text[i] == original[i] || text[i] == '\0');

    delete[] args;
    delete[] text;
    return 0;
}
