// Telling AddressSanitizer which bytes of the system pool are free. In a
// build with the address sanitizer, gaps and the rounding tail of every block
// are poisoned, so that a read past a block's requested size or after its
// release is reported as it would be through malloc. Elsewhere these are
// empty. Only the bookkeeping of the sanitizer changes: no managed byte is
// read or written.
#ifndef ZK_MEMORY_FREE_BYTES_POISON_H
#define ZK_MEMORY_FREE_BYTES_POISON_H

#include <zk/config.h>

#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define ZK_POISON_FREE_BYTES 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZK_POISON_FREE_BYTES 1
#endif
#endif

#if defined(ZK_POISON_FREE_BYTES)
#include <sanitizer/asan_interface.h>
#endif

namespace zk {

inline void PoisonFreeBytes(zkAddr start, uint32_t length) {
#if defined(ZK_POISON_FREE_BYTES)
    ASAN_POISON_MEMORY_REGION(reinterpret_cast<void*>(start), length);
#else
    (void)start, (void)length;
#endif
}

inline void UnpoisonUsedBytes(zkAddr start, uint32_t length) {
#if defined(ZK_POISON_FREE_BYTES)
    ASAN_UNPOISON_MEMORY_REGION(reinterpret_cast<void*>(start), length);
#else
    (void)start, (void)length;
#endif
}

} // namespace zk

#endif
