// Files: the handle table, the synchronous calls and the file system's start
// and stop. See file_system.h for what it owns, its locks and its threads.
#include "file/file_system.h"
#include "file/host_device.h"
#include "file/operations.h"
#include "kernel/context.h"
#include "kernel/timeline.h"
#include "platform/file.h"

#include <zk/result.h>

#include <cstring>

namespace zk {

namespace {

FileSystem g_files;

// File try counts by kind; kinds 1, 2 and 3 also name a device.
constexpr uint32_t kDefaultTries[kTryKinds] = {1, 1, kUnlimitedTries, 1, 1, 1};
const char* const kTryDevices[kTryKinds] = {
    nullptr, "hdd0:", "cdrom0:", "host0:", nullptr, nullptr};

// Submits a synchronous operation on the normal queue; the operation's result,
// or -19 when the worker is not running.
template <typename Operation> int32_t RunSync(Operation& operation, uint32_t priority = 1) {
    const int32_t r = Files().Worker().Submit(&operation, nullptr, priority);
    return r < 0 ? r : operation.result;
}

} // namespace

FileSystem& Files() {
    return g_files;
}

int32_t FileSystem::Startup() {
    openCount_.store(0, std::memory_order_relaxed);
    totalBytesRead_.store(0, std::memory_order_relaxed);
    WorkDir().Reset();
    std::memcpy(tryCounts_, kDefaultTries, sizeof(tryCounts_));
    return worker_.Start();
}

void FileSystem::Shutdown() {
    // Background loads finish first: their threads still need the worker.
    for (FileHandle& handle : handles_) {
        if (handle.owner) ReleaseBackgroundLoad(&handle);
    }
    worker_.Stop();
    // Files left open: with the worker gone their objects are closed here.
    for (FileHandle& handle : handles_) {
        if (!handle.owner) continue;
        if (handle.file) handle.file->Close();
        handle.file = nullptr;
        handle.device = nullptr;
        handle.owner = nullptr;
    }
    openCount_.store(0, std::memory_order_relaxed);
}

bool FileSystem::Owns(const FileHandle* handle) const {
    return handle >= &handles_[0] && handle < &handles_[kMaxFiles];
}

int32_t FileSystem::Check(FileHandle* handle) {
    if (!handle || !Files().Owns(handle) || !handle->owner) return ZK_ERR_INVALID_HANDLE;
    if (!handle->file) return ZK_ERR_NO_DEVICE;
    return ZK_OK;
}

uint32_t FileSystem::TriesOf(const FileHandle* handle) const {
    return handle->device->GetTryCount(handle->unit);
}

FileHandle* FileSystem::AllocateHandle(const char* path) {
    FileHandle* handle = nullptr;
    FileLockTake();
    for (FileHandle& h : handles_) {
        if (!h.owner) {
            handle = &h;
            handle->owner = this;
            openCount_.fetch_add(1, std::memory_order_relaxed);
            break;
        }
    }
    FileLockGive();
    if (!handle) return nullptr;
    // A full path that does not fit is not written: the handle's stays empty.
    handle->fullPath[0] = '\0';
    WorkDir().FullPath(path, handle->fullPath, kMaxPath);
    handle->device = nullptr;
    handle->file = nullptr;
    handle->unit = 0;
    handle->backgroundLoad = nullptr;
    return handle;
}

void FileSystem::ReleaseHandle(FileHandle* handle) {
    FileLockTake();
    if (openCount_.load(std::memory_order_relaxed) > 0)
        openCount_.fetch_sub(1, std::memory_order_relaxed);
    handle->owner = nullptr; // under the lock: AllocateHandle reads it there
    FileLockGive();
}

void SetDeviceName(FileHandle* handle, const char* physicalPath) {
    uint32_t n = 0;
    while (n < sizeof(handle->deviceName) - 1 && physicalPath[n] != '\0' && physicalPath[n] != ':')
        ++n;
    if (n < 2 || physicalPath[n] != ':') {
        std::memcpy(handle->deviceName, "host", 5);
        return;
    }
    std::memcpy(handle->deviceName, physicalPath, n);
    handle->deviceName[n] = '\0';
}

int32_t FileSystem::OpenHandle(FileHandle* handle, uint32_t openFlags, uint32_t mode) {
    // An empty full path is one that did not fit its buffer.
    if (handle->fullPath[0] == '\0') return ZK_ERR_BUFFER_TOO_SMALL;
    OpenOperation open;
    int32_t result = open.Build(handle->fullPath, openFlags, mode);
    SetDeviceName(handle, open.physicalPath);
    open.traceHandle = handle;
    if (result >= 0) {
        const int32_t submitted = worker_.Submit(&open, nullptr, 1);
        if (submitted < 0) open.result = submitted;
        open.Finish();
        result = open.result;
    }
    handle->device = open.device;
    handle->file = open.file;
    handle->unit = open.unit;
    return result;
}

void FileSystem::CloseHandleFile(FileHandle* handle) {
    if (!handle->file) return;
    CloseOperation close(handle->file, TriesOf(handle));
    close.traceHandle = handle;
    if (worker_.Submit(&close, nullptr, 1) < 0) handle->file->Close();
    handle->file = nullptr;
    handle->device = nullptr;
}

void FileSystem::Close(FileHandle* handle) {
    // A background load still running owns the file object: the job is
    // released first (which waits for its thread, and the thread closes the
    // file), so the close step never pulls the file from under it.
    ReleaseBackgroundLoad(handle);
    CloseHandleFile(handle);
    ReleaseHandle(handle);
}

int32_t FileSystem::ReadAtDirect(FileHandle* handle, uint32_t offset, void* buffer, uint32_t size,
                                 uint32_t* got, uint32_t flags) {
    uint32_t count = 0;
    int32_t result = ZK_OK;
    if (size != 0) {
        result = handle->file->ReadAt(offset, buffer, size, &count, flags);
        if (count > size) count = size;
    }
    if (got) *got = count;
    return result;
}

int32_t FileSystem::SetTryCount(uint32_t kind, uint32_t count) {
    if (kind >= kTryKinds) return ZK_ERR_INVALID_ARGUMENT;
    const uint32_t previous = tryCounts_[kind];
    tryCounts_[kind] = count;
    if (kTryDevices[kind]) return zkSetDeviceTryCount(kTryDevices[kind], count);
    return static_cast<int32_t>(previous);
}

int32_t FileSystemStartup() {
    Kernel().fileSystem = &Files();
    return Files().Startup();
}

void RegisterLibraryDevices() {
    // Put first; the archive registry's start puts its device before it.
    DeviceTable& devices = Devices();
    DeviceDriver* host = HostDeviceDriver();
    devices.RemoveAll(host);
    devices.AddFirst(host);
}

void MountRootDirectory(const char* directory) {
    if (directory[0] != '\0') Mounts().Mount("/", directory, 0);
}

void FileSystemShutdown() {
    if (!Kernel().fileSystem) return;
    Files().Shutdown();
    DirectoriesShutdown();
    Mounts().UnmountAll();
    Mounts().Clear();
    Kernel().fileSystem = nullptr;
}

} // namespace zk

