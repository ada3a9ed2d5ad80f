// Host files and directories through the Win32 file functions, one call each.
#include "platform/file.h"

#include <windows.h>

namespace zk::os {
namespace {

HANDLE ToHandle(File file) {
    return reinterpret_cast<HANDLE>(file);
}

} // namespace

void FileConvertPath(char* path) {
    for (; *path; ++path)
        if (*path == '/') *path = '\\';
}

File FileOpen(const char* path, uint32_t access, bool create) {
    DWORD desired = 0;
    if (access & kFileAccessRead) desired |= GENERIC_READ;
    if (access & kFileAccessWrite) desired |= GENERIC_WRITE;
    HANDLE handle =
        CreateFileA(path, desired, FILE_SHARE_READ, nullptr, create ? OPEN_ALWAYS : OPEN_EXISTING,
                    FILE_ATTRIBUTE_NORMAL, nullptr);
    // INVALID_HANDLE_VALUE is all bits set, the same value as kInvalidFile.
    return reinterpret_cast<File>(handle);
}

void FileClose(File file) {
    if (file != kInvalidFile) CloseHandle(ToHandle(file));
}

bool FileRead(File file, void* buffer, uint32_t size, uint32_t* got) {
    DWORD count = 0;
    BOOL ok = ReadFile(ToHandle(file), buffer, size, &count, nullptr);
    *got = count;
    return ok != 0;
}

bool FileWrite(File file, const void* buffer, uint32_t size, uint32_t* written) {
    DWORD count = 0;
    BOOL ok = WriteFile(ToHandle(file), buffer, size, &count, nullptr);
    *written = count;
    return ok != 0;
}

bool FileSeek(File file, int32_t offset, uint32_t origin, uint32_t* newPosition) {
    DWORD position = SetFilePointer(ToHandle(file), offset, nullptr, origin);
    if (position == INVALID_SET_FILE_POINTER) return false;
    *newPosition = position;
    return true;
}

bool FileSeekFromStart(File file, uint32_t offset) {
    // With a high word the low word is unsigned, and all bits set is a valid
    // position: only the last error tells a failure.
    LONG high = 0;
    SetLastError(0);
    DWORD position = SetFilePointer(ToHandle(file), static_cast<LONG>(offset), &high, FILE_BEGIN);
    return !(position == INVALID_SET_FILE_POINTER && GetLastError() != 0);
}

bool FileLooksCached(File, uint32_t) {
    return false;
}

void FileCacheAhead(File, uint32_t) {}

bool FileTruncateHere(File file) {
    return SetEndOfFile(ToHandle(file)) != 0;
}

bool FileSize(File file, uint32_t* size) {
    DWORD low = GetFileSize(ToHandle(file), nullptr);
    if (low == INVALID_FILE_SIZE) return false;
    *size = low;
    return true;
}

bool DirectoryCreate(const char* path) {
    return CreateDirectoryA(path, nullptr) != 0;
}

bool DirectoryRemove(const char* path) {
    return RemoveDirectoryA(path) != 0;
}

bool FileCopy(const char* source, const char* target) {
    return CopyFileA(source, target, FALSE) != 0;
}

} // namespace zk::os
