// Directories: the table of 64 listing handles and the directory calls. The
// listing, its entry record and any dump are the driver's; the file system
// supplies handles, path handling and the parent recursion of zkMakeDir.
// Every call runs its driver on the calling thread. The table has no lock:
// directory handles are taken and given back by one thread at a time.
#include "file/file_system.h"

#include <zk/result.h>

#include <cstring>

struct DirHandle {
    uint32_t useCount; // 0 while free, 1 while open
    zk::DirObject* dir;
};

namespace zk {

namespace {

constexpr uint32_t kMaxDirs = 64;
constexpr uint32_t kDefaultDirMode = 511;

DirHandle g_dirs[kMaxDirs];

bool IsOpenDir(const DirHandle* handle) {
    return handle >= &g_dirs[0] && handle < &g_dirs[kMaxDirs] && handle->useCount == 1;
}

void EndDir(DirHandle* handle) {
    if (handle->useCount == 1 && handle->dir) {
        handle->dir->Close();
        handle->dir = nullptr;
    }
    if (handle->useCount) --handle->useCount;
}

DirHandle* OpenDir(const char* path) {
    DirHandle* handle = nullptr;
    for (DirHandle& h : g_dirs) {
        if (h.useCount == 0) {
            handle = &h;
            break;
        }
    }
    if (!handle) return nullptr;
    handle->dir = nullptr;
    handle->useCount = 1;

    // The full path with one separator at its end (when it fits).
    char fullPath[kMaxPath];
    uint32_t length = Files().FullPath(path, fullPath, kMaxPath) - 1;
    const bool fits = length < kMaxPath &&
                      (length == 0 || IsSeparator(fullPath[length - 1]) || length + 1 < kMaxPath);
    if (fits && (length == 0 || !IsSeparator(fullPath[length - 1]))) {
        fullPath[length++] = '/';
        fullPath[length] = '\0';
    }
    char physical[kMaxPath];
    DeviceDriver* device = nullptr;
    DirObject* dir = nullptr;
    if (fits && ResolvePath(fullPath, physical, kMaxPath, &device) >= 0 && device)
        dir = device->OpenDir();
    if (!dir) {
        EndDir(handle);
        return nullptr;
    }
    if (dir->Open(physical) < 0) {
        dir->Close();
        EndDir(handle);
        return nullptr;
    }
    handle->dir = dir;
    return handle;
}

int32_t MakeDirRecursive(DeviceDriver* device, char* physicalPath, uint32_t flags, uint32_t mode) {
    const int32_t r = device->MakeDir(physicalPath, flags, mode);
    if (r != ZK_ERR_OPEN_FAILED || !(flags & ZK_MAKEDIR_PARENTS)) return r;
    char* slash = std::strrchr(physicalPath, '/');
    if (!slash) return r;
    *slash = '\0';
    const int32_t parent = MakeDirRecursive(device, physicalPath, flags, mode);
    *slash = '/';
    if (parent < 0) return parent;
    return MakeDirRecursive(device, physicalPath, flags, mode);
}

// Resolves path without the working directory; null with *result set on failure.
DeviceDriver* Resolve(const char* path, char* physical, int32_t* result) {
    DeviceDriver* device = nullptr;
    *result = ResolvePath(path, physical, kMaxPath, &device);
    if (*result >= 0 && !device) *result = ZK_ERR_NO_DEVICE;
    return *result < 0 ? nullptr : device;
}

} // namespace

void DirectoriesShutdown() {
    for (DirHandle& h : g_dirs)
        EndDir(&h);
}

} // namespace zk

// ---- exports ----------------------------------------------------------------------

extern "C" ZK_API DirHandle* ZK_CALL zkOpenDir(const char* path) {
    return path ? zk::OpenDir(path) : nullptr;
}

extern "C" ZK_API int32_t ZK_CALL zkReadDir(DirHandle* dir, void* entry) {
    if (!zk::IsOpenDir(dir) || !dir->dir) return ZK_ERR_INVALID_HANDLE;
    if (!entry) return ZK_ERR_INVALID_ARGUMENT;
    return dir->dir->Read(entry);
}

extern "C" ZK_API void ZK_CALL zkCloseDir(DirHandle* dir) {
    if (zk::IsOpenDir(dir)) zk::EndDir(dir);
}

extern "C" ZK_API int32_t ZK_CALL zkMakeDir(const char* path, uint32_t flags, uint32_t mode) {
    if (!path) return ZK_ERR_INVALID_ARGUMENT;
    if (mode == 0) mode = zk::kDefaultDirMode;
    char physical[zk::kMaxPath];
    int32_t result = 0;
    zk::DeviceDriver* device = zk::Resolve(path, physical, &result);
    return device ? zk::MakeDirRecursive(device, physical, flags, mode) : result;
}

extern "C" ZK_API int32_t ZK_CALL zkRemoveDir(const char* path, uint32_t arg) {
    if (!path) return ZK_ERR_INVALID_ARGUMENT;
    char physical[zk::kMaxPath];
    int32_t result = 0;
    zk::DeviceDriver* device = zk::Resolve(path, physical, &result);
    return device ? device->RemoveDir(physical, arg) : result;
}

extern "C" ZK_API int32_t ZK_CALL zkDumpDir(const char* path, uint32_t arg) {
    if (!path) return 0;
    char physical[zk::kMaxPath];
    int32_t result = 0;
    zk::DeviceDriver* device = zk::Resolve(path, physical, &result);
    return device ? device->DumpDir(physical, arg) : result;
}
