// The request manager and the request exports.
//
// The manager's array comes from the system pool at zkInitializeRequest; each
// request's 16384-byte arena comes from it when the request is created and
// goes back when it is released. The lists are not locked: every manager call
// is made from the application's main thread.
#include "thread/request.h"

#include <zk/memory.h>
#include <zk/result.h>

#include <new>

namespace zk {

RequestManager& Requests() {
    static RequestManager manager;
    return manager;
}

void RequestManager::Startup() {
    requests_ = nullptr;
    count_ = 0;
    live_ = 0;
    free_ = nullptr;
    active_ = nullptr;
    started_ = true;
}

void RequestManager::Shutdown() {
    ReleaseArray();
    started_ = false;
}

// Returns the array, and the arena and monitor of every request still active,
// to the system pool.
void RequestManager::ReleaseArray() {
    for (::Request* r = active_; r; r = r->next)
        Unprepare(r);
    for (uint32_t i = 0; i < count_; ++i)
        requests_[i].~Request();
    if (requests_) zkFree(requests_);
    requests_ = nullptr;
    count_ = 0;
    live_ = 0;
    free_ = nullptr;
    active_ = nullptr;
}

int32_t RequestManager::Initialize(uint32_t count) {
    if (!started_) return ZK_ERR_REQUESTS_NOT_READY;
    // A second call replaces the first array, which goes back to the pool.
    ReleaseArray();
    if (count == 0) return 0;
    uint64_t bytes = uint64_t(count) * sizeof(::Request);
    if (bytes > 0xFFFFFFFFu) return ZK_ERR_NO_MEMORY;
    void* memory =
        zkAllocateSystemMemory(static_cast<uint32_t>(bytes), ZK_ALLOC_DEFAULT, ZK_CATEGORY_LIBRARY);
    if (!memory) return ZK_ERR_NO_MEMORY;
    requests_ = static_cast<::Request*>(memory);
    for (uint32_t i = 0; i < count; ++i)
        new (&requests_[i])::Request();
    for (uint32_t i = 0; i < count; ++i)
        requests_[i].next = i + 1 < count ? &requests_[i + 1] : nullptr;
    count_ = count;
    free_ = &requests_[0];
    active_ = nullptr;
    return 0;
}

bool RequestManager::Owns(const ::Request* r) const {
    if (!r || !requests_ || r < requests_ || r >= requests_ + count_) return false;
    return (reinterpret_cast<uintptr_t>(r) - reinterpret_cast<uintptr_t>(requests_)) %
               sizeof(::Request) ==
           0;
}

::Request* RequestManager::Create() {
    ::Request* r = free_;
    if (!r) return nullptr;
    void* arena =
        zkAllocateSystemMemory(::Request::kArenaSize, ZK_ALLOC_DEFAULT, ZK_CATEGORY_LIBRARY);
    if (!arena) return nullptr; // stays at the head of the free list
    r->manager = this;
    r->arena.Initialize(reinterpret_cast<zkAddr>(arena), ::Request::kArenaSize);
    r->monitor.Initialize();
    for (RequestFrame& frame : r->frames) {
        frame.data = 0;
        frame.size = 0;
        frame.continuation = nullptr;
        frame.argument = 0;
        frame.state.store(kFrameEmpty, std::memory_order_relaxed);
    }
    r->frameCount = 0;
    r->cursor = 0;
    free_ = r->next;
    r->previous = nullptr;
    r->next = active_;
    if (active_) active_->previous = r;
    active_ = r;
    ++live_;
    return r;
}

void RequestManager::Unprepare(::Request* r) {
    zkFree(reinterpret_cast<void*>(r->arena.Base()));
    r->arena.Initialize(0, 0);
    r->monitor.Destroy();
    r->frameCount = 0;
    r->cursor = 0;
    r->manager = nullptr;
}

int32_t RequestManager::Release(::Request* r) {
    if (!r) return ZK_ERR_NULL_REQUEST;
    if (!Owns(r) || r->manager != this) return 0; // not active: already released
    ::Request* next = r->next;
    Unprepare(r);
    if (r->previous)
        r->previous->next = next;
    else
        active_ = next;
    if (next) next->previous = r->previous;
    r->previous = nullptr;
    r->next = free_;
    free_ = r;
    if (live_ > 0) --live_;
    return 0;
}

void RequestManager::UpdateAll() {
    for (::Request* r = active_; r;) {
        ::Request* next = r->next; // a continuation may release r
        r->RunReadyContinuations();
        r = next;
    }
}

} // namespace zk

extern "C" ZK_API int32_t ZK_CALL zkInitializeRequest(uint32_t count) {
    return zk::Requests().Initialize(count);
}

extern "C" ZK_API Request* ZK_CALL zkCreateRequest(void) {
    return zk::Requests().Create();
}

extern "C" ZK_API int32_t ZK_CALL zkReleaseRequest(Request* request) {
    return zk::Requests().Release(request);
}

extern "C" ZK_API int32_t ZK_CALL zkIsRequestCompleted(Request* request) {
    return zk::Requests().Owns(request) ? request->IsCompleted() : 0;
}

extern "C" ZK_API int32_t ZK_CALL zkWaitForRequestCompletion(Request* request) {
    if (!request) return ZK_ERR_NULL_REQUEST;
    if (!zk::Requests().Owns(request) || request->Cursor() >= request->FrameCount())
        return ZK_ERR_REQUEST_STATE;
    request->WaitForFrame(request->Cursor());
    return 0;
}

extern "C" ZK_API void ZK_CALL zkUpdateAllRequests(void) {
    zk::Requests().UpdateAll();
}
