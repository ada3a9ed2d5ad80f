// Asynchronous file calls and whole-file loading.
//
// Begin functions build the same operations as the synchronous calls, inside
// a frame of the caller's request, and hand them to the I/O worker with the
// request as the completion target; End functions wait for the frame and read
// the operation's results back. A failure found after the frame was pushed is
// delivered through the End function (the Begin completes the frame itself),
// so every successful Begin is matched by exactly one completion.
//
// Whole-file loads run the synchronous calls, on the caller's thread or on a
// loading thread of their own (a BackgroundLoad, from the system pool, hung on
// the file handle until zkCloseFile).
//
// Locks: none of their own; the worker's monitors are taken inside the calls
// used here. A read counts itself pending on its handle from Begin until the
// worker completes it, and a close waits for that count to reach 0.
//
// Threads: Begin/End and the loading calls run on the application's threads;
// the operations run on the worker (or at once, for kinds a driver declares
// immediate); a background load runs on its own thread.
#include "file/file_system.h"
#include "file/host_device.h"
#include "file/operations.h"
#include "kernel/timeline.h"
#include "thread/request.h"
#include "thread/thread.h"

#include <zk/file.h>
#include <zk/memory.h>
#include <zk/result.h>
#include <zk/thread.h>

#include <atomic>
#include <new>

namespace zk {

class BackgroundLoad {
public:
    // Until the loading thread has run: a thread the system refused after
    // it was started ends without running, and its load reports no thread.
    int32_t result = ZK_ERR_NO_SLOT;
    FileHandle* handle = nullptr;
    ThreadRecord* thread = nullptr;
    void* data = nullptr;
    uint32_t size = 0;
};

namespace {

constexpr uint32_t kFrameSize = 4096;
constexpr uint32_t kLoaderStackSize = 4096;
// How much of a whole-file load one read asks for.
constexpr uint32_t kLoadPart = 1u << 20;

// The first item of an open's frame: the handle taken at Begin and the code
// that stands for the open when no handle could be taken.
struct OpenItem {
    FileHandle* handle;
    int32_t code;
};

// Queues operation with request (or completion, which tells the request) as
// its completion target. When the worker cannot take it, the failure becomes
// the operation's result and the frame completes here.
template <typename Operation>
void SubmitOrComplete(Operation* operation, ::Request* request,
                      CompletionTarget* completion = nullptr) {
    if (request->frameCount != 0)
        operation->traceFlow = request->frames[request->frameCount - 1].timelineFlow;
    CompletionTarget* target = completion ? completion : request;
    const int32_t submitted = Files().Worker().Submit(operation, target, 1);
    if (submitted < 0) {
        operation->result = submitted;
        target->NotifyCompletion();
    }
}

// An asynchronous read's completion, in the frame after the read: the read
// no longer counts as pending on its handle (so a close waiting for it goes
// on), then the request is told.
class PendingRead final : public CompletionTarget {
public:
    PendingRead(FileHandle* handle, ::Request* request) : handle_(handle), request_(request) {
        handle_->pendingReads.fetch_add(1, std::memory_order_acq_rel);
    }
    void NotifyCompletion() override {
        ::Request* request = request_;
        handle_->pendingReads.fetch_sub(1, std::memory_order_acq_rel);
        request->NotifyCompletion();
    }

private:
    FileHandle* handle_;
    ::Request* request_;
};

void* Allocate(uint32_t size) {
    return zkAllocateSystemMemory(size, ZK_ALLOC_DEFAULT, ZK_CATEGORY_LIBRARY);
}

// Opens the handle's file, reads all of it into a new system-pool block and
// closes the file again (the handle stays allocated). An empty file gives 0
// with no data. A read that delivers nothing before the size is reached (the
// file shrank) ends the load with -11 instead of asking again for ever.
int32_t LoadWholeFile(FileHandle* handle, void** data, uint32_t* size) {
    uint8_t* bytes = nullptr;
    uint32_t total = 0;
    int32_t result = Files().OpenHandle(handle, ZK_OPEN_READ, 0);
    if (result >= 0) result = zkGetFileSize(handle, &total);
    if (result >= 0 && total != 0) {
        bytes = static_cast<uint8_t*>(Allocate(total));
        if (!bytes) result = ZK_ERR_NO_MEMORY;
        for (uint32_t done = 0; bytes && done < total;) {
            // A host file not cached yet comes part by part, each brought
            // into the system's cache on this thread first, so the worker
            // copies it from memory rather than waiting on the disk with the
            // application's operations queued behind.
            const uint32_t part = HostCacheAhead(handle->file, total - done, kLoadPart);
            uint32_t got = 0;
            result = zkReadFile(handle, bytes + done, part, &got);
            if (result >= 0 && got == 0) result = ZK_ERR_SHORT_READ;
            if (result < 0) break;
            done += got;
        }
    }
    if (result < 0) {
        if (bytes) zkFree(bytes);
        bytes = nullptr;
        total = 0;
    } else if (total == 0) {
        bytes = nullptr;
    }
    Files().CloseHandleFile(handle);
    *data = bytes;
    *size = total;
    return result;
}

void ZK_CALL RunBackgroundLoad(void* argument) {
    BackgroundLoad* job = static_cast<BackgroundLoad*>(argument);
    // Its operations are bulk work: they leave nodes to the application.
    SetBulkSubmitter(true);
    timeline::NameThread("background load");
    timeline::Scope scope("file", "background load");
    scope.SetText("path", job->handle->fullPath);
    void* data = nullptr;
    uint32_t size = 0;
    const int32_t result = LoadWholeFile(job->handle, &data, &size);
    scope.Set("bytes", size);
    scope.Set("result", result);
    job->data = data;
    job->size = size;
    job->result = result;
    SetBulkSubmitter(false);
}

// A handle that the table gave out and that is in use.
bool InUse(const FileHandle* handle) {
    return Files().InUse(handle);
}

// The handle's background load; termination may take it away at any moment.
BackgroundLoad* JobOf(const FileHandle* handle) {
    return std::atomic_ref<BackgroundLoad*>(const_cast<FileHandle*>(handle)->backgroundLoad)
        .load(std::memory_order_acquire);
}

} // namespace

void ReleaseBackgroundLoad(FileHandle* handle) {
    // Taken out of the handle in one step: termination and the handle's own
    // close may both get here, and only one of them frees the job.
    BackgroundLoad* job = std::atomic_ref<BackgroundLoad*>(handle->backgroundLoad)
                              .exchange(nullptr, std::memory_order_acq_rel);
    if (!job) return;
    if (job->thread) zkReleaseThread(job->thread); // waits until the load has ended
    if (job->data) zkFree(job->data);
    zkFree(job);
}

} // namespace zk

