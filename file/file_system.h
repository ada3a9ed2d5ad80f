// The file system: the table of 32 file handles, the counters, the file try
// counts and the device I/O worker.
//
// Owns: the FileSystem object (static), and through it the worker; the device
// table, the mount table and the working directory (device_table.h) are the
// file system's too; it resets the working directory at its start.
//
// Locks: none process-wide. A handle is taken and given back by an atomic
// exchange of its owner and the open count is an atomic, so the table works
// the same from any thread whether or not the library is initialised; the
// bytes-read counter is an atomic of its own. Everything else in a handle
// belongs to the one thread that uses it. The worker's own monitors guard its
// queue (io_worker.h). No lock is held while a driver runs.
//
// Threads: any thread calls the file functions; the worker thread runs the
// queued operations. The working directory, the device and mount tables are
// changed from the main thread only.
//
// Life: started by the library's initialisation (worker started or kept,
// counters cleared, working directory "/", try counts to their defaults, the
// library's drivers put first in the device table, the executable's directory
// mounted at "/" unless something is mounted there). Termination leaves it
// alone: open files, mounts, drivers and the worker go on working from any
// thread, and only background loads (their jobs and data live in the system
// pool) are ended. The end of the process level stops it (FileSystemEnd):
// listings and files still open are closed, every mount is removed and the
// worker is stopped, waiting for it only for a bounded time.
//
// Closing a handle while an asynchronous read on it is pending waits for
// that read first (the close is queued behind it), so the read never touches
// the file object after it was given back to its driver for another open.
#ifndef ZK_FILE_FILE_SYSTEM_H
#define ZK_FILE_FILE_SYSTEM_H

#include "file/device_table.h"
#include "file/io_worker.h"

#include <zk/file.h>

#include <atomic>
#include <cstdint>

namespace zk {
class FileSystem;
class BackgroundLoad;
} // namespace zk

// An exported file handle points at one of these.
struct FileHandle {
    zk::FileSystem* owner;       // null while free
    char fullPath[zk::kMaxPath]; // after the working directory was applied
    zk::DeviceDriver* device;    // null until opened
    zk::FileObject* file;        // null when not open
    int32_t unit;                // the driver's unit for the path
    zk::BackgroundLoad* backgroundLoad;
    char deviceName[8]; // the device's name as the physical path gives it ("host" for none)
    // Asynchronous reads queued or running on the handle; a close waits for 0.
    std::atomic<uint32_t> pendingReads;
};

namespace zk {

constexpr uint32_t kMaxFiles = 32;
constexpr uint32_t kTryKinds = 6;

class FileSystem {
public:
    // -19 when the worker's thread cannot start (the file system is then not
    // started). Files, mounts and a worker still there from before are kept.
    int32_t Startup();
    // Termination's step: background loads are ended (waited for), their
    // handles stay open.
    void EndBackgroundLoads();
    // The process level's end: files still open are closed, the worker is
    // stopped (waited for at most waitMilliseconds).
    void Shutdown(uint32_t waitMilliseconds);
    bool Started() const { return worker_.Running(); }

    // A free handle with its full path built against the working directory;
    // null when all 32 are in use.
    FileHandle* AllocateHandle(const char* path);
    void ReleaseHandle(FileHandle* handle);
    // The open step for an allocated handle: 0 or positive, or a negative code
    // (the handle then has no file object).
    int32_t OpenHandle(FileHandle* handle, uint32_t openFlags, uint32_t mode);
    // Closes the handle's file object (if any); the handle stays allocated.
    void CloseHandleFile(FileHandle* handle);
    void Close(FileHandle* handle);
    // Closes the handle without waiting for the worker: the close is queued
    // and the handle given back when it has run (termination closes archive
    // files this way, so it never waits behind a host call).
    void CloseWithoutWaiting(FileHandle* handle);
    // Waits until no asynchronous read on the handle is queued or running.
    static void WaitForPendingReads(FileHandle* handle);
    // Reads at an offset straight through the file object, on this thread:
    // no worker, retries or byte counting.
    int32_t ReadAtDirect(FileHandle* handle, uint32_t offset, void* buffer, uint32_t size,
                         uint32_t* got, uint32_t flags);

    // The common checks: -4 for null or free handles, -23 without a file.
    static int32_t Check(FileHandle* handle);
    bool Owns(const FileHandle* handle) const;
    // A handle of this table that is in use.
    bool InUse(const FileHandle* handle) const;
    uint32_t TriesOf(const FileHandle* handle) const;

    // A path built against the working directory (device_table.h).
    uint32_t FullPath(const char* path, char* out, uint32_t outSize) const {
        return WorkDir().FullPath(path, out, outSize);
    }

    void AddBytesRead(uint32_t n) {
        if (n) totalBytesRead_.fetch_add(n, std::memory_order_relaxed);
    }
    uint32_t TotalBytesRead() const {
        return static_cast<uint32_t>(totalBytesRead_.load(std::memory_order_relaxed));
    }
    void ResetTotalBytesRead() { totalBytesRead_.store(0, std::memory_order_relaxed); }
    uint32_t OpenCount() const { return openCount_.load(std::memory_order_relaxed); }

    int32_t SetTryCount(uint32_t kind, uint32_t count);
    uint32_t TryCount(uint32_t kind) const { return kind < kTryKinds ? tryCounts_[kind] : 0; }

    DeviceIoWorker& Worker() { return worker_; }

private:
    FileHandle handles_[kMaxFiles]{};
    std::atomic<uint32_t> openCount_{0}; // changed with the owners, read anywhere
    std::atomic<uint64_t> totalBytesRead_{0};
    DeviceIoWorker worker_;
    uint32_t tryCounts_[kTryKinds]{};
};

FileSystem& Files();

// A handle's file object, read and written as an atomic where another
// thread may look at it (the end of the process level closes what is open).
inline FileObject* FileOf(const FileHandle* handle) {
    return std::atomic_ref<FileObject*>(const_cast<FileHandle*>(handle)->file)
        .load(std::memory_order_acquire);
}
inline void SetFile(FileHandle* handle, FileObject* file) {
    std::atomic_ref<FileObject*>(handle->file).store(file, std::memory_order_release);
}

// Notes in the handle the device part of a physical path ("kiv0" of
// "kiv0:/a.bin"), or "host" for a host path (no device name, or a drive
// letter); the timeline shows it.
void SetDeviceName(FileHandle* handle, const char* physicalPath);

// The file system's steps in the library's initialisation and termination.
int32_t FileSystemStartup();
// Termination's step (background loads) and the process level's end.
void FileSystemTerminate();
void FileSystemEnd();
// Puts the library's own drivers first in the device table (archive device,
// then host device).
void RegisterLibraryDevices();
// Mounts directory at "/" and makes it the process's current directory.
void MountRootDirectory(const char* directory);
// Ends the listings still open (directory.cpp).
void DirectoriesShutdown();
// Waits until the handle's background load has ended, frees the data it still
// holds and the job itself (async_file.cpp). Nothing without a job.
void ReleaseBackgroundLoad(FileHandle* handle);

} // namespace zk

#endif // ZK_FILE_FILE_SYSTEM_H
