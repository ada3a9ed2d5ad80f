// Host files and directories on POSIX: the Win32 file calls' behaviour with
// descriptors.
//
// Names. Data made on Windows names its files without regard to case; Linux
// file systems keep case. A call whose path does not exist as written looks
// it up again component by component: a component that does not exist as
// written is replaced by the directory's entry whose name is equal ignoring
// ASCII case (the lowest in byte order when several are). A name being made
// (a file created by an open, a directory, a copy's target) keeps its own
// case; only the directories on its way are looked up. ASCII case folding
// keeps lengths, so the name found is as long as the name asked for. The
// lookup reads directories with getdents64 into a buffer on the stack: it
// allocates nothing.
//
// Sharing. Every open with data access takes a flock lock: shared when it
// only reads, exclusive when it writes, refused at once when it conflicts.
// That is the Windows share mode "read only" that the host driver asks for:
// readers coexist, a writer is alone.
//
// Offsets are 64-bit in the calls; the positions and sizes handed back are
// the 32-bit values the Windows calls give.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "platform/file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zk::os {
namespace {

// Host paths are at most 260 characters, as on Windows (MAX_PATH).
constexpr size_t kPathCapacity = 261;
constexpr uint32_t kLargestTransfer = 0x7FFFF000; // what one read or write moves at most

char AsciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool IsAsciiLetter(char c) {
    char lower = AsciiLower(c);
    return lower >= 'a' && lower <= 'z';
}

bool EqualIgnoringCase(const char* a, const char* b, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
    return true;
}

int OpenPath(const char* path, int flags, mode_t mode = 0) {
    int fd;
    do
        fd = open(path, flags | O_CLOEXEC, mode);
    while (fd < 0 && errno == EINTR);
    return fd;
}

bool IsMissing(int error) {
    return error == ENOENT || error == ENOTDIR;
}

// Searches the directory dir (a NUL-terminated path, "" for the current one)
// for an entry equal to name[0, length) ignoring case and writes its name
// over name. False when there is none or the directory cannot be read.
bool FindEntry(const char* dir, char* name, size_t length) {
    int fd = OpenPath(*dir ? dir : ".", O_RDONLY | O_DIRECTORY);
    if (fd < 0) return false;
    char best[256];
    bool found = false;
    alignas(8) char buffer[2048];
    for (;;) {
        long n = syscall(SYS_getdents64, fd, buffer, sizeof(buffer));
        if (n <= 0) break;
        for (long at = 0; at < n;) {
            // struct linux_dirent64: u64 inode, s64 offset, u16 record length,
            // u8 type, then the NUL-terminated name.
            unsigned short recordLength;
            std::memcpy(&recordLength, buffer + at + 16, sizeof(recordLength));
            const char* entry = buffer + at + 19;
            at += recordLength;
            if (std::strlen(entry) != length || !EqualIgnoringCase(entry, name, length)) continue;
            if (!found || std::strcmp(entry, best) < 0) std::memcpy(best, entry, length + 1);
            found = true;
        }
    }
    close(fd);
    if (found) std::memcpy(name, best, length);
    return found;
}

enum class Lookup {
    Found,       // every component exists
    LastMissing, // the directories exist; the last component does not
    Missing      // a directory on the way does not exist
};

// Copies path into out (kPathCapacity) with each component that does not
// exist as written replaced by its match ignoring case.
Lookup FindIgnoringCase(const char* path, char* out) {
    size_t length = std::strlen(path);
    if (length >= kPathCapacity) return Lookup::Missing;
    std::memcpy(out, path, length + 1);
    size_t i = 0;
    for (;;) {
        while (out[i] == '/')
            ++i;
        if (out[i] == '\0') return Lookup::Found;
        size_t start = i;
        while (out[i] != '\0' && out[i] != '/')
            ++i;
        size_t end = i;
        size_t after = end;
        while (out[after] == '/')
            ++after;
        bool last = out[after] == '\0';

        char saved = out[end];
        out[end] = '\0';
        bool exists = access(out, F_OK) == 0;
        if (!exists) {
            char first = out[start];
            out[start] = '\0'; // the parent, with its trailing slash
            char parent[kPathCapacity];
            std::memcpy(parent, out, start + 1);
            out[start] = first;
            exists = FindEntry(parent, out + start, end - start);
        }
        out[end] = saved;
        if (!exists) return last ? Lookup::LastMissing : Lookup::Missing;
    }
}

// Takes the share lock for an open with the given access; false on conflict.
bool LockForAccess(int fd, uint32_t access) {
    if (access == 0) return true;
    int kind = (access & kFileAccessWrite) ? LOCK_EX : LOCK_SH;
    int r;
    do
        r = flock(fd, kind | LOCK_NB);
    while (r != 0 && errno == EINTR);
    return r == 0;
}

int CreateAt(const char* path, int flags, uint32_t access) {
    if (access != 0) return OpenPath(path, flags | O_CREAT, 0666);
    // A descriptor without data access cannot create: make the file, then
    // open it for size queries only.
    int made = OpenPath(path, O_RDONLY | O_CREAT, 0666);
    if (made < 0) return -1;
    close(made);
    return OpenPath(path, flags);
}

// Copies path and converts it for the host; false when it is too long.
bool ConvertedCopy(const char* path, char* out) {
    size_t length = std::strlen(path);
    if (length >= kPathCapacity) return false;
    std::memcpy(out, path, length + 1);
    FileConvertPath(out);
    return true;
}

bool CopyContents(int in, int out) {
    bool fallback = false;
    for (;;) {
        ssize_t n;
        if (!fallback) {
            n = copy_file_range(in, nullptr, out, nullptr, kLargestTransfer, 0);
            if (n < 0 && errno != EINTR) {
                // Not offered between these two files: plain reads and writes.
                if (lseek(in, 0, SEEK_CUR) != 0 || lseek(out, 0, SEEK_CUR) != 0) return false;
                fallback = true;
                continue;
            }
        } else {
            char buffer[8192];
            n = read(in, buffer, sizeof(buffer));
            for (ssize_t done = 0; n > 0 && done < n;) {
                ssize_t w = write(out, buffer + done, static_cast<size_t>(n - done));
                if (w < 0 && errno != EINTR) return false;
                if (w > 0) done += w;
            }
        }
        if (n == 0) return true;
        if (n < 0 && errno != EINTR) return false;
    }
}

// Positions that FileSeekFromStart set and the kernel has not been told, by
// descriptor. A read at an offset is then one pread instead of an lseek and
// a read; the reads and writes that follow carry on from the pending
// position with pread and pwrite, and anything that needs the kernel's
// position (a seek, a cut) settles it first. Each file is used by one thread
// at a time; the slots are atomic only so that a descriptor number reused by
// another thread after a close starts clean.
constexpr int64_t kNoPending = -1;
constexpr intptr_t kTrackedDescriptors = 4096;
// Each slot holds the pending position plus one, so that 0 (static storage's
// first value) means none.
std::atomic<int64_t> gPending[kTrackedDescriptors];

std::atomic<int64_t>* PendingSlot(File file) {
    return (file >= 0 && file < kTrackedDescriptors) ? &gPending[file] : nullptr;
}
int64_t LoadPending(std::atomic<int64_t>* slot) {
    return slot ? slot->load(std::memory_order_relaxed) - 1 : kNoPending;
}
void StorePending(std::atomic<int64_t>* slot, int64_t position) {
    if (slot) slot->store(position + 1, std::memory_order_relaxed);
}

// The position the next read or write starts at; -1 when it cannot be told.
int64_t CurrentPosition(File file) {
    int64_t at = LoadPending(PendingSlot(file));
    return at != kNoPending ? at : lseek(static_cast<int>(file), 0, SEEK_CUR);
}

} // namespace

