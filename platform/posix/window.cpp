// Headless windows: registered classes and the windows made from them, kept
// in this process only.
//
// 32 classes and 64 windows in static storage with free lists, guarded by the
// backend lock. A class has a name (compared without regard to letter case),
// an atom (0xC000 + slot), a procedure (the default one until the library
// installs its own) and one extra word. A window has its class, the queue of
// the thread that created it, a title, a visible and a minimised flag and one
// extra word. There is no screen: showing, restoring and bringing to the front
// only change those flags. WM_CREATE and WM_DESTROY are sent synchronously to
// the class procedure, never under the lock. A class cannot be unregistered
// while windows of it exist. WindowFind looks at this process's windows only.
#include "platform/posix/posix_internal.h"

#include <strings.h>

#include <cstring>

namespace zk::os::posix {
namespace {

constexpr uint16_t kFirstAtom = 0xC000;
constexpr uint32_t kNameCapacity = 256;

struct WindowClass {
    WindowClass* link;
    bool inUse;
    uint16_t atom;
    uint32_t windows; // live windows of the class
    WindowProcedure procedure;
    zkAddr word;
    char name[kNameCapacity];
};

struct Window {
    Window* link;
    bool inUse;
    bool destroying;
    bool visible;
    bool minimized;
    WindowClass* windowClass;
    Queue* owner;
    uint32_t ownerGeneration;
    zkAddr word;
    char title[kNameCapacity];
};

// What WM_CREATE's lParam points at: the creation parameter comes first.
struct CreateRecord {
    void* createParam;
    const char* className;
    const char* title;
    uint32_t style;
};

WindowClass gClasses[kClassCount];
WindowClass* gFreeClasses = nullptr;
Window gWindows[kWindowCount];
Window* gFreeWindows = nullptr;
bool gBuilt = false;
Window* gForeground = nullptr;

void BuildLocked() {
    if (gBuilt) return;
    for (uint32_t i = 0; i < kClassCount; ++i)
        gClasses[i].link = (i + 1 < kClassCount) ? &gClasses[i + 1] : nullptr;
    for (uint32_t i = 0; i < kWindowCount; ++i)
        gWindows[i].link = (i + 1 < kWindowCount) ? &gWindows[i + 1] : nullptr;
    gFreeClasses = &gClasses[0];
    gFreeWindows = &gWindows[0];
    gBuilt = true;
}

void CopyName(char* out, const char* text) {
    std::strncpy(out, text ? text : "", kNameCapacity - 1);
    out[kNameCapacity - 1] = '\0';
}

WindowClass* ClassByNameLocked(const char* name) {
    if (!gBuilt || !name) return nullptr;
    for (WindowClass& c : gClasses)
        if (c.inUse && strcasecmp(c.name, name) == 0) return &c;
    return nullptr;
}

WindowClass* ClassByAtomLocked(uint16_t atom) {
    if (!gBuilt || atom < kFirstAtom || atom >= kFirstAtom + kClassCount) return nullptr;
    WindowClass* c = &gClasses[atom - kFirstAtom];
    return c->inUse ? c : nullptr;
}

Window* WindowLocked(Handle handle) {
    auto* w = static_cast<Window*>(handle);
    if (!gBuilt || w < &gWindows[0] || w >= &gWindows[0] + kWindowCount) return nullptr;
    if ((reinterpret_cast<uintptr_t>(w) - reinterpret_cast<uintptr_t>(&gWindows[0])) %
            sizeof(Window) !=
        0)
        return nullptr;
    return w->inUse ? w : nullptr;
}

void FreeWindowLocked(Window* w) {
    QueuesPurgeWindowLocked(w);
    --w->windowClass->windows;
    if (gForeground == w) gForeground = nullptr;
    w->inUse = false;
    w->link = gFreeWindows;
    gFreeWindows = w;
}

} // namespace

Queue* WindowOwnerLocked(Handle handle, uint32_t* generation) {
    Window* w = WindowLocked(handle);
    if (!w) return nullptr;
    *generation = w->ownerGeneration;
    return w->owner;
}

WindowProcedure WindowProcedureLocked(Handle handle) {
    Window* w = WindowLocked(handle);
    return w ? w->windowClass->procedure : nullptr;
}

} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

uint16_t WindowClassRegister(const char* name, Handle, Handle) {
    if (!name || !name[0] || std::strlen(name) >= kNameCapacity) return 0;
    BackendGuard guard;
    BuildLocked();
    if (ClassByNameLocked(name)) return 0; // the name is taken
    WindowClass* c = gFreeClasses;
    if (!c) return 0;
    gFreeClasses = c->link;
    c->link = nullptr;
    c->inUse = true;
    c->atom = static_cast<uint16_t>(kFirstAtom + (c - &gClasses[0]));
    c->windows = 0;
    c->procedure = &WindowDefaultProcedure;
    c->word = 0;
    CopyName(c->name, name);
    return c->atom;
}

