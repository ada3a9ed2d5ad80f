// Request round trips: Begin (a frame pushed, parameters put, the operation
// built in the frame and queued) -> the operation runs and completes on an
// executor thread -> End (waits on the request, reads back, pops the frame).
// Built from the library's own objects, with an executor in the shape of the
// device I/O worker: a thread that takes operations from a queue guarded by a
// Monitor and notifies each one's completion target.
//
// Baseline in the same run: a plain mutex + condition variable round trip of
// the same shape (the caller queues the operation for a worker thread and
// sleeps until the worker has run it and marked it done). Also printed: the
// same hand-off to the library's executor completed through a CompletionWaiter
// (the path synchronous file calls take), and the protocol completed at once.
#include "thread/request.h"
#include "thread/sync.h"
#include "thread/thread.h"

#include <zk.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <new>
#include <thread>

namespace {

struct Operation {
    zk::CompletionTarget* target;
    int32_t a, b, result;
    Operation* next;
};

class Executor final : public zk::Runnable {
public:
    void Start() {
        monitor_.Initialize();
        thread_.Initialize(this, 0, zk::os::kThreadPriorityNormal);
        thread_.Start();
    }
    void Stop() {
        monitor_.Enter();
        stopping_ = true;
        monitor_.WakeAll();
        monitor_.Leave();
        thread_.Release();
        monitor_.Destroy();
    }
    void Submit(Operation* operation) {
        monitor_.Enter();
        operation->next = nullptr;
        if (tail_)
            tail_->next = operation;
        else
            head_ = operation;
        tail_ = operation;
        monitor_.WakeAll();
        monitor_.Leave();
    }
    void Run() override {
        for (;;) {
            monitor_.Enter();
            while (!head_ && !stopping_)
                monitor_.Wait();
            Operation* operation = head_;
            if (!operation) {
                monitor_.Leave();
                return;
            }
            head_ = operation->next;
            if (!head_) tail_ = nullptr;
            monitor_.Leave();
            operation->result = operation->a + operation->b;
            operation->target->NotifyCompletion();
        }
    }

private:
    zk::Monitor monitor_;
    zk::Thread thread_;
    Operation* head_ = nullptr;
    Operation* tail_ = nullptr;
    bool stopping_ = false;
};

int32_t BeginAdd(Executor& executor, Request* request, int32_t a, int32_t b) {
    zk::RequestWriter writer(request, 4096);
    if (writer.Status() < 0) return writer.Status();
    writer.Put(&a, sizeof(a));
    writer.Put(&b, sizeof(b));
    auto* operation = new (writer.Reserve(sizeof(Operation))) Operation{request, a, b, 0, nullptr};
    executor.Submit(operation);
    return writer.Status();
}

int32_t EndAdd(Request* request) {
    zk::RequestReader reader(request);
    if (reader.Status() < 0) return reader.Status();
    int32_t a, b;
    reader.Get(&a, sizeof(a));
    reader.Get(&b, sizeof(b));
    return static_cast<Operation*>(reader.Reserve(sizeof(Operation)))->result;
}

// The baseline: one worker, one mutex, one condition variable each way.
class PlainExecutor {
public:
    void Start() {
        worker_ = std::thread([this] {
            std::unique_lock<std::mutex> lock(mutex_);
            for (;;) {
                submitted_.wait(lock, [this] { return head_ || stopping_; });
                if (!head_) return;
                Operation* operation = head_;
                head_ = nullptr;
                operation->result = operation->a + operation->b;
                operation->next = operation; // done
                done_.notify_all();
            }
        });
    }
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        submitted_.notify_all();
        worker_.join();
    }
    int32_t RoundTrip(int32_t a, int32_t b) {
        Operation operation{nullptr, a, b, 0, nullptr};
        std::unique_lock<std::mutex> lock(mutex_);
        head_ = &operation;
        submitted_.notify_all();
        done_.wait(lock, [&] { return operation.next == &operation; });
        return operation.result;
    }

private:
    std::mutex mutex_;
    std::condition_variable submitted_, done_;
    Operation* head_ = nullptr;
    bool stopping_ = false;
    std::thread worker_;
};

using Clock = std::chrono::steady_clock;

double NsPer(Clock::time_point start, int rounds) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / rounds;
}

} // namespace

int main() {
    constexpr int kRounds = 200000;
    if (zkInitializeEx(64u << 20, 1024) < 0 || zkInitializeRequest(1) < 0) return 1;
    Request* request = zkCreateRequest();
    if (!request) return 1;
    Executor executor;
    executor.Start();

    int64_t wrong = 0;
    // Warm-up, then the request round trips.
    for (int i = 0; i < 1000; ++i)
        wrong += BeginAdd(executor, request, i, 1) != 0 || EndAdd(request) != i + 1;
    Clock::time_point start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
        BeginAdd(executor, request, i, 1);
        wrong += EndAdd(request) != i + 1;
    }
    double requestNs = NsPer(start, kRounds);

    zk::Monitor monitor;
    monitor.Initialize();
    start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
        zk::CompletionWaiter waiter;
        waiter.Initialize(&monitor);
        Operation operation{&waiter, i, 1, 0, nullptr};
        executor.Submit(&operation);
        zk::CompletionWaiter::WaitForCompletion(&monitor, &waiter);
        wrong += operation.result != i + 1;
    }
    double waiterNs = NsPer(start, kRounds);
    monitor.Destroy();

    PlainExecutor plain;
    plain.Start();
    for (int i = 0; i < 1000; ++i)
        wrong += plain.RoundTrip(i, 1) != i + 1;
    start = Clock::now();
    for (int i = 0; i < kRounds; ++i)
        wrong += plain.RoundTrip(i, 1) != i + 1;
    double plainNs = NsPer(start, kRounds);
    plain.Stop();

    // The same protocol completed at once on the caller's thread (no hand-off).
    start = Clock::now();
    for (int i = 0; i < kRounds; ++i) {
        zkBeginLoadOverlay(nullptr, nullptr, request);
        wrong += zkEndLoadOverlayForRelease(nullptr, request) != ZK_ERR_NOT_SUPPORTED;
    }
    double inlineNs = NsPer(start, kRounds);

    executor.Stop();
    zkReleaseRequest(request);
    zkTerminate();

    std::printf("round trips per measurement       : %d\n", kRounds);
    std::printf("request Begin -> executor -> End  : %8.0f ns\n", requestNs);
    std::printf("mutex + condvar round trip (base) : %8.0f ns\n", plainNs);
    std::printf("request / baseline                : %8.2f\n", requestNs / plainNs);
    std::printf("waiter hand-off, library executor : %8.0f ns\n", waiterNs);
    std::printf("request completed at once (inline): %8.0f ns\n", inlineNs);
    std::printf("wrong results                     : %lld\n", static_cast<long long>(wrong));
    return wrong == 0 ? 0 : 1;
}