void FileConvertPath(char* path) {
    for (char* p = path; *p; ++p)
        if (*p == '\\') *p = '/';
    if (!IsAsciiLetter(path[0]) || path[1] != ':') return;
    // A drive letter names the root of the one Linux tree; a drive-relative
    // name is taken in the current directory.
    if (path[2] == '\0') {
        path[0] = '.';
        path[1] = '\0';
        return;
    }
    std::memmove(path, path + 2, std::strlen(path + 2) + 1);
}

File FileOpen(const char* path, uint32_t access, bool create) {
    int flags = O_PATH;
    if (access == kFileAccessRead)
        flags = O_RDONLY;
    else if (access == kFileAccessWrite)
        flags = O_WRONLY;
    else if (access == (kFileAccessRead | kFileAccessWrite))
        flags = O_RDWR;

    int fd = OpenPath(path, flags);
    if (fd < 0 && IsMissing(errno)) {
        char found[kPathCapacity];
        Lookup lookup = FindIgnoringCase(path, found);
        if (lookup == Lookup::Found)
            fd = OpenPath(found, flags);
        else if (lookup == Lookup::LastMissing && create)
            fd = CreateAt(found, flags, access);
    }
    if (fd < 0) return kInvalidFile;
    // A directory opens for reading on POSIX but is no file to Windows.
    struct stat status;
    bool isDirectory =
        (access & kFileAccessWrite) == 0 && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    if (isDirectory || !LockForAccess(fd, access)) {
        close(fd);
        return kInvalidFile;
    }
    StorePending(PendingSlot(fd), kNoPending);
    return fd;
}

