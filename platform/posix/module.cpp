// Library load and unload, module handles, the process's paths and the
// library's one thread-local slot.
//
// At load the constructor creates the thread-local key of the current-thread
// value and the key whose destructor releases a thread's message queue, and
// records the module handles and the normal nice value; the destructor frees
// the keys again.
#include "platform/posix/posix_internal.h"

#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zk::os::posix {
namespace {

pthread_once_t gLoadOnce = PTHREAD_ONCE_INIT;
pthread_key_t gSlotKey;
pthread_key_t gQueueKey;
std::atomic<bool> gKeysCreated{false}; // read by threads that may outlive unload
Handle gLibraryModule = nullptr;
Handle gExecutableModule = nullptr;
int gBaseNice = 0;

void LocateLibrary() {}

void LoadOnce() {
    bool slot = pthread_key_create(&gSlotKey, nullptr) == 0;
    bool queue = pthread_key_create(&gQueueKey, &QueueReleaseForThreadExit) == 0;
    gKeysCreated = slot && queue;

    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&LocateLibrary), &info) != 0)
        gLibraryModule = info.dli_fbase;
    // The main program's handle: stable for the life of the process, never null.
    gExecutableModule = dlopen(nullptr, RTLD_LAZY);

    errno = 0;
    int nice = getpriority(PRIO_PROCESS, 0);
    gBaseNice = (errno == 0) ? nice : 0;
}

__attribute__((constructor)) void LibraryLoad() {
    pthread_once(&gLoadOnce, LoadOnce);
}

__attribute__((destructor)) void LibraryUnload() {
    if (!gKeysCreated.exchange(false)) return;
    pthread_key_delete(gSlotKey);
    pthread_key_delete(gQueueKey);
}

} // namespace

pthread_key_t QueueKey() {
    pthread_once(&gLoadOnce, LoadOnce);
    return gQueueKey;
}

int BaseNiceValue() {
    pthread_once(&gLoadOnce, LoadOnce);
    return gBaseNice;
}

} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

Handle LibraryModule() {
    pthread_once(&gLoadOnce, LoadOnce);
    return gLibraryModule;
}

Handle ExecutableModule() {
    pthread_once(&gLoadOnce, LoadOnce);
    return gExecutableModule;
}

uint32_t ExecutablePath(char* out, uint32_t size) {
    if (!out || size == 0) return 0;
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) {
        out[0] = '\0';
        return 0;
    }
    uint32_t length = static_cast<uint32_t>(n);
    if (length > size - 1) length = size - 1;
    std::memcpy(out, path, length);
    out[length] = '\0';
    return length;
}

bool SetCurrentDirectory(const char* path) {
    return path && chdir(path) == 0;
}

void DebugOutput(const char* text) {
    if (!text) return;
    size_t length = std::strlen(text);
    // One write, so that lines of concurrent threads do not interleave.
    if (length) (void)!write(STDERR_FILENO, text, length);
}

void* CurrentThreadSlotGet() {
    pthread_once(&gLoadOnce, LoadOnce);
    return gKeysCreated ? pthread_getspecific(gSlotKey) : nullptr;
}

void CurrentThreadSlotSet(void* value) {
    pthread_once(&gLoadOnce, LoadOnce);
    if (gKeysCreated) pthread_setspecific(gSlotKey, value);
}

} // namespace zk::os
