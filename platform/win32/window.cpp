// Window classes, icons and top-level windows.
//
// The library's window procedure is a plain function; the system calls window
// procedures with the stdcall convention. The class procedure is therefore a
// stdcall trampoline that forwards to the procedure kept in one static. There
// is one library window procedure per process, so one static serves every
// class that installs it. Windows and their messages belong to the thread that
// created them; the static is written before the class procedure is replaced
// and only read afterwards.
#include "platform/platform.h"
#include "platform/win32/library_state.h"

#include <windows.h>
#include <shellapi.h>

#include <atomic>

namespace zk::os {

namespace {

std::atomic<WindowProcedure> g_procedure{nullptr};

LRESULT ZK_SYSTEM_CALLBACK WindowTrampoline(HWND window, UINT message, WPARAM wParam,
                                            LPARAM lParam) {
    WindowProcedure procedure = g_procedure.load(std::memory_order_acquire);
    if (!procedure) return DefWindowProcA(window, message, wParam, lParam);
    return static_cast<LRESULT>(
        procedure(window, message, static_cast<zkAddr>(wParam), static_cast<zkSAddr>(lParam)));
}

HWND Native(Handle window) {
    return static_cast<HWND>(window);
}

} // namespace

uint16_t WindowClassRegister(const char* name, Handle instance, Handle icon) {
    if (!name) return 0;
    WNDCLASSA windowClass{};
    windowClass.style = CS_VREDRAW | CS_HREDRAW | CS_DBLCLKS;
    windowClass.lpfnWndProc = DefWindowProcA;
    // One pointer-sized word each: the class's and the window's object address.
    windowClass.cbClsExtra = sizeof(LONG_PTR);
    windowClass.cbWndExtra = sizeof(LONG_PTR);
    windowClass.hInstance = static_cast<HINSTANCE>(instance);
    windowClass.hIcon = static_cast<HICON>(icon);
    windowClass.hCursor = LoadCursorA(nullptr, IDC_ARROW);
    windowClass.hbrBackground = static_cast<HBRUSH>(GetStockObject(BLACK_BRUSH));
    windowClass.lpszMenuName = nullptr;
    windowClass.lpszClassName = name;
    return RegisterClassA(&windowClass);
}

void WindowClassUnregister(uint16_t atom, Handle instance) {
    if (atom != 0) UnregisterClassA(MAKEINTATOM(atom), static_cast<HINSTANCE>(instance));
}

Handle IconExtractFromExecutable() {
    char path[MAX_PATH];
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return nullptr;
    HICON icon = ExtractIconA(GetModuleHandleA(nullptr), path, 0);
    // ExtractIcon answers 1 for a file that is not a module or icon file.
    if (icon == reinterpret_cast<HICON>(1)) return nullptr;
    return icon;
}

Handle IconLoadFromLibrary(Handle instance) {
    return LoadIconA(static_cast<HINSTANCE>(instance), MAKEINTRESOURCEA(101));
}

void IconDestroy(Handle icon) {
    if (icon) DestroyIcon(static_cast<HICON>(icon));
}

Handle WindowCreate(uint16_t atom, const char* className, const char* title, uint32_t style,
                    Handle instance, void* createParam) {
    const char* windowClass = atom != 0 ? MAKEINTATOM(atom) : className;
    if (!windowClass) return nullptr;
    return CreateWindowExA(0, windowClass, title ? title : "", style, CW_USEDEFAULT, CW_USEDEFAULT,
                           CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr,
                           static_cast<HINSTANCE>(instance), createParam);
}

bool WindowDestroy(Handle window) {
    return window && DestroyWindow(Native(window)) != 0;
}

void* WindowCreateParam(zkSAddr createLParam) {
    const CREATESTRUCTA* create = reinterpret_cast<const CREATESTRUCTA*>(createLParam);
    return create ? create->lpCreateParams : nullptr;
}

void WindowSetClassWord(Handle window, zkAddr value) {
    if (window) SetClassLongPtrA(Native(window), 0, static_cast<LONG_PTR>(value));
}

zkAddr WindowGetClassWord(Handle window) {
    return window ? static_cast<zkAddr>(GetClassLongPtrA(Native(window), 0)) : 0;
}

void WindowSetWord(Handle window, zkAddr value) {
    if (window) SetWindowLongPtrA(Native(window), 0, static_cast<LONG_PTR>(value));
}

zkAddr WindowGetWord(Handle window) {
    return window ? static_cast<zkAddr>(GetWindowLongPtrA(Native(window), 0)) : 0;
}

void WindowSetClassProcedure(Handle window, WindowProcedure procedure) {
    if (!window || !procedure) return;
    g_procedure.store(procedure, std::memory_order_release);
    SetClassLongPtrA(Native(window), GCLP_WNDPROC, reinterpret_cast<LONG_PTR>(WindowTrampoline));
}

zkSAddr WindowDefaultProcedure(Handle window, uint32_t message, zkAddr wParam, zkSAddr lParam) {
    return static_cast<zkSAddr>(DefWindowProcA(Native(window), message, static_cast<WPARAM>(wParam),
                                               static_cast<LPARAM>(lParam)));
}

void WindowShow(Handle window, bool visible) {
    if (!window) return;
    if (visible) {
        ShowWindow(Native(window), SW_SHOW);
        UpdateWindow(Native(window));
    } else {
        ShowWindow(Native(window), SW_HIDE);
    }
}

bool WindowIsVisible(Handle window) {
    return window && IsWindowVisible(Native(window)) != 0;
}

Handle WindowFind(const char* className) {
    return className ? FindWindowA(className, nullptr) : nullptr;
}

bool WindowIsMinimized(Handle window) {
    return window && IsIconic(Native(window)) != 0;
}

void WindowRestore(Handle window) {
    if (window) ShowWindow(Native(window), SW_RESTORE);
}

void WindowBringToFront(Handle window) {
    if (window) SetForegroundWindow(Native(window));
}

// Closing a window on an interrupt is a console concern of the POSIX backend;
// Windows programs receive WM_CLOSE from the system.
void CloseOnInterrupt(Handle /*window*/) {}

} // namespace zk::os
