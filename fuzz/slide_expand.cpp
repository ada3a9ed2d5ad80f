// Fuzz target: the bounded slide expansion. The first two bytes give the
// destination size (0..65535), the rest is the packed stream. The output must
// equal the byte-at-a-time expander of the archive tool's, stop at the destination
// size, and never write past it (the destination is an exact-size heap
// block, so the address sanitizer sees any overrun).
#include "archive/slide_expand.h"
#include "tools/kivtool/kiv_check.h"

#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint32_t capacity = data[0] | (uint32_t(data[1]) << 8);
    const uint8_t* stream = data + 2;
    const uint32_t streamSize = static_cast<uint32_t>(size - 2);
    std::unique_ptr<uint8_t[]> actual(new uint8_t[capacity ? capacity : 1]);
    std::unique_ptr<uint8_t[]> expected(new uint8_t[capacity ? capacity : 1]);
    const uint32_t n = zk::SlideExpandBounded(actual.get(), capacity, stream, streamSize);
    const uint32_t m = kivtool::SlideUnpack(expected.get(), capacity, stream, streamSize);
    if (n != m || n > capacity) std::abort();
    if (std::memcmp(actual.get(), expected.get(), n) != 0) std::abort();
    return 0;
}
