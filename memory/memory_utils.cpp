// Plain memory utilities: fill, zero, forward copy, bounded string copy.
// They work four bytes at a time and finish with the remaining 0-3 bytes.
#include <zk/memory.h>

#include <cstring>

extern "C" ZK_API void ZK_CALL zkFillMemory(void* dest, uint32_t count, uint8_t value) {
    if (!dest) return;
    unsigned char* out = static_cast<unsigned char*>(dest);
    const uint32_t word = value * 0x01010101u;
    for (; count >= 4; count -= 4, out += 4)
        std::memcpy(out, &word, 4);
    for (; count > 0; --count)
        *out++ = value;
}

extern "C" ZK_API void ZK_CALL zkZeroMemory(void* dest, uint32_t count) {
    zkFillMemory(dest, count, 0);
}

extern "C" ZK_API void ZK_CALL zkCopyMemory(void* dest, const void* src, uint32_t count) {
    if (!dest || !src) return;
    unsigned char* out = static_cast<unsigned char*>(dest);
    const unsigned char* in = static_cast<const unsigned char*>(src);
    for (; count >= 4; count -= 4, out += 4, in += 4) {
        uint32_t word;
        std::memcpy(&word, in, 4);
        std::memcpy(out, &word, 4);
    }
    for (; count > 0; --count)
        *out++ = *in++;
}

extern "C" ZK_API uint32_t ZK_CALL zkCopyString(char* dest, uint32_t limit, uint32_t start,
                                                const char* src) {
    // dest holds limit + 1 bytes: a start past the limit copies nothing and
    // terminates at the limit. Without a destination nothing is written.
    if (!dest) return 0;
    uint32_t index = start < limit ? start : limit;
    if (src) {
        while (index < limit && *src)
            dest[index++] = *src++;
    }
    dest[index] = '\0';
    return index;
}
