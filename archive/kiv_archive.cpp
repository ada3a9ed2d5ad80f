// Archives: the registry with its two fixed tables, and the exported archive
// and item-stream calls.
//
// Owns: the KivRegistry (static): 32 KivArchive and 32 KivItemStream records
// with their free lists. Each open archive owns the blocks its reader
// allocated (header block or image, separate entry table) and, as a root in
// directory mode, its archive file.
//
// Locks: the LibraryLock, held only while a record is taken or given back and
// while a close collects the children and streams it must close with it.
// Lookups, loads and reads touch only the open archive's directory and its
// file, so they run on any number of threads at once. Each call holds the
// archive with an ArchiveUse (an atomic count); a close marks the archive
// and waits until no call holds it, so a call on another thread, also while
// termination closes what is left, either completes or answers -4.
//
// Closing: an archive is closed together with every child opened from it
// (to any depth) and every item stream of it and of those children, and the
// archive device forgets it; so no handle left open can reach its freed blocks
// or its closed file. Termination closes every archive still open before the
// system pool goes away (their blocks live there); the archive files' closes
// are queued on the worker without waiting for it.
#include "archive/kiv_archive.h"
#include "archive/slide_expand.h"

#include "file/file_system.h"
#include "kernel/context.h"
#include "kernel/startup.h"
#include "kernel/timeline.h"
#include "platform/platform.h"
#include "thread/sync.h"

#include <zk/memory.h>
#include <zk/result.h>

#include <cstring>

