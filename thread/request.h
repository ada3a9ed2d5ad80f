// Requests: the application's handles on asynchronous operations, and the
// frame protocol that Begin and End functions and the executing thread share.
//
// A Begin function opens a RequestWriter on the request (which pushes a frame
// in the request's arena), Puts its parameters, Reserves room for its
// operation object and builds it there, hands the operation to an executor
// with the request as its CompletionTarget, and lets the writer go. The
// executing thread calls NotifyCompletion() once the operation has finished.
// The End function opens a RequestReader (it blocks until the frame is done),
// Gets and Reserves the same sizes in the same order, reads the results and
// lets the reader go, which pops the frame.
//
// Threads and locks: Begin, End, poll and wait run on the application's
// thread; NotifyCompletion runs on the executing thread. Frame states are
// written under the request's monitor, and frames are pushed and popped under
// it, so a completion never sees a half-changed stack. zkIsRequestCompleted
// reads a frame's state without the monitor (an atomic load). The manager's
// lists are not locked: create, release, initialise and update are called
// from the application's main thread.
#ifndef ZK_THREAD_REQUEST_H
#define ZK_THREAD_REQUEST_H

#include "thread/sync.h"

#include <zk/request.h>

#include <atomic>
#include <cstdint>

struct Request;

namespace zk {

// Told once that an operation has finished, successfully or not: on the
// executing thread, or on the caller's own thread when the operation ran at once.
class CompletionTarget {
public:
    virtual void NotifyCompletion() = 0;

protected:
    ~CompletionTarget() = default;
};

// Run on the application's thread when the frame it was installed on completes.
class Continuation {
public:
    virtual void Resume(::Request* request, uint32_t argument) = 0;

protected:
    ~Continuation() = default;
};

enum RequestFrameState : uint32_t {
    kFrameEmpty = 0,
    kFramePending = 1,
    kFrameCompleted = 2, // completed, its continuation still to run
    kFrameDone = 3,
};

struct RequestFrame {
    zkAddr data = 0;
    uint32_t size = 0;
    Continuation* continuation = nullptr;
    uint32_t argument = 0;
    std::atomic<uint32_t> state{kFrameEmpty};
    uint64_t timelineFlow = 0; // the frame's flow in a timeline recording, else 0
};

// A stack allocator over one fixed block: at most 8 live allocations,
// released in reverse order only.
class RequestArena {
public:
    static constexpr uint32_t kSlots = 8;

    void Initialize(zkAddr base, uint32_t size);
    // size rounded up to 16; null when it does not fit or 8 allocations are live.
    zkAddr Allocate(uint32_t size);
    // Undoes the most recent allocation if it was made with this size.
    void FreeLast(uint32_t size);
    zkAddr Base() const { return base_; }
    uint32_t LiveCount() const { return count_; }
    zkAddr Current() const { return current_; }

private:
    struct Slot {
        zkAddr address;
        uint32_t size;
    };
    Slot slots_[kSlots]{};
    zkAddr base_ = 0;
    zkAddr end_ = 0;
    zkAddr current_ = 0;
    uint32_t count_ = 0;
};

class RequestManager;
class RequestWriter;
class RequestReader;

} // namespace zk

// One request: a completion target with a stack of 4 frames in a 16384-byte
// arena. Exported request handles point at these.
struct Request final : zk::CompletionTarget {
    static constexpr uint32_t kFrames = 4;
    static constexpr uint32_t kArenaSize = 16384;

    // Marks the top frames completed, from the top down: a frame with a
    // continuation becomes completed-with-continuation and ends the walk, one
    // without becomes done. Wakes every waiter.
    void NotifyCompletion() override;
    // Blocks until frame `index` is done, running ready continuations on the
    // calling thread.
    void WaitForFrame(uint32_t index);
    // 1 when no operation is pending at the cursor, else 0.
    int32_t IsCompleted() const;
    // Runs the continuations of completed top frames (state 2).
    void RunReadyContinuations();

    uint32_t FrameCount() const { return frameCount; }
    uint32_t Cursor() const { return cursor; }
    uint32_t FrameState(uint32_t index) const {
        return frames[index].state.load(std::memory_order_acquire);
    }
    const zk::RequestArena& Arena() const { return arena; }

