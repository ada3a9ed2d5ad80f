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
#include "request.h"

/* Directory-making flag: make missing parents too. */
#define ZK_MAKEDIR_PARENTS 0x2u

ZK_EXTERN_C_BEGIN

typedef struct FileHandle FileHandle; /* one of 32 */
typedef struct DirHandle DirHandle;   /* one of 64 */

/* Opens path with ZK_OPEN_* flags; mode is passed to the driver. Null on any
 * failure (no free handle, no driver, no file object, the driver's refusal). */
ZK_API FileHandle* ZK_CALL zkOpenFile(const char* path, uint32_t openFlags, uint32_t mode);
/* Closes the file and frees the handle; null or a closed handle: nothing.
 * Closing a handle whose asynchronous read (zkBeginReadFile) is still pending
 * is the application's error; the close then waits until that read has
 * finished (it is queued behind it), so the read never touches another file,
 * and zkEndReadFile still reports it. Files stay open across zkTerminate;
 * zkEndProcess closes those still open. */
ZK_API void ZK_CALL zkCloseFile(FileHandle* file);

/* The calls on a handle return -4 for a null or closed handle, -23 when it has
 * no open file, -3 for a null buffer, else the driver's result. A read ending
 * early at the end of the file is not an error: compare *got with size. *got
 * and *written receive the bytes moved, also after a failure. */
ZK_API int32_t ZK_CALL zkReadFile(FileHandle* file, void* buffer, uint32_t size, uint32_t* got);
/* flags bit 0: served before the normal queue; flags also go to the driver. */
ZK_API int32_t ZK_CALL zkReadFileOffset(FileHandle* file, uint32_t offset, void* buffer,
                                        uint32_t size, uint32_t* got, uint32_t flags);
/* Writes size bytes at the file position; *written (may be null) the bytes
 * the driver took. -4, -23, -3 (null buffer), or the driver's code. */
ZK_API int32_t ZK_CALL zkWriteFile(FileHandle* file, const void* buffer, uint32_t size,
                                   uint32_t* written);
/* Moves the file position (origin ZK_SEEK_SET, ZK_SEEK_CUR, ZK_SEEK_END);
 * *newPosition (may be null) the position now. -4, -23, or the driver's code. */
ZK_API int32_t ZK_CALL zkSeekFile(FileHandle* file, int32_t offset, uint32_t origin,
                                  uint32_t* newPosition);
/* The file's size in bytes. -4, -23, -3 (null size), or the driver's code. */
ZK_API int32_t ZK_CALL zkGetFileSize(FileHandle* file, uint32_t* size);
/* Copies the full path the file was opened with; -33 when outSize is not
 * greater than its length. */
ZK_API int32_t ZK_CALL zkGetFilePath(FileHandle* file, char* out, uint32_t outSize);
/* Null record pointers are skipped (get) or leave that time unchanged (set). */
ZK_API int32_t ZK_CALL zkGetFileTime(FileHandle* file, FileTimeRecord* t0, FileTimeRecord* t1,
                                     FileTimeRecord* t2);
/* Sets the file's three time records through its driver. */
ZK_API int32_t ZK_CALL zkSetFileTime(FileHandle* file, const FileTimeRecord* t0,
                                     const FileTimeRecord* t1, const FileTimeRecord* t2);

/* Deletes through the path's driver, on the calling thread. -3, a resolution
 * code, or the driver's result. */
ZK_API int32_t ZK_CALL zkDeleteFile(const char* path, uint32_t arg);
/* Copies a host file by host names (no mounts, no working directory),
 * replacing an existing target. 0, -3, or -8 when the copy failed. */
ZK_API int32_t ZK_CALL zkCopyFile(const char* source, const char* target);

/* The number of file handles in use (of 32). */
ZK_API uint32_t ZK_CALL zkGetOpenFileCount(void);
/* The low 32 bits of the bytes delivered by successful reads. */
ZK_API uint32_t ZK_CALL zkGetTotalBytesRead(void);
/* Sets the bytes-read counter back to 0; returns 0. */
ZK_API int32_t ZK_CALL zkResetTotalBytesRead(void);

/* Try counts by kind 0 to 5 (kinds 1, 2, 3 also set the try count of the
 * devices "hdd0:", "cdrom0:", "host0:"). Set returns the previous value, or
 * the device's answer for kinds 1 to 3; kinds above 5 are refused with -3
 * (set) or read as 0 (get). */
ZK_API int32_t ZK_CALL zkSetFileTryCount(uint32_t kind, uint32_t count);
/* The try count of kind (0 for kinds above 5). */
ZK_API uint32_t ZK_CALL zkGetFileTryCount(uint32_t kind);

