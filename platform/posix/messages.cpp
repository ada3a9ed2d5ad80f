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
    Object* watching; // the object this queue's thread waits on in WaitEventOrMessage
    pthread_cond_t wake;
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
    for (uint32_t i = 0; i < kQueueCount; ++i) {
        gQueues[i].link = (i + 1 < kQueueCount) ? &gQueues[i + 1] : nullptr;
        ConditionInit(&gQueues[i].wake);
    }
    gFreeQueues = &gQueues[0];
    gQueuesBuilt = true;
}

bool QueuePopLocked(Queue* q, Message* out) {
    if (q->count) {
        *out = q->ring[q->head];
        q->head = (q->head + 1) % kQueueCapacity;
        --q->count;
        return true;
    }
    if (q->quitPending) {
        q->quitPending = false;
        *out = Message{nullptr, kWmQuit, q->quitCode, 0};
        return true;
    }
    return false;
}

} // namespace

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
        q->watching = nullptr;
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
    ++q->generation;
    q->link = gFreeQueues;
    gFreeQueues = q;
}

uint32_t QueueGeneration(Queue* queue) {
    return queue->generation;
}

bool QueuePushLocked(Queue* q, uint32_t generation, const Message& message) {
    if (!q->inUse || q->generation != generation) return false;
    if (q->count == kQueueCapacity) {
        if (message.message != kWmQuit || message.window) return false;
        q->quitPending = true;
        q->quitCode = message.wParam;
    } else {
        q->ring[(q->head + q->count) % kQueueCapacity] = message;
        ++q->count;
    }
    pthread_cond_broadcast(&q->wake);
    return true;
}

void QueuesWakeWatchersLocked(Object* object) {
    if (!gQueuesBuilt) return;
    for (Queue& q : gQueues)
        if (q.inUse && q.watching == object) pthread_cond_broadcast(&q.wake);
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
    BackendGuard guard;
    Object* o = nullptr;
    if (event) {
        o = ObjectFromHandleLocked(event, Kind::Free);
        if (!o || o->kind == Kind::NamedMutex) return WakeReason::Failed;
        ++o->watchers;
        q->watching = o;
    }
    // Both tests and the sleep happen under the backend lock, and posting or
    // signalling takes it too: a message or a set that arrives just before
    // the sleep is seen by the tests, one that arrives after wakes the sleep.
    WakeReason reason;
    for (;;) {
        if (o && ObjectTryTakeLocked(o)) {
            reason = WakeReason::Event;
            break;
        }
        if (q->count || q->quitPending) {
            reason = WakeReason::Message;
            break;
        }
        pthread_cond_wait(&q->wake, &BackendLock());
    }
    if (o) {
        --o->watchers;
        q->watching = nullptr;
    }
    return reason;
}

} // namespace zk::os
