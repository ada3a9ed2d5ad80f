/**
 * @file
 * @brief Files and directories: synchronous and asynchronous file calls,
 * whole-file loading and directory listings.
 */
#ifndef ZK_FILE_H
#define ZK_FILE_H

#include "config.h"
#include "device.h"
#include "request.h"

/**
 * @defgroup file Files and directories
 * @brief File handles (32), synchronous and asynchronous I/O, whole-file and
 * background loading, try counts and directories (64 listing handles).
 *
 * Paths: NUL-terminated 8-bit strings of at most 260 characters; slash and
 * backslash both separate. A path beginning with '/' goes through the mount
 * table; any other is a device path. Relative paths get the working directory
 * (zkSetWorkDir) in front before they are opened.
 *
 * Every synchronous call blocks its thread until the device I/O worker has
 * run the operation (or runs it at once when the driver allows).
 *
 * Threads: the file calls may come from any thread; handles are taken and
 * given back under a lock. A file handle belongs to one thread at a time.
 * The directory calls run their driver on the calling thread, and their
 * handle table is not locked: open, read and close listings from one thread
 * at a time.
 * @{
 */

/** Directory-making flag: make missing parents too. */
#define ZK_MAKEDIR_PARENTS 0x2u

ZK_EXTERN_C_BEGIN

/** A file handle, one of 32. */
typedef struct FileHandle FileHandle;
/** A directory listing handle, one of 64. */
typedef struct DirHandle DirHandle;

/**
 * @brief Opens path with ZK_OPEN_* flags.
 * @param path the file's path
 * @param openFlags ZK_OPEN_* flags
 * @param mode passed to the driver
 * @return the handle, or null on any failure (no free handle, no driver, no
 *         file object, the driver's refusal; zkGetResultText has no code for it)
 * @threads Any thread.
 */
ZK_API FileHandle* ZK_CALL zkOpenFile(const char* path, uint32_t openFlags, uint32_t mode);
/**
 * @brief Closes the file and frees the handle.
 *
 * Waits for a background load of the handle and frees bytes not taken.
 * Closing a handle whose asynchronous read (zkBeginReadFile) is still pending
 * is the application's error; the close then waits until that read has
 * finished (it is queued behind it), so the read never touches another file,
 * and zkEndReadFile still reports it. Files stay open across zkTerminate;
 * zkEndProcess closes those still open.
 * @param file the handle; null or a closed handle does nothing
 * @threads The thread that uses the handle.
 */
ZK_API void ZK_CALL zkCloseFile(FileHandle* file);

