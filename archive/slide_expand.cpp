// Slide expansion without a window ring: a window position is turned into a
// distance back from the write position, and the byte is read from the
// output already written (or is zero, the window's starting contents, when
// the distance reaches before the first output byte). Output equals the
// classic ring-buffer expander byte for byte.
//
// Speed: while at least one whole group of input and its largest output
// (eight references of 18 bytes) fit, a group runs without bounds checks and
// references copy in chunks (see CopyMatch); nothing is ever written past
// the bytes the stream produces, so the exported form, which has no output
// size, is as safe as the stream is well formed. Near the ends, one token at
// a time with every check.
#include "archive/slide_expand.h"

#include "kernel/timeline.h"

#include <zk/archive.h>

#include <cstring>

namespace zk {

namespace {

constexpr uint32_t kWindowMask = 0xFFF;
constexpr uint32_t kStartPosition = 4096 - 18; // 4078
constexpr uint32_t kMaxLength = 18;
// Output room a fast group may need: eight longest references.
constexpr uint32_t kGroupRoom = 8 * kMaxLength;
constexpr uint32_t kGroupInput = 1 + 8 * 2;

inline uint32_t Distance(uint32_t out, uint32_t position) {
    const uint32_t distance = ((kStartPosition + out) - position) & kWindowMask;
    return distance == 0 ? 4096 : distance; // the write position holds the byte 4096 back
}

// Copies length bytes (3 to 18) from distance back, exactly: nothing past
// length is written. The caller guarantees distance <= the bytes already
// written. A reference that does not overlap what it writes is two chunk
// copies (the second ending at length, overlapping the first); one that
// overlaps by 8 or more copies 8-byte chunks in order, each reading what the
// ones before it stored.
inline void CopyMatch(uint8_t* dst, uint32_t distance, uint32_t length) {
    const uint8_t* src = dst - distance;
    if (distance >= length) {
        if (length >= 16) {
            std::memcpy(dst, src, 16);
            std::memcpy(dst + length - 8, src + length - 8, 8);
        } else if (length >= 8) {
            std::memcpy(dst, src, 8);
            std::memcpy(dst + length - 8, src + length - 8, 8);
        } else if (length >= 4) {
            std::memcpy(dst, src, 4);
            std::memcpy(dst + length - 4, src + length - 4, 4);
        } else {
            dst[0] = src[0], dst[1] = src[1], dst[2] = src[2];
        }
        return;
    }
    uint32_t k = 0;
    if (distance >= 8)
        for (; k + 8 <= length; k += 8)
            std::memcpy(dst + k, src + k, 8);
    for (; k < length; ++k)
        dst[k] = src[k];
}

// One reference with every check: bounded by room, reaching into the zeroed
// start when the distance passes the first output byte.
inline uint32_t CopyMatchChecked(uint8_t* destination, uint32_t out, uint32_t distance,
                                 uint32_t length) {
    if (distance > out) {
        for (uint32_t k = 0; k < length; ++k, ++out)
            destination[out] = out >= distance ? destination[out - distance] : 0;
    } else {
        for (uint32_t k = 0; k < length; ++k, ++out)
            destination[out] = destination[out - distance];
    }
    return out;
}

} // namespace

// The expansion itself; SlideExpandBounded adds the timeline's slice.
uint32_t ExpandWithin(uint8_t* destination, uint32_t destinationSize, const uint8_t* source,
                      uint32_t sourceSize);

uint32_t SlideExpandBounded(uint8_t* destination, uint32_t destinationSize, const uint8_t* source,
                            uint32_t sourceSize) {
    if (timeline::On()) {
        timeline::Scope scope("archive", "slide expand");
        const uint32_t expanded = ExpandWithin(destination, destinationSize, source, sourceSize);
        scope.Set("packed", sourceSize);
        scope.Set("expanded", expanded);
        return expanded;
    }
    return ExpandWithin(destination, destinationSize, source, sourceSize);
}

uint32_t ExpandWithin(uint8_t* destination, uint32_t destinationSize, const uint8_t* source,
                      uint32_t sourceSize) {
    const uint8_t* in = source;
    const uint8_t* const end = source + sourceSize;
    uint32_t out = 0;

    // Whole groups while the input holds one and the output has room for it.
    while (uint32_t(end - in) >= kGroupInput && destinationSize - out >= kGroupRoom) {
        uint32_t flags = *in++;
        if (flags == 0xFF) { // eight literals
            std::memcpy(destination + out, in, 8);
            in += 8;
            out += 8;
            continue;
        }
        for (int token = 0; token < 8; ++token, flags >>= 1) {
            if (flags & 1) {
                destination[out++] = *in++;
                continue;
            }
            const uint32_t b0 = in[0], b1 = in[1];
            in += 2;
            const uint32_t length = (b1 & 0x0F) + 3;
            const uint32_t distance = Distance(out, b0 | ((b1 & 0xF0) << 4));
            if (distance <= out)
                CopyMatch(destination + out, distance, length);
            else
                CopyMatchChecked(destination, out, distance, length);
            out += length;
        }
    }

    // The tail: one token at a time, every bound checked.
    uint32_t flags = 0;
    for (;;) {
        flags >>= 1;
        if (!(flags & 0x100)) {
            if (in == end) break;
            flags = *in++ | 0xFF00u;
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
        uint32_t length = (b1 & 0x0F) + 3;
        if (length > destinationSize - out) length = destinationSize - out;
        out = CopyMatchChecked(destination, out, Distance(out, b0 | ((b1 & 0xF0) << 4)), length);
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