using zk::Files;
using zk::RequestReader;
using zk::RequestWriter;

extern "C" ZK_API int32_t ZK_CALL zkBeginOpenFile(const char* path, uint32_t openFlags,
                                                  uint32_t mode, Request* request) {
    zk::timeline::Scope scope("file", "zkBeginOpenFile");
    scope.SetText("path", path);
    RequestWriter writer(request, zk::kFrameSize);
    if (writer.Status() < 0) return writer.Status();
    zk::OpenItem item{nullptr, ZK_ERR_INVALID_ARGUMENT};
    if (path) {
        item.handle = Files().AllocateHandle(path);
        item.code = item.handle ? ZK_OK : ZK_ERR_NO_SLOT;
    }
    writer.Put(&item, sizeof(item));
    if (!item.handle) {
        request->NotifyCompletion();
        return writer.Status();
    }
    auto* open = new (writer.Reserve(sizeof(zk::OpenOperation))) zk::OpenOperation();
    // An empty full path is one that did not fit its buffer.
    const int32_t built = item.handle->fullPath[0]
                              ? open->Build(item.handle->fullPath, openFlags, mode)
                              : ZK_ERR_BUFFER_TOO_SMALL;
    zk::SetDeviceName(item.handle, open->physicalPath);
    open->traceHandle = item.handle;
    if (built < 0) {
        open->result = built;
        request->NotifyCompletion();
    } else {
        zk::SubmitOrComplete(open, request);
    }
    return writer.Status();
}