void FileClose(File file) {
    if (file == kInvalidFile) return;
    StorePending(PendingSlot(file), kNoPending);
    // The descriptor is gone even when close reports an error: never retried.
    close(static_cast<int>(file));
}

bool FileRead(File file, void* buffer, uint32_t size, uint32_t* got) {
    if (size > kLargestTransfer) size = kLargestTransfer;
    int fd = static_cast<int>(file);
    std::atomic<int64_t>* slot = PendingSlot(file);
    int64_t at = LoadPending(slot);
    ssize_t n;
    do
        n = at == kNoPending ? read(fd, buffer, size) : pread(fd, buffer, size, at);
    while (n < 0 && errno == EINTR);
    if (n > 0 && at != kNoPending) StorePending(slot, at + n);
    *got = n > 0 ? static_cast<uint32_t>(n) : 0;
    return n >= 0;
}

bool FileWrite(File file, const void* buffer, uint32_t size, uint32_t* written) {
    if (size > kLargestTransfer) size = kLargestTransfer;
    int fd = static_cast<int>(file);
    std::atomic<int64_t>* slot = PendingSlot(file);
    int64_t at = LoadPending(slot);
    ssize_t n;
    do
        n = at == kNoPending ? write(fd, buffer, size) : pwrite(fd, buffer, size, at);
    while (n < 0 && errno == EINTR);
    if (n > 0 && at != kNoPending) StorePending(slot, at + n);
    *written = n > 0 ? static_cast<uint32_t>(n) : 0;
    return n >= 0;
}

bool FileSeek(File file, int32_t offset, uint32_t origin, uint32_t* newPosition) {
    int fd = static_cast<int>(file);
    std::atomic<int64_t>* slot = PendingSlot(file);
    int64_t base = 0;
    if (origin == kFileSeekCurrent) {
        base = CurrentPosition(file);
    } else if (origin == kFileSeekEnd) {
        struct stat status;
        base = fstat(fd, &status) == 0 ? status.st_size : -1;
    } else if (origin != kFileSeekBegin) {
        return false;
    }
    if (base < 0) return false;
    // Without a high word the position must fit below the invalid value.
    int64_t target = base + offset;
    if (target < 0 || target >= 0xFFFFFFFFll) return false;
    if (lseek(fd, static_cast<off_t>(target), SEEK_SET) < 0) return false;
    StorePending(slot, kNoPending);
    *newPosition = static_cast<uint32_t>(target);
    return true;
}

bool FileSeekFromStart(File file, uint32_t offset) {
    if (std::atomic<int64_t>* slot = PendingSlot(file)) {
        StorePending(slot, offset);
        return true;
    }
    return lseek(static_cast<int>(file), static_cast<off_t>(offset), SEEK_SET) >= 0;
}

bool FileLooksCached(File file, uint32_t size) {
    const int64_t at = CurrentPosition(file);
    if (at < 0 || size == 0) return false;
    char byte;
    auto cached = [&](int64_t position) {
        iovec one{&byte, 1};
        return preadv2(static_cast<int>(file), &one, 1, position, RWF_NOWAIT) >= 0;
    };
    return cached(at) && cached(at + size - 1);
}

