# Cross build for 32-bit Windows with MinGW-w64 (posix threads model), the
# library's own target. Tests run under 32-bit wine: `wine` must be able to
# start 32-bit programs (the i386 wine packages), which scripts/test.sh
# provides in a 32-bit chroot when the host has none.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(ZK_MINGW_PREFIX i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)

# A cache entry, so that -DCMAKE_CROSSCOMPILING_EMULATOR=... takes precedence.
set(CMAKE_CROSSCOMPILING_EMULATOR wine CACHE STRING "Runs the Windows programs")
