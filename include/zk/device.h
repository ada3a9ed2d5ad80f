/* QAX kernel: devices. The driver interfaces through which the file system
 * reaches storage, and the calls that register drivers and talk to them.
 *
 * A driver is a C++ object implementing DeviceDriver; it hands out one
 * FileObject per open file and one DirObject per directory listing. The order
 * of the virtual functions below is fixed (a driver compiled by an
 * application plugs in unchanged): never insert, remove or reorder them. A
 * driver class may add virtual functions after the last one for its own use.
 * Results are 0 or positive for success, a negative result code for failure;
 * a driver answers an operation it does not support with -6 (null for
 * OpenDir). The interfaces have no virtual destructor: drivers are static
 * objects that outlive the library, and the library never deletes them.
 */
#ifndef ZK_DEVICE_H
#define ZK_DEVICE_H

#include "config.h"

/* Three 32-bit words that the file system copies and never looks inside. */
typedef struct FileTimeRecord {
    uint32_t words[3];
} FileTimeRecord;

#ifdef __cplusplus
namespace zk {

/* One open file of one driver, created by DeviceDriver::CreateFileObject and
 * given back to its driver by its own Close. */
class FileObject {
public:
    /* Non-zero: an operation of this kind (1 open, 2 close, 3 size, 6 seek)
     * may run at once on the caller's thread instead of the I/O worker. */
    virtual int32_t IsImmediate(int32_t kind) = 0;
    /* -51: could not open (tried again while tries remain); -57: no such file. */
    virtual int32_t Open(const char* physicalPath, uint32_t openFlags, uint32_t mode) = 0;
    virtual int32_t Close() = 0;
    virtual int32_t GetSize(uint32_t* size) = 0;
    /* Reads at the current position; *got may be less than size (0 at the end). */
    virtual int32_t Read(void* buffer, uint32_t size, uint32_t* got, uint32_t flags) = 0;
    virtual int32_t ReadAt(uint32_t offset, void* buffer, uint32_t size, uint32_t* got,
                           uint32_t flags) = 0;
    virtual int32_t Write(const void* buffer, uint32_t size, uint32_t* written) = 0;
    /* origin ZK_SEEK_SET, ZK_SEEK_CUR or ZK_SEEK_END. */
    virtual int32_t Seek(int32_t offset, uint32_t origin, uint32_t* newPosition) = 0;

protected:
    ~FileObject() = default;
};

/* One directory listing, created by DeviceDriver::OpenDir. */
class DirObject {
public:
    /* physicalPath ends in the driver's separator. Negative fails zkOpenDir. */
    virtual int32_t Open(const char* physicalPath) = 0;
    /* Ends the listing and gives the object back to its driver. */
    virtual void Close() = 0;
    /* Fills the caller's entry record; zkReadDir returns this result. */
    virtual int32_t Read(void* entry) = 0;

protected:
    ~DirObject() = default;
};

class DeviceDriver {
public:
    /* 0 or positive claims the name; negative declines. */
    virtual int32_t MatchName(const char* name) = 0;
    /* Called once, on the first lookup the driver claims; negative: asked again next time. */
    virtual int32_t InitializeDevice() = 0;
    virtual void TerminateDevice() = 0;
    virtual int32_t Reserved3() = 0;
    /* Rewrites a resolved physical path in place; the result is the resolution's. */
    virtual int32_t ConvertPath(char* physicalPath, uint32_t capacity) = 0;
    /* Attempts per operation on the unit; 0xFFFFFFFF without limit, 0 like 1. */
    virtual uint32_t GetTryCount(int32_t unit) = 0;
    virtual int32_t SetTryCount(int32_t unit, uint32_t count) = 0;
    /* Null when the driver has no free file object (the open fails with -19). */
    virtual FileObject* CreateFileObject() = 0;
    virtual int32_t Reserved8(uint32_t* out) = 0;
    /* May rewrite the path (capacity 260). Negative other than -6 fails the mount. */
    virtual int32_t Mount(char* physicalPath, uint32_t capacity, uint32_t mode) = 0;
    virtual int32_t Unmount(char* physicalPath) = 0;
    virtual int32_t Format(char* physicalPath) = 0;
    virtual int32_t DumpDir(char* physicalPath, uint32_t arg) = 0;
    /* -51 means a parent directory is missing. */
    virtual int32_t MakeDir(char* physicalPath, uint32_t flags, uint32_t mode) = 0;
    virtual int32_t RemoveDir(char* physicalPath, uint32_t arg) = 0;
    virtual int32_t GetFileTime(char* physicalPath, FileTimeRecord* t0, FileTimeRecord* t1,
                                FileTimeRecord* t2) = 0;
    /* A null record leaves that time unchanged. */
    virtual int32_t SetFileTime(char* physicalPath, const FileTimeRecord* t0,
                                const FileTimeRecord* t1, const FileTimeRecord* t2) = 0;
    virtual int32_t DeleteFile(char* physicalPath, uint32_t arg) = 0;
    /* Null when the driver has no listing. */
    virtual DirObject* OpenDir() = 0;
    virtual int32_t QueryDeviceInfo(char* physicalPath, uint32_t what, uint32_t a, uint32_t b) = 0;
    virtual int32_t ControlDevice(const char* name, uint32_t code, uint32_t a, uint32_t b) = 0;
    virtual int32_t GetPartitionStatus(const char* name) = 0;
    virtual int32_t CreatePartition(const char* name, uint32_t a, uint32_t b) = 0;
    virtual int32_t DeletePartition(const char* name) = 0;
    /* The unit a device name or physical path stands for (0 for one unit). */
    virtual int32_t GetUnit(const char* name) = 0;

protected:
    ~DeviceDriver() = default;
};

} /* namespace zk */
typedef zk::DeviceDriver zkDeviceDriver;
#else
typedef struct zkDeviceDriver zkDeviceDriver;
#endif