void WindowClassUnregister(uint16_t atom, Handle) {
    BackendGuard guard;
    WindowClass* c = ClassByAtomLocked(atom);
    if (!c || c->windows) return; // like Windows: refused while windows of it exist
    c->inUse = false;
    c->link = gFreeClasses;
    gFreeClasses = c;
}

// No icons without a screen.
Handle IconExtractFromExecutable() {
    return nullptr;
}
Handle IconLoadFromLibrary(Handle) {
    return nullptr;
}
void IconDestroy(Handle) {}

Handle WindowCreate(uint16_t atom, const char* className, const char* title, uint32_t style, Handle,
                    void* createParam) {
    Queue* owner = CurrentQueue();
    if (!owner) return nullptr;
    Window* w;
    WindowProcedure procedure;
    {
        BackendGuard guard;
        BuildLocked();
        WindowClass* c = atom ? ClassByAtomLocked(atom) : ClassByNameLocked(className);
        w = gFreeWindows;
        if (!c || !w) return nullptr;
        gFreeWindows = w->link;
        w->link = nullptr;
        w->inUse = true;
        w->destroying = w->visible = w->minimized = false;
        w->windowClass = c;
        w->owner = owner;
        w->ownerGeneration = QueueGeneration(owner);
        w->word = 0;
        CopyName(w->title, title);
        ++c->windows;
        procedure = c->procedure;
        className = c->name;
    }
    CreateRecord record{createParam, className, title, style};
    if (procedure(w, kWmCreate, 0, reinterpret_cast<zkSAddr>(&record)) == -1) {
        // The procedure refused the window.
        BackendGuard guard;
        if (WindowLocked(w)) FreeWindowLocked(w);
        return nullptr;
    }
    return w;
}

bool WindowDestroy(Handle window) {
    WindowProcedure procedure;
    {
        BackendGuard guard;
        Window* w = WindowLocked(window);
        if (!w || w->destroying) return false;
        w->destroying = true;
        procedure = w->windowClass->procedure;
    }
    procedure(window, kWmDestroy, 0, 0);
    BackendGuard guard;
    if (Window* w = WindowLocked(window)) FreeWindowLocked(w);
    return true;
}

void* WindowCreateParam(zkSAddr createLParam) {
    return createLParam ? reinterpret_cast<const CreateRecord*>(createLParam)->createParam
                        : nullptr;
}

void WindowSetClassWord(Handle window, zkAddr value) {
    BackendGuard guard;
    if (Window* w = WindowLocked(window)) w->windowClass->word = value;
}

zkAddr WindowGetClassWord(Handle window) {
    BackendGuard guard;
    Window* w = WindowLocked(window);
    return w ? w->windowClass->word : 0;
}

void WindowSetWord(Handle window, zkAddr value) {
    BackendGuard guard;
    if (Window* w = WindowLocked(window)) w->word = value;
}

zkAddr WindowGetWord(Handle window) {
    BackendGuard guard;
    Window* w = WindowLocked(window);
    return w ? w->word : 0;
}

void WindowSetClassProcedure(Handle window, WindowProcedure procedure) {
    if (!procedure) return;
    BackendGuard guard;
    if (Window* w = WindowLocked(window)) w->windowClass->procedure = procedure;
}

zkSAddr WindowDefaultProcedure(Handle window, uint32_t message, zkAddr, zkSAddr) {
    if (message == kWmClose) WindowDestroy(window);
    return 0;
}

void WindowShow(Handle window, bool visible) {
    BackendGuard guard;
    if (Window* w = WindowLocked(window)) {
        w->visible = visible;
        if (visible) w->minimized = false;
    }
}

bool WindowIsVisible(Handle window) {
    BackendGuard guard;
    Window* w = WindowLocked(window);
    return w && w->visible;
}

Handle WindowFind(const char* className) {
    BackendGuard guard;
    WindowClass* c = ClassByNameLocked(className);
    if (!c) return nullptr;
    for (Window& w : gWindows)
        if (w.inUse && !w.destroying && w.windowClass == c) return &w;
    return nullptr;
}

bool WindowIsMinimized(Handle window) {
    BackendGuard guard;
    Window* w = WindowLocked(window);
    return w && w->minimized;
}

void WindowRestore(Handle window) {
    BackendGuard guard;
    if (Window* w = WindowLocked(window)) w->minimized = false;
}

void WindowBringToFront(Handle window) {
    BackendGuard guard;
    if (Window* w = WindowLocked(window)) gForeground = w;
}

} // namespace zk::os
