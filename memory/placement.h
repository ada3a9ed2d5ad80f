// Where a block of `taken` bytes goes inside one gap: as low or as high as
// its alignment allows. Written so that nothing overflows near the top of the
// address space (a range may end exactly at its top).
#ifndef ZK_MEMORY_PLACEMENT_H
#define ZK_MEMORY_PLACEMENT_H

#include <zk/memory.h>

#include <cstdint>

namespace zk {

inline bool IsPowerOfTwo(uint32_t n) {
    return (n & (n - 1)) == 0;
}

// Bytes from start up to the next multiple of alignment (0 when aligned).
inline zkAddr SlackUp(zkAddr start, uint32_t alignment) {
    if (IsPowerOfTwo(alignment)) return (zkAddr{0} - start) & (alignment - 1);
    zkAddr r = start % alignment;
    return r ? alignment - r : 0;
}

inline zkAddr AlignDown(zkAddr value, uint32_t alignment) {
    if (IsPowerOfTwo(alignment)) return value & ~static_cast<zkAddr>(alignment - 1);
    return value - value % alignment;
}

// Placement at the lowest aligned address of the gap that leaves room for
// taken bytes.
inline bool FitsFromBottom(zkAddr gapStart, uint32_t gap, uint32_t taken, uint32_t alignment,
                           zkAddr* placement) {
    if (gap < taken) return false;
    zkAddr slack = SlackUp(gapStart, alignment);
    if (slack > gap - taken) return false;
    *placement = gapStart + slack;
    return true;
}

// Placement as high in the gap as the alignment allows.
inline bool FitsFromTop(zkAddr gapStart, uint32_t gap, uint32_t taken, uint32_t alignment,
                        zkAddr* placement) {
    if (gap < taken) return false;
    zkAddr at = AlignDown(gapStart + (gap - taken), alignment);
    if (at < gapStart) return false;
    *placement = at;
    return true;
}

// A hint that the bytes at p will be written soon.
inline void Prefetch(const void* p) {
#if defined(__GNUC__) || defined(__clang__)
    __builtin_prefetch(p, 1);
#else
    (void)p;
#endif
}

} // namespace zk

#endif // ZK_MEMORY_PLACEMENT_H
