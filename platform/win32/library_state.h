// What the Windows backend shares between its files: the state recorded when
// the operating system loads the library (the module handle and the one
// thread-local slot), and the calling convention of system callbacks. The
// state is written by DllMain before any other code of the library runs and
// is read-only afterwards.
#ifndef ZK_PLATFORM_WIN32_LIBRARY_STATE_H
#define ZK_PLATFORM_WIN32_LIBRARY_STATE_H

#include <windows.h>

// Functions the system calls back (thread starts, timer ticks, window
// procedures) realign the stack on entry on 32-bit x86: Windows promises only
// 4-byte alignment there, while the compiler assumes 16.
#if defined(__i386__)
#define ZK_SYSTEM_CALLBACK __attribute__((force_align_arg_pointer)) CALLBACK
#else
#define ZK_SYSTEM_CALLBACK CALLBACK
#endif

namespace zk::os::win32 {

// The library's module handle; null until the library is loaded.
HMODULE LoadedModule();
// The thread-local-storage index of the current-thread slot, or
// TLS_OUT_OF_INDEXES when none could be allocated.
DWORD CurrentThreadSlotIndex();

} // namespace zk::os::win32

#endif // ZK_PLATFORM_WIN32_LIBRARY_STATE_H
