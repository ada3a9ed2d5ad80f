// The thread wrapper: one operating-system thread that runs a Runnable.
//
// A Thread is created once and can be started, waited for and started again
// any number of times. Its thread is created suspended, given its priority and
// only then resumed. While Run() executes, the current-thread slot of the
// running thread holds the Thread; it is cleared when Run() returns.
//
// One controlling thread at a time drives a Thread: its fields are not locked.
// The exported thread records (thread_table.cpp) and the device I/O worker
// are built on it.
#ifndef ZK_THREAD_THREAD_H
#define ZK_THREAD_THREAD_H

#include "platform/platform.h"

#include <cstdint>

struct ThreadRecord; // an exported thread record (zk/thread.h)

namespace zk {

// The body a thread executes.
class Runnable {
public:
    virtual void Run() = 0;

protected:
    ~Runnable() = default;
};

class Thread {
public:
    // Stores the three values; no thread exists afterwards. Returns 0.
    int32_t Initialize(Runnable* runnable, uint32_t stackSize, int32_t priority);
    // Creates the thread suspended, sets its priority and resumes it.
    // 0, or -19 when the system refuses the thread (no handle is kept then).
    int32_t Start();
    // Waits without time-out for a thread that exists; a successful wait
    // closes and clears the handle, a failed one leaves it for the next wait.
    void Wait();
    // 0 when no thread exists or it has ended (the handle is then closed and
    // cleared); 1 while it runs.
    int32_t IsRunning();
    // Waits for a thread that exists, then clears the handle and the runnable.
    void Release();
    // Waits at most milliseconds: true when no thread exists or it has ended
    // (the handle is then closed and cleared), false while it still runs.
    bool WaitFor(uint32_t milliseconds);
    // Lets a running thread go: the handle is closed without waiting and the
    // thread ends on its own.
    void Detach();

    Runnable* GetRunnable() const { return runnable_; }
    // Later starts may run on a parked thread of the platform's (see
    // os::ThreadCreateReusable): for runnables that leave no thread-local
    // state behind. Initialize clears it.
    void SetReusable(bool reusable) { reusable_ = reusable; }

private:
    static uint32_t Entry(void* parameter);

    os::Handle handle_ = nullptr;
    Runnable* runnable_ = nullptr;
    uint32_t stackSize_ = 0;
    int32_t priority_ = 0;
    bool reusable_ = false;
};

// zkCreateThread for the library's own loading threads: the record's starts
// may run on a parked thread (Thread::SetReusable).
ThreadRecord* CreateReusableThread(uint32_t stackSize);

} // namespace zk

#endif // ZK_THREAD_THREAD_H
