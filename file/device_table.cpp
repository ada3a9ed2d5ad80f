// The device table, the working directory, path building and resolution, and
// the path exports.
#include "file/device_table.h"

#include <zk/result.h>

#include <cstring>

namespace zk {

namespace {

DeviceTable g_devices;
WorkingDirectory g_workDir;

// Copies length characters and a NUL.
void CopyTerminated(char* out, const char* text, uint32_t length) {
    std::memcpy(out, text, length);
    out[length] = '\0';
}

} // namespace

DeviceTable& Devices() {
    return g_devices;
}

int32_t DeviceTable::Add(DeviceDriver* driver) {
    if (!driver) return ZK_ERR_INVALID_ARGUMENT;
    if (count_ >= kMaxDevices) return ZK_ERR_NO_SLOT;
    entries_[count_++] = Entry{driver, 0};
    return ZK_OK;
}

DeviceDriver* DeviceTable::Find(const char* name) {
    for (uint32_t i = 0; i < count_; ++i) {
        Entry& entry = entries_[i];
        if (entry.driver->MatchName(name) < 0) continue;
        if (!entry.initialised) {
            if (entry.driver->InitializeDevice() < 0) return nullptr;
            entry.initialised = 1;
        }
        return entry.driver;
    }
    return nullptr;
}

void DeviceTable::RemoveAll(DeviceDriver* driver) {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count_; ++i)
        if (entries_[i].driver != driver) entries_[kept++] = entries_[i];
    count_ = kept;
}

void DeviceTable::AddFirst(DeviceDriver* driver) {
    if (!driver || count_ >= kMaxDevices) return;
    std::memmove(&entries_[1], &entries_[0], count_ * sizeof(Entry));
    entries_[0] = Entry{driver, 0};
    ++count_;
}

uint32_t BuildFullPath(const char* path, const char* workDir, uint32_t workDirLength, char* out,
                       uint32_t outSize) {
    uint32_t length = static_cast<uint32_t>(std::strlen(path));
    const bool absolute = path[0] == '/' || (path[0] == '\\' && path[1] == '\\') ||
                          std::strchr(path, ':') != nullptr || workDirLength == 0;
    if (absolute) {
        if (outSize > length) {
            if (length > kMaxPath)
                out[0] = '\0';
            else
                CopyTerminated(out, path, length);
        }
        return length + 1;
    }
    if (path[0] == '.' && IsSeparator(path[1])) {
        path += 2;
        length -= 2;
    }
    const uint32_t full = workDirLength + length + (length != 0 ? 1 : 0);
    if (outSize > full) {
        if (full > kMaxPath) {
            out[0] = '\0';
        } else {
            // A one-character working directory stands for the root.
            uint32_t at = workDirLength == 1 ? 0 : workDirLength;
            std::memcpy(out, workDir, at);
            if (length != 0) out[at++] = '/';
            CopyTerminated(out + at, path, length);
        }
    }
    return full + 1;
}

WorkingDirectory& WorkDir() {
    return g_workDir;
}

void WorkingDirectory::Reset() {
    dir_[0] = '/';
    dir_[1] = '\0';
    length_ = 1;
}

void WorkingDirectory::Set(const char* dir) {
    uint32_t length = static_cast<uint32_t>(std::strlen(dir));
    if (length >= kMaxPath) return;
    if (length >= 1 && IsSeparator(dir[length - 1])) --length;
    CopyTerminated(dir_, dir, length);
    length_ = length;
}