// ---- exports ----------------------------------------------------------------------

using zk::Files;
using zk::FileSystem;

extern "C" ZK_API FileHandle* ZK_CALL zkOpenFile(const char* path, uint32_t openFlags,
                                                 uint32_t mode) {
    if (!path) return nullptr;
    zk::timeline::Scope scope("file", "zkOpenFile");
    scope.SetText("path", path);
    FileHandle* handle = Files().AllocateHandle(path);
    if (!handle) return nullptr;
    const int32_t result = Files().OpenHandle(handle, openFlags, mode);
    scope.Set("result", result);
    if (result < 0) {
        Files().Close(handle);
        return nullptr;
    }
    return handle;
}

extern "C" ZK_API void ZK_CALL zkCloseFile(FileHandle* file) {
    if (!file || !Files().Owns(file) || !file->owner) return;
    // The handle goes back before the slice ends and may be taken by another
    // thread at once: the slice keeps a copy of its path.
    char path[zk::kMaxPath];
    zk::timeline::Scope scope("file", "zkCloseFile");
    if (scope.Active()) {
        std::memcpy(path, file->fullPath, sizeof(path));
        scope.SetText("path", path);
    }
    Files().Close(file);
}

extern "C" ZK_API int32_t ZK_CALL zkReadFile(FileHandle* file, void* buffer, uint32_t size,
                                             uint32_t* got) {
    int32_t result = FileSystem::Check(file);
    if (result < 0) return result;
    if (!buffer) return ZK_ERR_INVALID_ARGUMENT;
    zk::timeline::Scope scope("file", "zkReadFile");
    scope.SetText("path", file->fullPath);
    uint32_t done = 0;
    if (size != 0) {
        zk::ReadOperation read(file->file, buffer, size, Files().TriesOf(file));
        read.traceHandle = file;
        result = zk::RunSync(read);
        done = read.done;
        if (result >= 0) Files().AddBytesRead(done);
    }
    scope.Set("bytes", done);
    scope.Set("result", result);
    if (got) *got = done;
    return result;
}

