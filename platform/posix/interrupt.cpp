// Interrupts close the window: while installed, SIGINT and SIGTERM post
// WM_CLOSE to one window.
//
// A signal handler may only do async-signal-safe work, so it writes one byte
// into a pipe; a watcher thread of its own reads the pipe and posts the
// message. Uninstalling restores the handlers that were there before, tells
// the watcher to end with another byte and joins it. The pipe is made once and
// kept for the life of the process, so a handler still running on another
// thread while the hook is removed never writes into a closed descriptor.
#include "platform/posix/posix_internal.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace zk::os::posix {
namespace {

constexpr char kInterrupted = 'i';
constexpr char kStop = 's';

pthread_mutex_t gInterruptLock = PTHREAD_MUTEX_INITIALIZER; // serialises install and uninstall
int gPipe[2] = {-1, -1};
std::atomic<bool> gArmed{false};
std::atomic<Handle> gTarget{nullptr};
bool gInstalled = false;
pthread_t gWatcher;
struct sigaction gPreviousInt;
struct sigaction gPreviousTerm;

void OnInterrupt(int) {
    int saved = errno;
    if (gArmed.load(std::memory_order_relaxed)) (void)!write(gPipe[1], &kInterrupted, 1);
    errno = saved;
}

void* WatchInterrupts(void*) {
    for (;;) {
        char c;
        ssize_t n = read(gPipe[0], &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == kStop) break;
        Handle window = gTarget.load();
        if (window) MessagePost(window, kWmClose, 0, 0);
    }
    return nullptr;
}

bool Install() {
    if (gPipe[0] < 0) {
        if (pipe2(gPipe, O_CLOEXEC) != 0) return false;
        // A burst of signals must never block the handler.
        fcntl(gPipe[1], F_SETFL, fcntl(gPipe[1], F_GETFL) | O_NONBLOCK);
    }
    // Bytes of an earlier installation are dropped.
    int flags = fcntl(gPipe[0], F_GETFL);
    fcntl(gPipe[0], F_SETFL, flags | O_NONBLOCK);
    char stale[64];
    while (read(gPipe[0], stale, sizeof(stale)) > 0) {
    }
    fcntl(gPipe[0], F_SETFL, flags);
    if (pthread_create(&gWatcher, nullptr, &WatchInterrupts, nullptr) != 0) return false;
    gArmed.store(true);
    struct sigaction action {};
    action.sa_handler = &OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &gPreviousInt);
    sigaction(SIGTERM, &action, &gPreviousTerm);
    gInstalled = true;
    return true;
}

void Uninstall() {
    sigaction(SIGINT, &gPreviousInt, nullptr);
    sigaction(SIGTERM, &gPreviousTerm, nullptr);
    gArmed.store(false);
    // The stop byte must arrive even behind a full pipe of interrupts.
    while (write(gPipe[1], &kStop, 1) < 0 && (errno == EAGAIN || errno == EINTR))
        Sleep(1);
    pthread_join(gWatcher, nullptr);
    gInstalled = false;
}

} // namespace
} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

void CloseOnInterrupt(Handle window) {
    pthread_mutex_lock(&gInterruptLock);
    gTarget.store(window);
    if (window && !gInstalled)
        Install();
    else if (!window && gInstalled)
        Uninstall();
    pthread_mutex_unlock(&gInterruptLock);
}

} // namespace zk::os
