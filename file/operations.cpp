// The steps of the I/O operations. Execute returns 0 when the operation has
// finished and non-zero to run again: after a failure with tries left, or
// after a piece of a transfer (the next piece waits its turn in the queue).
#include "file/operations.h"

#include <zk/file.h>
#include <zk/result.h>

#include <cstring>

namespace zk {

namespace {

// A failed driver call: run again while tries remain, else keep the failure.
int32_t Failed(int32_t code, int32_t* result, uint32_t* tries) {
    *result = code;
    return ConsumeTry(*tries) ? 1 : 0;
}

// One piece of a read: the driver delivered got bytes of what remained.
// A driver that claims more than it was asked for fails the read; the bytes
// counted so far stay counted.
int32_t ReadPiece(int32_t r, uint32_t got, uint32_t size, uint32_t* done, int32_t* result,
                  uint32_t* tries) {
    if (r < 0) return Failed(r, result, tries);
    if (got > size - *done) {
        *result = ZK_ERR_HOST_READ;
        return 0;
    }
    *done += got;
    *result = r;
    return (*done < size && got != 0) ? 1 : 0;
}

} // namespace

int32_t OpenOperation::Build(const char* fullPath, uint32_t flags, uint32_t openMode) {
    openFlags = flags;
    mode = openMode;
    result = ResolvePath(fullPath, physicalPath, kMaxPath, &device);
    if (result < 0 || !device) {
        device = nullptr;
        file = nullptr;
        unit = 0;
        return result < 0 ? result : ZK_ERR_NO_DEVICE;
    }
    unit = device->GetUnit(physicalPath);
    tries = device->GetTryCount(unit);
    file = device->CreateFileObject();
    return file ? ZK_OK : ZK_ERR_NO_SLOT;
}

// Makes the parent of physicalPath (cut at its last slash) with its parents.
int32_t OpenOperation::MakeParent() {
    char* slash = std::strrchr(physicalPath, '/');
    if (!slash) return ZK_OK;
    *slash = '\0';
    const int32_t r = device->MakeDir(physicalPath, ZK_MAKEDIR_PARENTS, mode);
    *slash = '/';
    return r;
}

int32_t OpenOperation::Execute() {
    int32_t r = file->Open(physicalPath, openFlags, mode);
    if (r == ZK_ERR_OPEN_FAILED && (openFlags & (ZK_OPEN_CREATE | ZK_OPEN_CREATE_ALT))) {
        r = MakeParent();
        if (r >= 0) r = file->Open(physicalPath, openFlags, mode);
    }
    if (r >= 0) {
        result = r;
        return 0;
    }
    if (r == ZK_ERR_NO_SUCH_FILE) {
        result = ZK_ERR_OPEN_FAILED;
        return 0;
    }
    return Failed(r, &result, &tries);
}

void OpenOperation::Finish() {
    if (result < 0 && file) {
        file->Close();
        file = nullptr;
    }
}

int32_t CloseOperation::Execute() {
    const int32_t r = file->Close();
    if (r < 0) return Failed(r, &result, &tries);
    result = r;
    return 0;
}

int32_t GetSizeOperation::Execute() {
    const int32_t r = file->GetSize(&size);
    if (r < 0) return Failed(r, &result, &tries);
    result = r;
    return 0;
}

int32_t SeekOperation::Execute() {
    const int32_t r = file->Seek(offset, origin, &newPosition);
    if (r < 0) return Failed(r, &result, &tries);
    result = r;
    return 0;
}

int32_t ReadOperation::Execute() {
    uint32_t got = 0;
    const int32_t r = file->Read(buffer + done, size - done, &got, 0);
    return ReadPiece(r, got, size, &done, &result, &tries);
}

int32_t ReadAtOperation::Execute() {
    uint32_t got = 0;
    const int32_t r = file->ReadAt(offset + done, buffer + done, size - done, &got, flags);
    return ReadPiece(r, got, size, &done, &result, &tries);
}

// A driver that reports success with nothing written, or more than it was
// given, fails the write instead of being asked again without end.
int32_t WriteOperation::Execute() {
    uint32_t written = 0;
    const int32_t r = file->Write(buffer + done, size - done, &written);
    if (r < 0) return Failed(r, &result, &tries);
    if (written == 0 || written > size - done) {
        result = ZK_ERR_HOST_WRITE;
        return 0;
    }
    done += written;
    result = r;
    return done < size ? 1 : 0;
}

namespace {

// The physical path of an open file, resolved again; the tries of its unit.
int32_t ResolveForTime(DeviceDriver* device, const char* fullPath, char* physicalPath,
                       uint32_t* tries) {
    DeviceDriver* resolved = nullptr;
    const int32_t r = ResolvePath(fullPath, physicalPath, kMaxPath, &resolved);
    if (r < 0) return r;
    *tries = device->GetTryCount(device->GetUnit(physicalPath));
    return ZK_OK;
}

} // namespace

int32_t GetTimeOperation::Build(DeviceDriver* driver, const char* fullPath) {
    device = driver;
    return ResolveForTime(device, fullPath, physicalPath, &tries);
}

int32_t GetTimeOperation::Execute() {
    const int32_t r = device->GetFileTime(physicalPath, &t0, &t1, &t2);
    if (r < 0) return Failed(r, &result, &tries);
    result = r;
    return 0;
}

int32_t SetTimeOperation::Build(DeviceDriver* driver, const char* fullPath, const FileTimeRecord* a,
                                const FileTimeRecord* b, const FileTimeRecord* c) {
    device = driver;
    if (a) t0 = *a, p0 = &t0;
    if (b) t1 = *b, p1 = &t1;
    if (c) t2 = *c, p2 = &t2;
    return ResolveForTime(device, fullPath, physicalPath, &tries);
}

int32_t SetTimeOperation::Execute() {
    const int32_t r = device->SetFileTime(physicalPath, p0, p1, p2);
    if (r < 0) return Failed(r, &result, &tries);
    result = r;
    return 0;
}

} // namespace zk