extern "C" ZK_API int32_t ZK_CALL zkReadFileOffset(FileHandle* file, uint32_t offset, void* buffer,
                                                   uint32_t size, uint32_t* got, uint32_t flags) {
    int32_t result = FileSystem::Check(file);
    if (result < 0) return result;
    if (!buffer) return ZK_ERR_INVALID_ARGUMENT;
    zk::timeline::Scope scope("file", "zkReadFileOffset");
    scope.SetText("path", file->fullPath);
    scope.Set("offset", offset);
    uint32_t done = 0;
    if (size != 0) {
        zk::ReadAtOperation read(file->file, offset, buffer, size, flags, Files().TriesOf(file));
        read.traceHandle = file;
        result = zk::RunSync(read, (flags & 1) ? 0 : 1);
        done = read.done;
        if (result >= 0) Files().AddBytesRead(done);
    }
    scope.Set("bytes", done);
    scope.Set("result", result);
    if (got) *got = done;
    return result;
}

extern "C" ZK_API int32_t ZK_CALL zkWriteFile(FileHandle* file, const void* buffer, uint32_t size,
                                              uint32_t* written) {
    int32_t result = FileSystem::Check(file);
    if (result < 0) return result;
    if (!buffer) return ZK_ERR_INVALID_ARGUMENT;
    zk::timeline::Scope scope("file", "zkWriteFile");
    scope.SetText("path", file->fullPath);
    uint32_t done = 0;
    if (size != 0) {
        zk::WriteOperation write(file->file, buffer, size, Files().TriesOf(file));
        write.traceHandle = file;
        result = zk::RunSync(write);
        done = write.done;
    }
    scope.Set("bytes", done);
    scope.Set("result", result);
    if (written) *written = done;
    return result;
}

extern "C" ZK_API int32_t ZK_CALL zkSeekFile(FileHandle* file, int32_t offset, uint32_t origin,
                                             uint32_t* newPosition) {
    int32_t result = FileSystem::Check(file);
    if (result < 0) return result;
    zk::timeline::Scope scope("file", "zkSeekFile");
    scope.SetText("path", file->fullPath);
    zk::SeekOperation seek(file->file, offset, origin, Files().TriesOf(file));
    seek.traceHandle = file;
    result = zk::RunSync(seek);
    scope.Set("position", seek.newPosition);
    if (newPosition) *newPosition = seek.newPosition;
    return result;
}

extern "C" ZK_API int32_t ZK_CALL zkGetFileSize(FileHandle* file, uint32_t* size) {
    int32_t result = FileSystem::Check(file);
    if (result == ZK_ERR_INVALID_HANDLE) return result;
    if (!size) return ZK_ERR_INVALID_ARGUMENT;
    if (result < 0) return result;
    zk::timeline::Scope scope("file", "zkGetFileSize");
    scope.SetText("path", file->fullPath);
    zk::GetSizeOperation query(file->file, Files().TriesOf(file));
    query.traceHandle = file;
    result = zk::RunSync(query);
    scope.Set("size", query.size);
    *size = query.size;
    return result;
}

