/**
 * @file
 * @brief Devices: the driver interfaces through which the file system reaches
 * storage, and the calls that register drivers and talk to them.
 */
#ifndef ZK_DEVICE_H
#define ZK_DEVICE_H

#include "config.h"

/**
 * @defgroup device Devices, mounts and paths
 * @brief The driver interfaces, the device table, the mount table, the
 * working directory and path resolution.
 *
 * A driver is a C++ object implementing zk::DeviceDriver; it hands out one
 * zk::FileObject per open file and one zk::DirObject per directory listing.
 * The order of the virtual functions is fixed (a driver compiled by an
 * application plugs in unchanged): never insert, remove or reorder them. A
 * driver class may add virtual functions after the last one for its own use.
 * Results are 0 or positive for success, a negative result code for failure;
 * a driver answers an operation it does not support with -6 (null for
 * OpenDir). The interfaces have no virtual destructor: drivers are static
 * objects that outlive the library, and the library never deletes them.
 *
 * Threads: the device table, the mount table and the working directory are
 * not locked. zkRegisterDevice, zkMount, zkUnmount, zkUnmountAll and
 * zkSetWorkDir belong to the main thread; the other calls of this group may
 * come from any thread while the main thread changes none of them. A driver's
 * file objects run on the device I/O worker thread (or at once on the
 * caller's thread for the kinds IsImmediate names); its name matching, path
 * conversion, try counts, object creation and device-level calls run on the
 * calling thread.
 * @{
 */

/** Three 32-bit words that the file system copies and never looks inside. */
typedef struct FileTimeRecord {
    uint32_t words[3]; /**< the driver's time representation */
} FileTimeRecord;

