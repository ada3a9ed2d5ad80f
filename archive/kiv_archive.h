// The archive registry: the tables of 32 archive handles and 32 item streams,
// and the reading of item bytes shared by the item calls and the archive
// device.
#ifndef ZK_ARCHIVE_KIV_ARCHIVE_H
#define ZK_ARCHIVE_KIV_ARCHIVE_H

#include "archive/kiv_reader.h"

#include <zk/archive.h>

#include <atomic>
#include <cstdint>

namespace zk {
struct KivRegistry;
class FileSystem;
} // namespace zk

// An archive handle.
struct KivArchive {
    std::atomic<zk::KivRegistry*> registry; // null while the record is free
    uint32_t openFlags; // as given, with ZK_KIV_MEMORY_IMAGE for a child of an image
    FileHandle* file;   // held by a root archive in directory mode only
    zk::KivDirectory directory;
    uint64_t dataOrigin; // directory mode: in the root's file; image: from the header block
    // Directory mode: the end of the bytes of the root's file this archive may
    // read (a child's own item in its parent), so a damaged child never reads
    // its parent's following items.
    uint64_t rangeEnd;
    KivArchive* root;   // the archive holding the file (itself for a root)
    KivArchive* parent; // the archive a child was opened from; null for a root
    KivArchive* link;   // free list
    // Calls running on the archive (ArchiveUse), and the mark of a close: a
    // close marks the archive, then waits until no call runs on it.
    std::atomic<uint32_t> users;
    std::atomic<uint32_t> closing;
};

// An item stream.
struct KivItemStream {
    KivArchive* archive; // null while the record is free
    uint32_t index;
    uint32_t size;
    uint32_t position;
    KivItemStream* link;
};

namespace zk {

constexpr uint32_t kKivArchiveCount = 32;
constexpr uint32_t kKivItemCount = 32;

struct KivRegistry {
    FileSystem* fileSystem = nullptr;
    KivArchive archives[kKivArchiveCount]{};
    KivArchive* freeArchives = nullptr;
    uint32_t archivesInUse = 0;
    KivItemStream items[kKivItemCount]{};
    KivItemStream* freeItems = nullptr;
    uint32_t itemsInUse = 0;
    bool built = false;
};

// The archive when it is a record of the table and open; else null.
KivArchive* OpenArchive(KivArchive* archive);

// A call's hold on an open archive: while it lives, a close of the archive
// (by another thread, or by termination) waits, so the archive's blocks and
// file stay. Get() is null when the archive is not open or is being closed.
class ArchiveUse {
public:
    explicit ArchiveUse(KivArchive* archive);
    ~ArchiveUse();
    ArchiveUse(const ArchiveUse&) = delete;
    ArchiveUse& operator=(const ArchiveUse&) = delete;
    KivArchive* Get() const { return archive_; }

private:
    KivArchive* archive_;
};
// Opens the archive file at path, as zkOpenKiv.
KivArchive* KivOpenPath(const char* path, uint32_t flags);
// Closes the archive with its children and item streams, as zkCloseKiv.
void KivClose(KivArchive* archive);
// The entry named name in an archive opened by name; false when absent.
bool KivFind(KivArchive* archive, const char* name, uint32_t* index);
// Reads up to count bytes of entry index from start (clamped to the item) on
// behalf of an item stream or a device file; flags go to the file layer.
// -11 when the archive holds fewer bytes than the item claims. With onePiece
// (a device file's read, run as one step of the I/O worker) the archive file
// is asked once and may deliver less than asked (one bounded piece of a host
// file); the caller asks again for the rest.
int32_t KivReadItemBytes(KivArchive* archive, uint32_t index, uint32_t start, void* buffer,
                         uint32_t count, uint32_t* got, uint32_t flags, bool onePiece = false);

// The position a seek moves to from position (origin 0 start, 1 position,
// 2 end), held within 0..size; false for another origin.
bool SeekPosition(uint32_t position, uint32_t size, int32_t offset, uint32_t origin,
                  uint32_t* result);

// Called with each archive that is being closed (archive device, kiv_device.cpp).
void KivDeviceArchiveClosed(KivArchive* archive);
// The archive device driver (a static object), for the device table.
DeviceDriver* KivDeviceDriver();

} // namespace zk

#endif