    zk::RequestManager* manager = nullptr;
    zk::Monitor monitor;
    zk::RequestFrame frames[kFrames];
    uint32_t frameCount = 0;
    uint32_t cursor = 0;
    zk::RequestArena arena;
    Request* previous = nullptr;
    Request* next = nullptr;

private:
    friend class zk::RequestManager;
    friend class zk::RequestWriter;
    friend class zk::RequestReader;
    void RunContinuationsFrom(uint32_t index);
    void RunOneContinuation(uint32_t index);
    void SetState(uint32_t index, uint32_t state) {
        frames[index].state.store(state, std::memory_order_release);
    }
};

namespace zk {

// The library's request pool: an array from the system pool, a free list and
// a doubly linked active list (new requests at the front).
class RequestManager {
public:
    // Start and stop of the library: cleared; at stop every request is released.
    void Startup();
    void Shutdown();
    bool IsStarted() const { return started_; }

    // 0, -54 before the library is started, -5 without memory.
    int32_t Initialize(uint32_t count);
    ::Request* Create();
    int32_t Release(::Request* request);
    void UpdateAll();

    uint32_t Count() const { return count_; }
    // Requests created and not yet released.
    uint32_t LiveCount() const { return live_; }
    // Whether request is one of the current array's records (taken or free):
    // a pointer from anywhere else, or into an array a later Initialize
    // replaced, is no request.
    bool Owns(const ::Request* request) const;

private:
    void ReleaseArray();
    void Unprepare(::Request* request);

    bool started_ = false;
    ::Request* requests_ = nullptr;
    uint32_t count_ = 0;
    uint32_t live_ = 0;
    ::Request* free_ = nullptr;
    ::Request* active_ = nullptr;
};

RequestManager& Requests();

// The shared layout of writers and readers: a cursor over one frame's data.
class RequestCursor {
public:
    int32_t Status() const { return status_; }
    // Null when n bytes do not fit; otherwise the old position, and the
    // position advances by n rounded up to 8.
    void* Reserve(uint32_t n);

protected:
    // Advances over n bytes (rounded up to 8) when they fit; the old position,
    // or 0 when they do not fit (nothing moves then).
    zkAddr Step(uint32_t n, bool* fits);

    int32_t status_ = 0;
    ::Request* request_ = nullptr;
    zkAddr position_ = 0;
    zkAddr end_ = 0;
};

// Opened by a Begin function: pushes a pending frame of `size` bytes. Its
// status is -55 for a null request, -56 when the request is released or
// already has an open operation (or all 4 frames are used), -5 when the arena
// is exhausted.
// Going out of scope ends its use: the cursor steps back, the frame stays pending.
class RequestWriter : public RequestCursor {
public:
    RequestWriter(::Request* request, uint32_t size);
    ~RequestWriter();
    RequestWriter(const RequestWriter&) = delete;
    RequestWriter& operator=(const RequestWriter&) = delete;

    // Copies n bytes from source into the frame; dropped when they do not fit.
    void Put(const void* source, uint32_t n);
    // Installs a continuation on the frame this writer pushed.
    void SetContinuation(Continuation* continuation, uint32_t argument);

private:
    uint32_t frame_ = 0;
};

// Opened by an End function: waits until the frame at the cursor is done.
// Its status is -55 for a null request, -56 when nothing is pending.
// Going out of scope ends its use: the frame is popped.
class RequestReader : public RequestCursor {
public:
    explicit RequestReader(::Request* request);
    ~RequestReader();
    RequestReader(const RequestReader&) = delete;
    RequestReader& operator=(const RequestReader&) = delete;

    // Copies n bytes of the frame to destination; nothing when they do not fit.
    void Get(void* destination, uint32_t n);
};

// A completion target for a caller that waits synchronously on its own monitor.
class CompletionWaiter final : public CompletionTarget {
public:
    void Initialize(Monitor* monitor) {
        monitor_ = monitor;
        done_ = 0;
    }
    void NotifyCompletion() override;
    // Blocks until waiter has been notified.
    static void WaitForCompletion(Monitor* monitor, CompletionWaiter* waiter);

private:
    Monitor* monitor_ = nullptr;
    uint32_t done_ = 0;
};

} // namespace zk

#endif // ZK_THREAD_REQUEST_H
