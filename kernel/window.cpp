// The window class and its windows, the hook chain, the library's window
// procedure, the title, and the single-instance check.
//
// The class is registered with the default procedure; a temporary window of
// the class is then made so that the class's extra word can receive the
// WindowClass and its procedure can be replaced by the library's. Each window's
// extra word holds its Window from WM_CREATE to WM_DESTROY.
#include "kernel/window.h"
#include "kernel/context.h"

#include <zk/result.h>

#include <cstring>

namespace zk {

namespace {

WindowClass g_windowClass;

zkSAddr LibraryWindowProcedure(os::Handle hwnd, uint32_t message, zkAddr wParam, zkSAddr lParam) {
    WindowClass* owner = reinterpret_cast<WindowClass*>(os::WindowGetClassWord(hwnd));
    if (!owner) return os::WindowDefaultProcedure(hwnd, message, wParam, lParam);
    return owner->Procedure(hwnd, message, wParam, lParam);
}

// Copies at most kNameSize - 1 characters and zero-fills the rest of the field,
// so the field always ends in a terminator.
void CopyNameField(char (&field)[kNameSize], const char* text) {
    std::strncpy(field, text, kNameSize - 1);
    field[kNameSize - 1] = '\0';
}

} // namespace

WindowClass& TheWindowClass() {
    return g_windowClass;
}

void WindowClass::Setup(os::Handle instance) {
    instance_ = instance;
    atom_ = 0;
    icon_ = nullptr;
    for (uint32_t i = 0; i < kWindows; ++i) {
        windows_[i] = Window{};
        windows_[i].nextFree = i + 1 < kWindows ? &windows_[i + 1] : nullptr;
    }
    freeHead_ = &windows_[0];
    inUse_ = 0;
}

bool WindowClass::Owns(const Window* window) const {
    return window >= &windows_[0] && window < &windows_[0] + kWindows;
}

int32_t WindowClass::Register(const char* name) {
    os::Handle icon = os::IconExtractFromExecutable();
    os::Handle classIcon = icon ? icon : os::IconLoadFromLibrary(instance_);
    uint16_t atom = os::WindowClassRegister(name, instance_, classIcon);
    if (atom == 0) {
        os::IconDestroy(icon);
        return ZK_ERR_WINDOW_CLASS;
    }
    atom_ = atom;
    icon_ = icon;

    // A class can only be changed through one of its windows.
    Window* temporary = CreateNative(atom_, nullptr, "");
    if (temporary) {
        os::WindowSetClassWord(temporary->handle, reinterpret_cast<zkAddr>(this));
        os::WindowSetClassProcedure(temporary->handle, &LibraryWindowProcedure);
        Release(temporary);
    }
    return ZK_OK;
}

void WindowClass::Unregister() {
    if (atom_ != 0) {
        os::WindowClassUnregister(atom_, instance_);
        atom_ = 0;
    }
    if (icon_) {
        os::IconDestroy(icon_);
        icon_ = nullptr;
    }
}

Window* WindowClass::CreateNative(uint16_t atom, const char* className, const char* title) {
    Window* window = freeHead_;
    if (!window) return nullptr;
    os::Handle handle =
        os::WindowCreate(atom, className, title, kMainWindowStyle, instance_, window);
    if (!handle) return nullptr;
    window->handle = handle;
    window->references = 1;
    window->closeRequested = 0;
    window->owner = this;
    freeHead_ = window->nextFree;
    window->nextFree = nullptr;
    ++inUse_;
    return window;
}

Window* WindowClass::Create(const char* className, const char* title) {
    return CreateNative(0, className, title);
}

void WindowClass::Release(Window* window) {
    if (!window || !Owns(window) || window->references == 0) return;
    if (--window->references != 0) return;
    if (window->handle) os::WindowDestroy(window->handle);
    window->handle = nullptr;
    window->nextFree = freeHead_;
    freeHead_ = window;
    --inUse_;
}

int32_t WindowClass::AddHook(WindowHook hook, zkAddr user) {
    if (hookCount_ >= kHooks) return ZK_ERR_NO_SLOT;
    hooks_[hookCount_].hook = hook;
    hooks_[hookCount_].user = user;
    ++hookCount_;
    return ZK_OK;
}

zkSAddr WindowClass::Procedure(os::Handle hwnd, uint32_t message, zkAddr wParam, zkSAddr lParam) {
    Window* window = nullptr;
    if (message == ZK_WM_CREATE) {
        window = static_cast<Window*>(os::WindowCreateParam(lParam));
        os::WindowSetWord(hwnd, reinterpret_cast<zkAddr>(window));
    } else {
        window = reinterpret_cast<Window*>(os::WindowGetWord(hwnd));
        if (message == ZK_WM_DESTROY) os::WindowSetWord(hwnd, 0);
    }

    const uint32_t hookCount = hookCount_;
    zkSAddr result = 0;
    for (uint32_t i = 0; i < hookCount; ++i) {
        if (hooks_[i].hook(hwnd, message, wParam, lParam, &result, hooks_[i].user) != 0)
            return result;
    }

    if (window && message == ZK_WM_CLOSE) window->closeRequested = 1;
    return os::WindowDefaultProcedure(hwnd, message, wParam, lParam);
}

// ---- main window and instance check ---------------------------------------------

Window* CreateMainWindow() {
    ApplicationInfo& app = Kernel().application;
    if (app.mainWindow) {
        ++app.mainWindow->references;
        return app.mainWindow;
    }
    Window* window = g_windowClass.Create(app.name, app.caption);
    if (window) app.mainWindow = window;
    return window;
}

namespace {

// Every instance mutex a check took, whatever name it was taken under: each
// stays held until process end, so a later check under another name (or one
// that finds another instance) never frees a name this process holds.
os::Handle g_instanceMutexes[kMaxInstanceMutexes];
uint32_t g_instanceMutexCount = 0;

uint32_t CheckMultipleInstances(uint32_t flags) {
    ApplicationInfo& app = Kernel().application;
    static constexpr char kGlobalPrefix[] = "Global\\";
    static constexpr uint32_t kGlobalPrefixLength = sizeof(kGlobalPrefix) - 1;
    // The name fills at most 256 characters, prefix included, and is terminated.
    char name[kNameSize + 1] = {};
    uint32_t prefix = 0;
    if ((flags & ZK_INSTANCE_GLOBAL) != 0 && os::SystemSupportsGlobalNames()) {
        std::memcpy(name, kGlobalPrefix, kGlobalPrefixLength);
        prefix = kGlobalPrefixLength;
    }
    uint32_t length = 0;
    while (length < kNameSize - prefix && app.name[length] != '\0')
        ++length;
    std::memcpy(name + prefix, app.name, length);

    bool alreadyExisted = false;
    os::Handle mutex = os::NamedMutexCreate(name, &alreadyExisted);
    // With every slot taken the new mutex cannot be kept: it counts as a
    // mutex that could not be created.
    if (mutex && !alreadyExisted && g_instanceMutexCount == kMaxInstanceMutexes) {
        os::CloseHandle(mutex);
        mutex = nullptr;
    }
    if (mutex && alreadyExisted) {
        os::CloseHandle(mutex);
        mutex = nullptr;
        if (app.mainWindow) {
            g_windowClass.Release(app.mainWindow);
            app.mainWindow = nullptr;
        }
        if ((flags & ZK_INSTANCE_ACTIVATE) != 0) {
            os::Handle other = os::WindowFind(app.name);
            if (other) {
                if (os::WindowIsMinimized(other)) os::WindowRestore(other);
                os::WindowBringToFront(other);
            }
        }
    }
    if (mutex) g_instanceMutexes[g_instanceMutexCount++] = mutex;
    app.instanceMutex = mutex;
    return mutex ? 0u : 1u;
}

} // namespace

void CloseInstanceMutexes() {
    for (uint32_t i = 0; i < g_instanceMutexCount; ++i) {
        os::CloseHandle(g_instanceMutexes[i]);
        g_instanceMutexes[i] = nullptr;
    }
    g_instanceMutexCount = 0;
    Kernel().application.instanceMutex = nullptr;
}

} // namespace zk

