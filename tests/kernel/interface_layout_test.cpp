// The layout of the interface's public structures and integer types, fixed at
// compile time: applications built against the 32-bit library exchange these
// structures by address, so their sizes and field offsets must never move.
// zkAddr holds an address: 4 bytes on 32-bit targets, pointer-sized on 64-bit.
#include <zk.h>

#include <cstddef>
#include <type_traits>

static_assert(sizeof(DateTime) == 12 && alignof(DateTime) == 2, "six 16-bit fields");
static_assert(offsetof(DateTime, year) == 0 && offsetof(DateTime, month) == 2 &&
              offsetof(DateTime, day) == 4 && offsetof(DateTime, hour) == 6 &&
              offsetof(DateTime, minute) == 8 && offsetof(DateTime, second) == 10);
static_assert(sizeof(MemoryInfo) == 20 && alignof(MemoryInfo) == 4, "five 32-bit fields");
static_assert(offsetof(MemoryInfo, size) == 0 && offsetof(MemoryInfo, used) == 4 &&
              offsetof(MemoryInfo, free) == 8 && offsetof(MemoryInfo, blockCount) == 12 &&
              offsetof(MemoryInfo, maxBlockCount) == 16);
static_assert(std::is_trivially_copyable_v<DateTime> && std::is_trivially_copyable_v<MemoryInfo>);
static_assert(sizeof(zkAddr) == sizeof(void*) && sizeof(zkSAddr) == sizeof(void*) &&
              sizeof(zkNativeHandle) == sizeof(void*));
static_assert(std::is_unsigned_v<zkAddr> && std::is_signed_v<zkSAddr>);
#if defined(__i386__) || defined(_M_IX86)
static_assert(sizeof(zkAddr) == 4, "zkAddr is 32 bits on the 32-bit target");
#endif