void FileCacheAhead(File file, uint32_t size) {
    const int64_t at = CurrentPosition(file);
    if (at < 0 || size == 0 || FileLooksCached(file, size)) return;
    const int fd = static_cast<int>(file);
    posix_fadvise(fd, at, size, POSIX_FADV_WILLNEED);
    // The kernel reads the range in the background; a one-byte read every
    // 64 KiB waits for each part to arrive (a read past the end returns at once).
    constexpr int64_t kStep = 64 << 10;
    const int64_t end = at + size;
    char byte;
    for (int64_t p = at; p < end; p += kStep) {
        const int64_t probe = p + kStep < end ? p + kStep - 1 : end - 1;
        while (pread(fd, &byte, 1, probe) < 0 && errno == EINTR) {
        }
    }
}

bool FileTruncateHere(File file) {
    int64_t position = CurrentPosition(file);
    return position >= 0 && ftruncate(static_cast<int>(file), static_cast<off_t>(position)) == 0;
}

bool FileSize(File file, uint32_t* size) {
    struct stat status;
    if (fstat(static_cast<int>(file), &status) != 0) return false;
    uint32_t low = static_cast<uint32_t>(static_cast<uint64_t>(status.st_size));
    if (low == 0xFFFFFFFFu) return false;
    *size = low;
    return true;
}

bool DirectoryCreate(const char* path) {
    // An existing entry under any case of its name counts as existing.
    char found[kPathCapacity];
    if (FindIgnoringCase(path, found) != Lookup::LastMissing) return false;
    return mkdir(found, 0777) == 0;
}

bool DirectoryRemove(const char* path) {
    if (rmdir(path) == 0) return true;
    if (!IsMissing(errno)) return false;
    char found[kPathCapacity];
    return FindIgnoringCase(path, found) == Lookup::Found && rmdir(found) == 0;
}

bool FileCopy(const char* source, const char* target) {
    char from[kPathCapacity];
    char to[kPathCapacity];
    if (!ConvertedCopy(source, from) || !ConvertedCopy(target, to)) return false;

    File in = FileOpen(from, kFileAccessRead, false);
    if (in == kInvalidFile) return false;
    int inFd = static_cast<int>(in);
    struct stat status;
    bool ok = fstat(inFd, &status) == 0 && S_ISREG(status.st_mode);

    // The target: an existing file under any case of its name is replaced;
    // a new one keeps the case it was given.
    char destination[kPathCapacity];
    Lookup lookup = ok ? FindIgnoringCase(to, destination) : Lookup::Missing;
    ok = lookup != Lookup::Missing;
    // A target that is open elsewhere is not replaced, as on Windows.
    File old = kInvalidFile;
    if (ok && lookup == Lookup::Found) {
        old = FileOpen(destination, kFileAccessWrite, false);
        ok = old != kInvalidFile;
    }

    // The temporary file: ".<name>.XXXXXX" in the target's directory.
    char temporary[kPathCapacity + 16];
    int outFd = -1;
    if (ok) {
        const char* slash = std::strrchr(destination, '/');
        size_t dirLength = slash ? static_cast<size_t>(slash - destination) + 1 : 0;
        std::snprintf(temporary, sizeof(temporary), "%.*s.%s.XXXXXX", static_cast<int>(dirLength),
                      destination, destination + dirLength);
        outFd = mkostemp(temporary, O_CLOEXEC);
        ok = outFd >= 0;
    }
    if (ok) {
        struct timespec times[2] = {status.st_atim, status.st_mtim};
        ok = CopyContents(inFd, outFd) && fchmod(outFd, status.st_mode & 07777) == 0 &&
             futimens(outFd, times) == 0 && fsync(outFd) == 0;
        ok = (close(outFd) == 0) && ok;
        ok = ok && rename(temporary, destination) == 0;
        if (!ok) unlink(temporary);
    }
    FileClose(old);
    FileClose(in);
    return ok;
}

} // namespace zk::os
