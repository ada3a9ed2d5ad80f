// The device I/O worker: one thread that executes queued I/O operations of
// every device, from two first-in-first-out queues (0 urgent, 1 normal).
//
// Storage: 16 fixed queue nodes; at most 16 operations are queued or running
// at once, and a submitter blocks while none is free. An operation that asks
// to run again (a retry, or the next piece of a transfer) goes back to the
// tail of the queue it came from, so one long transfer does not hold up the
// others and queue 0 always goes first. The host driver moves at most one
// piece of bounded size per call (host_device.cpp), so a step is short.
//
// Who gets a node: submitters that find no free node wait in arrival order,
// each on a waiter record of its own, and a freed node is handed to the first
// waiter that may take it (only that waiter is woken). The library's own
// whole-file loading threads are bulk submitters: together they hold at most
// kBulkNodes nodes, so that however many loads run, the application's own
// submissions find a node at once (or behind other application submissions
// only). Their normal-queue work waits in a queue of its own that the worker
// serves only when the urgent and normal queues are empty, so an application
// operation waits for at most the one bulk piece being executed.
//
// Locks: queueMonitor guards the nodes, the queues, the count and the node
// waiters; it is held only for the queue's bookkeeping, never while a driver
// runs or a completion is told. Synchronous callers wait on their own
// SyncWaiter, which spins briefly, then sleeps on a condition variable of its
// own under the completionMonitor's lock: a completion wakes its own caller
// and nobody else.
//
// Hand-off cost: a small read is one enqueue and one completion. Both sides
// spin for a bounded time (50 microseconds, with a pause instruction) before
// they sleep, so a burst of small operations passes between the caller and the
// worker without a sleep and a wake: the worker finds the next node while
// spinning, the caller finds its done flag while spinning. Loading threads
// take no part: they sleep at once, and a worker whose last submission came
// from one sleeps at once too, so cold loads do not keep a core spinning.
// Each side marks the core it runs on (thread/spin.h): a spinner on its
// partner's core yields that core between rounds, since the partner cannot
// run while it spins; on another core it yields only every sixteenth round,
// because a yield is a system call that delays the hand-off. With both
// threads held to one core, this halves the time of a small file's open,
// read and close against yielding after a fixed few microseconds; on two
// free cores it is the same.
//
// Threads: the worker thread is started by the file system's start and runs
// until the process level ends (the library's termination leaves it alone).
// It runs at normal priority as bulk work (os::CurrentThreadSetBulk): a
// submission wakes it without taking the submitter's core, so a frame thread
// that queues reads is not preempted by the worker it woke.
// Stop asks it to end once everything queued has run and waits for that only
// for a bounded time: a worker held inside a host call (an open of a FIFO
// that has no writer) is let go and ends on its own when the call returns. A
// start while it is still there keeps it. The monitors are initialised once
// and never destroyed, so a thread still inside Submit never meets a
// destroyed one.
#ifndef ZK_FILE_IO_WORKER_H
#define ZK_FILE_IO_WORKER_H

#include "thread/request.h"
#include "thread/spin.h"
#include "thread/sync.h"
#include "thread/thread.h"

#include <atomic>
#include <cstdint>

struct FileHandle;

namespace zk {

// One step of I/O work. Execute returns 0 when the operation has finished
// (its outcome stored in it) and non-zero when it is to run again.
class IoOperation {
public:
    virtual int32_t IsImmediate() = 0;
    virtual int32_t Execute() = 0;
    // What the timeline shows of an operation: its kind, the outcome of its
    // last step and the bytes it has moved so far.
    virtual const char* KindName() const = 0;
    virtual int32_t Outcome() const = 0;
    virtual uint32_t Bytes() const { return 0; }

    // Set by whoever builds the operation, read only while recording: the
    // file handle it works for, the request flow it belongs to, and the
    // failed steps so far (the try number of the next step is one more).
    const FileHandle* traceHandle = nullptr;
    uint64_t traceFlow = 0;
    uint32_t traceFailures = 0;

protected:
    ~IoOperation() = default;
};

constexpr uint32_t kUnlimitedTries = 0xFFFFFFFFu;

// After a failed driver call: true to try again. N tries give N attempts;
// 0 behaves like 1; kUnlimitedTries never runs out.
inline bool ConsumeTry(uint32_t& tries) {
    if (tries == kUnlimitedTries) return true;
    return tries-- > 1;
}

// A synchronous caller's completion: the caller spins on its done flag for a
// short time, then sleeps on a condition variable of its own under the
// worker's completion monitor. The notifier touches the waiter only through
// one atomic exchange while the caller spins; when the caller has gone to
// sleep, it enters the monitor, marks the waiter woken and wakes that one
// variable. The sleeping caller leaves only once it finds the mark, which is
// after the notifier has left the monitor, so the waiter outlives every use.
class SyncWaiter final : public CompletionTarget {
public:
    explicit SyncWaiter(Monitor* monitor) : monitor_(monitor) {}
    void NotifyCompletion() override;
    // spin: look at the flag for a short time before sleeping (worth it for
    // a small operation; a loading thread's whole-file read sleeps at once).
    void Wait(bool spin);

private:
    enum : uint32_t { kPending = 0, kDone = 1, kSleeping = 2 };
    Monitor* monitor_;
    std::atomic<uint32_t> state_{kPending};
    bool woken_ = false;         // under the monitor
    os::ConditionVariable wake_; // set up only when the caller goes to sleep
};

// Marks the calling thread as one of the library's own whole-file loading
// threads (a bulk submitter) or clears the mark.
void SetBulkSubmitter(bool bulk);

class DeviceIoWorker final : public Runnable {
public:
    static constexpr uint32_t kNodes = 16;
    // The most nodes that bulk submitters hold together.
    static constexpr uint32_t kBulkNodes = 6;