extern "C" ZK_API int32_t ZK_CALL zkGetFilePath(FileHandle* file, char* out, uint32_t outSize) {
    if (FileSystem::Check(file) == ZK_ERR_INVALID_HANDLE) return ZK_ERR_INVALID_HANDLE;
    if (!out) return ZK_ERR_INVALID_ARGUMENT;
    const uint32_t length = static_cast<uint32_t>(std::strlen(file->fullPath));
    if (length >= outSize) return ZK_ERR_BUFFER_TOO_SMALL;
    std::memcpy(out, file->fullPath, length + 1);
    return ZK_OK;
}

extern "C" ZK_API int32_t ZK_CALL zkGetFileTime(FileHandle* file, FileTimeRecord* t0,
                                                FileTimeRecord* t1, FileTimeRecord* t2) {
    if (FileSystem::Check(file) == ZK_ERR_INVALID_HANDLE) return ZK_ERR_INVALID_HANDLE;
    if (!file->device) return ZK_ERR_NO_DEVICE;
    zk::GetTimeOperation get;
    int32_t result = get.Build(file->device, file->fullPath);
    if (result < 0) return result;
    result = zk::RunSync(get);
    if (t0) *t0 = get.t0;
    if (t1) *t1 = get.t1;
    if (t2) *t2 = get.t2;
    return result;
}

extern "C" ZK_API int32_t ZK_CALL zkSetFileTime(FileHandle* file, const FileTimeRecord* t0,
                                                const FileTimeRecord* t1,
                                                const FileTimeRecord* t2) {
    if (FileSystem::Check(file) == ZK_ERR_INVALID_HANDLE) return ZK_ERR_INVALID_HANDLE;
    if (!file->device) return ZK_ERR_NO_DEVICE;
    zk::SetTimeOperation set;
    const int32_t result = set.Build(file->device, file->fullPath, t0, t1, t2);
    return result < 0 ? result : zk::RunSync(set);
}

extern "C" ZK_API int32_t ZK_CALL zkDeleteFile(const char* path, uint32_t arg) {
    if (!path) return ZK_ERR_INVALID_ARGUMENT;
    char fullPath[zk::kMaxPath];
    fullPath[0] = '\0';
    zk::WorkDir().FullPath(path, fullPath, zk::kMaxPath);
    char physical[zk::kMaxPath];
    zk::DeviceDriver* device = nullptr;
    const int32_t result = zk::ResolvePath(fullPath, physical, zk::kMaxPath, &device);
    if (result < 0) return result;
    if (!device) return ZK_ERR_NO_DEVICE;
    return device->DeleteFile(physical, arg);
}

extern "C" ZK_API int32_t ZK_CALL zkCopyFile(const char* source, const char* target) {
    if (!source || !target) return ZK_ERR_INVALID_ARGUMENT;
    return zk::os::FileCopy(source, target) ? ZK_OK : ZK_ERR_HOST_REMOVE_OR_COPY;
}

extern "C" ZK_API uint32_t ZK_CALL zkGetOpenFileCount(void) {
    return Files().OpenCount();
}

extern "C" ZK_API uint32_t ZK_CALL zkGetTotalBytesRead(void) {
    return Files().TotalBytesRead();
}

extern "C" ZK_API int32_t ZK_CALL zkResetTotalBytesRead(void) {
    Files().ResetTotalBytesRead();
    return ZK_OK;
}

extern "C" ZK_API int32_t ZK_CALL zkSetFileTryCount(uint32_t kind, uint32_t count) {
    return Files().SetTryCount(kind, count);
}

extern "C" ZK_API uint32_t ZK_CALL zkGetFileTryCount(uint32_t kind) {
    return Files().TryCount(kind);
}
