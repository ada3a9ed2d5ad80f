# Cross build for 64-bit Windows with MinGW-w64 (posix threads model).
# Tests and programs run under wine64: ctest prefixes every test command with
# the emulator.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(ZK_MINGW_PREFIX x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)

# Debian installs the 64-bit loader outside PATH. A cache entry, so that
# -DCMAKE_CROSSCOMPILING_EMULATOR=... on the command line takes precedence.
if(EXISTS /usr/lib/wine/wine64)
  set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64 CACHE STRING "Runs the Windows programs")
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR wine64 CACHE STRING "Runs the Windows programs")
endif()
