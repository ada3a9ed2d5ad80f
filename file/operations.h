// The I/O operation objects: one class per kind of file work. Each is built on
// its caller's stack (or in a request frame) with its try count taken from its
// driver, handed to the worker, and read by the caller after completion. The
// worker never allocates, copies or frees one.
#ifndef ZK_FILE_OPERATIONS_H
#define ZK_FILE_OPERATIONS_H

#include "file/device_table.h"
#include "file/io_worker.h"

#include <zk/device.h>

#include <cstdint>

namespace zk {

// The kinds a FileObject is asked about in IsImmediate.
enum ImmediateKind : int32_t {
    kImmediateOpen = 1,
    kImmediateClose = 2,
    kImmediateSize = 3,
    kImmediateSeek = 6,
};

class OpenOperation final : public IoOperation {
public:
    const char* KindName() const override { return "open"; }
    int32_t Outcome() const override { return result; }
    // Resolves fullPath and takes a file object from its driver. 0, or the
    // resolution code, or -19 without a file object (nothing to submit then).
    int32_t Build(const char* fullPath, uint32_t openFlags, uint32_t mode);
    int32_t IsImmediate() override { return file->IsImmediate(kImmediateOpen); }
    int32_t Execute() override;
    // After completion: a failed open gives its file object back.
    void Finish();

    DeviceDriver* device = nullptr;
    FileObject* file = nullptr;
    int32_t unit = 0;
    char physicalPath[kMaxPath] = {};
    uint32_t openFlags = 0;
    uint32_t mode = 0;
    int32_t result = 0;
    uint32_t tries = 0;

private:
    int32_t MakeParent();
};

class CloseOperation final : public IoOperation {
public:
    const char* KindName() const override { return "close"; }
    int32_t Outcome() const override { return result; }
    CloseOperation(FileObject* f, uint32_t t) : file(f), tries(t) {}
    int32_t IsImmediate() override { return file->IsImmediate(kImmediateClose); }
    int32_t Execute() override;

    FileObject* file;
    int32_t result = 0;
    uint32_t tries;
};

class GetSizeOperation final : public IoOperation {
public:
    const char* KindName() const override { return "size"; }
    int32_t Outcome() const override { return result; }
    GetSizeOperation(FileObject* f, uint32_t t) : file(f), tries(t) {}
    int32_t IsImmediate() override { return file->IsImmediate(kImmediateSize); }
    int32_t Execute() override;

    FileObject* file;
    int32_t result = 0;
    uint32_t size = 0;
    uint32_t tries;
};

class SeekOperation final : public IoOperation {
public:
    const char* KindName() const override { return "seek"; }
    int32_t Outcome() const override { return result; }
    SeekOperation(FileObject* f, int32_t o, uint32_t from, uint32_t t)
        : file(f), offset(o), origin(from), tries(t) {}
    int32_t IsImmediate() override { return file->IsImmediate(kImmediateSeek); }
    int32_t Execute() override;

    FileObject* file;
    int32_t offset;
    uint32_t origin;
    int32_t result = 0;
    uint32_t newPosition = 0;
    uint32_t tries;
};

class ReadOperation final : public IoOperation {
public:
    const char* KindName() const override { return "read"; }
    int32_t Outcome() const override { return result; }
    uint32_t Bytes() const override { return done; }
    ReadOperation(FileObject* f, void* b, uint32_t s, uint32_t t)
        : file(f), buffer(static_cast<uint8_t*>(b)), size(s), tries(t) {}
    int32_t IsImmediate() override { return 0; }
    int32_t Execute() override;

    FileObject* file;
    uint8_t* buffer;
    uint32_t size;
    int32_t result = 0;
    uint32_t done = 0;
    uint32_t tries;
};

class ReadAtOperation final : public IoOperation {
public:
    const char* KindName() const override { return "read at offset"; }
    int32_t Outcome() const override { return result; }
    uint32_t Bytes() const override { return done; }
    ReadAtOperation(FileObject* f, uint32_t o, void* b, uint32_t s, uint32_t fl, uint32_t t)
        : file(f), offset(o), buffer(static_cast<uint8_t*>(b)), size(s), flags(fl), tries(t) {}
    int32_t IsImmediate() override { return 0; }
    int32_t Execute() override;

    FileObject* file;
    uint32_t offset;
    uint8_t* buffer;
    uint32_t size;
    uint32_t flags;
    int32_t result = 0;
    uint32_t done = 0;
    uint32_t tries;
};

class WriteOperation final : public IoOperation {
public:
    const char* KindName() const override { return "write"; }
    int32_t Outcome() const override { return result; }
    uint32_t Bytes() const override { return done; }
    WriteOperation(FileObject* f, const void* b, uint32_t s, uint32_t t)
        : file(f), buffer(static_cast<const uint8_t*>(b)), size(s), tries(t) {}
    int32_t IsImmediate() override { return 0; }
    int32_t Execute() override;

    FileObject* file;
    const uint8_t* buffer;
    uint32_t size;
    int32_t result = 0;
    uint32_t done = 0;
    uint32_t tries;
};

// The two time operations resolve the open file's full path again when built.
class GetTimeOperation final : public IoOperation {
public:
    const char* KindName() const override { return "get time"; }
    int32_t Outcome() const override { return result; }
    // 0, or a resolution code (nothing to submit then).
    int32_t Build(DeviceDriver* device, const char* fullPath);
    int32_t IsImmediate() override { return 0; }
    int32_t Execute() override;

    DeviceDriver* device = nullptr;
    char physicalPath[kMaxPath];
    int32_t result = 0;
    FileTimeRecord t0{}, t1{}, t2{};
    uint32_t tries = 0;
};

class SetTimeOperation final : public IoOperation {
public:
    const char* KindName() const override { return "set time"; }
    int32_t Outcome() const override { return result; }
    int32_t Build(DeviceDriver* device, const char* fullPath, const FileTimeRecord* t0,
                  const FileTimeRecord* t1, const FileTimeRecord* t2);
    int32_t IsImmediate() override { return 0; }
    int32_t Execute() override;

    DeviceDriver* device = nullptr;
    char physicalPath[kMaxPath];
    int32_t result = 0;
    FileTimeRecord t0{}, t1{}, t2{};
    const FileTimeRecord* p0 = nullptr;
    const FileTimeRecord* p1 = nullptr;
    const FileTimeRecord* p2 = nullptr;
    uint32_t tries = 0;
};

} // namespace zk

#endif // ZK_FILE_OPERATIONS_H
