// The answers a driver gives for what it does not do, for the library's own
// drivers to inherit: the reserved slots succeed, formatting, listings, file
// times, deletion, device information and partitions answer -6 (no listing:
// null). A driver overrides what it supports.
#ifndef ZK_FILE_DRIVER_DEFAULTS_H
#define ZK_FILE_DRIVER_DEFAULTS_H

#include <zk/device.h>
#include <zk/result.h>

namespace zk {

class DriverDefaults : public DeviceDriver {
public:
    int32_t InitializeDevice() override { return ZK_OK; }
    void TerminateDevice() override {}
    int32_t Reserved3() override { return ZK_OK; }
    int32_t Reserved8(uint32_t* out) override {
        if (out) *out = 0;
        return ZK_OK;
    }
    int32_t Format(char*) override { return ZK_ERR_NOT_SUPPORTED; }
    int32_t DumpDir(char*, uint32_t) override { return ZK_ERR_NOT_SUPPORTED; }
    int32_t MakeDir(char*, uint32_t, uint32_t) override { return ZK_ERR_NOT_SUPPORTED; }
    int32_t RemoveDir(char*, uint32_t) override { return ZK_ERR_NOT_SUPPORTED; }
    int32_t GetFileTime(char*, FileTimeRecord*, FileTimeRecord*, FileTimeRecord*) override {
        return ZK_ERR_NOT_SUPPORTED;
    }
    int32_t SetFileTime(char*, const FileTimeRecord*, const FileTimeRecord*,
                        const FileTimeRecord*) override {
        return ZK_ERR_NOT_SUPPORTED;
    }
    int32_t DeleteFile(char*, uint32_t) override { return ZK_ERR_NOT_SUPPORTED; }
    DirObject* OpenDir() override { return nullptr; }
    int32_t QueryDeviceInfo(char*, uint32_t, uint32_t, uint32_t) override {
        return ZK_ERR_NOT_SUPPORTED;
    }
    int32_t ControlDevice(const char*, uint32_t, uint32_t, uint32_t) override {
        return ZK_ERR_NOT_SUPPORTED;
    }
    int32_t GetPartitionStatus(const char*) override { return ZK_ERR_NOT_SUPPORTED; }
    int32_t CreatePartition(const char*, uint32_t, uint32_t) override {
        return ZK_ERR_NOT_SUPPORTED;
    }
    int32_t DeletePartition(const char*) override { return ZK_ERR_NOT_SUPPORTED; }

protected:
    ~DriverDefaults() = default;
};

} // namespace zk

#endif
