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

// Whether the calling thread is one of the library's loading threads.
thread_local bool tBulkSubmitter = false;

} // namespace

void SetBulkSubmitter(bool bulk) {
    tBulkSubmitter = bulk;
}

void SyncWaiter::NotifyCompletion() {
    Monitor* monitor = monitor_; // `this` may be gone once the flag is set
    if (state_.exchange(kDone, std::memory_order_acq_rel) != kSleeping) return;
    // The caller sleeps until woken_ is set, which it can only see after this
    // thread has left the monitor: the waiter is still there.
    monitor->Enter();
    woken_ = true;
    os::ConditionVariableWakeAll(&wake_);
    monitor->Leave();
}

void SyncWaiter::Wait(bool spin) {
    auto done = [this] { return state_.load(std::memory_order_acquire) == kDone; };
    if (spin ? SpinUntil(kWaiterSpinMicroseconds, done, gIoWorkerCore) : done()) return;
    os::ConditionVariableInit(&wake_);
    monitor_->Enter();
    uint32_t expected = kPending;
    if (state_.compare_exchange_strong(expected, kSleeping, std::memory_order_acq_rel)) {
        while (!woken_)
            monitor_->WaitOn(&wake_);
    }
    monitor_->Leave();
    os::ConditionVariableDelete(&wake_);
}

int32_t DeviceIoWorker::Start() {
    if (!monitorsReady_) {
        completionMonitor_.Initialize();
        queueMonitor_.Initialize();
        for (uint32_t i = 0; i < kNodes; ++i) {
            nodes_[i] = Node{};
            nodes_[i].next = i + 1 < kNodes ? &nodes_[i + 1] : nullptr;
        }
        freeList_ = &nodes_[0];
        waitHead_ = waitTail_ = nullptr;
        bulkHeld_ = 0;
        queues_[0] = queues_[1] = queues_[kBulkQueue] = Queue{nullptr, nullptr};
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
    for (NodeWaiter* w = waitHead_; w; w = w->next)
        os::ConditionVariableWakeAll(&w->wake);
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
    waiter.Wait(!tBulkSubmitter);
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

uint32_t DeviceIoWorker::Waiters() {
    queueMonitor_.Enter();
    uint32_t n = 0;
    for (const NodeWaiter* w = waitHead_; w; w = w->next)
        ++n;
    queueMonitor_.Leave();
    return n;
}

DeviceIoWorker::Node* DeviceIoWorker::TakeFree(bool bulk) {
    Node* node = freeList_;
    freeList_ = node->next;
    node->bulk = bulk;
    if (bulk) ++bulkHeld_;
    return node;
}

void DeviceIoWorker::Place(Node* node, IoOperation* operation, CompletionTarget* completion,
                           uint32_t priority) {
    node->operation = operation;
    node->completion = completion;
    node->queuedAt = timeline::On() ? timeline::Now() : 0;
    // A bulk submitter's normal work waits behind everything else.
    Append(&queues_[(priority & 1) && node->bulk ? kBulkQueue : (priority & 1)], node);
    count_.fetch_add(1, std::memory_order_release);
}

void DeviceIoWorker::GiveBack(Node* node) {
    if (node->bulk) --bulkHeld_;
    node->operation = nullptr;
    node->completion = nullptr;
    node->bulk = false;
    node->next = freeList_;
    freeList_ = node;
    // The first waiters that may take a node get one, in arrival order; a
    // bulk waiter held back by the bulk limit lets the ones behind it pass.
    NodeWaiter** link = &waitHead_;
    NodeWaiter* previous = nullptr;
    while (*link && freeList_) {
        NodeWaiter* w = *link;
        if (!MayTake(w->bulk)) {
            previous = w;
            link = &w->next;
            continue;
        }
        *link = w->next;
        if (waitTail_ == w) waitTail_ = previous;
        Place(TakeFree(w->bulk), w->operation, w->completion, w->priority);
        w->granted = true;
        os::ConditionVariableWakeAll(&w->wake);
    }
}

// Nobody that may take a free node is left waiting (GiveBack hands nodes out
// as they come back), so a newcomer that may take one passes no earlier
// waiter of its own kind.
bool DeviceIoWorker::Enqueue(IoOperation* operation, CompletionTarget* completion,
                             uint32_t priority) {
    const bool bulk = tBulkSubmitter;
    submitterCore_.Here();
    if (submitterBulk_.load(std::memory_order_relaxed) != bulk)
        submitterBulk_.store(bulk, std::memory_order_relaxed);
    queueMonitor_.Enter();
    bool queued = false;
    if (!stopRequested_ && MayTake(bulk)) {
        Place(TakeFree(bulk), operation, completion, priority);
        queued = true;
    } else if (!stopRequested_) {
        NodeWaiter waiter{nullptr, false, bulk, operation, completion, priority, {}};
        os::ConditionVariableInit(&waiter.wake);
        if (waitTail_)
            waitTail_->next = &waiter;
        else
            waitHead_ = &waiter;
        waitTail_ = &waiter;
        while (!waiter.granted && !stopRequested_)
            queueMonitor_.WaitOn(&waiter.wake);
        queued = waiter.granted;
        if (!queued) { // stopping: leave the line
            NodeWaiter* previous = nullptr;
            for (NodeWaiter** link = &waitHead_; *link; link = &(*link)->next) {
                if (*link != &waiter) {
                    previous = *link;
                    continue;
                }
                *link = waiter.next;
                if (waitTail_ == &waiter) waitTail_ = previous;
                break;
            }
        }
        os::ConditionVariableDelete(&waiter.wake);
    }
    if (queued) queueMonitor_.WakeAll();
    queueMonitor_.Leave();
    return queued;
}

bool DeviceIoWorker::Take() {
    auto busy = [this] { return count_.load(std::memory_order_acquire) != 0; };
    gIoWorkerCore.Here();
    // A caller that waits for each operation before it submits the next gains
    // from the spin; a loading thread does not (it sleeps at once, and its
    // next part comes after its own read-ahead), so after one the worker
    // sleeps rather than burn the core.
    if (!busy() && !submitterBulk_.load(std::memory_order_relaxed))
        SpinUntil(kWorkerSpinMicroseconds, busy, submitterCore_);
    queueMonitor_.Enter();
    while (count_.load(std::memory_order_relaxed) == 0) {
        if (stopRequested_) {
            threadAlive_ = false; // decided here, so a start sees it or keeps the thread
            queueMonitor_.Leave();
            return false;
        }
        queueMonitor_.Wait();
    }
    Queue* queue = queues_[0].head   ? &queues_[0]
                   : queues_[1].head ? &queues_[1]
                                     : &queues_[kBulkQueue];
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
    // Each submission wakes the worker; as bulk work it then waits for a free
    // core or the next tick instead of taking the submitter's, so a frame
    // thread that queues a read keeps running.
    os::CurrentThreadSetBulk();
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
        GiveBack(node);
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
