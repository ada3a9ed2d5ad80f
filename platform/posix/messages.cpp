// Per-thread message queues: posting, peeking, dispatching, and the wait for
// an object or a message.
//
// 64 queues in static storage, one per thread that uses messages, created on
// the thread's first call and released when the thread ends. Each is a ring
// of 1024 messages; posting to a full queue fails, except WM_QUIT, which is
// then kept as a pending flag and delivered once the ring is empty. A queue
// carries a generation that changes when it is released, so windows of a
// thread that has ended no longer accept messages. Queues are guarded by the
// backend lock.
#include "platform/posix/posix_internal.h"

#include <pthread.h>
#include <unistd.h>

namespace zk::os::posix {

struct Queue {
    Queue* link;
    bool inUse;
    bool quitPending;
    uint32_t generation;
    zkAddr quitCode;
    std::atomic<Object*> watching; // what the thread waits on in WaitEventOrMessage
    std::atomic<uint32_t> wake;    // wake sequence (a futex word)
    std::atomic<uint32_t> ready;   // messages queued, plus a pending WM_QUIT
    uint32_t head;
    uint32_t count;
    Message ring[kQueueCapacity];
};

namespace {

Queue gQueues[kQueueCount];
Queue* gFreeQueues = nullptr;
bool gQueuesBuilt = false;
thread_local Queue* tQueue = nullptr;

void BuildQueuesLocked() {
    for (uint32_t i = 0; i < kQueueCount; ++i)
        gQueues[i].link = (i + 1 < kQueueCount) ? &gQueues[i + 1] : nullptr;
    gFreeQueues = &gQueues[0];
    gQueuesBuilt = true;
}

bool QueuePopLocked(Queue* q, Message* out) {
    if (q->count) {
        *out = q->ring[q->head];
        q->head = (q->head + 1) % kQueueCapacity;
        --q->count;
        q->ready.fetch_sub(1, std::memory_order_relaxed);
        return true;
    }
    if (q->quitPending) {
        q->quitPending = false;
        q->ready.fetch_sub(1, std::memory_order_relaxed);
        *out = Message{nullptr, kWmQuit, q->quitCode, 0};
        return true;
    }
    return false;
}

pthread_mutex_t gBackendLock = PTHREAD_MUTEX_INITIALIZER;

void WakeQueue(Queue* q) {
    q->wake.fetch_add(1, std::memory_order_seq_cst);
    FutexWake(&q->wake, 1);
}

} // namespace

pthread_mutex_t& BackendLock() {
    return gBackendLock;
}

Queue* CurrentQueue() {
    if (tQueue) return tQueue;
    Queue* q;
    {
        BackendGuard guard;
        if (!gQueuesBuilt) BuildQueuesLocked();
        q = gFreeQueues;
        if (!q) return nullptr;
        gFreeQueues = q->link;
        q->link = nullptr;
        q->inUse = true;
        q->quitPending = false;
        q->watching.store(nullptr, std::memory_order_relaxed);
        q->ready.store(0, std::memory_order_relaxed);
        q->head = q->count = 0;
    }
    pthread_setspecific(QueueKey(), q);
    tQueue = q;
    return q;
}

void QueueReleaseForThreadExit(void* queue) {
    auto* q = static_cast<Queue*>(queue);
    BackendGuard guard;
    if (!q || !q->inUse) return;
    q->inUse = false;
    q->count = 0;
    q->quitPending = false;
    q->ready.store(0, std::memory_order_relaxed);
    ++q->generation;
    q->link = gFreeQueues;
    gFreeQueues = q;
}

void QueueReleaseForReuse() {
    if (!tQueue) return;
    QueueReleaseForThreadExit(tQueue);
    pthread_setspecific(QueueKey(), nullptr);
    tQueue = nullptr;
}

uint32_t QueueGeneration(Queue* queue) {
    return queue->generation;
}

bool QueuePushLocked(Queue* q, uint32_t generation, const Message& message) {
    if (!q->inUse || q->generation != generation) return false;
    if (q->count == kQueueCapacity) {
        if (message.message != kWmQuit || message.window) return false;
        if (!q->quitPending) q->ready.fetch_add(1, std::memory_order_relaxed);
        q->quitPending = true;
        q->quitCode = message.wParam;
    } else {
        q->ring[(q->head + q->count) % kQueueCapacity] = message;
        ++q->count;
        q->ready.fetch_add(1, std::memory_order_relaxed);
    }
    WakeQueue(q);
    return true;
}

void QueuesWakeWatchers(Object* object) {
    for (Queue& q : gQueues)
        if (q.watching.load(std::memory_order_seq_cst) == object) WakeQueue(&q);
}

void QueuesPurgeWindowLocked(Handle window) {
    if (!gQueuesBuilt) return;
    for (Queue& q : gQueues) {
        if (!q.inUse || q.count == 0) continue;
        uint32_t kept = 0;
        for (uint32_t i = 0; i < q.count; ++i) {
            const Message& m = q.ring[(q.head + i) % kQueueCapacity];
            if (m.window != window) q.ring[(q.head + kept++) % kQueueCapacity] = m;
        }
        q.ready.fetch_sub(q.count - kept, std::memory_order_relaxed);
        q.count = kept;
    }
}

} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

