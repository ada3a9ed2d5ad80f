// The mount table and the device-level exports that go straight to a driver.
#include "file/device_table.h"

#include <zk/result.h>

#include <cstring>

namespace zk {

namespace {

MountTable g_mounts;

// A string longer than one character loses one trailing separator.
uint32_t TrimmedLength(const char* text) {
    uint32_t length = static_cast<uint32_t>(std::strlen(text));
    if (length > 1 && IsSeparator(text[length - 1])) --length;
    return length;
}

bool Refused(int32_t result) {
    return result < 0 && result != ZK_ERR_NOT_SUPPORTED;
}

} // namespace

MountTable& Mounts() {
    return g_mounts;
}

int32_t MountTable::Mount(const char* mountPath, const char* physicalPath, uint32_t mode) {
    if (mode == 0) mode = 15;
    if (mountPath[0] == '\0' || physicalPath[0] == '\0' || mountPath[0] != '/')
        return ZK_ERR_BAD_MOUNT_PATH;
    MountRecord* record = nullptr;
    for (MountRecord& r : records_) {
        if (!r.inUse) {
            record = &r;
            break;
        }
    }
    if (!record) return ZK_ERR_NO_MOUNT_SLOT;
    const uint32_t mountLength = TrimmedLength(mountPath);
    const uint32_t physicalLength = TrimmedLength(physicalPath);
    if (mountLength > kMaxPath || physicalLength > kMaxPath) return ZK_ERR_PATH_TOO_LONG;
    std::memcpy(record->mountPath, mountPath, mountLength);
    record->mountPath[mountLength] = '\0';
    record->mountLength = mountLength;
    std::memcpy(record->physicalPath, physicalPath, physicalLength);
    record->physicalPath[physicalLength] = '\0';
    DeviceDriver* device = FindDevice(record->physicalPath);
    if (!device) return ZK_ERR_NO_DEVICE;
    const int32_t result = device->Mount(record->physicalPath, kMaxPath, mode);
    if (Refused(result)) return result;
    record->physicalPath[kMaxPath] = '\0'; // a driver that filled the buffer stays terminated
    record->physicalLength = static_cast<uint32_t>(std::strlen(record->physicalPath));
    record->device = device;
    record->mode = mode;
    record->inUse = 1;
    return ZK_OK;
}

int32_t MountTable::Unmount(const char* mountPath) {
    if (mountPath[0] != '/') return ZK_ERR_BAD_MOUNT_PATH;
    uint32_t length = static_cast<uint32_t>(std::strlen(mountPath));
    if (mountPath[length - 1] == '/') --length; // the root thus matches nothing
    for (MountRecord& r : records_) {
        if (!r.inUse || r.mountLength != length) continue;
        if (std::memcmp(r.mountPath, mountPath, length) != 0) continue;
        if (r.device) {
            const int32_t result = r.device->Unmount(r.physicalPath);
            if (Refused(result)) return result;
        }
        r.inUse = 0;
        return ZK_OK;
    }
    return ZK_ERR_NOT_MOUNTED;
}

int32_t MountTable::UnmountAll() {
    for (MountRecord& r : records_) {
        if (!r.inUse) continue;
        if (r.device) {
            const int32_t result = r.device->Unmount(r.physicalPath);
            if (Refused(result)) return result;
        }
        r.inUse = 0;
    }
    return ZK_OK;
}

const MountRecord* MountTable::Match(const char* path, uint32_t length) const {
    const MountRecord* best = nullptr;
    for (const MountRecord& r : records_) {
        const uint32_t m = r.mountLength;
        if (!r.inUse || m > length || std::memcmp(r.mountPath, path, m) != 0) continue;
        if (m != 1 && path[m] != '\0' && !IsSeparator(path[m])) continue;
        if (!best || m >= best->mountLength) best = &r;
    }
    return best;
}

void MountTable::Clear() {
    for (MountRecord& r : records_)
        r.inUse = 0;
}

void MountTable::ClearDevice(const DeviceDriver* device) {
    for (MountRecord& r : records_)
        if (r.device == device) r.inUse = 0;
}

namespace {

// The driver of a path resolved without the working directory, with the
// physical path in out; null with *result set when resolution fails.
DeviceDriver* ResolveForDevice(const char* path, char* out, int32_t* result) {
    DeviceDriver* device = nullptr;
    *result = ResolvePath(path, out, kMaxPath, &device);
    if (*result < 0) return nullptr;
    if (!device) *result = ZK_ERR_NO_DEVICE;
    return device;
}

} // namespace

} // namespace zk