/**
 * @brief Reads up to size bytes at the file position.
 *
 * The calls on a handle return -4 for a null or closed handle, -23 when it has
 * no open file, -3 for a null buffer, else the driver's result. A read ending
 * early at the end of the file is not an error: compare *got with size. *got
 * and *written receive the bytes moved, also after a failure.
 * @return 0; -4; -23; -3; or the driver's code (such as -35 for a failed host read)
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkReadFile(FileHandle* file, void* buffer, uint32_t size, uint32_t* got);
/**
 * @brief Reads up to size bytes at offset, without moving the file position.
 * @param file the handle
 * @param offset where to read, from the file's start
 * @param buffer receives the bytes
 * @param size bytes to read
 * @param got receives the bytes delivered
 * @param flags bit 0: served before the normal queue; flags also go to the driver
 * @return as zkReadFile (-37 for a failed host positioning)
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkReadFileOffset(FileHandle* file, uint32_t offset, void* buffer,
                                        uint32_t size, uint32_t* got, uint32_t flags);
/**
 * @brief Writes size bytes at the file position.
 * @param file the handle
 * @param buffer the bytes
 * @param size their count
 * @param written may be null; the bytes the driver took
 * @return 0; -4; -23; -3 for a null buffer; or the driver's code (such as -36)
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkWriteFile(FileHandle* file, const void* buffer, uint32_t size,
                                   uint32_t* written);
/**
 * @brief Moves the file position.
 * @param file the handle
 * @param offset the distance from origin
 * @param origin ZK_SEEK_SET, ZK_SEEK_CUR or ZK_SEEK_END
 * @param newPosition may be null; the position now
 * @return 0; -4; -23; or the driver's code (such as -3 for another origin, -49)
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkSeekFile(FileHandle* file, int32_t offset, uint32_t origin,
                                  uint32_t* newPosition);
/**
 * @brief The file's size in bytes.
 * @return 0; -4; -23; -3 for a null size; or the driver's code (such as -35)
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkGetFileSize(FileHandle* file, uint32_t* size);
/**
 * @brief Copies the full path the file was opened with.
 * @return 0; -4; -3 for a null out; -33 when outSize is not greater than its length
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkGetFilePath(FileHandle* file, char* out, uint32_t outSize);
/**
 * @brief The file's three time records, through its driver.
 * @param file the handle
 * @param t0,t1,t2 receive the records; null ones are skipped
 * @return 0; -4; -23; or the driver's code (-6 when it keeps no times)
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkGetFileTime(FileHandle* file, FileTimeRecord* t0, FileTimeRecord* t1,
                                     FileTimeRecord* t2);
/**
 * @brief Sets the file's three time records through its driver.
 * @param file the handle
 * @param t0,t1,t2 the records; a null one leaves that time unchanged
 * @return 0; -4; -23; or the driver's code (-6 when it keeps no times)
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkSetFileTime(FileHandle* file, const FileTimeRecord* t0,
                                     const FileTimeRecord* t1, const FileTimeRecord* t2);

/**
 * @brief Deletes through the path's driver, on the calling thread.
 * @return 0; -3 for a null path; a resolution code (-42, -23, -33); or the
 *         driver's result
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkDeleteFile(const char* path, uint32_t arg);
/**
 * @brief Copies a host file by host names (no mounts, no working directory),
 * replacing an existing target.
 * @return 0; -3 for a null name; -8 when the copy failed
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkCopyFile(const char* source, const char* target);

/**
 * @brief The number of file handles in use (of 32).
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetOpenFileCount(void);
/**
 * @brief The low 32 bits of the bytes delivered by successful reads.
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetTotalBytesRead(void);
/**
 * @brief Sets the bytes-read counter back to 0.
 * @return 0, always
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkResetTotalBytesRead(void);

/**
 * @brief Sets the try count of kind 0 to 5.
 *
 * Kinds 1, 2, 3 also set the try count of the devices "hdd0:", "cdrom0:",
 * "host0:".
 * @return the previous value, or the device's answer for kinds 1 to 3; -3 for
 *         kinds above 5
 * @threads The main thread (with the other settings of device.h).
 */
ZK_API int32_t ZK_CALL zkSetFileTryCount(uint32_t kind, uint32_t count);
/**
 * @brief The try count of kind.
 * @return the count; 0 for kinds above 5
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetFileTryCount(uint32_t kind);

/**
 * @brief Opens a directory listing, through a driver that supplies them.
 * @return the handle, or null on any failure (null path, no free handle, no
 *         driver or listing, the driver's refusal)
 * @threads One thread at a time for all listings (see the group).
 */
ZK_API DirHandle* ZK_CALL zkOpenDir(const char* path);
/**
 * @brief Reads the next entry into the driver's entry record.
 * @return -4 for a null or closed handle; -3 for a null entry; else the driver's answer
 * @threads One thread at a time for all listings.
 */
ZK_API int32_t ZK_CALL zkReadDir(DirHandle* dir, void* entry);
/**
 * @brief Ends a listing and frees its handle.
 * @param dir the handle; null or closed does nothing
 * @threads One thread at a time for all listings.
 */
ZK_API void ZK_CALL zkCloseDir(DirHandle* dir);
/**
 * @brief Makes a directory (ZK_MAKEDIR_PARENTS: missing parents too).
 * @param path the directory's path
 * @param flags ZK_MAKEDIR_PARENTS or 0
 * @param mode passed to the driver; 0 means 511
 * @return 0; -3 for a null path; a resolution code; or the driver's result
 *         (such as -38 when a host directory could not be made)
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkMakeDir(const char* path, uint32_t flags, uint32_t mode);
/**
 * @brief Removes an empty directory through its driver.
 * @return 0; -3 for a null path; a resolution code; or the driver's result
 *         (such as -8 when a host directory could not be removed)
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkRemoveDir(const char* path, uint32_t arg);
/**
 * @brief Asks the path's driver to trace a listing of the directory.
 * @return 0 without a call for a null path; a resolution code; or the driver's
 *         result (-6 when it has no dump)
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkDumpDir(const char* path, uint32_t arg);

/** @name Asynchronous open, close and read
 * A Begin call builds the operation inside a frame of request (a request of
 * zkCreateRequest) and returns at once; the I/O worker runs it. Its result is
 * 0, or -55 (null request) / -56 (released request, or one whose previous
 * operation has not been ended): then nothing was queued. Every other failure
 * comes back from the matching End call, which waits for the operation (see
 * zkIsRequestCompleted to poll) and returns its result. The request must not
 * be reused or released between Begin and End; the buffer of a read must stay
 * valid until its End. Begin and End come from the thread that uses the
 * request. */
