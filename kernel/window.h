// The window class, its pool of 16 windows, the window hooks and the library's
// window procedure. Everything here runs on the thread that created the
// windows (the application's main thread); nothing is locked.
#ifndef ZK_KERNEL_WINDOW_H
#define ZK_KERNEL_WINDOW_H

#include "platform/platform.h"

#include <zk/window.h>

#include <cstdint>

namespace zk {
class WindowClass;
}

// One window of the class, taken from the class's pool. Its address is the
// handle the application holds.
struct Window {
    zk::WindowClass* owner;
    zk::os::Handle handle;   // null when there is no native window
    uint32_t references;     // 1 after creation
    uint32_t closeRequested; // set by WM_CLOSE unless a hook handled it
    Window* nextFree;        // null while in use
};

namespace zk {

class WindowClass {
public:
    static constexpr uint32_t kWindows = 16;
    static constexpr uint32_t kHooks = 16;
    // No caption, resizing frame or maximise box; created hidden.
    static constexpr uint32_t kMainWindowStyle = 0x02CA0000u;

    // Process begin: no class, no icon, all windows free. Hooks are kept.
    void Setup(os::Handle instance);
    // Registers the class under name and installs the library's procedure.
    // 0, or -29 when the class cannot be registered.
    int32_t Register(const char* name);
    // Unregisters the class and destroys the icon registration extracted.
    void Unregister();
    // A new window of the class named className; null when none is free or the
    // native window cannot be created.
    Window* Create(const char* className, const char* title);
    // Drops one reference; at the last the native window is destroyed and the
    // object goes back to the pool.
    void Release(Window* window);
    // 0, or -19 when all hooks are taken.
    int32_t AddHook(WindowHook hook, zkAddr user);
    bool Owns(const Window* window) const;

    zkSAddr Procedure(os::Handle hwnd, uint32_t message, zkAddr wParam, zkSAddr lParam);

private:
    struct HookSlot {
        WindowHook hook;
        zkAddr user;
    };

    Window* CreateNative(uint16_t atom, const char* className, const char* title);

    os::Handle instance_ = nullptr;
    uint16_t atom_ = 0;
    os::Handle icon_ = nullptr;
    HookSlot hooks_[kHooks]{};
    uint32_t hookCount_ = 0;
    Window windows_[kWindows]{};
    Window* freeHead_ = nullptr;
    uint32_t inUse_ = 0;
};

// The kernel's one window class object.
WindowClass& TheWindowClass();

// The application's main window with one more reference; created (hidden,
// with the application's name as class and its caption as title) when there is
// none. Null when no window is free or the native window cannot be made.
Window* CreateMainWindow();

// Instance mutexes one process can hold at once (one per application name
// checked); a check past that many answers 1, as when no mutex can be made.
constexpr uint32_t kMaxInstanceMutexes = 8;

// Closes every mutex the single-instance checks took; process end calls it.
void CloseInstanceMutexes();

// Whether the window's close was requested (WM_CLOSE reached the library).
inline bool CloseRequested(const Window* window) {
    return window && window->closeRequested != 0;
}

} // namespace zk

#endif // ZK_KERNEL_WINDOW_H