namespace zk {
namespace {

KivRegistry gRegistry;
// Set while termination closes what is left: archive files are then closed
// without waiting for the worker, which may be held in another host call.
bool gTerminating = false;

KivRegistry& Registry() {
    return gRegistry;
}

// Builds the free lists, in index order; the first start only.
void BuildTables(KivRegistry& r) {
    if (r.built) return;
    for (uint32_t i = 0; i < kKivArchiveCount; ++i)
        r.archives[i].link = i + 1 < kKivArchiveCount ? &r.archives[i + 1] : nullptr;
    for (uint32_t i = 0; i < kKivItemCount; ++i)
        r.items[i].link = i + 1 < kKivItemCount ? &r.items[i + 1] : nullptr;
    r.freeArchives = &r.archives[0];
    r.freeItems = &r.items[0];
    r.built = true;
}

KivArchive* TakeArchive() {
    KivRegistry& r = Registry();
    ScopedLock lock(LibraryLock());
    BuildTables(r);
    KivArchive* a = r.freeArchives;
    if (!a) return nullptr;
    r.freeArchives = a->link;
    ++r.archivesInUse;
    // users is left alone: a late ArchiveUse of the record's previous life
    // may still be counted in it for a moment.
    a->openFlags = 0;
    a->file = nullptr;
    a->directory = KivDirectory{};
    a->dataOrigin = a->rangeEnd = 0;
    a->root = a->parent = a->link = nullptr;
    a->closing.store(0, std::memory_order_relaxed);
    a->registry.store(&r, std::memory_order_release);
    return a;
}

void GiveBackArchive(KivArchive* a) {
    KivRegistry& r = Registry();
    ScopedLock lock(LibraryLock());
    a->registry.store(nullptr, std::memory_order_release);
    a->link = r.freeArchives;
    r.freeArchives = a;
    --r.archivesInUse;
}

KivItemStream* TakeItem() {
    KivRegistry& r = Registry();
    ScopedLock lock(LibraryLock());
    BuildTables(r);
    KivItemStream* s = r.freeItems;
    if (!s) return nullptr;
    r.freeItems = s->link;
    ++r.itemsInUse;
    s->link = nullptr;
    return s;
}

void GiveBackItem(KivItemStream* s) {
    KivRegistry& r = Registry();
    ScopedLock lock(LibraryLock());
    if (!s->archive) return; // closed by another path meanwhile
    s->archive = nullptr;
    s->index = s->size = s->position = 0;
    s->link = r.freeItems;
    r.freeItems = s;
    --r.itemsInUse;
}

KivItemStream* OpenStream(KivItemStream* item) {
    KivRegistry& r = Registry();
    if (!item || item < r.items || item >= r.items + kKivItemCount) return nullptr;
    if ((reinterpret_cast<uintptr_t>(item) - reinterpret_cast<uintptr_t>(r.items)) %
            sizeof(KivItemStream) !=
        0)
        return nullptr;
    return item->archive ? item : nullptr;
}

bool IsMemoryImage(const KivArchive* a) {
    return (a->openFlags & kKivMemoryImage) != 0;
}

// The end of the file offsets a root archive in directory mode may read.
constexpr uint64_t kWholeFile = 0x100000000ull;

// Where entry e's bytes start, when the whole item lies inside the image (a
// memory image) or inside the archive's range of the root's file (directory
// mode: the 32-bit file offsets for a root, its own item for a child).
bool ItemStart(const KivArchive* a, const KivEntry& e, uint64_t* start) {
    const uint64_t at = a->dataOrigin + e.dataOffset;
    if (IsMemoryImage(a)) {
        if (at + e.size > a->directory.imageSize) return false;
    } else if (at + e.size > a->rangeEnd) {
        return false;
    }
    *start = at;
    return true;
}

// Reads count bytes at an absolute offset of the root's file. A direct read
// goes straight to the file object, which moves at most one bounded piece per
// call: it is asked again until everything came or a call brings nothing
// (end of file) or fails, unless onePiece asks for a single call.
int32_t ReadFile(KivArchive* a, uint64_t at, void* buffer, uint32_t count, uint32_t* got,
                 uint32_t flags, bool onePiece = false) {
    *got = 0;
    if (count == 0) return ZK_OK;
    FileHandle* file = a->root ? a->root->file : nullptr;
    if (!file) return ZK_ERR_INVALID_HANDLE;
    const uint32_t offset = static_cast<uint32_t>(at);
    if (!(a->openFlags & kKivDirectRead))
        return zkReadFileOffset(file, offset, buffer, count, got, flags);
    int32_t result = ZK_OK;
    uint32_t done = 0;
    while (done < count) {
        uint32_t n = 0;
        result = Files().ReadAtDirect(file, offset + done, static_cast<uint8_t*>(buffer) + done,
                                      count - done, &n, flags);
        if (result < 0) break;
        done += n;
        if (n == 0 || onePiece) break;
    }
    *got = done;
    return result;
}

// The shared tail of the three load calls: a new block holding entry index.
int32_t LoadEntry(KivArchive* a, uint32_t index, void** buffer, uint32_t* size) {
    const KivEntry e = a->directory.Entry(index);
    uint64_t start;
    if (!ItemStart(a, e, &start)) return ZK_ERR_SHORT_READ;
    // A block of at least one byte, so an empty item loads as a valid pointer.
    void* block =
        zkAllocateSystemMemory(e.size ? e.size : 1, ZK_ALLOC_DEFAULT, ZK_CATEGORY_LIBRARY);
    if (!block) return ZK_ERR_NO_MEMORY;
    if (IsMemoryImage(a)) {
        std::memcpy(block, a->directory.headerBlock + start, e.size);
    } else {
        uint32_t got = 0;
        int32_t result = ReadFile(a, start, block, e.size, &got, 0);
        if (result >= 0 && got != e.size) result = ZK_ERR_SHORT_READ;
        if (result < 0) {
            zkFree(block);
            return result;
        }
    }
    *buffer = block;
    *size = e.size;
    return ZK_OK;
}

// Clears the out arguments of a failed load or address query.
int32_t Fail(int32_t code, void** out, uint32_t* size) {
    if (out) *out = nullptr;
    if (size) *size = 0;
    return code;
}

// Opens entry index of parent as a child archive in the record a.
bool OpenChild(KivArchive* parent, uint32_t index, uint32_t flags, KivArchive* a) {
    const KivEntry e = parent->directory.Entry(index);
    uint64_t start;
    if (!ItemStart(parent, e, &start)) return false;
    a->root = parent->root;
    a->parent = parent;
    if (IsMemoryImage(parent)) {
        a->openFlags = flags | kKivMemoryImage;
        if (KivOpenFromMemory(parent->directory.headerBlock + start, e.size, a->openFlags,
                              &a->directory) < 0)
            return false;
        a->dataOrigin = a->directory.dataOrigin;
        return true;
    }
    a->openFlags = flags;
    KivSource source(parent->root->file, static_cast<uint32_t>(start), e.size);
    if (KivOpenFromSource(source, flags, &a->directory) < 0) return false;
    a->dataOrigin = a->directory.dataOrigin;
    if (!IsMemoryImage(a)) a->dataOrigin += start;
    a->rangeEnd = start + e.size;
    return true;
}

// Frees what one archive holds and gives its record back.
void CloseOne(KivArchive* a) {
    KivDeviceArchiveClosed(a);
    if (a->file) {
        if (a->root == a) {
            if (gTerminating)
                Files().CloseWithoutWaiting(a->file);
            else
                zkCloseFile(a->file);
        }
        a->file = nullptr;
    }
    a->directory.Release();
    a->root = a->parent = nullptr;
    GiveBackArchive(a);
}

} // namespace

KivArchive* OpenArchive(KivArchive* archive) {
    KivRegistry& r = Registry();
    if (!archive || archive < r.archives || archive >= r.archives + kKivArchiveCount)
        return nullptr;
    if ((reinterpret_cast<uintptr_t>(archive) - reinterpret_cast<uintptr_t>(r.archives)) %
            sizeof(KivArchive) !=
        0)
        return nullptr;
    return archive->registry.load(std::memory_order_acquire) ? archive : nullptr;
}

ArchiveUse::ArchiveUse(KivArchive* archive) : archive_(OpenArchive(archive)) {
    if (!archive_) return;
    // Counted before the close mark is looked at: a close either sees this
    // call and waits for it, or this call sees the mark and backs off.
    archive_->users.fetch_add(1, std::memory_order_seq_cst);
    if (!archive_->registry.load(std::memory_order_seq_cst) ||
        archive_->closing.load(std::memory_order_seq_cst)) {
        archive_->users.fetch_sub(1, std::memory_order_seq_cst);
        archive_ = nullptr;
    }
}

ArchiveUse::~ArchiveUse() {
    if (archive_) archive_->users.fetch_sub(1, std::memory_order_seq_cst);
}

KivArchive* KivOpenPath(const char* path, uint32_t flags) {
    if (!path) return nullptr;
    timeline::Scope scope("archive", "archive open");
    scope.SetText("path", path);
    scope.Set("flags", flags);
    KivArchive* a = TakeArchive();
    if (!a) return nullptr;
    a->openFlags = flags;
    a->root = a;
    a->rangeEnd = kWholeFile;
    a->file = zkOpenFile(path, ZK_OPEN_READ, 0);
    if (!a->file) {
        CloseOne(a);
        return nullptr;
    }
    uint32_t fileSize = 0;
    zkGetFileSize(a->file, &fileSize);
    KivSource source(a->file, 0, fileSize);
    if (KivOpenFromSource(source, flags, &a->directory) < 0) {
        CloseOne(a);
        return nullptr;
    }
    a->dataOrigin = a->directory.dataOrigin;
    if (IsMemoryImage(a)) {
        zkCloseFile(a->file);
        a->file = nullptr;
    }
    scope.Set("bytes", fileSize);
    scope.Set("items", a->directory.header.itemCount);
    return a;
}

void KivClose(KivArchive* archive) {
    KivArchive* a = OpenArchive(archive);
    // One close at a time: a second one finds the mark and leaves it to the first.
    if (!a || a->closing.exchange(1, std::memory_order_seq_cst) != 0) return;
    // Calls still running on it finish first (a child or stream they open is
    // then found below).
    for (uint32_t round = 0; a->users.load(std::memory_order_seq_cst) != 0; ++round)
        os::Sleep(round < 16 ? 0 : 1);
    KivRegistry& r = Registry();
    // Children first (each closes its own children and streams), then the
    // streams of this archive.
    for (;;) {
        KivArchive* child = nullptr;
        {
            ScopedLock lock(LibraryLock());
            for (KivArchive& c : r.archives) {
                if (c.registry.load(std::memory_order_acquire) && c.parent == a) {
                    child = &c;
                    break;
                }
            }
        }
        if (!child) break;
        KivClose(child);
    }
    for (KivItemStream& s : r.items) {
        bool mine;
        {
            ScopedLock lock(LibraryLock());
            mine = s.archive == a;
        }
        if (mine) GiveBackItem(&s);
    }
    CloseOne(a);
}

bool KivFind(KivArchive* a, const char* name, uint32_t* index) {
    if (!name || (a->openFlags & kKivByIndex)) return false;
    const int32_t found = a->directory.Find(name);
    if (found < 0) return false;
    *index = static_cast<uint32_t>(found);
    return true;
}

int32_t KivReadItemBytes(KivArchive* a, uint32_t index, uint32_t start, void* buffer,
                         uint32_t count, uint32_t* got, uint32_t flags, bool onePiece) {
    *got = 0;
    const KivEntry e = a->directory.Entry(index);
    if (start >= e.size) return ZK_OK;
    const uint32_t n = count < e.size - start ? count : e.size - start;
    uint64_t itemStart;
    if (!ItemStart(a, e, &itemStart)) return ZK_ERR_SHORT_READ;
    if (IsMemoryImage(a)) {
        std::memcpy(buffer, a->directory.headerBlock + itemStart + start, n);
        *got = n;
        return ZK_OK;
    }
    int32_t result = ReadFile(a, itemStart + start, buffer, n, got, flags, onePiece);
    if (result >= 0 && *got < n && !(onePiece && *got != 0)) result = ZK_ERR_SHORT_READ;
    return result;
}

void ArchivesStartup() {
    KivRegistry& r = Registry();
    {
        ScopedLock lock(LibraryLock());
        BuildTables(r);
    }
    r.fileSystem = &Files();
    Kernel().archives = &r;
    DeviceTable& devices = Devices();
    DeviceDriver* device = KivDeviceDriver();
    devices.RemoveAll(device);
    devices.AddFirst(device);
}

void ArchivesShutdown() {
    KivRegistry& r = Registry();
    // Archive mounts end with their archives: no path resolves to a slot
    // that a later mount fills with another archive.
    Mounts().ClearDevice(KivDeviceDriver());
    // Children are closed with their parents; what is left are roots.
    gTerminating = true;
    for (KivArchive& a : r.archives) {
        if (a.registry.load(std::memory_order_acquire) && !a.parent) KivClose(&a);
    }
    gTerminating = false;
    r.fileSystem = nullptr;
}

} // namespace zk

