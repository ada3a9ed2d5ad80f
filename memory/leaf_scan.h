// Scans over the fixed-size arrays of an address tree leaf: the largest gap,
// and the smallest or largest key whose gap holds a request. Every slot is
// looked at (empty ones hold a gap of 0), four at a time where the target has
// vector registers (SSE2, NEON), so a scan costs the same whatever the leaf
// holds and has no branch per entry to mispredict.
#ifndef ZK_MEMORY_LEAF_SCAN_H
#define ZK_MEMORY_LEAF_SCAN_H

#include <cstdint>
#include <cstring>

namespace zk {

#if (defined(__GNUC__) || defined(__clang__)) && (defined(__SSE2__) || defined(__ARM_NEON))
using Lanes = uint32_t __attribute__((vector_size(16)));

inline Lanes LoadLanes(const uint32_t* p) {
    Lanes v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline Lanes Broadcast(uint32_t x) {
    return Lanes{x, x, x, x};
}
// a where mask is all ones, else b.
inline Lanes Select(Lanes mask, Lanes a, Lanes b) {
    return (a & mask) | (b & ~mask);
}

// The largest of count (a multiple of 4) gaps.
template <uint32_t count> uint32_t LargestGapOf(const uint32_t* gap) {
    Lanes best = Broadcast(0);
    for (uint32_t i = 0; i < count; i += 4) {
        const Lanes g = LoadLanes(gap + i);
        best = Select(reinterpret_cast<Lanes>(g > best), g, best);
    }
    uint32_t largest = 0;
    for (int i = 0; i < 4; ++i)
        largest = best[i] > largest ? best[i] : largest;
    return largest;
}

// The smallest key of at least `above` whose gap is at least taken, or
// 0xFFFFFFFF when there is none.
template <uint32_t count>
uint32_t SmallestFittingKey(const uint32_t* key, const uint32_t* gap, uint32_t taken,
                            uint32_t above) {
    const Lanes t = Broadcast(taken), a = Broadcast(above);
    Lanes best = Broadcast(0xFFFFFFFFu);
    for (uint32_t i = 0; i < count; i += 4) {
        const Lanes k = LoadLanes(key + i);
        const Lanes fits =
            reinterpret_cast<Lanes>(LoadLanes(gap + i) >= t) & reinterpret_cast<Lanes>(k >= a);
        const Lanes candidate = k | ~fits;
        best = Select(reinterpret_cast<Lanes>(candidate < best), candidate, best);
    }
    uint32_t smallest = 0xFFFFFFFFu;
    for (int i = 0; i < 4; ++i)
        smallest = best[i] < smallest ? best[i] : smallest;
    return smallest;
}

// One more than the largest key below `below` whose gap is at least taken,
// or 0 when there is none.
template <uint32_t count>
uint32_t LargestFittingKeyPlusOne(const uint32_t* key, const uint32_t* gap, uint32_t taken,
                                  uint32_t below) {
    const Lanes t = Broadcast(taken), b = Broadcast(below), one = Broadcast(1);
    Lanes best = Broadcast(0);
    for (uint32_t i = 0; i < count; i += 4) {
        const Lanes k = LoadLanes(key + i);
        const Lanes fits =
            reinterpret_cast<Lanes>(LoadLanes(gap + i) >= t) & reinterpret_cast<Lanes>(k < b);
        const Lanes candidate = (k + one) & fits;
        best = Select(reinterpret_cast<Lanes>(candidate > best), candidate, best);
    }
    uint32_t largest = 0;
    for (int i = 0; i < 4; ++i)
        largest = best[i] > largest ? best[i] : largest;
    return largest;
}
#else
template <uint32_t count> uint32_t LargestGapOf(const uint32_t* gap) {
    uint32_t largest = 0;
    for (uint32_t i = 0; i < count; ++i)
        largest = gap[i] > largest ? gap[i] : largest;
    return largest;
}

template <uint32_t count>
uint32_t SmallestFittingKey(const uint32_t* key, const uint32_t* gap, uint32_t taken,
                            uint32_t above) {
    uint32_t smallest = 0xFFFFFFFFu;
    for (uint32_t i = 0; i < count; ++i) {
        const bool better = gap[i] >= taken && key[i] >= above && key[i] < smallest;
        smallest = better ? key[i] : smallest;
    }
    return smallest;
}

template <uint32_t count>
uint32_t LargestFittingKeyPlusOne(const uint32_t* key, const uint32_t* gap, uint32_t taken,
                                  uint32_t below) {
    uint32_t largest = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const bool better = gap[i] >= taken && key[i] < below && key[i] + 1 > largest;
        largest = better ? key[i] + 1 : largest;
    }
    return largest;
}
#endif

} // namespace zk

#endif // ZK_MEMORY_LEAF_SCAN_H
