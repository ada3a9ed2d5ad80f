// Named mutexes for the single-instance check: a lock file held with flock.
//
// The lock belongs to the open file, so the system drops it when the holder's
// handle is closed or the holder dies, however it dies. A second open of the
// same name, in this process or another, cannot take the lock and reports the
// name as taken. Names with the "Global\" prefix live in /tmp, visible to
// every user; other names (a "Local\" prefix is dropped) live in the user's
// runtime folder ($XDG_RUNTIME_DIR), or in /tmp with the user id in the file
// name. The name is reduced to letters, digits, '.', '-' and '_' and followed
// by a hash of the full name, so names that differ only in other characters
// still get files of their own. The files are left in place: removing one
// while another process opens it would let two processes hold "the" lock.
#include "platform/posix/posix_internal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zk::os::posix {
namespace {

constexpr uint32_t kNameKept = 96; // characters of the name kept in the file name

uint32_t NameHash(const char* text) {
    uint32_t hash = 2166136261u; // FNV-1a
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        hash ^= *p;
        hash *= 16777619u;
    }
    return hash;
}

int OpenLockFile(const char* path) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        // Opening an existing file first: a sticky /tmp refuses O_CREAT on
        // another user's file.
        int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd >= 0 || errno != ENOENT) return fd;
        fd = open(path, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

} // namespace

bool NamedMutexPath(const char* name, char* out, uint32_t capacity) {
    if (!name || !out || capacity == 0) return false;
    const char* folder = "/tmp";
    char prefix[32];
    if (strncasecmp(name, "Global\\", 7) == 0) {
        name += 7;
        std::snprintf(prefix, sizeof(prefix), "zk-global-");
    } else {
        if (strncasecmp(name, "Local\\", 6) == 0) name += 6;
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        if (runtime && runtime[0] == '/' && access(runtime, W_OK | X_OK) == 0) {
            folder = runtime;
            std::snprintf(prefix, sizeof(prefix), "zk-");
        } else {
            std::snprintf(prefix, sizeof(prefix), "zk-%u-", static_cast<unsigned>(getuid()));
        }
    }
    char kept[kNameKept + 1];
    uint32_t n = 0;
    for (const char* p = name; *p && n < kNameKept; ++p) {
        char c = *p;
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     c == '.' || c == '-' || c == '_';
        kept[n++] = plain ? c : '_';
    }
    kept[n] = '\0';
    int written =
        std::snprintf(out, capacity, "%s/%s%s-%08x.lock", folder, prefix, kept, NameHash(name));
    return written > 0 && static_cast<uint32_t>(written) < capacity;
}

} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

bool SystemSupportsGlobalNames() {
    return true;
}

Handle NamedMutexCreate(const char* name, bool* alreadyExisted) {
    if (alreadyExisted) *alreadyExisted = false;
    char path[512];
    if (!name || !NamedMutexPath(name, path, sizeof(path))) return nullptr;
    int fd = OpenLockFile(path);
    if (fd < 0) return nullptr;
    bool taken = false;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            close(fd);
            return nullptr;
        }
        taken = true;
    }
    Object* o = ObjectTake(Kind::NamedMutex);
    if (!o) {
        close(fd);
        return nullptr;
    }
    o->fd = fd;
    if (alreadyExisted) *alreadyExisted = taken;
    return o;
}

} // namespace zk::os