// ---- exports ----------------------------------------------------------------------

using zk::kKivByIndex;
using zk::OpenArchive;

extern "C" ZK_API KivArchive* ZK_CALL zkOpenKiv(const char* path, uint32_t flags) {
    return zk::KivOpenPath(path, flags);
}

extern "C" ZK_API void ZK_CALL zkCloseKiv(KivArchive* archive) {
    zk::KivClose(archive);
}

extern "C" ZK_API KivArchive* ZK_CALL zkOpenChildKiv(KivArchive* parent, const char* name,
                                                     uint32_t flags) {
    if (!parent) return zk::KivOpenPath(name, flags);
    zk::ArchiveUse use(parent);
    KivArchive* p = use.Get();
    if (!p || !name || (p->openFlags & kKivByIndex)) return nullptr;
    KivArchive* a = zk::TakeArchive();
    if (!a) return nullptr;
    uint32_t index;
    if (!zk::KivFind(p, name, &index) || !zk::OpenChild(p, index, flags, a)) {
        zk::CloseOne(a);
        return nullptr;
    }
    return a;
}

extern "C" ZK_API KivArchive* ZK_CALL zkOpenChildKivByIndex(KivArchive* parent, uint32_t index,
                                                            uint32_t flags) {
    zk::ArchiveUse use(parent);
    KivArchive* p = use.Get();
    if (!p || !(p->openFlags & kKivByIndex)) return nullptr;
    KivArchive* a = zk::TakeArchive();
    if (!a) return nullptr;
    if (index >= p->directory.header.itemCount || !zk::OpenChild(p, index, flags, a)) {
        zk::CloseOne(a);
        return nullptr;
    }
    return a;
}

