// The archive device: mounted archives read through the ordinary file calls.
//
// Owns: the one KivDevice (static, outliving re-initialisation) with its ten
// slots kiv0: .. kiv9: and its 32 KivDeviceFile objects.
//
// Locks: none. CreateFileObject takes a free object by an atomic exchange of
// its device reference; an object goes back by one atomic store in its own
// Close. Slots change only in
// zkMountKiv, zkUnmountKiv and when an archive closes, which must not overlap
// file operations on the device.
//
// Threads: open, close, size and seek run on the caller's thread; reads run
// on the device I/O worker, which reads the archive file straight through its
// file object (mounted archives are opened with ZK_KIV_DIRECT_READ), so an
// item read never queues a second operation behind itself.
#include "archive/kiv_archive.h"

#include "file/driver_defaults.h"
#include "file/file_system.h"
#include "platform/platform.h"

#include <zk/device.h>
#include <zk/result.h>

#include <atomic>

namespace zk {
namespace {

constexpr uint32_t kSlotCount = 10;
constexpr uint32_t kDeviceFileCount = 32;

class KivDevice;

// The slot a device name or physical path names ("kivN:..."), or -1: "kiv:"
// without a digit names none.
int32_t SlotOf(const char* name) {
    if (!name || name[0] != 'k' || name[1] != 'i' || name[2] != 'v') return -1;
    if (name[3] < '0' || name[3] > '9' || name[4] != ':') return -1;
    return name[3] - '0';
}

class KivDeviceFile final : public FileObject {
public:
    bool TryTake(KivDevice* device) {
        KivDevice* expected = nullptr;
        if (!device_.compare_exchange_strong(expected, device, std::memory_order_acq_rel))
            return false;
        archive_.store(nullptr, std::memory_order_relaxed);
        index_ = size_ = position_ = 0;
        return true;
    }
    // The archive is closing: the object stays handed out but reads nothing.
    // Another thread may be closing this object at the same moment, so the
    // archive is swapped out only if it is still the one closing. A read of
    // it that is running (on the worker) is waited for, so the archive's
    // blocks are never freed under it.
    void Detach(KivArchive* archive) {
        KivArchive* expected = archive;
        if (!archive_.compare_exchange_strong(expected, nullptr, std::memory_order_seq_cst)) return;
        for (uint32_t round = 0; reading_.load(std::memory_order_seq_cst) != 0; ++round)
            os::Sleep(round < 16 ? 0 : 1);
    }

    int32_t IsImmediate(int32_t kind) override {
        return kind == 1 || kind == 2 || kind == 3 || kind == 6;
    }
    int32_t Open(const char* physicalPath, uint32_t, uint32_t) override;
    int32_t Close() override {
        if (device_.load(std::memory_order_acquire)) {
            archive_.store(nullptr, std::memory_order_release);
            device_.store(nullptr, std::memory_order_release);
        }
        return ZK_OK;
    }
    int32_t GetSize(uint32_t* size) override {
        if (size) *size = size_;
        return ZK_OK;
    }
    int32_t Read(void* buffer, uint32_t size, uint32_t* got, uint32_t flags) override {
        return ReadAt(position_, buffer, size, got, flags);
    }
    int32_t ReadAt(uint32_t offset, void* buffer, uint32_t size, uint32_t* got,
                   uint32_t flags) override {
        uint32_t done = 0;
        int32_t result = ZK_ERR_INVALID_HANDLE;
        // Counted as reading before the archive is looked at: a close either
        // finds the count and waits, or this read finds no archive.
        reading_.fetch_add(1, std::memory_order_seq_cst);
        if (!buffer) {
            result = ZK_ERR_INVALID_ARGUMENT;
        } else if (KivArchive* archive = archive_.load(std::memory_order_seq_cst)) {
            result = KivReadItemBytes(archive, index_, offset, buffer, size, &done, flags, true);
            if (result >= 0) position_ = offset + done;
        }
        reading_.fetch_sub(1, std::memory_order_seq_cst);
        if (got) *got = done;
        return result;
    }
    int32_t Write(const void* buffer, uint32_t, uint32_t* written) override {
        if (written) *written = 0;
        return buffer ? ZK_ERR_NOT_SUPPORTED : ZK_ERR_INVALID_ARGUMENT;
    }
    int32_t Seek(int32_t offset, uint32_t origin, uint32_t* newPosition) override {
        const bool ok = SeekPosition(position_, size_, offset, origin, &position_);
        if (newPosition) *newPosition = position_;
        return ok ? ZK_OK : ZK_ERR_INVALID_ARGUMENT;
    }

private:
    std::atomic<KivDevice*> device_{nullptr};
    std::atomic<KivArchive*> archive_{nullptr};
    std::atomic<uint32_t> reading_{0};
    uint32_t index_ = 0;
    uint32_t size_ = 0;
    uint32_t position_ = 0;
};

class KivDevice final : public DriverDefaults {
public:
    // Read by callers' threads and the worker, changed by mounts and closes.
    std::atomic<KivArchive*> slots[kSlotCount]{};
    KivDeviceFile files[kDeviceFileCount];

