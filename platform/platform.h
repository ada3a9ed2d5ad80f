// The platform layer: every operating-system service the library uses, declared once.
//
// Portable code (kernel/, memory/, thread/, file/, archive/) calls only what is
// declared here. Two backends implement it: platform/win32 calls the Windows
// facilities by name (kernel32, user32, gdi32, shell32, winmm); platform/posix
// provides the same behaviour on Linux with pthreads, clock_gettime, mmap and
// an in-process emulation of the thread message queue and windows.
//
// Handles are opaque pointers. A backend that has to keep state per object does
// so in fixed tables of its own; nothing here allocates from the C runtime heap
// after start-up. Every failing call maps to one fixed outcome (null, false, 0);
// operating-system error numbers are not kept.
#ifndef ZK_PLATFORM_H
#define ZK_PLATFORM_H

#include <zk/config.h>

#include <cstddef>
#include <cstdint>

namespace zk::os {

using Handle = void*;

constexpr uint32_t kInfinite = 0xFFFFFFFFu;

// ---------------------------------------------------------------------------
// Module, process and environment

// The library's own module handle, recorded when the library is loaded.
Handle LibraryModule();
// The executable's module handle (GetModuleHandleA(NULL)).
Handle ExecutableModule();
// Full path of the executable into out (at most size - 1 characters, always
// terminated); returns the length written, 0 on failure.
uint32_t ExecutablePath(char* out, uint32_t size);
// The process command line as one string. The POSIX backend rebuilds it from
// the process arguments, quoting those that hold spaces.
const char* CommandLine();
// Makes path the process's current directory.
bool SetCurrentDirectory(const char* path);
// Raw bytes of a module's version resource (type 16, identifier 1) in the
// Windows VS_VERSIONINFO layout, or null when the module has none. The bytes
// stay valid for the life of the module. The POSIX backend serves the library's
// own compiled-in version in the same layout.
const void* ModuleVersionResource(Handle module, uint32_t* size);
// Text to the debugger output (standard error on POSIX).
void DebugOutput(const char* text);
// The value of an environment variable into out (always terminated): true
// when it is set, non-empty and fits in size - 1 characters.
bool EnvironmentVariable(const char* name, char* out, uint32_t size);

// ---------------------------------------------------------------------------
// Time

uint32_t TickCount(); // milliseconds, wraps
void Sleep(uint32_t milliseconds);
int64_t PerformanceCounter();   // monotonic
int64_t PerformanceFrequency(); // counts per second
// CPU time the whole process has used so far (user and system, all threads).
uint64_t ProcessCpuTimeMicroseconds();
struct LocalDateTime {
    uint16_t year, month, day, hour, minute, second;
};
void LocalTime(LocalDateTime* out);

// ---------------------------------------------------------------------------
// Memory

// Commits size bytes of zero-filled read/write memory; null on failure.
void* VirtualCommit(size_t size);
void VirtualRelease(void* address, size_t size);
// Asks the system to back committed memory with large pages where it offers
// them without special rights (fewer address-translation misses for tables
// read at random); false where it does not. The memory stays as it was either
// way.
bool VirtualAdviseLargePages(void* address, size_t size);
// Physical memory available now, in bytes.
uint64_t AvailablePhysicalMemory();

// ---------------------------------------------------------------------------
// Critical sections: storage embedded in the owner, no handle.

struct CriticalSection {
    alignas(16) unsigned char storage[64];
};
void CriticalSectionInit(CriticalSection* cs);
void CriticalSectionDelete(CriticalSection* cs);
void CriticalSectionEnter(CriticalSection* cs);
void CriticalSectionLeave(CriticalSection* cs);

// A condition variable used with a critical section the caller has entered
// once: Wait leaves it, sleeps until woken (or spuriously), and enters again.
// Storage embedded in the owner; waking with no sleeper makes no system call.
struct ConditionVariable {
    alignas(16) unsigned char storage[64];
};
void ConditionVariableInit(ConditionVariable* cv);
void ConditionVariableDelete(ConditionVariable* cv);
void ConditionVariableWait(ConditionVariable* cv, CriticalSection* cs);
void ConditionVariableWakeAll(ConditionVariable* cv);

// ---------------------------------------------------------------------------
// Waitable objects: semaphores, events, threads, named mutexes.

enum class WaitResult { Signaled, Timeout, Failed };

// Waits for one object: a semaphore (takes one unit), an event (an auto-reset
// event is reset by the wake), or a thread (signalled once it has ended).
// An uncontended wait that finds the object signalled makes no system call.
// A handle closed while threads wait on it makes their waits return Failed;
// a closed handle fails at once.
WaitResult Wait(Handle object, uint32_t timeoutMilliseconds);
// Closes any handle returned by this layer; null does nothing. Never waits
// for threads that wait on the handle: they are woken and fail.
void CloseHandle(Handle object);

// A counting semaphore; null when the counts are refused (initial < 0,
// maximum <= 0, initial > maximum) or no object is free.
Handle SemaphoreCreate(int32_t initialCount, int32_t maximumCount);
// Adds count units; false (and nothing added) when that would pass the maximum.
// A release that finds no thread asleep makes no system call.
bool SemaphoreRelease(Handle semaphore, int32_t count);

// An event, unnamed. An auto-reset event releases one waiter per set.
Handle EventCreate(bool manualReset, bool initiallySet);
void EventSet(Handle event);
void EventReset(Handle event);

// ---------------------------------------------------------------------------
// Threads

using ThreadEntry = uint32_t (*)(void* parameter);

constexpr int32_t kThreadPriorityNormal = 0;
constexpr int32_t kThreadPriorityBelowNormal = -1;

// Creates a suspended thread (stackSize 0 = the default); null on failure.
// The handle is waitable: it is signalled when the thread has ended.
Handle ThreadCreateSuspended(uint32_t stackSize, ThreadEntry entry, void* parameter);
// The same for the library's own short-lived threads (loaders), at priority:
// on POSIX the thread may be one that the backend kept parked after an
// earlier such thread's entry returned, already at that priority, so that the
// creator neither clones a thread nor hands its core to a new one that still
// runs at the creator's priority. The entry must leave no thread-local state
// behind. Windows creates a new thread.
Handle ThreadCreateReusable(uint32_t stackSize, int32_t priority, ThreadEntry entry,
                            void* parameter);
// Starts ahead what reusable threads need (the POSIX spawner, below), so
// that no creator pays for it later; at most once until the release.
void ThreadsPrepareReusable();
// Lets every parked thread and the spawner end (at process end); waits for
// none.
void ThreadsReleaseParked();
// Windows priority numbers (-2 .. 2, and the idle/time-critical values).
void ThreadSetPriority(Handle thread, int32_t priority);
void ThreadResume(Handle thread);
// The priority the calling thread runs at, in Windows numbers.
int32_t CurrentThreadPriority();
// Marks the calling thread as bulk work: it keeps its priority and its share
// of the processor, but waking it never preempts a running thread (POSIX:
// the batch policy, where the thread has a normal one; Windows: nothing).
void CurrentThreadSetBulk();

// The number of the processor the calling thread runs on now (it may move at
// any time), or kUnknownProcessor where the system cannot tell.
constexpr uint32_t kUnknownProcessor = 0xFFFFFFFFu;
uint32_t CurrentProcessor();

// The library's one thread-local slot (the current-thread value), allocated
// when the library is loaded.
void* CurrentThreadSlotGet();
void CurrentThreadSlotSet(void* value);

// ---------------------------------------------------------------------------
// Periodic timer (the multimedia timer on Windows)

using TimerCallback = void (*)(void* user);

struct TimerCaps {
    uint32_t minPeriod;
    uint32_t maxPeriod;
};
bool TimerGetCaps(TimerCaps* caps);
void TimerBeginPeriod(uint32_t resolution);
void TimerEndPeriod(uint32_t resolution);
// Calls callback(user) every periodMilliseconds on a thread of its own, paced
// by absolute deadlines so it does not drift. Returns a non-zero id, 0 on failure.
// That thread runs at a raised priority where the system allows it: on
// Windows the multimedia timer's own (time-critical) thread; on POSIX a
// real-time policy (SCHED_FIFO) when permitted, else the lowest nice value the
// process may set; a refusal leaves it at the normal priority, silently. The
// callback must therefore be short and never block.
uint32_t TimerStartPeriodic(uint32_t periodMilliseconds, uint32_t resolution,
                            TimerCallback callback, void* user);
void TimerKill(uint32_t id);

// ---------------------------------------------------------------------------
// Messages: each thread has a queue; a window's messages go to the queue of
// the thread that created it. Message numbers are the Windows ones.

struct Message {
    Handle window; // null for a thread message (WM_QUIT)
    uint32_t message;
    zkAddr wParam;
    zkSAddr lParam;
};

// Takes one message from the calling thread's queue without waiting.
bool MessagePeek(Message* out);
// Translates and dispatches to the window's procedure.
void MessageDispatch(const Message& message);
// Queues a message for a window; false when the window does not exist.
bool MessagePost(Handle window, uint32_t message, zkAddr wParam, zkSAddr lParam);
// Queues WM_QUIT for the calling thread.
void MessagePostQuit(int32_t exitCode);

enum class WakeReason { Event, Message, Failed };
// Waits until the event is set or a message reaches the calling thread's queue.
WakeReason WaitEventOrMessage(Handle event);

// ---------------------------------------------------------------------------
// Windows

// The library's window procedure, called for every message of its class.
using WindowProcedure = zkSAddr (*)(Handle window, uint32_t message, zkAddr wParam, zkSAddr lParam);

// Registers a class named name: styles CS_VREDRAW|CS_HREDRAW|CS_DBLCLKS, the
// default window procedure, one pointer-sized class and window extra word
// each (4 bytes on 32-bit Windows), arrow cursor, black background. Returns
// the atom, 0 on failure.
uint16_t WindowClassRegister(const char* name, Handle instance, Handle icon);
void WindowClassUnregister(uint16_t atom, Handle instance);
// The first icon of the executable, or null; and the library's icon 101.
Handle IconExtractFromExecutable();
Handle IconLoadFromLibrary(Handle instance);
void IconDestroy(Handle icon);

// Creates a top-level window of the class (by atom when atom is non-zero,
// else by name). createParam reaches WM_CREATE (see WindowCreateParam).
Handle WindowCreate(uint16_t atom, const char* className, const char* title, uint32_t style,
                    Handle instance, void* createParam);
bool WindowDestroy(Handle window);
// The creation parameter carried by the lParam of WM_CREATE.
void* WindowCreateParam(zkSAddr createLParam);
// The class's and the window's extra word.
void WindowSetClassWord(Handle window, zkAddr value);
zkAddr WindowGetClassWord(Handle window);
void WindowSetWord(Handle window, zkAddr value);
zkAddr WindowGetWord(Handle window);
// Replaces the class's window procedure with the library's.
void WindowSetClassProcedure(Handle window, WindowProcedure procedure);
// Default handling; for WM_CLOSE it destroys the window.
zkSAddr WindowDefaultProcedure(Handle window, uint32_t message, zkAddr wParam, zkSAddr lParam);
// visible: ShowWindow(SW_SHOW) then UpdateWindow; else ShowWindow(SW_HIDE).
void WindowShow(Handle window, bool visible);
bool WindowIsVisible(Handle window);
// Another top-level window of the class, or null.
Handle WindowFind(const char* className);
bool WindowIsMinimized(Handle window);
void WindowRestore(Handle window);
void WindowBringToFront(Handle window);

// While installed, an interrupt (SIGINT or SIGTERM on POSIX) posts WM_CLOSE to
// the window. Null uninstalls. The Windows backend has nothing to do here.
void CloseOnInterrupt(Handle window);

// ---------------------------------------------------------------------------
// Single-instance check

// Whether names in the global namespace ("Global\" prefix) are supported.
bool SystemSupportsGlobalNames();
// Creates (or opens) a named mutex; alreadyExisted tells whether the name was
// taken before, by this process or another. The POSIX backend uses a lock the
// system releases when the holder dies. Null on failure.
Handle NamedMutexCreate(const char* name, bool* alreadyExisted);

} // namespace zk::os

#endif // ZK_PLATFORM_H