#ifdef __cplusplus
/** The library's C++ interfaces (the device driver interfaces). */
namespace zk {

/** One open file of one driver, created by DeviceDriver::CreateFileObject and
 * given back to its driver by its own Close. */
class FileObject {
public:
    /** Non-zero: an operation of this kind (1 open, 2 close, 3 size, 6 seek)
     * may run at once on the caller's thread instead of the I/O worker. */
    virtual int32_t IsImmediate(int32_t kind) = 0;
    /** Opens the file with ZK_OPEN_* flags. -51: could not open (tried again
     * while tries remain); -57: no such file. */
    virtual int32_t Open(const char* physicalPath, uint32_t openFlags, uint32_t mode) = 0;
    /** Closes the file and gives the object back to its driver. */
    virtual int32_t Close() = 0;
    /** The file's size in *size. */
    virtual int32_t GetSize(uint32_t* size) = 0;
    /** Reads at the current position; *got may be less than size (0 at the end). */
    virtual int32_t Read(void* buffer, uint32_t size, uint32_t* got, uint32_t flags) = 0;
    /** Reads at offset without regard to the current position; *got as Read. */
    virtual int32_t ReadAt(uint32_t offset, void* buffer, uint32_t size, uint32_t* got,
                           uint32_t flags) = 0;
    /** Writes at the current position; *written the bytes taken. */
    virtual int32_t Write(const void* buffer, uint32_t size, uint32_t* written) = 0;
    /** Moves the position from origin ZK_SEEK_SET, ZK_SEEK_CUR or ZK_SEEK_END;
     * *newPosition the position now. */
    virtual int32_t Seek(int32_t offset, uint32_t origin, uint32_t* newPosition) = 0;

protected:
    /** Not deleted through the interface. */
    ~FileObject() = default;
};

/** One directory listing, created by DeviceDriver::OpenDir. */
class DirObject {
public:
    /** Starts the listing; physicalPath ends in the driver's separator.
     * Negative fails zkOpenDir. */
    virtual int32_t Open(const char* physicalPath) = 0;
    /** Ends the listing and gives the object back to its driver. */
    virtual void Close() = 0;
    /** Fills the caller's entry record; zkReadDir returns this result. */
    virtual int32_t Read(void* entry) = 0;

protected:
    /** Not deleted through the interface. */
    ~DirObject() = default;
};

/** A device driver: claims device names and physical paths, and serves them. */
class DeviceDriver {
public:
    /** 0 or positive claims the name; negative declines. */
    virtual int32_t MatchName(const char* name) = 0;
    /** Called once, on the first lookup the driver claims; negative: asked again next time. */
    virtual int32_t InitializeDevice() = 0;
    /** The device's end; kept in its slot (the library does not call it). */
    virtual void TerminateDevice() = 0;
    /** Reserved; keeps the slot order. Return 0. */
    virtual int32_t Reserved3() = 0;
    /** Rewrites a resolved physical path in place; the result is the resolution's. */
    virtual int32_t ConvertPath(char* physicalPath, uint32_t capacity) = 0;
    /** Attempts per operation on the unit; 0xFFFFFFFF without limit, 0 like 1. */
    virtual uint32_t GetTryCount(int32_t unit) = 0;
    /** Sets the unit's attempts per operation; the result goes back to the caller. */
    virtual int32_t SetTryCount(int32_t unit, uint32_t count) = 0;
    /** A free file object; null when the driver has none (the open fails with -19). */
    virtual FileObject* CreateFileObject() = 0;
    /** Reserved; keeps the slot order. Set *out (may be null) to 0 and return 0. */
    virtual int32_t Reserved8(uint32_t* out) = 0;
    /** Accepts a mount of the path; may rewrite it (capacity 260). Negative
     * other than -6 fails the mount. */
    virtual int32_t Mount(char* physicalPath, uint32_t capacity, uint32_t mode) = 0;
    /** A mount of the path is removed; negative refuses. */
    virtual int32_t Unmount(char* physicalPath) = 0;
    /** Formats the device or partition at the path (zkFormat). */
    virtual int32_t Format(char* physicalPath) = 0;
    /** Traces a listing of the directory (zkDumpDir). */
    virtual int32_t DumpDir(char* physicalPath, uint32_t arg) = 0;
    /** Makes a directory (ZK_MAKEDIR_PARENTS: parents too). -51 means a
     * parent directory is missing. */
    virtual int32_t MakeDir(char* physicalPath, uint32_t flags, uint32_t mode) = 0;
    /** Removes an empty directory. */
    virtual int32_t RemoveDir(char* physicalPath, uint32_t arg) = 0;
    /** The file's three time records; a null record is skipped. */
    virtual int32_t GetFileTime(char* physicalPath, FileTimeRecord* t0, FileTimeRecord* t1,
                                FileTimeRecord* t2) = 0;
    /** Sets the file's time records; a null record leaves that time unchanged. */
    virtual int32_t SetFileTime(char* physicalPath, const FileTimeRecord* t0,
                                const FileTimeRecord* t1, const FileTimeRecord* t2) = 0;
    /** Deletes a file. */
    virtual int32_t DeleteFile(char* physicalPath, uint32_t arg) = 0;
    /** A free listing object; null when the driver has no listing. */
    virtual DirObject* OpenDir() = 0;
    /** Information of kind what about the path (1: the device's status). */
    virtual int32_t QueryDeviceInfo(char* physicalPath, uint32_t what, uint32_t a, uint32_t b) = 0;
    /** A device-specific control code (zkControlDevice). */
    virtual int32_t ControlDevice(const char* name, uint32_t code, uint32_t a, uint32_t b) = 0;
    /** A partition's status (zkGetPartitionStatus). */
    virtual int32_t GetPartitionStatus(const char* name) = 0;
    /** Creates a partition (zkCreatePartition). */
    virtual int32_t CreatePartition(const char* name, uint32_t a, uint32_t b) = 0;
    /** Deletes a partition (zkDeletePartition). */
    virtual int32_t DeletePartition(const char* name) = 0;
    /** The unit a device name or physical path stands for (0 for one unit). */
    virtual int32_t GetUnit(const char* name) = 0;

protected:
    /** Not deleted through the interface. */
    ~DeviceDriver() = default;
};

} /* namespace zk */
/** A device driver as C code names it. */
typedef zk::DeviceDriver zkDeviceDriver;
#else
typedef struct zkDeviceDriver zkDeviceDriver;
#endif

/** Mount mode bit: upper-case (a to z) the part of a resolved path behind the mount path. */
#define ZK_MOUNT_UPPERCASE 0x20u

ZK_EXTERN_C_BEGIN

