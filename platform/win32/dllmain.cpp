// The library's entry point: records the module handle and owns the
// thread-local slot that holds each thread's current-thread value.
//
// Thread attach and detach notifications are switched off: the library keeps
// no per-thread state that would need them (the slot value is set and cleared
// by the thread entry itself).
//
// Internal test programs link the library's objects straight in, and then no
// DllMain runs: the module is found from this code's address and the slot is
// allocated on first use instead.
#include "platform/win32/library_state.h"

#include <atomic>

namespace zk::os::win32 {

namespace {
HMODULE g_module = nullptr; // set only by DllMain
std::atomic<DWORD> g_slotIndex{TLS_OUT_OF_INDEXES};
} // namespace

HMODULE LoadedModule() {
    if (g_module) return g_module;
    HMODULE self = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                           GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&LoadedModule), &self);
    return self;
}

DWORD CurrentThreadSlotIndex() {
    DWORD index = g_slotIndex.load(std::memory_order_acquire);
    if (index != TLS_OUT_OF_INDEXES || g_module) return index;
    DWORD fresh = TlsAlloc();
    if (fresh == TLS_OUT_OF_INDEXES) return fresh;
    if (!g_slotIndex.compare_exchange_strong(index, fresh, std::memory_order_acq_rel)) {
        TlsFree(fresh); // another thread was first; index holds its slot
        return index;
    }
    return fresh;
}

} // namespace zk::os::win32

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
    using namespace zk::os::win32;
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        g_module = instance;
        g_slotIndex.store(TlsAlloc(), std::memory_order_release);
        DisableThreadLibraryCalls(instance);
        break;
    case DLL_PROCESS_DETACH: {
        DWORD index = g_slotIndex.exchange(TLS_OUT_OF_INDEXES, std::memory_order_acq_rel);
        if (index != TLS_OUT_OF_INDEXES) TlsFree(index);
        break;
    }
    default:
        break;
    }
    return TRUE;
}
