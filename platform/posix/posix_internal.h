// Shared state of the POSIX backend: the waitable objects, the per-thread
// message queues and the window tables.
//
// Everything here lives in static tables sized once (no allocation after
// start-up); handles are pointers into them:
//   semaphores / events / threads / named mutexes   512 / 256 / 256 / 64
//   per-thread message queues (1024 messages each)                   64
//   window classes / windows                                     32 / 64
//   periodic timers                                                  16
//
// Waitable objects keep their state in atomics of their own: waiting and
// signalling take no lock. A thread that has to block sleeps on the object's
// futex word (its wake sequence); whatever signals the object bumps that word
// and wakes sleepers only when some are counted, so an uncontended wait or
// release makes no system call. Each kind has its own pool, guarded by a pool
// lock that only taking and giving back objects use.
//
// The backend lock guards the message queues' rings and the window and class
// tables. It is held only for short bookkeeping steps: never while a window
// procedure, a thread entry or a timer callback runs, never while waiting, and
// never while another lock is taken. A thread blocked in WaitEventOrMessage
// sleeps on its queue's wake sequence, which posting a message and signalling
// the watched object both bump.
#ifndef ZK_PLATFORM_POSIX_INTERNAL_H
#define ZK_PLATFORM_POSIX_INTERNAL_H

#include "platform/platform.h"

#include <pthread.h>
#include <sys/types.h>
#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zk::os::posix {

constexpr uint32_t kQueueCount = 64;
constexpr uint32_t kQueueCapacity = 1024;
constexpr uint32_t kClassCount = 32;
constexpr uint32_t kWindowCount = 64;
constexpr uint32_t kTimerCount = 16;

constexpr uint32_t kWmCreate = 0x0001;
constexpr uint32_t kWmDestroy = 0x0002;
constexpr uint32_t kWmClose = 0x0010;
constexpr uint32_t kWmQuit = 0x0012;

// The backend lock (see above).
pthread_mutex_t& BackendLock();
class BackendGuard {
public:
    BackendGuard() { pthread_mutex_lock(&BackendLock()); }
    ~BackendGuard() { pthread_mutex_unlock(&BackendLock()); }
    BackendGuard(const BackendGuard&) = delete;
    BackendGuard& operator=(const BackendGuard&) = delete;
};

// ---- monotonic time helpers -------------------------------------------------
int64_t MonotonicNanoseconds();
timespec ToTimespec(int64_t nanoseconds);
// Initialises a condition variable that measures timeouts on the monotonic clock.
void ConditionInit(pthread_cond_t* cond);
// Waits on cond (the backend lock held) until woken or, when deadline is not
// negative, until the monotonic time deadline (ns). False on timeout.
bool ConditionWait(pthread_cond_t* cond, pthread_mutex_t* lock, int64_t deadline);

// ---- futex helpers -----------------------------------------------------------
// Sleeps while *word == expected, until woken or (deadline >= 0) until the
// monotonic time deadline (ns). False when the deadline passed.
bool FutexWait(std::atomic<uint32_t>* word, uint32_t expected, int64_t deadline);
void FutexWake(std::atomic<uint32_t>* word, int32_t count);

// ---- waitable objects --------------------------------------------------------
enum class Kind : uint32_t { Free = 0, Semaphore, Event, Thread, NamedMutex };

struct alignas(64) Object {
    // The hot line: what waits and signals touch.
    std::atomic<int32_t> word;        // semaphore units, event set (1), thread ended (1)
    std::atomic<uint32_t> wake;       // wake sequence: the futex sleepers wait on
    std::atomic<uint32_t> sleepers;   // threads that may sleep on wake (never reset)
    std::atomic<uint32_t> watchers;   // queues waiting on it in WaitEventOrMessage
    std::atomic<uint32_t> generation; // changes when the handle is closed
    std::atomic<uint32_t> open;       // 1 while the handle is open
    std::atomic<Kind> kind;
    int32_t maximum;
    bool manualReset;
    // Taking, giving back and threads.
    Object* link;                  // free-list link while free (pool lock)
    std::atomic<uint32_t> refs;    // the handle, plus the running thread for a thread
    std::atomic<uint32_t> resumed; // thread: start gate (a futex word)
    std::atomic<pid_t> tid;
    std::atomic<int32_t> priority;
    ThreadEntry entry;
    void* parameter;
    uint32_t stackSize;                // thread: what it was created with (0 = the default)
    bool reusable;                     // thread: parks when its entry returns
    std::atomic<uint32_t>* parkedGate; // thread: the parked slot it was given, if any
    int fd;                            // named mutex
};