    int32_t MatchName(const char* name) override {
        if (!name || name[0] != 'k' || name[1] != 'i' || name[2] != 'v')
            return ZK_ERR_NOT_SUPPORTED;
        const char* p = name + 3;
        if (*p >= '0' && *p <= '9') ++p;
        return *p == ':' ? ZK_OK : ZK_ERR_NOT_SUPPORTED;
    }
    int32_t ConvertPath(char* physicalPath, uint32_t) override {
        for (char* p = physicalPath; p && *p; ++p)
            if (*p == '\\') *p = '/';
        return ZK_OK;
    }
    // The try count of the device holding the mounted archive's file.
    uint32_t GetTryCount(int32_t unit) override {
        if (unit < 0 || unit >= int32_t(kSlotCount)) return 1;
        ArchiveUse use(slots[unit].load(std::memory_order_acquire)); // a close waits meanwhile
        const KivArchive* root = use.Get() ? use.Get()->root : nullptr;
        const FileHandle* file = root ? root->file : nullptr;
        if (!file || !file->device) return 1;
        return file->device->GetTryCount(file->unit);
    }
    int32_t SetTryCount(int32_t unit, uint32_t) override {
        return static_cast<int32_t>(GetTryCount(unit));
    }
    FileObject* CreateFileObject() override {
        for (KivDeviceFile& f : files) {
            if (f.TryTake(this)) return &f;
        }
        return nullptr;
    }
    int32_t Mount(char*, uint32_t, uint32_t) override { return ZK_ERR_NOT_SUPPORTED; }
    int32_t Unmount(char*) override { return ZK_ERR_NOT_SUPPORTED; }
    int32_t GetUnit(const char* name) override { return name ? name[3] - '0' : -1; }
};

KivDevice gDevice;

// A physical path kivN:/dir/name names the item dir/name of slot N's archive.
int32_t KivDeviceFile::Open(const char* physicalPath, uint32_t, uint32_t) {
    const int32_t slot = SlotOf(physicalPath);
    if (slot < 0) return ZK_ERR_NO_SUCH_FILE;
    const char* name = physicalPath + 5;
    if (*name == '/') ++name;
    if (*name == '\0') return ZK_ERR_NO_SUCH_FILE; // the mount point itself
    // Held while the item is looked up: a close (termination's, say) waits,
    // then detaches this file like every other open one.
    ArchiveUse use(gDevice.slots[slot].load(std::memory_order_acquire));
    KivArchive* archive = use.Get();
    if (!archive) return ZK_ERR_NO_SUCH_FILE;
    uint32_t index;
    if (!KivFind(archive, name, &index)) return ZK_ERR_NO_SUCH_FILE;
    index_ = index;
    size_ = archive->directory.Entry(index).size;
    position_ = 0;
    archive_.store(archive, std::memory_order_release);
    return ZK_OK;
}

} // namespace

DeviceDriver* KivDeviceDriver() {
    return &gDevice;
}

void KivDeviceArchiveClosed(KivArchive* archive) {
    for (std::atomic<KivArchive*>& slot : gDevice.slots) {
        KivArchive* expected = archive;
        slot.compare_exchange_strong(expected, nullptr, std::memory_order_acq_rel);
    }
    for (KivDeviceFile& f : gDevice.files)
        f.Detach(archive);
}

} // namespace zk

extern "C" ZK_API int32_t ZK_CALL zkMountKiv(const char* mountPath, const char* archivePath,
                                             uint32_t flags) {
    if (!mountPath || !archivePath || (flags & ZK_KIV_BY_INDEX)) return ZK_ERR_INVALID_ARGUMENT;
    int32_t slot = -1;
    for (uint32_t i = 0; i < zk::kSlotCount && slot < 0; ++i)
        if (!zk::gDevice.slots[i].load(std::memory_order_acquire)) slot = static_cast<int32_t>(i);
    if (slot < 0) return ZK_ERR_NO_MOUNT_SLOT;
    KivArchive* archive = zk::KivOpenPath(archivePath, flags | ZK_KIV_DIRECT_READ);
    if (!archive) return ZK_ERR_OPEN_FAILED;
    char deviceName[] = "kiv0:";
    deviceName[3] = static_cast<char>('0' + slot);
    // The slot is filled first so that the mount's own checks see the device
    // as it will be; a failed mount empties it again.
    zk::gDevice.slots[slot].store(archive, std::memory_order_release);
    const int32_t result = zkMount(mountPath, deviceName, 0);
    if (result < 0) {
        zk::KivClose(archive); // empties the slot
        return result;
    }
    return ZK_OK;
}

extern "C" ZK_API int32_t ZK_CALL zkUnmountKiv(const char* mountPath) {
    if (!mountPath) return ZK_ERR_INVALID_ARGUMENT;
    char physical[zk::kMaxPath] = {};
    zkGetPhysicalPath(mountPath, physical, sizeof physical);
    const int32_t result = zkUnmount(mountPath);
    if (result < 0) return result;
    // A mount that zkMountKiv did not make names no slot; nothing else is touched.
    const int32_t slot = zk::SlotOf(physical);
    if (slot >= 0) zk::KivClose(zk::gDevice.slots[slot].load(std::memory_order_acquire));
    return ZK_OK;
}
