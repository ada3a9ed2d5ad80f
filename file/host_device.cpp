// The host device driver and its file objects.
//
// Owns: the one HostDevice and a pool of 32 HostFile objects in static
// storage. A HostFile holds only its host file; it is handed out by
// CreateFileObject and comes back to the pool only through its own Close.
//
// Locks: none. A free object is claimed by an atomic exchange of its in-use
// word, scanning from the first object, so opening files never waits on a
// lock of the library; the file of a claimed object is touched only by the
// thread that uses it (the device I/O worker for every operation, since no
// kind is immediate), and between two operations by the thread of a
// whole-file load, which brings the next part into the system's cache
// without moving the position (HostCacheAhead; a semaphore lets four do so
// at once).
//
// Pieces: one Read or Write moves at most kHostPiece bytes (a driver may
// deliver less than asked). The I/O worker queues the rest of a transfer
// again behind the operations waiting, so no single step holds the worker
// for longer than one piece takes, and a short operation queued behind bulk
// loads runs after at most a few pieces. The size is a measured balance:
// smaller pieces cost more steps per byte, larger ones a longer step (see
// bench/frame_load).
//
// What a host file operation does is the platform's: the Win32 file calls on
// Windows, their POSIX equivalents elsewhere, each failure turned here into
// one fixed code. The driver adds no root to a path, checks no length and
// supports no listing, deletion, file times or partitions.
#include "file/host_device.h"
#include "file/driver_defaults.h"

#include "platform/file.h"
#include "platform/platform.h"

#include <zk/result.h>

#include <atomic>

namespace zk {
namespace {

constexpr uint32_t kHostPiece = 256u << 10;

class HostFile final : public FileObject {
public:
    constexpr HostFile() = default;

    // Claims the object when it is free.
    bool TryTake() {
        uint32_t expected = 0;
        if (!inUse_.compare_exchange_strong(expected, 1, std::memory_order_acquire)) return false;
        file_ = os::kInvalidFile;
        return true;
    }

    int32_t IsImmediate(int32_t /*kind*/) override { return 0; }

    int32_t Open(const char* physicalPath, uint32_t openFlags, uint32_t /*mode*/) override {
        if (!physicalPath) return ZK_ERR_OPEN_FAILED;
        uint32_t access = 0;
        if (openFlags & ZK_OPEN_READ) access |= os::kFileAccessRead;
        if (openFlags & ZK_OPEN_WRITE) access |= os::kFileAccessWrite;
        os::File file = os::FileOpen(physicalPath, access, (openFlags & ZK_OPEN_CREATE) != 0);
        if (file == os::kInvalidFile) return ZK_ERR_OPEN_FAILED;
        // The new file's position is 0: cutting it there empties it.
        if (openFlags & ZK_OPEN_TRUNCATE) {
            os::FileTruncateHere(file);
        } else if (openFlags & ZK_OPEN_APPEND) {
            uint32_t end;
            os::FileSeek(file, 0, os::kFileSeekEnd, &end);
        }
        file_ = file;
        return ZK_OK;
    }

    int32_t Close() override {
        if (file_ != os::kInvalidFile) os::FileClose(file_);
        file_ = os::kInvalidFile;
        inUse_.store(0, std::memory_order_release);
        return ZK_OK;
    }

    int32_t GetSize(uint32_t* size) override {
        uint32_t value;
        if (!os::FileSize(file_, &value)) return ZK_ERR_HOST_READ;
        if (size) *size = value;
        return ZK_OK;
    }

    int32_t Read(void* buffer, uint32_t size, uint32_t* got, uint32_t /*flags*/) override {
        uint32_t count = 0;
        bool ok = os::FileRead(file_, buffer, size < kHostPiece ? size : kHostPiece, &count);
        if (got) *got = count;
        return ok ? ZK_OK : ZK_ERR_HOST_READ;
    }

    int32_t ReadAt(uint32_t offset, void* buffer, uint32_t size, uint32_t* got,
                   uint32_t flags) override {
        if (!os::FileSeekFromStart(file_, offset)) return ZK_ERR_HOST_POSITION;
        // Through the object's own Read, so that a class built on this one reads its way.
        return Read(buffer, size, got, flags);
    }

    int32_t Write(const void* buffer, uint32_t size, uint32_t* written) override {
        uint32_t count = 0;
        bool ok = os::FileWrite(file_, buffer, size < kHostPiece ? size : kHostPiece, &count);
        if (written) *written = count;
        return ok ? ZK_OK : ZK_ERR_HOST_WRITE;
    }