/** @{ */

/**
 * @brief Begins opening path: takes a file handle at once and queues the open.
 * @return 0, -55 or -56 (see above)
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkBeginOpenFile(const char* path, uint32_t openFlags, uint32_t mode,
                                       Request* request);
/**
 * @brief Waits for the open begun on request.
 *
 * On success *handle receives the new handle; on failure *handle is null and
 * the handle is already released. A null handle pointer closes what was
 * opened.
 * @return 0; -19 when no file handle was free; -3 for a null path or a null
 *         handle pointer; the open's code (such as -51, -23); -55, -56
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkEndOpenFile(FileHandle** handle, Request* request);
/**
 * @brief Begins closing the file; End frees the handle (as zkCloseFile).
 *
 * A handle not in use ends with -4 and nothing done. A handle without an open
 * file, or one whose background load still runs, completes at once without a
 * driver call; End then waits for the load and frees it with the handle.
 * Begin waits for an asynchronous read still pending on the handle, as
 * zkCloseFile does.
 * @return 0, -55 or -56 (see above)
 * @threads The thread that uses the request and the handle.
 */
ZK_API int32_t ZK_CALL zkBeginCloseFile(FileHandle* handle, Request* request);
/**
 * @brief Waits for the close begun on request.
 * @return 0; -4 for a handle not in use (nothing done); the driver's code; -55, -56
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkEndCloseFile(Request* request);
/**
 * @brief Begins reading up to size bytes at the file position.
 * @return 0, -55 or -56 (see above)
 * @threads The thread that uses the request and the handle.
 */
ZK_API int32_t ZK_CALL zkBeginReadFile(FileHandle* handle, void* buffer, uint32_t size,
                                       Request* request);
/**
 * @brief Waits for the read begun on request.
 * @param got may be null; the bytes delivered (also counted in
 *        zkGetTotalBytesRead, whatever the result)
 * @param request the request the read was begun on
 * @return 0; -4 for a null or closed handle; -23 without an open file; -3 for
 *         a null buffer; the driver's code; -55, -56
 * @threads The thread that uses the request.
 */
ZK_API int32_t ZK_CALL zkEndReadFile(uint32_t* got, Request* request);
/** @} */

/** @name Whole-file loading */
/** @{ */

/**
 * @brief Reads the whole file at path into a new block of the system pool.
 *
 * The caller gives the block back with zkFreeData. An empty file gives 0 with
 * *data null and *size 0.
 * @return 0; -3 for a null argument; -19 without a free handle; -5 without
 *         memory; -11 when the file delivers fewer bytes than its size said
 *         (it shrank while being read); else the open's (-51) or read's code
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkLoadDataFromFile(const char* path, void** data, uint32_t* size);
/**
 * @brief The same on a loading thread of its own.
 * @return the handle that owns the load (it counts as an open file until
 *         zkCloseFile), or null when no handle, memory or thread was available
 * @threads Any thread.
 */
ZK_API FileHandle* ZK_CALL zkStartLoadingDataFromFile(const char* path);
/**
 * @brief Whether the load's thread runs.
 * @return 1 while it runs, else 0 (also for handles without a load)
 * @threads The thread that uses the handle.
 */
ZK_API uint32_t ZK_CALL zkIsFileProcessing(FileHandle* handle);
/**
 * @brief Hands the loaded bytes to the caller (who frees them with zkFreeData).
 *
 * A second call gives the same result with null and 0. While the load still
 * runs: 0 with null and 0.
 * @return the load's result (as zkLoadDataFromFile); -4 for a handle without
 *         a load; -3 for a null pointer
 * @threads The thread that uses the handle.
 */
ZK_API int32_t ZK_CALL zkGetLoadedData(FileHandle* handle, void** data, uint32_t* size);
/**
 * @brief Gives loaded data back (zkFree).
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkFreeData(void* data);
/** @} */

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_FILE_H */