// Takes a free object of the kind (refs 1, state cleared, open); null when
// the kind's pool is empty.
Object* ObjectTake(Kind kind);
// Drops one reference; the last one gives the object back to its pool.
void ObjectRelease(Object* object);
// The object behind a handle when it is open and of the kind (Kind::Free: any
// kind); null otherwise.
Object* ObjectFromHandle(Handle handle, Kind kind);
// Takes the object's signal if it is signalled (one semaphore unit, an
// auto-reset event's set state, a thread's end).
bool ObjectTryTake(Object* object);
// After the object's word changed: wakes up to count sleepers (when any are
// counted) and the queues watching it.
void ObjectSignalled(Object* object, int32_t count);

// ---- message queues -----------------------------------------------------------
struct Queue;
// The calling thread's queue, created on first use; null when the table is full.
Queue* CurrentQueue();
// Wakes the queues whose thread waits on object in WaitEventOrMessage.
void QueuesWakeWatchers(Object* object);
// Queues a message; false when the queue is full. Backend lock held.
bool QueuePushLocked(Queue* queue, uint32_t generation, const Message& message);
uint32_t QueueGeneration(Queue* queue);
// Removes every queued message addressed to window. Backend lock held.
void QueuesPurgeWindowLocked(Handle window);
// Releases the calling thread's queue (called when the thread ends).
void QueueReleaseForThreadExit(void* queue);
// Releases the calling thread's queue, if it has one, before the thread parks
// to run another entry.
void QueueReleaseForReuse();

// ---- windows ------------------------------------------------------------------
// The window's owning queue and its generation when the window is live (backend
// lock held); null otherwise.
Queue* WindowOwnerLocked(Handle window, uint32_t* generation);
// The procedure of a live window's class (backend lock held); null otherwise.
WindowProcedure WindowProcedureLocked(Handle window);

// ---- library load ---------------------------------------------------------------
// The key that releases a thread's message queue when the thread ends.
pthread_key_t QueueKey();
// The process's nice value when the library was loaded (the normal priority).
int BaseNiceValue();

// ---- pure helpers (tested directly) ------------------------------------------------
// Joins arguments into a command line: single spaces between them, an argument
// holding a space (or empty) wrapped in double quotes. Stops before an argument
// that would not fit in capacity - 1 characters (the first one is cut instead).
// Returns the length written; out is always terminated.
uint32_t BuildCommandLine(int argc, const char* const* argv, char* out, uint32_t capacity);
// Fills out (capacity >= 92 bytes) with a VS_VERSIONINFO block that holds only
// the fixed file information of the given version; returns its size.
uint32_t BuildVersionResource(uint16_t major, uint16_t minor, uint16_t build, uint16_t revision,
                              unsigned char* out, uint32_t capacity);
// Builds the lock-file path of a named mutex into out; false when it does not fit.
bool NamedMutexPath(const char* name, char* out, uint32_t capacity);
// The periodic timer's deadline after the one at previous (ns), given the
// time now: previous + period, moved on by whole periods when now is a whole
// period or more past it, so missed ticks are skipped rather than run in a burst.
int64_t NextTimerDeadline(int64_t previous, int64_t period, int64_t now);
// The nice value a Windows thread priority maps to, given the normal nice value.
int NiceForPriority(int32_t priority, int baseNice);

} // namespace zk::os::posix

#endif // ZK_PLATFORM_POSIX_INTERNAL_H
