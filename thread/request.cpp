// The request frame protocol: the arena, completion and the continuation
// walk, the writer and reader cursors, and the synchronous completion waiter.
#include "thread/request.h"

#include "kernel/timeline.h"
#include "thread/spin.h"

#include <zk/result.h>

#include <cstring>

namespace zk {
namespace {

constexpr uint32_t RoundUp(uint32_t n, uint32_t step) {
    return (n + step - 1) & ~(step - 1);
}

} // namespace

// ---- arena --------------------------------------------------------------------

void RequestArena::Initialize(zkAddr base, uint32_t size) {
    for (Slot& slot : slots_)
        slot = Slot{0, 0};
    base_ = base;
    end_ = base + size;
    current_ = base;
    count_ = 0;
}

zkAddr RequestArena::Allocate(uint32_t size) {
    uint32_t rounded = RoundUp(size, 16);
    if (count_ >= kSlots || rounded > end_ - current_) return 0;
    slots_[count_++] = Slot{current_, size};
    zkAddr address = current_;
    current_ += rounded;
    return address;
}

void RequestArena::FreeLast(uint32_t size) {
    if (count_ == 0 || slots_[count_ - 1].size != size) return;
    --count_;
    current_ = slots_[count_].address;
    slots_[count_] = Slot{0, 0};
}

// ---- cursors ------------------------------------------------------------------

zkAddr RequestCursor::Step(uint32_t n, bool* fits) {
    *fits = position_ + n <= end_ && position_ + n >= position_;
    if (!*fits) return 0;
    zkAddr old = position_;
    position_ += RoundUp(n, 8);
    return old;
}

void* RequestCursor::Reserve(uint32_t n) {
    bool fits = false;
    zkAddr old = Step(n, &fits);
    return fits ? reinterpret_cast<void*>(old) : nullptr;
}

RequestWriter::RequestWriter(::Request* request, uint32_t size) {
    request_ = request;
    if (!request) {
        status_ = ZK_ERR_NULL_REQUEST;
        return;
    }
    // A released request has no arena: it is refused like one whose state
    // does not allow a new operation.
    if (!Requests().Owns(request) || !request->manager || request->cursor != request->frameCount ||
        request->frameCount >= ::Request::kFrames) {
        status_ = ZK_ERR_REQUEST_STATE;
        return;
    }
    zkAddr data = request->arena.Allocate(size);
    if (!data) {
        status_ = ZK_ERR_NO_MEMORY;
        return;
    }
    frame_ = request->frameCount;
    RequestFrame& frame = request->frames[frame_];
    request->monitor.Enter();
    frame.data = data;
    frame.size = size;
    frame.continuation = nullptr;
    frame.argument = 0;
    frame.timelineFlow = timeline::On() ? timeline::NewId() : 0;
    request->SetState(frame_, kFramePending);
    ++request->frameCount;
    request->monitor.Leave();
    timeline::FlowPoint("request begin", timeline::kFlowStart, frame.timelineFlow);
    ++request->cursor;
    position_ = data;
    end_ = data + size;
    status_ = 0;
}

RequestWriter::~RequestWriter() {
    if (status_ >= 0 && request_->cursor > 0) --request_->cursor;
}

void RequestWriter::Put(const void* source, uint32_t n) {
    bool fits = false;
    zkAddr old = Step(n, &fits);
    if (fits && old != 0) std::memcpy(reinterpret_cast<void*>(old), source, n);
}

void RequestWriter::SetContinuation(Continuation* continuation, uint32_t argument) {
    if (status_ < 0) return;
    request_->monitor.Enter();
    request_->frames[frame_].continuation = continuation;
    request_->frames[frame_].argument = argument;
    request_->monitor.Leave();
}

RequestReader::RequestReader(::Request* request) {
    request_ = request;
    if (!request) {
        status_ = ZK_ERR_NULL_REQUEST;
        return;
    }
    if (!Requests().Owns(request) || request->cursor >= request->frameCount) {
        status_ = ZK_ERR_REQUEST_STATE;
        return;
    }
    uint32_t index = request->cursor;
    request->WaitForFrame(index);
    if (index >= request->frameCount) { // popped by a continuation meanwhile
        status_ = ZK_ERR_REQUEST_STATE;
        return;
    }
    ++request->cursor;
    position_ = request->frames[index].data;
    end_ = position_ + request->frames[index].size;
    status_ = 0;
    timeline::FlowPoint("request end", timeline::kFlowEnd, request->frames[index].timelineFlow);
}

RequestReader::~RequestReader() {
    if (status_ < 0) return;
    ::Request* request = request_;
    // Only the top frame is popped, and only when the cursor stands on it.
    if (request->cursor == 0 || request->cursor != request->frameCount) return;
    uint32_t top = request->frameCount - 1;
    RequestFrame& frame = request->frames[top];
    request->monitor.Enter();
    request->arena.FreeLast(frame.size);
    frame.data = 0;
    frame.size = 0;
    frame.continuation = nullptr;
    request->SetState(top, kFrameEmpty);
    --request->frameCount;
    request->monitor.Leave();
    --request->cursor;
}

void RequestReader::Get(void* destination, uint32_t n) {
    bool fits = false;
    zkAddr old = Step(n, &fits);
    if (fits && old != 0) std::memcpy(destination, reinterpret_cast<const void*>(old), n);
}

// ---- synchronous waiter -----------------------------------------------------------

void CompletionWaiter::NotifyCompletion() {
    Monitor* monitor = monitor_;
    monitor->Enter();
    done_ = 1;
    monitor->WakeAll();
    monitor->Leave();
}

void CompletionWaiter::WaitForCompletion(Monitor* monitor, CompletionWaiter* waiter) {
    monitor->Enter();
    while (!waiter->done_)
        monitor->Wait();
    monitor->Leave();
}

} // namespace zk