    // Starts the thread, or keeps the one still there; -19 when the system
    // refuses it (nothing runs then).
    int32_t Start();
    // Refuses new operations, lets the thread run what is queued and end, and
    // waits for that at most waitMilliseconds; a thread still busy then is let
    // go. True when it has ended.
    bool Stop(uint32_t waitMilliseconds);
    bool Running() const { return running_.load(std::memory_order_acquire); }

    // Runs an immediate operation at once; otherwise queues it (priority bit 0
    // set: normal queue, clear: urgent) and, with completion null, returns
    // when it has finished. -19 when the worker is stopped (nothing ran).
    int32_t Submit(IoOperation* operation, CompletionTarget* completion, uint32_t priority);

    // Nodes queued or running, and submitters waiting for a node (for tests
    // and diagnostics).
    uint32_t Count() const { return count_.load(std::memory_order_relaxed); }
    uint32_t Waiters();

    void Run() override;

private:
    struct Node {
        IoOperation* operation;
        CompletionTarget* completion;
        Node* previous;
        Node* next;
        int64_t queuedAt; // when it joined its queue (while recording)
        bool bulk;        // taken by a bulk submitter
    };
    struct Queue {
        Node* head;
        Node* tail;
    };
    // A submitter waiting for a node, on its own stack, in arrival order. The
    // node is handed over already queued with the waiter's operation, so the
    // operation's place in its queue does not depend on when the waiter wakes.
    struct NodeWaiter {
        NodeWaiter* next;
        bool granted; // set under the queue monitor
        bool bulk;
        IoOperation* operation;
        CompletionTarget* completion;
        uint32_t priority;
        os::ConditionVariable wake;
    };

    bool Enqueue(IoOperation* operation, CompletionTarget* completion, uint32_t priority);
    void Append(Queue* queue, Node* node);
    // Under the queue monitor: whether a submitter of that kind may take a
    // free node now, and taking it.
    bool MayTake(bool bulk) const { return freeList_ && (!bulk || bulkHeld_ < kBulkNodes); }
    Node* TakeFree(bool bulk);
    // Under the queue monitor: fills a node taken for the operation and
    // appends it to its queue.
    void Place(Node* node, IoOperation* operation, CompletionTarget* completion, uint32_t priority);
    // Under the queue monitor: gives a finished node back and hands free
    // nodes to the first waiters that may take them.
    void GiveBack(Node* node);
    // Waits for a node and unlinks it; false when stopping with nothing queued.
    bool Take();
    // The timeline's slice of one step of the current node.
    void RecordStep(const Node* node, bool urgent, int64_t start, int32_t again);

    Node nodes_[kNodes]{};
    // 0 urgent, 1 normal, then the bulk submitters' normal work, taken only
    // when the other two are empty.
    static constexpr uint32_t kBulkQueue = 2;
    Queue queues_[3]{};
    Node* freeList_ = nullptr;
    Node* current_ = nullptr;
    Queue* currentQueue_ = nullptr;
    std::atomic<uint32_t> count_{0};
    Monitor queueMonitor_;
    NodeWaiter* waitHead_ = nullptr;
    NodeWaiter* waitTail_ = nullptr;
    uint32_t bulkHeld_ = 0;
    uint32_t stopRequested_ = 0;
    Thread thread_;
    Monitor completionMonitor_;
    std::atomic<bool> running_{false};
    bool monitorsReady_ = false; // the monitors live from the first start on
    bool threadAlive_ = false;   // under queueMonitor: the thread has not left its loop
    // Where the last submitter ran, and whether it was a loading thread: the
    // idle worker spins for the next submission only after an application's.
    alignas(64) CoreMark submitterCore_;
    std::atomic<bool> submitterBulk_{false};
};

} // namespace zk

#endif // ZK_FILE_IO_WORKER_H
