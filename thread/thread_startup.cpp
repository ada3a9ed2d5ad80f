// The thread subsystem's steps in the library's start and stop: the main
// thread record and the request manager.
#include "kernel/context.h"
#include "kernel/startup.h"
#include "thread/request.h"
#include "thread/thread.h"

namespace zk {
namespace {
Thread g_mainThread;
bool g_mainThreadSet = false;
} // namespace

// The thread that initialises the library gets a Thread of its own, with no
// runnable, stack size 0 and priority 0, as its current-thread value.
int32_t MainThreadStartup() {
    int32_t result = g_mainThread.Initialize(nullptr, 0, 0);
    if (result < 0) return result;
    os::CurrentThreadSlotSet(&g_mainThread);
    g_mainThreadSet = true;
    Kernel().mainThread = &g_mainThread;
    return 0;
}

// Release() finds no thread to wait for: the record never started one. The
// slot of the calling thread is cleared so that it never names a released record.
void MainThreadShutdown() {
    if (!g_mainThreadSet) return;
    g_mainThread.Release();
    if (os::CurrentThreadSlotGet() == &g_mainThread) os::CurrentThreadSlotSet(nullptr);
    g_mainThreadSet = false;
    Kernel().mainThread = nullptr;
}

void RequestsStartup() {
    Requests().Startup();
    Kernel().requests = &Requests();
}

void RequestsShutdown() {
    Requests().Shutdown();
    Kernel().requests = nullptr;
}

} // namespace zk
