// The layout of the interface's public structures and integer types, fixed at
// compile time: applications built against the 32-bit library exchange these
// structures by address, so their sizes and field offsets must never move.
// zkAddr holds an address: 4 bytes on 32-bit targets, pointer-sized on 64-bit.
#include "support/library_test.h"

#include <zk.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace {

static_assert(sizeof(DateTime) == 12, "DateTime is six 16-bit fields");
static_assert(alignof(DateTime) == 2);
static_assert(offsetof(DateTime, year) == 0);
static_assert(offsetof(DateTime, month) == 2);
static_assert(offsetof(DateTime, day) == 4);
static_assert(offsetof(DateTime, hour) == 6);
static_assert(offsetof(DateTime, minute) == 8);
static_assert(offsetof(DateTime, second) == 10);
static_assert(std::is_standard_layout_v<DateTime> && std::is_trivially_copyable_v<DateTime>);

static_assert(sizeof(MemoryInfo) == 20, "MemoryInfo is five 32-bit fields");
static_assert(alignof(MemoryInfo) == 4);
static_assert(offsetof(MemoryInfo, size) == 0);
static_assert(offsetof(MemoryInfo, used) == 4);
static_assert(offsetof(MemoryInfo, free) == 8);
static_assert(offsetof(MemoryInfo, blockCount) == 12);
static_assert(offsetof(MemoryInfo, maxBlockCount) == 16);
static_assert(std::is_standard_layout_v<MemoryInfo> && std::is_trivially_copyable_v<MemoryInfo>);

static_assert(sizeof(zkAddr) == sizeof(void*), "zkAddr holds any address");
static_assert(sizeof(zkSAddr) == sizeof(void*));
static_assert(std::is_unsigned_v<zkAddr> && std::is_signed_v<zkSAddr>);
#if defined(__i386__) || defined(_M_IX86)
static_assert(sizeof(zkAddr) == 4, "zkAddr is 32 bits on the 32-bit target");
#endif
#if defined(__x86_64__) || defined(_M_X64) || defined(__aarch64__)
static_assert(sizeof(zkAddr) == 8, "zkAddr is pointer-sized on 64-bit hosts");
#endif
static_assert(sizeof(zkNativeHandle) == sizeof(void*));

// What the compile-time checks above guarantee, seen from a running program:
// the library fills the structures field by field at the expected places.
class InterfaceLayout : public zktest::LibraryTest {};

TEST_F(InterfaceLayout, MemoryInfoFiguresLandInTheirFields) {
    MemoryPool* pool = zkCreateMemoryPool(0x10000, 0x1000, 8);
    ASSERT_NE(pool, nullptr);
    ASSERT_NE(zkAllocMemoryPoolBlock(pool, 0x100, 1), nullptr);
    unsigned char raw[sizeof(MemoryInfo) + 4];
    std::memset(raw, 0xEE, sizeof(raw));
    zkGetMemoryPoolInfo(pool, reinterpret_cast<MemoryInfo*>(raw));
    const uint32_t expected[5] = {0x1000, 0x100, 0xF00, 2, 8};
    EXPECT_EQ(std::memcmp(raw, expected, sizeof(expected)), 0);
    EXPECT_EQ(raw[20], 0xEE) << "written past the structure";
    zkReleaseMemoryPool(pool);
}

TEST_F(InterfaceLayout, DateTimeIsWrittenWithinItsTwelveBytes) {
    unsigned char raw[sizeof(DateTime) + 4];
    std::memset(raw, 0xEE, sizeof(raw));
    zkGetTime(reinterpret_cast<DateTime*>(raw));
    EXPECT_EQ(raw[12], 0xEE) << "written past the structure";
    uint16_t month;
    std::memcpy(&month, raw + 2, sizeof(month));
    EXPECT_GE(month, 1);
    EXPECT_LE(month, 12);
}

} // namespace