// ---- exports ----------------------------------------------------------------------

using zk::DeviceDriver;

extern "C" ZK_API int32_t ZK_CALL zkMount(const char* mountPath, const char* physicalPath,
                                          uint32_t mode) {
    if (!mountPath || !physicalPath) return ZK_ERR_INVALID_ARGUMENT;
    return zk::Mounts().Mount(mountPath, physicalPath, mode);
}

extern "C" ZK_API int32_t ZK_CALL zkUnmount(const char* mountPath) {
    if (!mountPath) return ZK_ERR_INVALID_ARGUMENT;
    return zk::Mounts().Unmount(mountPath);
}

extern "C" ZK_API int32_t ZK_CALL zkUnmountAll(void) {
    return zk::Mounts().UnmountAll();
}

extern "C" ZK_API int32_t ZK_CALL zkControlDevice(const char* name, uint32_t code, uint32_t a,
                                                  uint32_t b) {
    if (!name) return ZK_ERR_INVALID_ARGUMENT;
    DeviceDriver* device = zk::FindDevice(name);
    return device ? device->ControlDevice(name, code, a, b) : ZK_ERR_NO_DEVICE;
}

extern "C" ZK_API int32_t ZK_CALL zkGetPartitionStatus(const char* name) {
    if (!name) return ZK_ERR_INVALID_ARGUMENT;
    DeviceDriver* device = zk::FindDevice(name);
    return device ? device->GetPartitionStatus(name) : ZK_ERR_NO_DEVICE;
}

extern "C" ZK_API int32_t ZK_CALL zkCreatePartition(const char* name, uint32_t a, uint32_t b) {
    if (!name) return ZK_ERR_INVALID_ARGUMENT;
    DeviceDriver* device = zk::FindDevice(name);
    return device ? device->CreatePartition(name, a, b) : ZK_ERR_NO_DEVICE;
}

extern "C" ZK_API int32_t ZK_CALL zkDeletePartition(const char* name) {
    if (!name) return ZK_ERR_INVALID_ARGUMENT;
    DeviceDriver* device = zk::FindDevice(name);
    return device ? device->DeletePartition(name) : ZK_ERR_NO_DEVICE;
}

extern "C" ZK_API int32_t ZK_CALL zkFormat(const char* path) {
    if (!path) return ZK_ERR_INVALID_ARGUMENT;
    char physical[zk::kMaxPath];
    int32_t result = 0;
    DeviceDriver* device = zk::ResolveForDevice(path, physical, &result);
    return device ? device->Format(physical) : result;
}

extern "C" ZK_API int32_t ZK_CALL zkQueryDeviceInfo(const char* path, uint32_t what, uint32_t a,
                                                    uint32_t b) {
    if (!path) return ZK_ERR_INVALID_ARGUMENT;
    char physical[zk::kMaxPath];
    int32_t result = 0;
    DeviceDriver* device = zk::ResolveForDevice(path, physical, &result);
    return device ? device->QueryDeviceInfo(physical, what, a, b) : result;
}

extern "C" ZK_API int32_t ZK_CALL zkGetDeviceStatus(const char* path) {
    return zkQueryDeviceInfo(path, 1, 0, 0);
}

extern "C" ZK_API int32_t ZK_CALL zkSetDeviceTryCount(const char* name, uint32_t count) {
    if (!name) return 0;
    DeviceDriver* device = zk::FindDevice(name);
    return device ? device->SetTryCount(device->GetUnit(name), count) : 0;
}

extern "C" ZK_API uint32_t ZK_CALL zkGetDeviceTryCount(const char* name) {
    if (!name) return 0;
    DeviceDriver* device = zk::FindDevice(name);
    return device ? device->GetTryCount(device->GetUnit(name)) : 0;
}