extern "C" ZK_API uint32_t ZK_CALL zkGetKivItemCount(KivArchive* archive) {
    zk::ArchiveUse use(archive);
    KivArchive* a = use.Get();
    return a ? a->directory.header.itemCount : 0;
}

extern "C" ZK_API int32_t ZK_CALL zkFindKivItem(KivArchive* archive, const char* name) {
    zk::ArchiveUse use(archive);
    KivArchive* a = use.Get();
    uint32_t index;
    return a && zk::KivFind(a, name, &index) ? 1 : 0;
}

extern "C" ZK_API int32_t ZK_CALL zkLoadKivItem(KivArchive* archive, const char* name,
                                                void** buffer, uint32_t* size) {
    zk::ArchiveUse use(archive);
    KivArchive* a = use.Get();
    if (!a) return zk::Fail(ZK_ERR_INVALID_HANDLE, buffer, size);
    if (!name || !buffer || !size) return zk::Fail(ZK_ERR_INVALID_ARGUMENT, buffer, size);
    if (a->openFlags & kKivByIndex) return zk::Fail(ZK_ERR_NOT_SUPPORTED, buffer, size);
    uint32_t index;
    if (!zk::KivFind(a, name, &index)) return zk::Fail(ZK_ERR_NO_ITEM, buffer, size);
    const int32_t result = zk::LoadEntry(a, index, buffer, size);
    return result < 0 ? zk::Fail(result, buffer, size) : result;
}

