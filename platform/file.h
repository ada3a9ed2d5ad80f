// The host's files and directories: the calls the host device driver makes.
//
// Each call stands for one Windows file function, named beside it; the Win32
// backend makes exactly that call and the POSIX backend does the same work
// with open, read, write, lseek, ftruncate, mkdir and rmdir. A failure maps to
// one fixed outcome (an invalid file, false); the host driver turns each into
// its result code, so both backends report the same codes.
//
// Paths are host paths as the host driver's ConvertPath leaves them (see
// FileConvertPath). On POSIX, where names are case-sensitive while data made
// on Windows names files without regard to case, a path that does not exist
// exactly is looked up again one component at a time, ignoring ASCII case; a
// name being created keeps the case it was given.
//
// Sharing follows the Windows share mode "read only": any number of opens
// that only read may coexist, while an open with write access excludes every
// other open of the same file (both ways), in this process or another.
#ifndef ZK_PLATFORM_FILE_H
#define ZK_PLATFORM_FILE_H

#include <cstdint>

namespace zk::os {

// An open host file: a Windows HANDLE or a POSIX descriptor.
using File = intptr_t;
constexpr File kInvalidFile = -1;

constexpr uint32_t kFileAccessRead = 0x1;
constexpr uint32_t kFileAccessWrite = 0x2;

// Origins of FileSeek: FILE_BEGIN, FILE_CURRENT, FILE_END.
constexpr uint32_t kFileSeekBegin = 0;
constexpr uint32_t kFileSeekCurrent = 1;
constexpr uint32_t kFileSeekEnd = 2;

// Rewrites a host path in place into the host's own form: every slash becomes
// a backslash on Windows; on POSIX every backslash becomes a slash and a drive
// prefix is dropped ("C:\game\a.bin" names /game/a.bin, the drive-relative
// "C:a.bin" names a.bin in the current directory, "C:" alone the current
// directory). The result is never longer than the input.
void FileConvertPath(char* path);

// CreateFileA(path, access, FILE_SHARE_READ, none, OPEN_ALWAYS when create
// else OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, none). access is a mask of
// kFileAccessRead and kFileAccessWrite, possibly 0 (size queries only). The
// position starts at 0. kInvalidFile when the file cannot be opened.
File FileOpen(const char* path, uint32_t access, bool create);
// CloseHandle.
void FileClose(File file);
// ReadFile at the position: *got receives the count, 0 at the end.
bool FileRead(File file, void* buffer, uint32_t size, uint32_t* got);
// WriteFile at the position: *written receives the count.
bool FileWrite(File file, const void* buffer, uint32_t size, uint32_t* written);
// SetFilePointer(file, offset, no high word, origin): the new position must
// lie within 0 .. 0xFFFFFFFE; false (and the position unchanged) otherwise.
bool FileSeek(File file, int32_t offset, uint32_t origin, uint32_t* newPosition);
// SetFilePointer(file, offset, high word 0, FILE_BEGIN): offset is unsigned.
// Made for a read at an offset: the POSIX backend keeps the position until a
// call needs it, so that the read that follows is one pread.
bool FileSeekFromStart(File file, uint32_t offset);
// SetEndOfFile: cuts the file at the position.
bool FileTruncateHere(File file);
// GetFileSize(file, no high word): the low 32 bits of the size; false when
// the query fails or those bits are all set (INVALID_FILE_SIZE).
bool FileSize(File file, uint32_t* size);

// Whether the size bytes from the position look cached already (their first
// and last byte are), asked without waiting. False where the file system
// cannot tell without waiting, and on Windows.
bool FileLooksCached(File file, uint32_t size);
// Brings the size bytes from the position into the system's file cache,
// waiting on the calling thread until they are there, so that a read of them
// that follows on another thread copies from memory. The position is not
// moved. A hint: the POSIX backend asks the kernel to read the range ahead
// and waits for it; Windows, whose cache manager reads ahead by itself, does
// nothing.
void FileCacheAhead(File file, uint32_t size);

// CreateDirectoryA(path, none): false when it exists already (whatever the
// case of its name) or cannot be made. Parents are not made.
bool DirectoryCreate(const char* path);
// RemoveDirectoryA(path): false unless an empty directory was removed.
bool DirectoryRemove(const char* path);

// CopyFileA(source, target, overwrite): the paths are host names as the
// application gave them (either separator). On POSIX the copy is written to a
// temporary file beside the target and renamed over it at the end, so the
// target is either the old file or the complete copy, never part of one; the
// copy keeps the source's permission bits and modification time.
bool FileCopy(const char* source, const char* target);

} // namespace zk::os

#endif // ZK_PLATFORM_FILE_H
