// The process command line, rebuilt once from /proc/self/cmdline.
//
// Arguments are joined by single spaces; one that holds a space, or is empty,
// is wrapped in double quotes, so that a splitter that takes a quoted
// argument up to the next quote and any other up to the next space gives the
// arguments back. The line is capped at 4095 characters: it ends before the
// first argument that does not fit whole (only a first argument that alone is
// too long is cut).
#include "platform/posix/posix_internal.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace zk::os::posix {
namespace {

constexpr uint32_t kCommandLineCapacity = 4096;
constexpr uint32_t kRawCapacity = 65536;
constexpr int kMaxArguments = 1024;

char gCommandLine[kCommandLineCapacity];
char gRaw[kRawCapacity];
const char* gArguments[kMaxArguments];
pthread_once_t gCommandLineOnce = PTHREAD_ONCE_INIT;

void ReadCommandLine() {
    int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    uint32_t size = 0;
    if (fd >= 0) {
        for (;;) {
            ssize_t n = read(fd, gRaw + size, kRawCapacity - 1 - size);
            if (n <= 0) break;
            size += static_cast<uint32_t>(n);
            if (size == kRawCapacity - 1) break;
        }
        close(fd);
    }
    gRaw[size] = '\0';
    int argc = 0;
    for (uint32_t i = 0; i < size && argc < kMaxArguments;
         i += static_cast<uint32_t>(std::strlen(gRaw + i)) + 1)
        gArguments[argc++] = gRaw + i;
    BuildCommandLine(argc, gArguments, gCommandLine, kCommandLineCapacity);
}

} // namespace

uint32_t BuildCommandLine(int argc, const char* const* argv, char* out, uint32_t capacity) {
    if (!out || capacity == 0) return 0;
    uint32_t limit = capacity - 1;
    uint32_t n = 0;
    for (int i = 0; i < argc && argv && argv[i]; ++i) {
        const char* arg = argv[i];
        uint32_t length = static_cast<uint32_t>(std::strlen(arg));
        bool quoted = length == 0 || std::strchr(arg, ' ') != nullptr;
        uint32_t need = (i ? 1u : 0u) + length + (quoted ? 2u : 0u);
        if (n + need > limit) {
            if (i == 0) {
                // The program name alone is too long: keep what fits.
                uint32_t room = limit - (quoted ? 2u : 0u);
                if (quoted) out[n++] = '"';
                std::memcpy(out + n, arg, room);
                n += room;
                if (quoted) out[n++] = '"';
            }
            break;
        }
        if (i) out[n++] = ' ';
        if (quoted) out[n++] = '"';
        std::memcpy(out + n, arg, length);
        n += length;
        if (quoted) out[n++] = '"';
    }
    out[n] = '\0';
    return n;
}

} // namespace zk::os::posix

namespace zk::os {

bool EnvironmentVariable(const char* name, char* out, uint32_t size) {
    if (!name || !out || size == 0) return false;
    out[0] = '\0';
    const char* value = std::getenv(name);
    const size_t length = value ? std::strlen(value) : 0;
    if (length == 0 || length >= size) return false;
    std::memcpy(out, value, length + 1);
    return true;
}

const char* CommandLine() {
    pthread_once(&posix::gCommandLineOnce, posix::ReadCommandLine);
    return posix::gCommandLine;
}

} // namespace zk::os
