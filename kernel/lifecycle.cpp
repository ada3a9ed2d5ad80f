// The library's levels of lifetime and the frame loop.
//
// Process begin sets up the records the rest needs (library lock, registry,
// window class, timer and frame period) once per process level and resets the
// application record every time. Initialisation starts the subsystems in a
// fixed order and termination stops them in the order below; every stop step
// checks that its object exists, so stopping twice is harmless. Termination
// leaves the file system running (files, mounts, drivers, the I/O worker);
// process end stops it. zkMain wraps
// the application's callbacks in process begin and end and runs the loop.
#include "file/file_system.h"
#include "kernel/arguments.h"
#include "kernel/callbacks.h"
#include "kernel/context.h"
#include "kernel/library_registry.h"
#include "kernel/timeline.h"
#include "kernel/startup.h"
#include "kernel/window.h"
#include "thread/sync.h"

#include <zk/callbacks.h>
#include <zk/lifecycle.h>
#include <zk/result.h>

#include <cstring>

namespace zk {

namespace {

constexpr char kDefaultTitle[] = "QAX Application";

void SetNameField(char (&field)[kNameSize], const char* text) {
    std::memset(field, 0, sizeof(field));
    std::strncpy(field, text, kNameSize - 1);
}

// The executable's directory is its path cut at the last backslash, or failing
// that at the last forward slash; with neither it is the whole path.
void CutAtLastSeparator(char* path) {
    char* cut = std::strrchr(path, '\\');
    if (!cut) cut = std::strrchr(path, '/');
    if (cut) *cut = '\0';
}

void ResetApplicationInfo() {
    ApplicationInfo& app = Kernel().application;
    SetNameField(app.name, kDefaultTitle);
    SetNameField(app.caption, kDefaultTitle);
    app.instance = os::ExecutableModule();
    app.instanceMutex = nullptr;
    app.mainWindow = nullptr;

    app.executablePath[0] = '\0';
    os::ExecutablePath(app.executablePath, kPathSize);
    std::memcpy(app.executableDirectory, app.executablePath, kPathSize);
    CutAtLastSeparator(app.executableDirectory);

    // A command line longer than the field keeps its first 4095 characters.
    const char* commandLine = os::CommandLine();
    std::strncpy(app.commandLine, commandLine ? commandLine : "", kCommandLineSize - 1);
    app.commandLine[kCommandLineSize - 1] = '\0';
    std::memset(app.args, 0, sizeof(app.args));
    app.argCount = SplitCommandLine(app.commandLine, app.args, kMaxStoredArgs);
}

int32_t BeginProcess() {
    KernelContext& k = Kernel();
    if (!k.begun) {
        LibraryLockInitialize();
        k.libraryRegistry = &LibraryRegistry::Instance();
        k.kernelLibrary = k.libraryRegistry->SetKernel(os::LibraryModule());
        TheWindowClass().Setup(k.kernelLibrary->module);
        k.windowClass = &TheWindowClass();
        k.vblankTimer.Clear();
        k.framePeriod.Setup(&k.vblankTimer);
        k.begun = 1;
    }
    ResetApplicationInfo();
    return ZK_OK;
}

int32_t Initialize(uint32_t arenaSize, uint32_t descriptorCount) {
    KernelContext& k = Kernel();
    // Initialisation needs the records of process begin: an application that
    // skipped zkBeginProcess gets them here.
    if (!k.begun) BeginProcess();
    if (k.running) return ZK_ERR_NOT_SUPPORTED;
    // A timeline recording, when QAX_TIMELINE names a file, covers everything
    // from here to termination.
    timeline::Start();

    LibraryRegistry::PrintBanner(*k.kernelLibrary);

    int32_t result = MemoryStartup(arenaSize, descriptorCount);
    if (result < 0) {
        timeline::Stop();
        return result;
    }
    k.running = 1; // from here on termination has something to stop
    result = MainThreadStartup();
    if (result < 0) return result;

    // The file system and its device I/O worker; their start result becomes
    // initialisation's result. Then the archive registry with its device.
    result = FileSystemStartup();
    RequestsStartup();
    OverlaysStartup();
    ProfilersStartup();
    // The library's drivers stand first in the device table: the archive
    // device, then the host device.
    RegisterLibraryDevices();
    ArchivesStartup();

    if (!k.fileLock) k.fileLock = os::SemaphoreCreate(1, 1);
    k.vblankTimer.Start();
    TheWindowClass().Register(k.application.name);
    CreateMainWindow();

    if (k.application.executableDirectory[0] != '\0') {
        MountRootDirectory(k.application.executableDirectory);
        os::SetCurrentDirectory(k.application.executableDirectory);
    }
    return result;
}

int32_t Terminate() {
    KernelContext& k = Kernel();
    if (k.application.mainWindow) {
        TheWindowClass().Release(k.application.mainWindow);
        k.application.mainWindow = nullptr;
    }
    if (k.windowClass) k.windowClass->Unregister();
    k.vblankTimer.Stop();
    if (k.fileLock) {
        os::CloseHandle(k.fileLock);
        k.fileLock = nullptr;
    }
    if (k.running) {
        ProfilesShutdown();
        RequestsShutdown();
        // Archives still open are closed while their blocks exist; their files'
        // closes are queued without waiting for the worker.
        ArchivesShutdown();
        // The file system stays: open files, mounts, drivers and the worker go
        // on working from any thread. Only background loads, whose jobs and
        // data live in the system pool, end here.
        FileSystemTerminate();
        MainThreadShutdown();
        ProfilersShutdown();
        MemoryShutdown();
        k.running = 0;
    }
    timeline::Stop();
    return ZK_OK;
}

int32_t EndProcess() {
    KernelContext& k = Kernel();
    Terminate();
    // The process level's end stops the file system: listings and files
    // still open are closed, mounts removed, and the worker stopped (a worker
    // held in a host call is not waited for beyond a short bound).
    FileSystemEnd();
    // Loading threads that the platform keeps parked for reuse end too.
    os::ThreadsReleaseParked();
    CloseInstanceMutexes();
    if (k.begun) {
        if (k.windowClass) k.windowClass->Unregister();
        k.windowClass = nullptr;
        k.vblankTimer.Stop();
        LibraryLockDelete();
        k.begun = 0;
    }
    return ZK_OK;
}

// One pass at a time: pending messages first, then the close check, then the
// wait for the next period (a message cuts it short and is pumped on the next
// pass), then the frame. Returns why the loop ended.
uint32_t RunFrameLoop(zkFrameProc frameProc) {
    KernelContext& k = Kernel();
    for (;;) {
        os::Message message{};
        if (os::MessagePeek(&message)) {
            const int64_t start = timeline::On() ? timeline::Now() : 0;
            os::MessageDispatch(message);
            if (start != 0) timeline::MessageDispatched(message.message, start);
            if (message.message == ZK_WM_QUIT) return ZK_LOOP_END_QUIT;
            continue;
        }
        if (CloseRequested(k.application.mainWindow)) return ZK_LOOP_END_CLOSE;
        if (k.framePeriod.WaitForStart(&RunIdleHandlers) == 0) continue;
        k.framePeriod.AdvanceLoopCount();
        if (frameProc && frameProc() == ZK_FRAME_END) return ZK_LOOP_END_FRAME;
    }
}

int32_t Main(zkInitProc initProc, zkFrameProc frameProc, zkTermProc termProc) {
    BeginProcess();
    int32_t result = -1;
    if (!initProc || initProc() != 0) {
        RaiseEvent(ZK_EVENT_LOOP_START, 0);
        // While the loop runs, an interrupt of a console program closes the
        // main window, so the loop ends and termProc still runs.
        Window* mainWindow = Kernel().application.mainWindow;
        os::CloseOnInterrupt(mainWindow ? mainWindow->handle : nullptr);
        uint32_t reason = RunFrameLoop(frameProc);
        os::CloseOnInterrupt(nullptr);
        RaiseEvent(ZK_EVENT_LOOP_END, reason);
        if (termProc) termProc();
        result = 0;
    }
    EndProcess();
    return result;
}

} // namespace
} // namespace zk