extern "C" ZK_API int32_t ZK_CALL zkEndOpenFile(FileHandle** handle, Request* request) {
    zk::timeline::Scope scope("file", "zkEndOpenFile");
    RequestReader reader(request);
    if (reader.Status() < 0) {
        if (handle) *handle = nullptr;
        return reader.Status();
    }
    zk::OpenItem item{nullptr, 0};
    reader.Get(&item, sizeof(item));
    FileHandle* h = item.handle;
    int32_t result = item.code;
    if (h) {
        auto* open = static_cast<zk::OpenOperation*>(reader.Reserve(sizeof(zk::OpenOperation)));
        open->Finish();
        h->device = open->device;
        zk::SetFile(h, open->file);
        h->unit = open->unit;
        result = open->result;
        if (result < 0) {
            zkCloseFile(h);
            h = nullptr;
        }
    }
    if (!handle) {
        if (h) zkCloseFile(h);
        return ZK_ERR_INVALID_ARGUMENT;
    }
    *handle = h;
    return result;
}

extern "C" ZK_API int32_t ZK_CALL zkBeginCloseFile(FileHandle* handle, Request* request) {
    zk::timeline::Scope scope("file", "zkBeginCloseFile");
    RequestWriter writer(request, zk::kFrameSize);
    if (writer.Status() < 0) return writer.Status();
    writer.Put(&handle, sizeof(handle));
    if (!handle) {
        request->NotifyCompletion();
        return writer.Status();
    }
    // Nothing to close completes at once, without a driver call: a handle
    // not in use (the End reports -4), one without an open file, and one
    // whose background load owns the file (its loading thread closes it; the
    // End waits for that thread).
    const bool inUse = zk::InUse(handle);
    // A read still pending on the handle finishes first: the close is queued
    // behind it, and the file object is never handed on while it reads.
    if (inUse) zk::FileSystem::WaitForPendingReads(handle);
    zk::FileObject* file = inUse && !zk::JobOf(handle) ? handle->file : nullptr;
    auto* close = new (writer.Reserve(sizeof(zk::CloseOperation)))
        zk::CloseOperation(file, file ? Files().TriesOf(handle) : 0);
    if (file) {
        close->traceHandle = handle;
        scope.SetText("path", handle->fullPath);
    }
    if (!file) {
        close->result = inUse ? ZK_OK : ZK_ERR_INVALID_HANDLE;
        request->NotifyCompletion();
    } else {
        zk::SubmitOrComplete(close, request);
    }
    return writer.Status();
}

extern "C" ZK_API int32_t ZK_CALL zkEndCloseFile(Request* request) {
    zk::timeline::Scope scope("file", "zkEndCloseFile");
    RequestReader reader(request);
    if (reader.Status() < 0) return reader.Status();
    FileHandle* handle = nullptr;
    reader.Get(&handle, sizeof(handle));
    if (!handle) return ZK_ERR_INVALID_HANDLE;
    auto* close = static_cast<zk::CloseOperation*>(reader.Reserve(sizeof(zk::CloseOperation)));
    const int32_t result = close->result;
    if (!close->file && result == ZK_ERR_INVALID_HANDLE) return result; // not in use at Begin
    // A running background load closes its own file: it is waited for first.
    // Then the handle goes back as zkCloseFile would.
    zk::ReleaseBackgroundLoad(handle);
    zk::SetFile(handle, nullptr);
    handle->device = nullptr;
    Files().ReleaseHandle(handle);
    return result;
}

extern "C" ZK_API int32_t ZK_CALL zkBeginReadFile(FileHandle* handle, void* buffer, uint32_t size,
                                                  Request* request) {
    zk::timeline::Scope scope("file", "zkBeginReadFile");
    scope.Set("size", size);
    RequestWriter writer(request, zk::kFrameSize);
    if (writer.Status() < 0) return writer.Status();
    writer.Put(&handle, sizeof(handle));
    if (!handle) {
        request->NotifyCompletion();
        return writer.Status();
    }
    int32_t check = zk::FileSystem::Check(handle);
    if (check >= 0 && !buffer) check = ZK_ERR_INVALID_ARGUMENT;
    auto* read = new (writer.Reserve(sizeof(zk::ReadOperation))) zk::ReadOperation(
        check < 0 ? nullptr : handle->file, buffer, size, check < 0 ? 0 : Files().TriesOf(handle));
    if (check >= 0) {
        read->traceHandle = handle;
        scope.SetText("path", handle->fullPath);
    }
    if (check < 0) {
        read->result = check;
        request->NotifyCompletion();
    } else {
        auto* pending =
            new (writer.Reserve(sizeof(zk::PendingRead))) zk::PendingRead(handle, request);
        zk::SubmitOrComplete(read, request, pending);
    }
    return writer.Status();
}