extern "C" ZK_API int32_t ZK_CALL zkLoadKivItemByIndex(KivArchive* archive, uint32_t index,
                                                       void** buffer, uint32_t* size) {
    zk::ArchiveUse use(archive);
    KivArchive* a = use.Get();
    if (!a) return zk::Fail(ZK_ERR_INVALID_HANDLE, buffer, size);
    if (!buffer || !size) return zk::Fail(ZK_ERR_INVALID_ARGUMENT, buffer, size);
    if (!(a->openFlags & kKivByIndex)) return zk::Fail(ZK_ERR_NOT_SUPPORTED, buffer, size);
    if (index >= a->directory.header.itemCount) return zk::Fail(ZK_ERR_NO_ITEM, buffer, size);
    const int32_t result = zk::LoadEntry(a, index, buffer, size);
    return result < 0 ? zk::Fail(result, buffer, size) : result;
}

extern "C" ZK_API void ZK_CALL zkReleaseKivItem(void* buffer) {
    zkFree(buffer);
}

extern "C" ZK_API int32_t ZK_CALL zkLoadKivFileItem(const char* path, const char* name,
                                                    void** buffer, uint32_t* size) {
    KivArchive* a = zk::KivOpenPath(path, 0);
    if (!a) return zk::Fail(ZK_ERR_OPEN_FAILED, buffer, size);
    const int32_t result = zkLoadKivItem(a, name, buffer, size);
    zk::KivClose(a);
    return result;
}

namespace {

// The address of entry index inside the archive's image.
int32_t Address(KivArchive* a, uint32_t index, void** data, uint32_t* size) {
    const zk::KivEntry e = a->directory.Entry(index);
    uint64_t start;
    if (!zk::ItemStart(a, e, &start)) return zk::Fail(ZK_ERR_SHORT_READ, data, size);
    *data = a->directory.headerBlock + start;
    *size = e.size;
    return ZK_OK;
}

} // namespace

extern "C" ZK_API int32_t ZK_CALL zkGetKivItem(KivArchive* archive, const char* name, void** data,
                                               uint32_t* size) {
    zk::ArchiveUse use(archive);
    KivArchive* a = use.Get();
    if (!a) return zk::Fail(ZK_ERR_INVALID_HANDLE, data, size);
    if (!name || !data || !size) return zk::Fail(ZK_ERR_INVALID_ARGUMENT, data, size);
    if (a->openFlags & kKivByIndex) return zk::Fail(ZK_ERR_NOT_SUPPORTED, data, size);
    if (!zk::IsMemoryImage(a)) return zk::Fail(ZK_ERR_NO_ITEM, data, size);
    uint32_t index;
    if (!zk::KivFind(a, name, &index)) return zk::Fail(ZK_ERR_NO_ITEM, data, size);
    return Address(a, index, data, size);
}

extern "C" ZK_API int32_t ZK_CALL zkGetKivItemByIndex(KivArchive* archive, uint32_t index,
                                                      void** data, uint32_t* size) {
    zk::ArchiveUse use(archive);
    KivArchive* a = use.Get();
    if (!a) return zk::Fail(ZK_ERR_INVALID_HANDLE, data, size);
    if (!data || !size) return zk::Fail(ZK_ERR_INVALID_ARGUMENT, data, size);
    if (!(a->openFlags & kKivByIndex)) return zk::Fail(ZK_ERR_NOT_SUPPORTED, data, size);
    if (!zk::IsMemoryImage(a) || index >= a->directory.header.itemCount)
        return zk::Fail(ZK_ERR_NO_ITEM, data, size);
    return Address(a, index, data, size);
}

