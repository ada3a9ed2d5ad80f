/* QAX kernel: files and directories.
 *
 * Paths: NUL-terminated 8-bit strings of at most 260 characters; slash and
 * backslash both separate. A path beginning with '/' goes through the mount
 * table; any other is a device path. Relative paths get the working directory
 * (zkSetWorkDir) in front before they are opened.
 *
 * Every synchronous call blocks its thread until the device I/O worker has
 * run the operation (or runs it at once when the driver allows). A handle
 * belongs to one thread at a time.
 */
#ifndef ZK_FILE_H
#define ZK_FILE_H

#include "config.h"
#include "device.h"

/* Directory-making flag: make missing parents too. */
#define ZK_MAKEDIR_PARENTS 0x2u

ZK_EXTERN_C_BEGIN

typedef struct FileHandle FileHandle; /* one of 32 */
typedef struct DirHandle DirHandle;   /* one of 64 */

/* Opens path with ZK_OPEN_* flags; mode is passed to the driver. Null on any
 * failure (no free handle, no driver, no file object, the driver's refusal). */
ZK_API FileHandle* ZK_CALL zkOpenFile(const char* path, uint32_t openFlags, uint32_t mode);
/* Closes the file and frees the handle; null or a closed handle: nothing. */
ZK_API void ZK_CALL zkCloseFile(FileHandle* file);

/* The calls on a handle return -4 for a null or closed handle, -23 when it has
 * no open file, -3 for a null buffer, else the driver's result. A read ending
 * early at the end of the file is not an error: compare *got with size. *got
 * and *written receive the bytes moved, also after a failure. */
ZK_API int32_t ZK_CALL zkReadFile(FileHandle* file, void* buffer, uint32_t size, uint32_t* got);
/* flags bit 0: served before the normal queue; flags also go to the driver. */
ZK_API int32_t ZK_CALL zkReadFileOffset(FileHandle* file, uint32_t offset, void* buffer,
                                        uint32_t size, uint32_t* got, uint32_t flags);
ZK_API int32_t ZK_CALL zkWriteFile(FileHandle* file, const void* buffer, uint32_t size,
                                   uint32_t* written);
ZK_API int32_t ZK_CALL zkSeekFile(FileHandle* file, int32_t offset, uint32_t origin,
                                  uint32_t* newPosition);
ZK_API int32_t ZK_CALL zkGetFileSize(FileHandle* file, uint32_t* size);
/* Copies the full path the file was opened with; -33 when outSize is not
 * greater than its length. */
ZK_API int32_t ZK_CALL zkGetFilePath(FileHandle* file, char* out, uint32_t outSize);
/* Null record pointers are skipped (get) or leave that time unchanged (set). */
ZK_API int32_t ZK_CALL zkGetFileTime(FileHandle* file, FileTimeRecord* t0, FileTimeRecord* t1,
                                     FileTimeRecord* t2);
ZK_API int32_t ZK_CALL zkSetFileTime(FileHandle* file, const FileTimeRecord* t0,
                                     const FileTimeRecord* t1, const FileTimeRecord* t2);

/* Deletes through the path's driver, on the calling thread. -3, a resolution
 * code, or the driver's result. */
ZK_API int32_t ZK_CALL zkDeleteFile(const char* path, uint32_t arg);
/* Copies a host file by host names (no mounts, no working directory),
 * replacing an existing target. 0, -3, or -8 when the copy failed. */
ZK_API int32_t ZK_CALL zkCopyFile(const char* source, const char* target);

ZK_API uint32_t ZK_CALL zkGetOpenFileCount(void);
/* The low 32 bits of the bytes delivered by successful reads. */
ZK_API uint32_t ZK_CALL zkGetTotalBytesRead(void);
ZK_API int32_t ZK_CALL zkResetTotalBytesRead(void);

/* Try counts by kind 0 to 5 (kinds 1, 2, 3 also set the try count of the
 * devices "hdd0:", "cdrom0:", "host0:"). Set returns the previous value, or
 * the device's answer for kinds 1 to 3; kinds above 5 are refused with -3
 * (set) or read as 0 (get). */
ZK_API int32_t ZK_CALL zkSetFileTryCount(uint32_t kind, uint32_t count);
ZK_API uint32_t ZK_CALL zkGetFileTryCount(uint32_t kind);

/* Directory listings, through a driver that supplies them. Null on any failure. */
ZK_API DirHandle* ZK_CALL zkOpenDir(const char* path);
/* -4 for a null or closed handle, -3 for a null entry, else the driver's answer. */
ZK_API int32_t ZK_CALL zkReadDir(DirHandle* dir, void* entry);
ZK_API void ZK_CALL zkCloseDir(DirHandle* dir);
/* Makes a directory (ZK_MAKEDIR_PARENTS: missing parents too); mode 0 means
 * 511. -3, a resolution code, or the driver's result. */
ZK_API int32_t ZK_CALL zkMakeDir(const char* path, uint32_t flags, uint32_t mode);
ZK_API int32_t ZK_CALL zkRemoveDir(const char* path, uint32_t arg);
/* Null path: 0 without a call. */
ZK_API int32_t ZK_CALL zkDumpDir(const char* path, uint32_t arg);

ZK_EXTERN_C_END

#endif /* ZK_FILE_H */