/* Mount mode bit: upper-case (a to z) the part of a resolved path behind the mount path. */
#define ZK_MOUNT_UPPERCASE 0x20u

ZK_EXTERN_C_BEGIN

/* Appends a driver to the device table (16 entries); lookups ask drivers in
 * the order they were added, after the library's own. 0, -3 (null), -19 (full). */
ZK_API int32_t ZK_CALL zkRegisterDevice(zkDeviceDriver* driver);

/* Maps mountPath (beginning with '/') onto physicalPath, a device path some
 * driver claims. mode 0 means 15. 0, -3, -43 (empty or no leading slash),
 * -39 (16 mounts), -26 (longer than 260), -23 (no driver), or the driver's
 * refusal. */
ZK_API int32_t ZK_CALL zkMount(const char* mountPath, const char* physicalPath, uint32_t mode);
/* Removes the first mount of that path ("/" is removed only by zkUnmountAll).
 * 0, -3, -43, -42 (not mounted), or the driver's refusal. */
ZK_API int32_t ZK_CALL zkUnmount(const char* mountPath);
/* Removes every mount in table order; stops at the first driver refusal and returns it. */
ZK_API int32_t ZK_CALL zkUnmountAll(void);

/* The device-level calls: the driver is found by name (ControlDevice, the
 * partition and try-count calls) or by resolving a path without the working
 * directory (Format, QueryDeviceInfo, GetDeviceStatus). -3 for a null
 * argument, -23 when no driver claims it, else the driver's result. */
ZK_API int32_t ZK_CALL zkControlDevice(const char* name, uint32_t code, uint32_t a, uint32_t b);
/* Asks the driver claiming name for a partition's status. */
ZK_API int32_t ZK_CALL zkGetPartitionStatus(const char* name);
/* Asks the driver claiming name to create a partition (a, b: its arguments). */
ZK_API int32_t ZK_CALL zkCreatePartition(const char* name, uint32_t a, uint32_t b);
/* Asks the driver claiming name to delete a partition. */
ZK_API int32_t ZK_CALL zkDeletePartition(const char* name);
/* Asks the driver of the resolved path to format it. */
ZK_API int32_t ZK_CALL zkFormat(const char* path);
/* Asks the driver of the resolved path for information of kind what. */
ZK_API int32_t ZK_CALL zkQueryDeviceInfo(const char* path, uint32_t what, uint32_t a, uint32_t b);
/* zkQueryDeviceInfo(path, 1, 0, 0). */
ZK_API int32_t ZK_CALL zkGetDeviceStatus(const char* path);
/* The driver's answers; 0 for a null name or one no driver claims. */
ZK_API int32_t ZK_CALL zkSetDeviceTryCount(const char* name, uint32_t count);
/* The try count of the device claiming name. */
ZK_API uint32_t ZK_CALL zkGetDeviceTryCount(const char* name);

/* Sets the working directory that relative paths are built on (one trailing
 * separator dropped; "/" makes it empty). Null or 260+ characters: ignored. */
ZK_API void ZK_CALL zkSetWorkDir(const char* dir);
/* Writes the full path of path when outSize exceeds its length; returns the
 * length plus one in every case (0 for a null argument). */
ZK_API uint32_t ZK_CALL zkGetFullPath(const char* path, char* out, uint32_t outSize);
/* Resolves path (mount or device path, no working directory) into out, which
 * may hold path itself. The driver's conversion result, -3, -33, -42 or -23. */
ZK_API int32_t ZK_CALL zkGetPhysicalPath(const char* path, char* out, uint32_t outSize);
/* Splits path into directory (through the last separator), name and extension
 * (from the last '.'). Null or zero-size outputs are skipped. 0, -3, -33. */
ZK_API int32_t ZK_CALL zkSplitPath(const char* path, char* dir, uint32_t dirSize, char* name,
                                   uint32_t nameSize, char* ext, uint32_t extSize);

ZK_EXTERN_C_END

#endif /* ZK_DEVICE_H */
