// The device I/O worker and the synchronous callers' waiter. See io_worker.h
// for the queue's invariants, its locks and why both sides spin first.
#include "file/io_worker.h"

#include "file/file_system.h"
#include "kernel/timeline.h"
#include "thread/spin.h"

#include <zk/result.h>

namespace zk {

namespace {

// The worker's thread: a larger stack than the bare minimum, because host
// drivers search directories on it and sanitizer builds grow every frame.
constexpr uint32_t kWorkerStackSize = 65536;
constexpr int32_t kWorkerPriority = 0;

} // namespace

void SyncWaiter::NotifyCompletion() {
    Monitor* monitor = monitor_; // `this` may be gone once the flag is set
    if (state_.exchange(kDone, std::memory_order_acq_rel) != kSleeping) return;
    monitor->Enter();
    monitor->WakeAll();
    monitor->Leave();
}

void SyncWaiter::Wait() {
    auto done = [this] { return state_.load(std::memory_order_acquire) == kDone; };
    if (SpinUntil(kWaiterSpinMicroseconds, done)) return;
    monitor_->Enter();
    uint32_t expected = kPending;
    if (state_.compare_exchange_strong(expected, kSleeping, std::memory_order_acq_rel)) {
        while (!done())
            monitor_->Wait();
    }
    monitor_->Leave();
}

int32_t DeviceIoWorker::Start() {
    if (!monitorsReady_) {
        completionMonitor_.Initialize();
        queueMonitor_.Initialize();
        for (uint32_t i = 0; i < kNodes; ++i)
            nodes_[i] =
                Node{nullptr, nullptr, nullptr, i + 1 < kNodes ? &nodes_[i + 1] : nullptr, 0};
        freeList_ = &nodes_[0];
        queues_[0] = queues_[1] = Queue{nullptr, nullptr};
        current_ = nullptr;
        currentQueue_ = nullptr;
        count_.store(0, std::memory_order_relaxed);
        monitorsReady_ = true;
    }
    // A thread that was let go and is still there (finishing a host call, or
    // what was queued before the stop) simply goes on serving.
    queueMonitor_.Enter();
    stopRequested_ = 0;
    const bool alive = threadAlive_;
    if (!alive) threadAlive_ = true;
    queueMonitor_.Leave();
    if (!alive) {
        thread_.Initialize(this, kWorkerStackSize, kWorkerPriority);
        if (thread_.Start() < 0) {
            queueMonitor_.Enter();
            threadAlive_ = false;
            queueMonitor_.Leave();
            return ZK_ERR_NO_SLOT;
        }
    }
    running_.store(true, std::memory_order_release);
    return ZK_OK;
}

bool DeviceIoWorker::Stop(uint32_t waitMilliseconds) {
    if (!monitorsReady_) return true;
    running_.store(false, std::memory_order_release);
    queueMonitor_.Enter();
    stopRequested_ = 1;
    queueMonitor_.WakeAll();
    queueMonitor_.Leave();
    if (thread_.WaitFor(waitMilliseconds)) return true;
    thread_.Detach();
    return false;
}

int32_t DeviceIoWorker::Submit(IoOperation* operation, CompletionTarget* completion,
                               uint32_t priority) {
    if (operation->IsImmediate()) {
        while (operation->Execute() != 0) {
        }
        if (completion) completion->NotifyCompletion();
        return ZK_OK;
    }
    if (!Running()) return ZK_ERR_NO_SLOT;
    if (completion) return Enqueue(operation, completion, priority) ? ZK_OK : ZK_ERR_NO_SLOT;
    SyncWaiter waiter(&completionMonitor_);
    if (!Enqueue(operation, &waiter, priority)) return ZK_ERR_NO_SLOT;
    waiter.Wait();
    return ZK_OK;
}

void DeviceIoWorker::Append(Queue* queue, Node* node) {
    node->next = nullptr;
    node->previous = queue->tail;
    if (queue->tail)
        queue->tail->next = node;
    else
        queue->head = node;
    queue->tail = node;
}

bool DeviceIoWorker::Enqueue(IoOperation* operation, CompletionTarget* completion,
                             uint32_t priority) {
    queueMonitor_.Enter();
    while (!freeList_ && !stopRequested_)
        queueMonitor_.Wait();
    if (stopRequested_) {
        queueMonitor_.Leave();
        return false;
    }
    Node* node = freeList_;
    freeList_ = node->next;
    node->operation = operation;
    node->completion = completion;
    node->queuedAt = timeline::On() ? timeline::Now() : 0;
    Append(&queues_[priority & 1], node);
    count_.fetch_add(1, std::memory_order_release);
    queueMonitor_.WakeAll();
    queueMonitor_.Leave();
    return true;
}

bool DeviceIoWorker::Take() {
    auto busy = [this] { return count_.load(std::memory_order_acquire) != 0; };
    if (!busy()) SpinUntil(kWorkerSpinMicroseconds, busy);
    queueMonitor_.Enter();
    while (count_.load(std::memory_order_relaxed) == 0) {
        if (stopRequested_) {
            threadAlive_ = false; // decided here, so a start sees it or keeps the thread
            queueMonitor_.Leave();
            return false;
        }
        queueMonitor_.Wait();
    }
    Queue* queue = queues_[0].head ? &queues_[0] : &queues_[1];
    Node* node = queue->head;
    queue->head = node->next;
    if (queue->head)
        queue->head->previous = nullptr;
    else
        queue->tail = nullptr;
    node->next = node->previous = nullptr;
    current_ = node;
    currentQueue_ = queue;
    queueMonitor_.Leave();
    return true;
}

void DeviceIoWorker::Run() {
    timeline::NameThread("I/O worker");
    while (Take()) {
        Node* node = current_;
        const bool recording = timeline::On();
        const int64_t start = recording ? timeline::Now() : 0;
        const int32_t again = node->operation->Execute();
        if (recording) RecordStep(node, currentQueue_ == &queues_[0], start, again);
        if (again != 0) {
            queueMonitor_.Enter();
            node->queuedAt = recording ? timeline::Now() : 0;
            Append(currentQueue_, node);
            current_ = nullptr;
            currentQueue_ = nullptr;
            queueMonitor_.Leave();
            continue;
        }
        CompletionTarget* completion = node->completion;
        queueMonitor_.Enter();
        node->operation = nullptr;
        node->completion = nullptr;
        node->next = freeList_;
        freeList_ = node;
        current_ = nullptr;
        currentQueue_ = nullptr;
        count_.fetch_sub(1, std::memory_order_release);
        queueMonitor_.WakeAll();
        queueMonitor_.Leave();
        if (completion) completion->NotifyCompletion();
    }
}

// One slice per step on the worker's track: kind, device, path, bytes so far,
// try number and outcome, with the time the node waited in its queue beside
// it (as an argument, and as an async slice of its own on the queue's track).
// A step that failed marks a retry when the operation runs again, else the
// operation's failure.
void DeviceIoWorker::RecordStep(const Node* node, bool urgent, int64_t start, int32_t again) {
    IoOperation* operation = node->operation;
    const int32_t outcome = operation->Outcome();
    const uint32_t tryNumber = operation->traceFailures + 1;
    if (outcome < 0) ++operation->traceFailures;
    const int64_t end = timeline::Now();
    const int64_t queuedAt = node->queuedAt && node->queuedAt <= start ? node->queuedAt : start;

    const uint64_t queueId = timeline::NewId();
    timeline::Event wait;
    wait.phase = timeline::kAsyncBegin;
    wait.category = "io queue";
    wait.name = urgent ? "queued (urgent)" : "queued (normal)";
    wait.id = queueId;
    wait.start = wait.end = queuedAt;
    timeline::Record(wait);
    wait.phase = timeline::kAsyncEnd;
    wait.start = wait.end = start;
    timeline::Record(wait);

    const FileHandle* handle = operation->traceHandle;
    const timeline::Arg args[] = {
        {"bytes", operation->Bytes()},
        {"try", tryNumber},
        {"result", outcome},
        {"queue_wait_ns", static_cast<int64_t>(timeline::TicksToNanoseconds(start - queuedAt))},
        {"urgent", urgent ? 1 : 0},
    };
    const timeline::TextArg texts[] = {
        {"device", handle ? handle->deviceName : ""},
        {"path", handle ? handle->fullPath : ""},
    };
    timeline::Event step;
    step.category = "io";
    step.name = operation->KindName();
    step.start = start;
    step.end = end;
    step.args = args;
    step.argCount = 5;
    step.texts = texts;
    step.textCount = 2;
    timeline::Record(step);

    if (operation->traceFlow != 0 && again == 0) {
        timeline::Event flow;
        flow.phase = timeline::kFlowStep;
        flow.category = "request";
        flow.name = "request";
        flow.id = operation->traceFlow;
        flow.start = flow.end = start + (end - start) / 2;
        timeline::Record(flow);
    }
    if (outcome < 0) {
        timeline::Event mark;
        mark.phase = timeline::kInstant;
        mark.category = "io";
        mark.name = again != 0 ? "retry" : "failed";
        mark.start = mark.end = end;
        const timeline::Arg markArgs[] = {{"try", tryNumber}, {"result", outcome}};
        mark.args = markArgs;
        mark.argCount = 2;
        timeline::Record(mark);
    }
}

} // namespace zk