extern "C" ZK_API int32_t ZK_CALL zkEndReadFile(uint32_t* got, Request* request) {
    zk::timeline::Scope scope("file", "zkEndReadFile");
    RequestReader reader(request);
    if (reader.Status() < 0) return reader.Status();
    FileHandle* handle = nullptr;
    reader.Get(&handle, sizeof(handle));
    if (!handle) {
        if (got) *got = 0;
        return ZK_ERR_INVALID_HANDLE;
    }
    auto* read = static_cast<zk::ReadOperation*>(reader.Reserve(sizeof(zk::ReadOperation)));
    // A driver that claims more than was asked is held to the buffer's size.
    const uint32_t done = read->done > read->size ? read->size : read->done;
    if (got) *got = done;
    Files().AddBytesRead(done);
    scope.Set("bytes", done);
    scope.Set("result", read->result);
    return read->result;
}

extern "C" ZK_API int32_t ZK_CALL zkLoadDataFromFile(const char* path, void** data,
                                                     uint32_t* size) {
    if (!path || !data || !size) return ZK_ERR_INVALID_ARGUMENT;
    zk::timeline::Scope scope("file", "zkLoadDataFromFile");
    scope.SetText("path", path);
    FileHandle* handle = Files().AllocateHandle(path);
    if (!handle) return ZK_ERR_NO_SLOT;
    const int32_t result = zk::LoadWholeFile(handle, data, size);
    scope.Set("bytes", *size);
    scope.Set("result", result);
    zkCloseFile(handle);
    return result;
}

extern "C" ZK_API FileHandle* ZK_CALL zkStartLoadingDataFromFile(const char* path) {
    if (!path) return nullptr;
    FileHandle* handle = Files().AllocateHandle(path);
    if (!handle) return nullptr;
    auto* job = static_cast<zk::BackgroundLoad*>(zk::Allocate(sizeof(zk::BackgroundLoad)));
    if (job) {
        new (job) zk::BackgroundLoad();
        job->handle = handle;
        std::atomic_ref<zk::BackgroundLoad*>(handle->backgroundLoad)
            .store(job, std::memory_order_release);
        job->thread = zk::CreateReusableThread(zk::kLoaderStackSize);
    }
    if (!job || !job->thread || zkStartThread(job->thread, zk::RunBackgroundLoad, job) < 0) {
        zkCloseFile(handle); // releases the job and its thread record
        return nullptr;
    }
    return handle;
}

extern "C" ZK_API uint32_t ZK_CALL zkIsFileProcessing(FileHandle* handle) {
    zk::BackgroundLoad* job = zk::InUse(handle) ? zk::JobOf(handle) : nullptr;
    if (!job || !job->thread) return 0;
    return zkIsThreadRunning(job->thread) > 0 ? 1u : 0u;
}

extern "C" ZK_API int32_t ZK_CALL zkGetLoadedData(FileHandle* handle, void** data, uint32_t* size) {
    zk::BackgroundLoad* job = zk::InUse(handle) ? zk::JobOf(handle) : nullptr;
    if (!job) return ZK_ERR_INVALID_HANDLE;
    if (!data || !size) return ZK_ERR_INVALID_ARGUMENT;
    // Called while the thread still runs, this hands out nothing yet.
    if (zkIsThreadRunning(job->thread) > 0) {
        *data = nullptr;
        *size = 0;
        return ZK_OK;
    }
    *data = job->data;
    *size = job->size;
    job->data = nullptr;
    job->size = 0;
    return job->result;
}

extern "C" ZK_API void ZK_CALL zkFreeData(void* data) {
    zkFree(data);
}
