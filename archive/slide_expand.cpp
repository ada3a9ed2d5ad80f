// Slide expansion without a window ring: a window position is turned into a
// distance back from the write position, and the byte is read from the
// output already written (or is zero, the window's starting contents, when
// the distance reaches before the first output byte). Output equals the
// classic ring-buffer expander byte for byte.
//
// Speed: while a whole group of input with slack behind it and its largest
// output fit, a group runs without bounds checks and without a branch on the
// flag bits: every token copies 18 bytes (16, then 2) from a source chosen
// arithmetically, its own input byte for a literal or the output `distance`
// back for a reference, and then advances the output by 1 or by its length.
// Bytes past the token's length are overwritten by the tokens after it: the
// slack of input behind the group is enough to produce more output than the
// overshoot, so nothing stands past the bytes the stream produces when the
// call returns, and the exported form, which has no output size, is as safe
// as the stream is well formed. A reference closer than 16 bytes (which
// repeats its own output) takes a branch to a copy in smaller steps. Fast
// groups start once 4096 bytes are out, so that no reference reaches into
// the zeroed start; before that and near the ends, one token at a time with
// every check.
#include "archive/slide_expand.h"

#include "kernel/timeline.h"

#include <zk/archive.h>

#include <cstring>

namespace zk {

namespace {

constexpr uint32_t kWindowMask = 0xFFF;
constexpr uint32_t kStartPosition = 4096 - 18; // 4078
constexpr uint32_t kMaxLength = 18;
// Output room a fast group may need: eight tokens that each store 18 bytes.
constexpr uint32_t kGroupRoom = 8 * kMaxLength;
constexpr uint32_t kFastStart = 4096; // no reference reaches before the output from here
constexpr uint32_t kGroupInput = 1 + 8 * 2;
// Input a fast group leaves behind it: enough for the literal copies' reads
// (18 bytes from a group's last input byte), and at least 17 more bytes of
// output from whatever follows, however it is made up, to cover the
// overshoot of the group's last copy.
constexpr uint32_t kGroupSlack = 32;

// The distance back from output position `out` to window position `position`:
// 1 to 4096 (the write position itself holds the byte 4096 back).
inline uint32_t Distance(uint32_t out, uint32_t position) {
    return ((kStartPosition + out - position - 1) & kWindowMask) + 1;
}

// Picks a when pick is 1, b when it is 0, without a branch: the flag bits
// of packed data follow no pattern a predictor could learn.
inline const uint8_t* Select(uint32_t pick, const uint8_t* a, const uint8_t* b) {
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
    __asm__("test %2, %2\n\tcmovnz %1, %0" : "+r"(b) : "r"(a), "r"(pick) : "cc");
    return b;
#else
    const uintptr_t mask = uintptr_t(0) - pick;
    return reinterpret_cast<const uint8_t*>((reinterpret_cast<uintptr_t>(a) & mask) |
                                            (reinterpret_cast<uintptr_t>(b) & ~mask));
#endif
}

// Copies 18 bytes, the last two read after the first sixteen are stored: a
// reference 16 or 17 back reads its own first bytes again.
inline void Copy18(uint8_t* dst, const uint8_t* src) {
    uint8_t chunk[16];
    std::memcpy(chunk, src, 16);
    std::memcpy(dst, chunk, 16);
    uint16_t tail;
    std::memcpy(&tail, src + 16, 2);
    std::memcpy(dst + 16, &tail, 2);
}

// A reference 1 to 15 back, which repeats output it is writing: 8-byte steps
// (each reading what the ones before it stored) when it is at least 8 back,
// else one byte at a time. Stores 18 bytes at most.
inline void CopyNear(uint8_t* dst, uint32_t distance, uint32_t length) {
    const uint8_t* src = dst - distance;
    if (distance >= 8) {
        uint8_t chunk[8];
        std::memcpy(chunk, src, 8);
        std::memcpy(dst, chunk, 8);
        std::memcpy(chunk, src + 8, 8);
        std::memcpy(dst + 8, chunk, 8);
        uint16_t tail;
        std::memcpy(&tail, src + 16, 2);
        std::memcpy(dst + 16, &tail, 2);
        return;
    }
    for (uint32_t k = 0; k < length; ++k)
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

// Whole groups while the input holds one with kGroupSlack behind it and the
// output has room for its longest form; out is at least 16. Before kFastStart
// (kNearStart) a reference may reach into the zeroed start and is checked for
// it, and the groups stop at kFastStart. Moves *inOut and returns the new
// output count.
template <bool kNearStart>
uint32_t FastGroups(uint8_t* destination, uint32_t destinationSize, const uint8_t** inOut,
                    const uint8_t* end, uint32_t out) {
    const uint8_t* in = *inOut;
    uint8_t* o = destination + out;
    // The write position's window index less one, from o's low bits.
    const uint32_t windowBias =
        kStartPosition - 1 - uint32_t(reinterpret_cast<uintptr_t>(destination));
    while (uint32_t(end - in) >= kGroupInput + kGroupSlack &&
           destinationSize - uint32_t(o - destination) >= kGroupRoom &&
           (!kNearStart || uint32_t(o - destination) < kFastStart)) {
        uint32_t flags = *in++;
        if (flags == 0xFF) { // eight literals
            std::memcpy(o, in, 8);
            in += 8;
            o += 8;
            continue;
        }
#pragma GCC unroll 8
        for (int token = 0; token < 8; ++token, flags >>= 1) {
            const uint32_t literal = flags & 1;
            uint16_t pair; // a reference's two bytes, or a literal and what follows it
            std::memcpy(&pair, in, 2);
            const uint32_t position = (pair & 0xFF) | ((pair >> 4) & 0xF00);
            const uint32_t distance =
                ((uint32_t(reinterpret_cast<uintptr_t>(o)) + windowBias - position) & kWindowMask) +
                1;
            // The test reads a literal's bytes as a reference too, so that it
            // needs no flag bit: the few literals that look near come here and
            // are written alone.
            if (distance < 16 || (kNearStart && distance > uint32_t(o - destination))) {
                if (literal) {
                    *o++ = *in++;
                    continue;
                }
                const uint32_t length = ((pair >> 8) & 0x0F) + 3;
                if (kNearStart && distance > uint32_t(o - destination))
                    CopyMatchChecked(destination, uint32_t(o - destination), distance, length);
                else
                    CopyNear(o, distance, length);
                o += length;
                in += 2;
                continue;
            }
            // The source without a branch: the literal's own byte or the match.
            Copy18(o, Select(literal, in, o - distance));
            // 1 for a literal, the length for a reference, again without a branch.
            o += 1 + ((((pair >> 8) & 0x0F) + 2) & (literal - 1));
            in += 2 - literal;
        }
    }
    *inOut = in;
    return uint32_t(o - destination);
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

    // One token at a time, every bound checked, with the fast groups taking
    // over at each group's start where they can.
    uint32_t flags = 0;
    for (;;) {
        flags >>= 1;
        if (!(flags & 0x100)) {
            if (out >= 16 && out < kFastStart)
                out = FastGroups<true>(destination, destinationSize, &in, end, out);
            if (out >= kFastStart)
                out = FastGroups<false>(destination, destinationSize, &in, end, out);
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