namespace {

KivItemStream* OpenItem(KivArchive* a, uint32_t index) {
    KivItemStream* s = zk::TakeItem();
    if (!s) return nullptr;
    s->index = index;
    s->size = a->directory.Entry(index).size;
    s->position = 0;
    s->archive = a;
    return s;
}

} // namespace

extern "C" ZK_API KivItemStream* ZK_CALL zkOpenKivItem(KivArchive* archive, const char* name) {
    zk::ArchiveUse use(archive);
    KivArchive* a = use.Get();
    uint32_t index;
    if (!a || !zk::KivFind(a, name, &index)) return nullptr;
    return OpenItem(a, index);
}

extern "C" ZK_API KivItemStream* ZK_CALL zkOpenKivItemByIndex(KivArchive* archive, uint32_t index) {
    zk::ArchiveUse use(archive);
    KivArchive* a = use.Get();
    if (!a || !(a->openFlags & kKivByIndex) || index >= a->directory.header.itemCount)
        return nullptr;
    return OpenItem(a, index);
}

extern "C" ZK_API void ZK_CALL zkCloseKivItem(KivItemStream* item) {
    KivItemStream* s = zk::OpenStream(item);
    if (s) zk::GiveBackItem(s);
}

extern "C" ZK_API int32_t ZK_CALL zkReadKivItem(KivItemStream* item, void* buffer, uint32_t count,
                                                uint32_t* got) {
    KivItemStream* s = zk::OpenStream(item);
    if (got) *got = 0;
    if (!s) return ZK_ERR_INVALID_HANDLE;
    // The stream's archive stays while it is read (a close waits); one being
    // closed answers as a closed stream.
    zk::ArchiveUse use(s->archive);
    if (!use.Get()) return ZK_ERR_INVALID_HANDLE;
    if (!buffer) return ZK_ERR_INVALID_ARGUMENT;
    const uint32_t start = s->position < s->size ? s->position : s->size;
    uint32_t done = 0;
    const int32_t result =
        zk::KivReadItemBytes(use.Get(), s->index, start, buffer, count, &done, 0);
    s->position = start + done;
    if (got) *got = done;
    return result;
}

namespace zk {

// The position a seek moves to, held within 0..size; false for a bad origin.
bool SeekPosition(uint32_t position, uint32_t size, int32_t offset, uint32_t origin,
                  uint32_t* result) {
    uint64_t base;
    switch (origin) {
    case 0:
        base = 0;
        break;
    case 1:
        base = position;
        break;
    case 2:
        base = size;
        break;
    default:
        return false;
    }
    int64_t target = static_cast<int64_t>(base) + offset;
    if (target < 0) target = 0;
    if (target > static_cast<int64_t>(size)) target = size;
    *result = static_cast<uint32_t>(target);
    return true;
}

} // namespace zk

extern "C" ZK_API int32_t ZK_CALL zkSeekKivItem(KivItemStream* item, int32_t offset,
                                                uint32_t origin, uint32_t* position) {
    KivItemStream* s = zk::OpenStream(item);
    if (!s) {
        if (position) *position = 0;
        return ZK_ERR_INVALID_HANDLE;
    }
    const bool ok = zk::SeekPosition(s->position, s->size, offset, origin, &s->position);
    if (position) *position = s->position;
    return ok ? ZK_OK : ZK_ERR_INVALID_ARGUMENT;
}

extern "C" ZK_API int32_t ZK_CALL zkGetKivItemSize(KivItemStream* item, uint32_t* size) {
    KivItemStream* s = zk::OpenStream(item);
    if (!s) return ZK_ERR_INVALID_HANDLE;
    if (!size) return ZK_ERR_INVALID_ARGUMENT;
    *size = s->size;
    return ZK_OK;
}

extern "C" ZK_API uint32_t ZK_CALL zkGetOpenKivCount(void) {
    zk::ScopedLock lock(zk::LibraryLock());
    return zk::Registry().archivesInUse;
}

extern "C" ZK_API uint32_t ZK_CALL zkGetOpenKivItemCount(void) {
    zk::ScopedLock lock(zk::LibraryLock());
    return zk::Registry().itemsInUse;
}
