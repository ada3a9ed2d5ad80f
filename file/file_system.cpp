// Files: the handle table, the synchronous calls and the file system's start
// and stop. See file_system.h for what it owns, its locks and its threads.
#include "file/file_system.h"
#include "file/host_device.h"
#include "file/operations.h"
#include "kernel/context.h"
#include "kernel/timeline.h"
#include "platform/file.h"

#include <zk/result.h>

#include <atomic>
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

namespace {

// A handle's owner, read and written as an atomic: handles are taken and
// given back from any thread without a lock.
std::atomic_ref<FileSystem*> OwnerOf(FileHandle* handle) {
    return std::atomic_ref<FileSystem*>(handle->owner);
}

FileSystem* OwnerNow(const FileHandle* handle) {
    return OwnerOf(const_cast<FileHandle*>(handle)).load(std::memory_order_acquire);
}

// A close that nobody waits for: the handle's own close operation, queued on
// the worker, with a completion that gives the handle back. One per handle;
// the handle is not free again before the completion, so neither is this.
class DetachedClose final : public CompletionTarget {
public:
    void NotifyCompletion() override { Files().ReleaseHandle(handle); }
    CloseOperation operation{nullptr, 0};
    FileHandle* handle = nullptr;
};

DetachedClose g_detachedCloses[kMaxFiles];

// How long the end of the process level waits for the worker to finish what
// is queued (the closes it has just queued among it).
constexpr uint32_t kWorkerStopWaitMilliseconds = 1000;

} // namespace

int32_t FileSystem::Startup() {
    // The open count is left as it is: handles still open after termination
    // stay open (and may be taken and given back on other threads meanwhile).
    totalBytesRead_.store(0, std::memory_order_relaxed);
    WorkDir().Reset();
    std::memcpy(tryCounts_, kDefaultTries, sizeof(tryCounts_));
    // Whatever the platform needs for loading threads starts now, while a
    // new thread costs nobody a frame.
    os::ThreadsPrepareReusable();
    return worker_.Start();
}

void FileSystem::EndBackgroundLoads() {
    // Their jobs and data live in the system pool, which termination releases;
    // the loading threads write into it through the worker, so they are
    // waited for. The handles stay open (without a job).
    for (FileHandle& handle : handles_) {
        if (OwnerNow(&handle)) ReleaseBackgroundLoad(&handle);
    }
}

void FileSystem::Shutdown(uint32_t waitMilliseconds) {
    EndBackgroundLoads();
    // Files left open are closed by the worker before it ends; a file whose
    // close cannot be queued (no worker) is closed here.
    // A handle without a file is left to the thread that holds it (in the
    // middle of an open, it releases the handle itself on failure), and one
    // with an asynchronous read still pending stays open: that read may be
    // held in a host call, and nothing here waits for one.
    for (FileHandle& handle : handles_) {
        if (OwnerNow(&handle) && FileOf(&handle) &&
            handle.pendingReads.load(std::memory_order_acquire) == 0)
            CloseWithoutWaiting(&handle);
    }
    worker_.Stop(waitMilliseconds);
}

bool FileSystem::Owns(const FileHandle* handle) const {
    return handle >= &handles_[0] && handle < &handles_[kMaxFiles];
}

bool FileSystem::InUse(const FileHandle* handle) const {
    return handle && Owns(handle) && OwnerNow(handle);
}

int32_t FileSystem::Check(FileHandle* handle) {
    if (!Files().InUse(handle)) return ZK_ERR_INVALID_HANDLE;
    if (!handle->file) return ZK_ERR_NO_DEVICE;
    return ZK_OK;
}

uint32_t FileSystem::TriesOf(const FileHandle* handle) const {
    // Read once: a handle closed by another thread meanwhile has none.
    DeviceDriver* device = handle->device;
    return device ? device->GetTryCount(handle->unit) : 1;
}

FileHandle* FileSystem::AllocateHandle(const char* path) {
    FileHandle* handle = nullptr;
    for (FileHandle& h : handles_) {
        FileSystem* expected = nullptr;
        if (OwnerOf(&h).compare_exchange_strong(expected, this, std::memory_order_acquire)) {
            handle = &h;
            openCount_.fetch_add(1, std::memory_order_relaxed);
            break;
        }
    }
    if (!handle) return nullptr;
    // A full path that does not fit is not written: the handle's stays empty.
    handle->fullPath[0] = '\0';
    WorkDir().FullPath(path, handle->fullPath, kMaxPath);
    handle->device = nullptr;
    SetFile(handle, nullptr);
    handle->unit = 0;
    std::atomic_ref<BackgroundLoad*>(handle->backgroundLoad)
        .store(nullptr, std::memory_order_relaxed);
    handle->pendingReads.store(0, std::memory_order_relaxed);
    return handle;
}

void FileSystem::ReleaseHandle(FileHandle* handle) {
    uint32_t count = openCount_.load(std::memory_order_relaxed);
    while (count > 0 &&
           !openCount_.compare_exchange_weak(count, count - 1, std::memory_order_relaxed)) {
    }
    OwnerOf(handle).store(nullptr, std::memory_order_release);
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
    SetFile(handle, open.file);
    handle->unit = open.unit;
    return result;
}

void FileSystem::WaitForPendingReads(FileHandle* handle) {
    // Only a close racing its own asynchronous read gets here with reads
    // pending; it waits like a close queued behind them would.
    for (uint32_t round = 0; handle->pendingReads.load(std::memory_order_acquire) != 0; ++round)
        os::Sleep(round < 16 ? 0 : 1);
}

void FileSystem::CloseHandleFile(FileHandle* handle) {
    WaitForPendingReads(handle);
    if (!handle->file) return;
    CloseOperation close(handle->file, TriesOf(handle));
    close.traceHandle = handle;
    if (worker_.Submit(&close, nullptr, 1) < 0) handle->file->Close();
    SetFile(handle, nullptr);
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

void FileSystem::CloseWithoutWaiting(FileHandle* handle) {
    ReleaseBackgroundLoad(handle);
    FileObject* file = handle->file;
    if (!file || handle->pendingReads.load(std::memory_order_acquire) != 0) {
        // Nothing to close (no wait), or a read still pending on it: the
        // ordinary close, which waits for that read as the application's
        // own close would.
        Close(handle);
        return;
    }
    DetachedClose& closer = g_detachedCloses[handle - handles_];
    closer.operation = CloseOperation(file, TriesOf(handle));
    closer.operation.traceHandle = handle;
    closer.handle = handle;
    SetFile(handle, nullptr);
    handle->device = nullptr;
    if (worker_.Submit(&closer.operation, &closer, 1) < 0) {
        file->Close();
        ReleaseHandle(handle);
    }
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
    // A root mount that outlived termination stays as it is.
    if (directory[0] != '\0' && !Mounts().Match("/", 1)) Mounts().Mount("/", directory, 0);
}

void FileSystemTerminate() {
    if (Kernel().fileSystem) Files().EndBackgroundLoads();
}

void FileSystemEnd() {
    if (!Kernel().fileSystem) return;
    DirectoriesShutdown();
    Files().Shutdown(kWorkerStopWaitMilliseconds);
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
    if (!Files().InUse(file)) return;
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