    int32_t Seek(int32_t offset, uint32_t origin, uint32_t* newPosition) override {
        if (origin > ZK_SEEK_END) return ZK_ERR_INVALID_ARGUMENT;
        if (origin == ZK_SEEK_SET && offset < 0) offset = 0;
        uint32_t position;
        if (!os::FileSeek(file_, offset, origin, &position)) return ZK_ERR_HOST_SEEK;
        if (newPosition) *newPosition = position;
        return ZK_OK;
    }

    os::File HostFileOf() const { return file_; }

private:
    std::atomic<uint32_t> inUse_{0};
    os::File file_ = os::kInvalidFile;
};

HostFile gFiles[kHostFileCount];

bool IsAsciiLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

class HostDevice final : public DriverDefaults {
public:
    constexpr HostDevice() = default;

    int32_t MatchName(const char* name) override {
        if (!name) return ZK_ERR_NOT_SUPPORTED;
        if (IsAsciiLetter(name[0]) && name[1] == ':') return 0; // a drive
        if (name[0] == '\\' && name[1] == '\\') return 0;       // a network path
        for (const char* p = name; *p; ++p)                     // another device's name
            if (*p == ':') return ZK_ERR_NOT_SUPPORTED;
        return 0;
    }

    int32_t ConvertPath(char* physicalPath, uint32_t /*capacity*/) override {
        if (physicalPath) os::FileConvertPath(physicalPath);
        return ZK_OK;
    }

    // Host operations get one attempt; there is no count to store.
    uint32_t GetTryCount(int32_t /*unit*/) override { return 0; }
    int32_t SetTryCount(int32_t /*unit*/, uint32_t /*count*/) override { return ZK_OK; }

    FileObject* CreateFileObject() override {
        for (HostFile& file : gFiles)
            if (file.TryTake()) return &file;
        return nullptr;
    }

    int32_t Mount(char* /*physicalPath*/, uint32_t /*capacity*/, uint32_t /*mode*/) override {
        return ZK_OK;
    }
    int32_t Unmount(char* /*physicalPath*/) override { return ZK_OK; }
    int32_t Format(char* /*physicalPath*/) override { return ZK_OK; }

    // One level only: the flags (parents) and the mode are not used.
    int32_t MakeDir(char* physicalPath, uint32_t /*flags*/, uint32_t /*mode*/) override {
        return physicalPath && os::DirectoryCreate(physicalPath) ? ZK_OK : ZK_ERR_HOST_MKDIR;
    }
    int32_t RemoveDir(char* physicalPath, uint32_t /*arg*/) override {
        return physicalPath && os::DirectoryRemove(physicalPath) ? ZK_OK
                                                                 : ZK_ERR_HOST_REMOVE_OR_COPY;
    }

    int32_t GetUnit(const char* /*name*/) override { return 0; }

    // The driver's own slots after the interface's: the device flag word,
    // which nothing in the library reads.
    virtual uint32_t GetDeviceFlag() { return flag_.load(std::memory_order_relaxed); }
    virtual uint32_t SetDeviceFlag(uint32_t value) {
        return flag_.exchange(value, std::memory_order_relaxed);
    }

private:
    std::atomic<uint32_t> flag_{0};
};

HostDevice gHostDevice;

} // namespace

// At most this many loads bring parts into the cache at once: the disk's
// queue stays short, so an application's own read of a file that is not
// cached waits behind a few parts, not behind a part of every load.
constexpr int32_t kCachingAtOnce = 4;

os::Handle CachingSlots() {
    static std::atomic<os::Handle> slots{nullptr};
    os::Handle made = slots.load(std::memory_order_acquire);
    if (made) return made;
    os::Handle fresh = os::SemaphoreCreate(kCachingAtOnce, kCachingAtOnce);
    if (!fresh || slots.compare_exchange_strong(made, fresh, std::memory_order_acq_rel))
        return fresh;
    os::CloseHandle(fresh); // another thread made it first
    return made;
}

uint32_t HostCacheAhead(FileObject* file, uint32_t rest, uint32_t part) {
    for (HostFile& host : gFiles) {
        if (&host != file) continue;
        const os::File handle = host.HostFileOf();
        if (handle == os::kInvalidFile || os::FileLooksCached(handle, rest)) return rest;
        const uint32_t size = rest < part ? rest : part;
        os::Handle slots = CachingSlots();
        if (slots && os::Wait(slots, os::kInfinite) == os::WaitResult::Signaled) {
            os::FileCacheAhead(handle, size);
            os::SemaphoreRelease(slots, 1);
        }
        return size;
    }
    return rest;
}

DeviceDriver* HostDeviceDriver() {
    gHostDevice.SetDeviceFlag(1);
    return &gHostDevice;
}

} // namespace zk