int32_t ResolvePath(const char* path, char* out, uint32_t outSize, DeviceDriver** device) {
    const uint32_t length = static_cast<uint32_t>(std::strlen(path));
    DeviceDriver* driver = nullptr;
    if (path[0] == '/') {
        const MountRecord* record = Mounts().Match(path, length);
        if (!record) {
            if (outSize) out[0] = '\0';
            *device = nullptr;
            return ZK_ERR_NOT_MOUNTED;
        }
        uint32_t m = record->mountLength;
        const uint32_t rest = length - m;
        if (m == 1 && rest != 0) m = 0; // the rest keeps its slash behind the root
        if ((length - m) + record->physicalLength >= outSize) return ZK_ERR_BUFFER_TOO_SMALL;
        std::memcpy(out, record->physicalPath, record->physicalLength);
        char* tail = out + record->physicalLength;
        CopyTerminated(tail, rest ? path + m : "", rest ? length - m : 0);
        if ((record->mode & ZK_MOUNT_UPPERCASE) && rest != 0) {
            for (char* c = tail; *c; ++c)
                if (*c >= 'a' && *c <= 'z') *c = static_cast<char>(*c - 'a' + 'A');
        }
        driver = record->device;
    } else {
        if (length >= outSize) {
            *device = nullptr;
            return ZK_ERR_BUFFER_TOO_SMALL;
        }
        CopyTerminated(out, path, length);
        driver = FindDevice(out);
    }
    *device = driver;
    if (!driver) return ZK_ERR_NO_DEVICE;
    return driver->ConvertPath(out, outSize);
}

// Splits path; outputs are written as each step succeeds.
int32_t SplitPath(const char* path, char* dir, uint32_t dirSize, char* name, uint32_t nameSize,
                  char* ext, uint32_t extSize) {
    const char* end = path + std::strlen(path);
    const char* dot = std::strrchr(path, '.');
    const char* extStart = dot ? dot : end;
    const char* nameStart = path;
    for (const char* c = path; c < end; ++c)
        if (IsSeparator(*c)) nameStart = c + 1;

    if (ext && extSize) {
        const uint32_t n = static_cast<uint32_t>(end - extStart);
        if (n >= extSize) return ZK_ERR_BUFFER_TOO_SMALL;
        CopyTerminated(ext, extStart, n);
    }
    if (dir && dirSize) {
        const uint32_t n = static_cast<uint32_t>(nameStart - path);
        if (n >= dirSize) return ZK_ERR_BUFFER_TOO_SMALL;
        CopyTerminated(dir, path, n);
    }
    if (name && nameSize) {
        if (extStart < nameStart) return ZK_ERR_BUFFER_TOO_SMALL;
        const uint32_t n = static_cast<uint32_t>(extStart - nameStart);
        if (n >= nameSize) return ZK_ERR_BUFFER_TOO_SMALL;
        CopyTerminated(name, nameStart, n);
    }
    return ZK_OK;
}

} // namespace zk

// ---- exports ----------------------------------------------------------------------

extern "C" ZK_API int32_t ZK_CALL zkRegisterDevice(zkDeviceDriver* driver) {
    return zk::Devices().Add(driver);
}

extern "C" ZK_API void ZK_CALL zkSetWorkDir(const char* dir) {
    if (dir) zk::WorkDir().Set(dir);
}

extern "C" ZK_API uint32_t ZK_CALL zkGetFullPath(const char* path, char* out, uint32_t outSize) {
    if (!path || !out) return 0;
    return zk::WorkDir().FullPath(path, out, outSize);
}

extern "C" ZK_API int32_t ZK_CALL zkGetPhysicalPath(const char* path, char* out, uint32_t outSize) {
    if (!path || !out || outSize == 0) return ZK_ERR_INVALID_ARGUMENT;
    char own[zk::kMaxPath + 1];
    if (path >= out && path < out + outSize) {
        std::strncpy(own, path, zk::kMaxPath);
        own[zk::kMaxPath] = '\0';
        path = own;
    }
    zk::DeviceDriver* device = nullptr;
    return zk::ResolvePath(path, out, outSize, &device);
}

extern "C" ZK_API int32_t ZK_CALL zkSplitPath(const char* path, char* dir, uint32_t dirSize,
                                              char* name, uint32_t nameSize, char* ext,
                                              uint32_t extSize) {
    if (!path) return ZK_ERR_INVALID_ARGUMENT;
    return zk::SplitPath(path, dir, dirSize, name, nameSize, ext, extSize);
}
