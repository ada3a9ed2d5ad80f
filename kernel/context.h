// The kernel core: the one KernelContext and the records it holds.
//
// Owns: the KernelContext (static, zero-filled at load, never freed) with the
// ApplicationInfo, the library registry, the window class and its 16 windows,
// the vertical-blank timer and the frame period, the FileLock, the command
// line and its arguments, the module directory, the trace procedure, and the
// idle-handler, event-callback and vblank-handler tables.
//
// Locks: none of its own state is locked. Everything here is changed from the
// application's main thread (the thread that calls zkBeginProcess, zkInitialize
// and zkMain). The library lock is initialised at process begin and deleted at
// process end for the other subsystems; the FileLock is created at
// initialisation and closed at termination (nothing takes it any more).
//
// Threads: the kernel starts none. The periodic timer's own thread runs the
// vblank tick (count, event, vblank handlers) and nothing else; zkTrace may
// be called from any thread.
#ifndef ZK_KERNEL_CONTEXT_H
#define ZK_KERNEL_CONTEXT_H

#include "kernel/frame_pacing.h"
#include "platform/platform.h"

#include <zk/window.h>

#include <cstdint>

struct LibraryRecord;

namespace zk {

class LibraryRegistry;
class WindowClass;
class PerformanceCounter;
class Profiler;
class MemoryPoolTable;
class MemoryManager;
class FileSystem;
struct KivRegistry;
class RequestManager;
class Thread;

constexpr uint32_t kNameSize = 256;
constexpr uint32_t kPathSize = 260;
constexpr uint32_t kCommandLineSize = 4096;
constexpr uint32_t kMaxStoredArgs = 32;

// The application record: identity, paths and arguments of the running program.
struct ApplicationInfo {
    char name[kNameSize];    // window class name, instance-mutex name
    char caption[kNameSize]; // main window title
    os::Handle instance;     // the executable's module handle
    os::Handle instanceMutex;
    char executablePath[kPathSize];
    char executableDirectory[kPathSize];
    char commandLine[kCommandLineSize]; // split in place into args
    uint32_t argCount;                  // may exceed kMaxStoredArgs
    char* args[kMaxStoredArgs];
    Window* mainWindow;
};

// The kernel's one object. The subsystem pointers are filled in by the
// subsystems' start steps; the kernel core only orders those steps.
struct KernelContext {
    uint32_t begun;   // 1 between process begin and process end
    uint32_t running; // 1 between a successful initialisation and termination
    ApplicationInfo application;
    LibraryRegistry* libraryRegistry;
    LibraryRecord* kernelLibrary; // record 0, "Kernel"
    PerformanceCounter* performanceCounter;
    Profiler* userProfiler;
    Profiler* systemProfiler;
    MemoryPoolTable* poolTable;
    MemoryManager* memoryManager;
    FileSystem* fileSystem;
    KivRegistry* archives;
    RequestManager* requests;
    void* overlays;
    Thread* mainThread;
    WindowClass* windowClass;
    FramePeriod framePeriod;
    VblankTimer vblankTimer;
    // Binary semaphore, null when not created. The file system no longer takes
    // it: its handle table works with atomic exchanges from initialisation to
    // process end, also after termination has closed this lock.
    os::Handle fileLock;
};

KernelContext& Kernel();

} // namespace zk

#endif // ZK_KERNEL_CONTEXT_H