bool MessagePeek(Message* out) {
    if (!out) return false;
    Queue* q = CurrentQueue();
    if (!q) return false;
    BackendGuard guard;
    return QueuePopLocked(q, out);
}

void MessageDispatch(const Message& message) {
    if (!message.window) return; // thread messages have no procedure
    WindowProcedure procedure;
    {
        BackendGuard guard;
        procedure = WindowProcedureLocked(message.window);
    }
    // A window destroyed since the message was taken gets nothing.
    if (procedure) procedure(message.window, message.message, message.wParam, message.lParam);
}

bool MessagePost(Handle window, uint32_t message, zkAddr wParam, zkSAddr lParam) {
    BackendGuard guard;
    uint32_t generation = 0;
    Queue* q = WindowOwnerLocked(window, &generation);
    return q && QueuePushLocked(q, generation, Message{window, message, wParam, lParam});
}

void MessagePostQuit(int32_t exitCode) {
    Queue* q = CurrentQueue();
    if (!q) return;
    BackendGuard guard;
    QueuePushLocked(
        q, q->generation,
        Message{nullptr, kWmQuit, static_cast<zkAddr>(static_cast<zkSAddr>(exitCode)), 0});
}

WakeReason WaitEventOrMessage(Handle event) {
    Queue* q = CurrentQueue();
    if (!q) return WakeReason::Failed;
    Object* o = nullptr;
    uint32_t generation = 0;
    if (event) {
        o = ObjectFromHandle(event, Kind::Free);
        if (!o || o->kind.load(std::memory_order_relaxed) == Kind::NamedMutex)
            return WakeReason::Failed;
        generation = o->generation.load(std::memory_order_seq_cst);
        q->watching.store(o, std::memory_order_seq_cst);
        o->watchers.fetch_add(1, std::memory_order_seq_cst);
    }
    // The watch is registered before the tests, and whatever signals the
    // object or posts a message changes its state before it looks for
    // watchers and bumps the wake sequence: a set or a message that comes
    // before the sleep is seen by the tests, one that comes after wakes it.
    WakeReason reason;
    for (;;) {
        uint32_t wake = q->wake.load(std::memory_order_seq_cst);
        if (o && o->generation.load(std::memory_order_seq_cst) != generation) {
            reason = WakeReason::Failed; // closed while waited on
            break;
        }
        if (o && ObjectTryTake(o)) {
            reason = WakeReason::Event;
            break;
        }
        if (q->ready.load(std::memory_order_seq_cst) != 0) {
            reason = WakeReason::Message;
            break;
        }
        FutexWait(&q->wake, wake, -1);
    }
    if (o) {
        o->watchers.fetch_sub(1, std::memory_order_relaxed);
        q->watching.store(nullptr, std::memory_order_relaxed);
    }
    return reason;
}

} // namespace zk::os