// ---- exports ----------------------------------------------------------------------

extern "C" ZK_API int32_t ZK_CALL zkBeginProcess(uint32_t) {
    return zk::BeginProcess();
}

extern "C" ZK_API int32_t ZK_CALL zkEndProcess(void) {
    return zk::EndProcess();
}

extern "C" ZK_API int32_t ZK_CALL zkInitialize(void) {
    return zk::Initialize(0xFFFFFFFFu, 1024);
}

extern "C" ZK_API int32_t ZK_CALL zkInitializeEx(uint32_t arenaSize, uint32_t descriptorCount) {
    return zk::Initialize(arenaSize, descriptorCount);
}

extern "C" ZK_API int32_t ZK_CALL zkTerminate(void) {
    return zk::Terminate();
}

extern "C" ZK_API int32_t ZK_CALL zkMain(zkInitProc initProc, zkFrameProc frameProc,
                                         zkTermProc termProc, uint32_t) {
    return zk::Main(initProc, frameProc, termProc);
}

extern "C" ZK_API uint32_t ZK_CALL zkGetLoopCount(void) {
    return zk::Kernel().framePeriod.LoopCount();
}

extern "C" ZK_API void ZK_CALL zkResetLoopCount(void) {
    zk::Kernel().framePeriod.ResetLoopCount();
}

extern "C" ZK_API zkNativeHandle ZK_CALL zkGetApplicationInstance(void) {
    return zk::Kernel().application.instance;
}

extern "C" ZK_API uint32_t ZK_CALL zkGetTickCount(void) {
    return zk::os::TickCount();
}

extern "C" ZK_API void ZK_CALL zkSleep(uint32_t milliseconds) {
    zk::os::Sleep(milliseconds);
}
