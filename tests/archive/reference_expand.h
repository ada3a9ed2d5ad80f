// The slide format expanded the plain way: a 4096-byte ring, one byte at a
// time. The library's expander is compared with this one, byte for byte.
#ifndef ZK_TESTS_ARCHIVE_REFERENCE_EXPAND_H
#define ZK_TESTS_ARCHIVE_REFERENCE_EXPAND_H

#include <cstdint>
#include <cstring>

namespace zktest {

// Writes at most capacity bytes; returns the number written.
inline uint32_t ReferenceExpand(uint8_t* out, uint32_t capacity, const uint8_t* in, uint32_t size) {
    uint8_t window[4096];
    std::memset(window, 0, sizeof window);
    uint32_t r = 4078, flags = 0, written = 0, i = 0;
    for (;;) {
        flags >>= 1;
        if (!(flags & 0x100)) {
            if (i == size) break;
            flags = in[i++] | 0xFF00u;
        }
        if (flags & 1) {
            if (i == size || written == capacity) break;
            const uint8_t x = in[i++];
            out[written++] = x;
            window[r] = x;
            r = (r + 1) & 0xFFF;
        } else {
            if (i == size) break;
            const uint32_t b0 = in[i++];
            if (i == size) break;
            const uint32_t b1 = in[i++];
            const uint32_t p = b0 | ((b1 & 0xF0) << 4), n = (b1 & 0x0F) + 3;
            for (uint32_t k = 0; k < n; ++k) {
                if (written == capacity) return written;
                const uint8_t x = window[(p + k) & 0xFFF];
                out[written++] = x;
                window[r] = x;
                r = (r + 1) & 0xFFF;
            }
        }
    }
    return written;
}

} // namespace zktest

#endif