// ---- completion and continuations --------------------------------------------------

void Request::NotifyCompletion() {
    monitor.Enter();
    if (frameCount != 0)
        zk::timeline::FlowPoint("request completed", zk::timeline::kFlowStep,
                                frames[frameCount - 1].timelineFlow);
    for (uint32_t i = frameCount; i-- > 0;) {
        if (frames[i].continuation) {
            SetState(i, zk::kFrameCompleted);
            break;
        }
        SetState(i, zk::kFrameDone);
    }
    monitor.WakeAll();
    monitor.Leave();
}

int32_t Request::IsCompleted() const {
    if (cursor >= frameCount) return 1;
    return FrameState(cursor) != zk::kFramePending ? 1 : 0;
}

void Request::WaitForFrame(uint32_t index) {
    // The awaited frame on top of the stack (no nested operations above it):
    // a completion that comes within microseconds is seen without sleeping.
    // Only this thread pushes and pops frames, so frameCount is stable here.
    if (index + 1 == frameCount) {
        zk::SpinUntil(
            zk::kWaiterSpinMicroseconds, [&] { return FrameState(index) != zk::kFramePending; },
            zk::gIoWorkerCore);
    }
    for (;;) {
        monitor.Enter();
        // A continuation run below may already have popped the awaited frame.
        if (index >= frameCount || FrameState(index) == zk::kFrameDone) {
            monitor.Leave();
            return;
        }
        // The frame to wait on is the top one, passing over finished frames
        // above the awaited one that nobody has popped yet.
        uint32_t top = frameCount - 1;
        while (top > index && FrameState(top) != zk::kFramePending &&
               FrameState(top) != zk::kFrameCompleted)
            --top;
        while (FrameState(top) == zk::kFramePending)
            monitor.Wait();
        uint32_t state = FrameState(top);
        monitor.Leave();
        if (state == zk::kFrameCompleted) RunContinuationsFrom(top);
    }
}

void Request::RunOneContinuation(uint32_t index) {
    zk::RequestFrame& frame = frames[index];
    monitor.Enter();
    zk::Continuation* continuation = frame.continuation;
    uint32_t argument = frame.argument;
    frame.continuation = nullptr;
    SetState(index, zk::kFrameDone);
    monitor.Leave();
    uint32_t saved = cursor;
    cursor = index;
    if (continuation) continuation->Resume(this, argument);
    cursor = saved;
}

// Runs F's continuation, then visits the frames below F while every frame
// above the visited one has been popped: each becomes done, and one that was
// completed with a continuation has it run the same way.
void Request::RunContinuationsFrom(uint32_t index) {
    RunOneContinuation(index);
    for (uint32_t i = index; i-- > 0;) {
        if (frameCount != i + 1) break;
        monitor.Enter();
        uint32_t was = FrameState(i);
        SetState(i, zk::kFrameDone);
        monitor.Leave();
        if (was == zk::kFrameCompleted) RunOneContinuation(i);
    }
}

void Request::RunReadyContinuations() {
    while (frameCount > 0 && FrameState(frameCount - 1) == zk::kFrameCompleted)
        RunContinuationsFrom(frameCount - 1);
}
