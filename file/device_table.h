// Devices and paths: the table of device drivers, the mount table and path
// resolution. What a driver gets from the system is in here and in
// thread/sync.h (the LibraryLock, for drivers that keep a table of file
// objects); the driver interfaces themselves are public (zk/device.h).
//
// The library's own drivers are reached through one function each, a static
// instance: zk::HostDeviceDriver() (file/host_device.h) and, later, the
// archive device. The file system's start registers them in that order:
// archive device first, host device second.
//
// Locks: none. The device table, the mount table and the working directory
// are changed from the main thread; lookups and resolution run on the thread
// that builds an operation, never on the I/O worker.
#ifndef ZK_FILE_DEVICE_TABLE_H
#define ZK_FILE_DEVICE_TABLE_H

#include <zk/device.h>

#include <cstdint>

namespace zk {

// Every path buffer the file system keeps holds this many characters; a path
// may be this long at most.
constexpr uint32_t kMaxPath = 260;
constexpr uint32_t kMaxDevices = 16;
constexpr uint32_t kMaxMounts = 16;

inline bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

class DeviceTable {
public:
    // 0, -3 (null) or -19 (16 drivers already).
    int32_t Add(DeviceDriver* driver);
    // The first driver in table order that claims name, initialised on its
    // first claim; null when none claims it or its initialisation failed.
    DeviceDriver* Find(const char* name);
    // The file system's start puts the library's own drivers in front of the
    // application's: a driver is taken out wherever it stands and put first.
    void RemoveAll(DeviceDriver* driver);
    void AddFirst(DeviceDriver* driver);
    uint32_t Count() const { return count_; }

private:
    struct Entry {
        DeviceDriver* driver;
        uint32_t initialised;
    };
    Entry entries_[kMaxDevices]{};
    uint32_t count_ = 0;
};

struct MountRecord {
    uint32_t inUse;
    char mountPath[kMaxPath + 1];
    uint32_t mountLength;
    char physicalPath[kMaxPath + 1];
    uint32_t physicalLength;
    DeviceDriver* device;
    uint32_t mode;
};

class MountTable {
public:
    int32_t Mount(const char* mountPath, const char* physicalPath, uint32_t mode);
    int32_t Unmount(const char* mountPath);
    int32_t UnmountAll();
    // The record serving a mount path of length length: the longest match,
    // the later record between equals; null when none matches.
    const MountRecord* Match(const char* path, uint32_t length) const;
    // Frees every record without asking drivers (the file system's stop).
    void Clear();
    // Frees the records served by device, without asking it (its mounts end
    // with what they name, as archive mounts at termination).
    void ClearDevice(const DeviceDriver* device);

private:
    MountRecord records_[kMaxMounts]{};
};

DeviceTable& Devices();
MountTable& Mounts();

inline DeviceDriver* FindDevice(const char* name) {
    return Devices().Find(name);
}

// The full path of path against a working directory; writes out only when
// outSize exceeds the full length. Returns the full length plus one.
uint32_t BuildFullPath(const char* path, const char* workDir, uint32_t workDirLength, char* out,
                       uint32_t outSize);

// The directory that relative paths are built against: "/" from the file
// system's start on, changed by zkSetWorkDir.
class WorkingDirectory {
public:
    void Reset();
    // Keeps dir without one trailing separator; ignored when too long.
    void Set(const char* dir);
    // BuildFullPath against this directory.
    uint32_t FullPath(const char* path, char* out, uint32_t outSize) const {
        return BuildFullPath(path, dir_, length_, out, outSize);
    }

private:
    char dir_[kMaxPath]{};
    uint32_t length_ = 0;
};

WorkingDirectory& WorkDir();

// Turns a mount path or device path into the physical path for its driver.
// 0 or positive (the driver's ConvertPath result) with *device set, or -33,
// -42, -23 (with *device null, except after -33 from a mount).
int32_t ResolvePath(const char* path, char* out, uint32_t outSize, DeviceDriver** device);

} // namespace zk

#endif // ZK_FILE_DEVICE_TABLE_H
