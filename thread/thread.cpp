// The thread wrapper over the platform's threads.
#include "thread/thread.h"

#include "kernel/timeline.h"

#include <zk/result.h>

namespace zk {

int32_t Thread::Initialize(Runnable* runnable, uint32_t stackSize, int32_t priority) {
    handle_ = nullptr;
    runnable_ = runnable;
    stackSize_ = stackSize;
    priority_ = priority;
    reusable_ = false;
    return 0;
}

// The library's thread entry: the slot holds the Thread while its body runs.
uint32_t Thread::Entry(void* parameter) {
    Thread* self = static_cast<Thread*>(parameter);
    os::CurrentThreadSlotSet(self);
    if (self->runnable_) self->runnable_->Run();
    os::CurrentThreadSlotSet(nullptr);
    timeline::ThreadEnding();
    return 0;
}

int32_t Thread::Start() {
    // A reusable thread is made at its priority; another gets it before it runs.
    const os::Handle handle =
        reusable_ ? os::ThreadCreateReusable(stackSize_, priority_, &Thread::Entry, this)
                  : os::ThreadCreateSuspended(stackSize_, &Thread::Entry, this);
    if (!handle) return ZK_ERR_NO_SLOT;
    if (!reusable_) os::ThreadSetPriority(handle, priority_);
    // The handle is stored before the thread runs, so the controlling thread
    // never sees a running thread without one.
    handle_ = handle;
    os::ThreadResume(handle);
    return 0;
}

void Thread::Wait() {
    if (!handle_) return;
    if (os::Wait(handle_, os::kInfinite) == os::WaitResult::Signaled) {
        os::CloseHandle(handle_);
        handle_ = nullptr;
    }
}

int32_t Thread::IsRunning() {
    if (!handle_) return 0;
    if (os::Wait(handle_, 0) == os::WaitResult::Signaled) {
        os::CloseHandle(handle_);
        handle_ = nullptr;
        return 0;
    }
    return 1;
}

void Thread::Release() {
    if (handle_) {
        if (os::Wait(handle_, os::kInfinite) == os::WaitResult::Signaled) os::CloseHandle(handle_);
    }
    handle_ = nullptr;
    runnable_ = nullptr;
}

bool Thread::WaitFor(uint32_t milliseconds) {
    if (!handle_) return true;
    if (os::Wait(handle_, milliseconds) != os::WaitResult::Signaled) return false;
    os::CloseHandle(handle_);
    handle_ = nullptr;
    return true;
}

void Thread::Detach() {
    os::CloseHandle(handle_);
    handle_ = nullptr;
}

} // namespace zk
