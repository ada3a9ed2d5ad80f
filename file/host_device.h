// The host device: the driver through which the library reaches the host's
// own files. It claims drive paths (a letter and a colon), network paths (two
// backslashes first) and every name without a colon; each operation on one of
// its files is one call of the platform file layer (platform/file.h).
#ifndef ZK_FILE_HOST_DEVICE_H
#define ZK_FILE_HOST_DEVICE_H

#include <zk/device.h>

#include <cstdint>

namespace zk {

// The host driver, a static instance. Each call counts as fetching the driver
// for registration: the driver's flag word becomes 1.
DeviceDriver* HostDeviceDriver();

// For a whole-file load of which rest bytes remain: how much to ask the
// worker for next. When the rest of a host file is cached already, all of
// it; otherwise at most part bytes, first brought into the system's file
// cache on the calling thread, so that the worker's read copies from memory
// instead of waiting for the disk while other operations queue behind it.
// Any other file object: all of the rest, nothing done. The caller owns the
// file and has no operation of it in flight.
uint32_t HostCacheAhead(FileObject* file, uint32_t rest, uint32_t part);

// The number of host file objects; CreateFileObject answers null while all are
// handed out.
constexpr uint32_t kHostFileCount = 32;

} // namespace zk

#endif // ZK_FILE_HOST_DEVICE_H