// ---- exports ----------------------------------------------------------------------

extern "C" ZK_API int32_t ZK_CALL zkSetTitle(const char* name, const char* caption) {
    zk::ApplicationInfo& app = zk::Kernel().application;
    if (name) zk::CopyNameField(app.name, name);
    if (caption) zk::CopyNameField(app.caption, caption);
    return ZK_OK;
}

extern "C" ZK_API Window* ZK_CALL zkCreateMainWindow(void) {
    return zk::CreateMainWindow();
}

extern "C" ZK_API Window* ZK_CALL zkGetMainWindow(void) {
    return zk::Kernel().application.mainWindow;
}

extern "C" ZK_API int32_t ZK_CALL zkReleaseWindow(Window* window) {
    zk::TheWindowClass().Release(window);
    return ZK_OK;
}

extern "C" ZK_API void ZK_CALL zkGetWindowNativeHandle(Window* window, zkNativeHandle* out) {
    if (!out) return;
    *out = window ? window->handle : nullptr;
}

extern "C" ZK_API void ZK_CALL zkSetWindowVisibility(Window* window, int32_t visible) {
    if (!window) return;
    zk::os::WindowShow(window->handle, visible != 0);
}

extern "C" ZK_API int32_t ZK_CALL zkIsWindowVisible(Window* window) {
    if (!window) return 0;
    return zk::os::WindowIsVisible(window->handle) ? 1 : 0;
}

extern "C" ZK_API int32_t ZK_CALL zkAddWindowHook(WindowHook hook, zkAddr user) {
    if (!hook) return ZK_ERR_INVALID_ARGUMENT;
    return zk::TheWindowClass().AddHook(hook, user);
}

extern "C" ZK_API uint32_t ZK_CALL zkCheckMultipleInstances(uint32_t flags) {
    return zk::CheckMultipleInstances(flags);
}

extern "C" ZK_API int32_t ZK_CALL zkPostWindowMessage(Window* window, uint32_t message,
                                                      zkAddr wParam, zkSAddr lParam) {
    if (!window || !window->handle) return ZK_ERR_INVALID_HANDLE;
    return zk::os::MessagePost(window->handle, message, wParam, lParam) ? ZK_OK
                                                                        : ZK_ERR_INVALID_HANDLE;
}

extern "C" ZK_API void ZK_CALL zkPostQuitMessage(int32_t exitCode) {
    zk::os::MessagePostQuit(exitCode);
}