/**
 * @brief Appends a driver to the device table (16 entries).
 *
 * Lookups ask drivers in the order they were added, after the library's own.
 * @return 0; -3 for null; -19 when the table is full
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkRegisterDevice(zkDeviceDriver* driver);

/**
 * @brief Maps mountPath onto physicalPath, a device path some driver claims.
 * @param mountPath begins with '/'
 * @param physicalPath the device path
 * @param mode mount mode bits (ZK_MOUNT_UPPERCASE); 0 means 15
 * @return 0; -3 for a null argument; -43 for an empty mount path or one
 *         without a leading slash; -39 when 16 mounts exist; -26 for a path
 *         longer than 260; -23 when no driver claims the physical path; or the
 *         driver's refusal
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkMount(const char* mountPath, const char* physicalPath, uint32_t mode);
/**
 * @brief Removes the first mount of that path ("/" is removed only by zkUnmountAll).
 * @return 0; -3; -43; -42 when nothing is mounted there; or the driver's refusal
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkUnmount(const char* mountPath);
/**
 * @brief Removes every mount in table order.
 * @return 0; the first driver refusal, where it stops
 * @threads The main thread.
 */
ZK_API int32_t ZK_CALL zkUnmountAll(void);

/**
 * @brief Sends a control code to the driver claiming name.
 *
 * The device-level calls find the driver by name (ControlDevice, the
 * partition and try-count calls) or by resolving a path without the working
 * directory (Format, QueryDeviceInfo, GetDeviceStatus), and run it on the
 * calling thread.
 * @return -3 for a null argument; -23 when no driver claims it; else the driver's result
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkControlDevice(const char* name, uint32_t code, uint32_t a, uint32_t b);
/**
 * @brief Asks the driver claiming name for a partition's status.
 * @return -3; -23; else the driver's result
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkGetPartitionStatus(const char* name);
/**
 * @brief Asks the driver claiming name to create a partition (a, b: its arguments).
 * @return -3; -23; else the driver's result
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkCreatePartition(const char* name, uint32_t a, uint32_t b);
/**
 * @brief Asks the driver claiming name to delete a partition.
 * @return -3; -23; else the driver's result
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkDeletePartition(const char* name);
/**
 * @brief Asks the driver of the resolved path to format it.
 * @return -3; a resolution code (-23, -42, -33); else the driver's result
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkFormat(const char* path);
/**
 * @brief Asks the driver of the resolved path for information of kind what.
 * @return -3; a resolution code (-23, -42, -33); else the driver's result
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkQueryDeviceInfo(const char* path, uint32_t what, uint32_t a, uint32_t b);
/**
 * @brief zkQueryDeviceInfo(path, 1, 0, 0).
 * @return as zkQueryDeviceInfo
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkGetDeviceStatus(const char* path);
/**
 * @brief Sets the try count of the device claiming name.
 * @return the driver's answer; 0 for a null name or one no driver claims
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkSetDeviceTryCount(const char* name, uint32_t count);
/**
 * @brief The try count of the device claiming name.
 * @return the driver's answer; 0 for a null name or one no driver claims
 * @threads Any thread (see the group).
 */
ZK_API uint32_t ZK_CALL zkGetDeviceTryCount(const char* name);

/**
 * @brief Sets the working directory that relative paths are built on.
 *
 * One trailing separator is dropped; "/" makes it empty.
 * @param dir the directory; null or 260+ characters is ignored
 * @threads The main thread.
 */
ZK_API void ZK_CALL zkSetWorkDir(const char* dir);
/**
 * @brief The full path of path (the working directory in front of a relative path).
 *
 * Writes the path when outSize exceeds its length.
 * @return the length plus one in every case; 0 for a null argument
 * @threads Any thread (see the group).
 */
ZK_API uint32_t ZK_CALL zkGetFullPath(const char* path, char* out, uint32_t outSize);
/**
 * @brief Resolves path (mount or device path, no working directory) into out,
 * which may hold path itself.
 * @return the driver's conversion result; -3 for a null argument or outSize 0; -33 when
 *         out is too small; -42 when no mount matches; -23 when no driver
 *         claims the path
 * @threads Any thread (see the group).
 */
ZK_API int32_t ZK_CALL zkGetPhysicalPath(const char* path, char* out, uint32_t outSize);
/**
 * @brief Splits path into directory (through the last separator), name and
 * extension (from the last '.').
 *
 * Null or zero-size outputs are skipped.
 * @return 0; -3 for a null path; -33 when an output is too small
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkSplitPath(const char* path, char* dir, uint32_t dirSize, char* name,
                                   uint32_t nameSize, char* ext, uint32_t extSize);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_DEVICE_H */