/* Directory listings, through a driver that supplies them. Null on any failure. */
ZK_API DirHandle* ZK_CALL zkOpenDir(const char* path);
/* -4 for a null or closed handle, -3 for a null entry, else the driver's answer. */
ZK_API int32_t ZK_CALL zkReadDir(DirHandle* dir, void* entry);
/* Ends a listing and frees its handle; null or closed: nothing. */
ZK_API void ZK_CALL zkCloseDir(DirHandle* dir);
/* Makes a directory (ZK_MAKEDIR_PARENTS: missing parents too); mode 0 means
 * 511. -3, a resolution code, or the driver's result. */
ZK_API int32_t ZK_CALL zkMakeDir(const char* path, uint32_t flags, uint32_t mode);
/* Removes an empty directory through its driver. -3, a resolution code,
 * or the driver's result. */
ZK_API int32_t ZK_CALL zkRemoveDir(const char* path, uint32_t arg);
/* Null path: 0 without a call. */
ZK_API int32_t ZK_CALL zkDumpDir(const char* path, uint32_t arg);

/* ---- asynchronous open, close and read ---------------------------------
 * A Begin call builds the operation inside a frame of request (a request of
 * zkCreateRequest) and returns at once; the I/O worker runs it. Its result is
 * 0, or -55 (null request) / -56 (released request, or one whose previous
 * operation has not been ended): then nothing was queued. Every other failure
 * comes back from the matching End call, which waits for the operation (see
 * zkIsRequestCompleted to poll) and returns its result. The request must not
 * be reused or released between Begin and End; the buffer of a read must stay
 * valid until its End. */

/* Takes a file handle at once (-19 at End when none is free; -3 for a null
 * path) and opens it. End gives the handle to *handle on success; on failure
 * *handle is null and the handle is already released. A null handle pointer at
 * End closes what was opened and returns -3. */
ZK_API int32_t ZK_CALL zkBeginOpenFile(const char* path, uint32_t openFlags, uint32_t mode,
                                       Request* request);
/* Waits for the open begun on request; *handle the new handle. */
ZK_API int32_t ZK_CALL zkEndOpenFile(FileHandle** handle, Request* request);
/* Closes the file and, at End, frees the handle (as zkCloseFile). A handle
 * not in use ends with -4 and nothing done. A handle without an open file, or
 * one whose background load still runs, completes at once without a driver
 * call; End then waits for the load and frees it with the handle. Begin waits
 * for an asynchronous read still pending on the handle, as zkCloseFile does. */
ZK_API int32_t ZK_CALL zkBeginCloseFile(FileHandle* handle, Request* request);
/* Waits for the close begun on request; its result. */
ZK_API int32_t ZK_CALL zkEndCloseFile(Request* request);
/* Reads up to size bytes at the file position. End: the result, with the
 * bytes delivered in *got (also counted in zkGetTotalBytesRead, whatever the
 * result); -4 for a null or closed handle, -23 without an open file, -3 for a
 * null buffer. */
ZK_API int32_t ZK_CALL zkBeginReadFile(FileHandle* handle, void* buffer, uint32_t size,
                                       Request* request);
/* Waits for the read begun on request; *got (may be null) the bytes read. */
ZK_API int32_t ZK_CALL zkEndReadFile(uint32_t* got, Request* request);

/* ---- whole-file loading -------------------------------------------------- */

/* Reads the whole file at path into a new block of the system pool: *data and
 * *size; the caller gives the block back with zkFreeData. An empty file gives
 * 0 with *data null and *size 0. -3 for a null argument, -19 without a free
 * handle, -5 without memory, -11 when the file delivers fewer bytes than its
 * size said (it shrank while being read), else the open's or read's code. */
ZK_API int32_t ZK_CALL zkLoadDataFromFile(const char* path, void** data, uint32_t* size);
/* The same on a loading thread of its own. Returns the handle that owns the
 * load (it counts as an open file until zkCloseFile), or null when no handle,
 * memory or thread was available. */
ZK_API FileHandle* ZK_CALL zkStartLoadingDataFromFile(const char* path);
/* 1 while the load's thread runs, else 0 (also for handles without a load). */
ZK_API uint32_t ZK_CALL zkIsFileProcessing(FileHandle* handle);
/* Hands the loaded bytes to the caller (who frees them with zkFreeData) and
 * returns the load's result; a second call gives the same result with null and
 * 0. While the load still runs: 0 with null and 0. -4 for a handle without a
 * load, -3 for a null pointer. zkCloseFile waits for a running load and frees
 * bytes not taken. */
ZK_API int32_t ZK_CALL zkGetLoadedData(FileHandle* handle, void** data, uint32_t* size);
/* Gives loaded data back (zkFree). */
ZK_API void ZK_CALL zkFreeData(void* data);

ZK_EXTERN_C_END

#endif /* ZK_FILE_H */
