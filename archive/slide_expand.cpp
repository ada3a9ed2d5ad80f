// Slide expansion without a window ring: a window position is turned into a
// distance back from the write position, and the byte is read from the
// output already written (or is zero, the window's starting contents, when
// the distance reaches before the first output byte). References that do not
// overlap what they write are one memcpy; a group of eight literals is one
// copy. Output equals the classic ring-buffer expander byte for byte.
#include "archive/slide_expand.h"

#include <zk/archive.h>

#include <cstring>

namespace zk {

namespace {

constexpr uint32_t kWindowMask = 0xFFF;
constexpr uint32_t kStartPosition = 4096 - 18; // 4078

} // namespace

uint32_t SlideExpandBounded(uint8_t* destination, uint32_t destinationSize, const uint8_t* source,
                            uint32_t sourceSize) {
    const uint8_t* in = source;
    const uint8_t* const end = source + sourceSize;
    uint32_t out = 0;
    uint32_t flags = 0;
    for (;;) {
        flags >>= 1;
        if (!(flags & 0x100)) {
            if (in == end) break;
            flags = *in++ | 0xFF00u;
            // Eight literals in a row: one copy of the group.
            if ((flags & 0xFF) == 0xFF && end - in >= 8 && destinationSize - out >= 8) {
                std::memcpy(destination + out, in, 8);
                in += 8;
                out += 8;
                flags = 0;
                continue;
            }
        }
        if (flags & 1) {
            if (in == end || out == destinationSize) break;
            destination[out++] = *in++;
            continue;
        }
        if (in == end) break;
        const uint32_t b0 = *in++;
        if (in == end) break;
        const uint32_t b1 = *in++;
        const uint32_t position = b0 | ((b1 & 0xF0) << 4);
        uint32_t length = (b1 & 0x0F) + 3;
        if (length > destinationSize - out) length = destinationSize - out;
        // How far back the window position lies from the write position; the
        // write position itself holds the byte written 4096 bytes ago.
        uint32_t distance = ((kStartPosition + out) - position) & kWindowMask;
        if (distance == 0) distance = 4096;
        if (distance > out) {
            // Reaches into the window's zeroed start: byte by byte.
            for (uint32_t k = 0; k < length; ++k, ++out) {
                destination[out] = out >= distance ? destination[out - distance] : 0;
            }
        } else if (distance >= length) {
            std::memcpy(destination + out, destination + out - distance, length);
            out += length;
        } else {
            // Overlaps what it writes: repeats the last distance bytes.
            for (uint32_t k = 0; k < length; ++k, ++out)
                destination[out] = destination[out - distance];
        }
        if (out == destinationSize) break;
    }
    return out;
}

} // namespace zk

extern "C" ZK_API void ZK_CALL _zkSlideExpand(uint8_t* destination, const uint8_t* source,
                                              uint32_t sourceSize) {
    if (!destination || !source) return;
    zk::SlideExpandBounded(destination, 0xFFFFFFFFu, source, sourceSize);
}
