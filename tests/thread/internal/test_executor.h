// An executor for the request protocol tests: one thread that runs queued
// additions in order and notifies each one's completion target, the way the
// file system's device I/O worker does. While held, queued work waits, so a
// test can look at a request whose operation is still pending.
#ifndef ZK_TESTS_THREAD_INTERNAL_TEST_EXECUTOR_H
#define ZK_TESTS_THREAD_INTERNAL_TEST_EXECUTOR_H

#include "thread/request.h"

#include <zk/result.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <new>
#include <thread>

namespace zktest {

// A sample asynchronous operation, built in the request's frame.
struct AddOperation {
    zk::CompletionTarget* target;
    int32_t a, b, result = 0;
};

class TestExecutor {
public:
    TestExecutor() : worker_([this] { Loop(); }) {}
    ~TestExecutor() {
        Hold(false);
        Submit(nullptr); // stops the worker once the queue before it is done
        worker_.join();
    }
    void Submit(AddOperation* operation) {
        std::lock_guard<std::mutex> guard(mutex_);
        queue_.push_back(operation);
        wake_.notify_all();
    }
    void Hold(bool held) {
        std::lock_guard<std::mutex> guard(mutex_);
        held_ = held;
        wake_.notify_all();
    }

private:
    void Loop() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return !held_ && !queue_.empty(); });
            AddOperation* operation = queue_.front();
            queue_.pop_front();
            lock.unlock();
            if (!operation) return;
            // The operation lives in the request's frame: it must not be
            // touched once its target has been told.
            zk::CompletionTarget* target = operation->target;
            operation->result = operation->a + operation->b;
            target->NotifyCompletion();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<AddOperation*> queue_;
    bool held_ = false;
    std::thread worker_;
};

// Begin and End in the shape of the library's own: the Begin writes the
// parameters and builds the operation in the request's frame; the End reads
// them back in the same order and takes the result.
inline int32_t BeginAdd(TestExecutor& executor, ::Request* request, int32_t a, int32_t b) {
    zk::RequestWriter writer(request, 4096);
    if (writer.Status() < 0) return writer.Status();
    writer.Put(&a, sizeof(a));
    writer.Put(&b, sizeof(b));
    executor.Submit(new (writer.Reserve(sizeof(AddOperation))) AddOperation{request, a, b});
    return writer.Status();
}

// The sum on success; the reader's status otherwise. *checked tells whether
// the parameters came back as they were written.
inline int32_t EndAdd(::Request* request, bool* checked = nullptr) {
    zk::RequestReader reader(request);
    if (reader.Status() < 0) return reader.Status();
    int32_t a = 0, b = 0;
    reader.Get(&a, sizeof(a));
    reader.Get(&b, sizeof(b));
    auto* operation = static_cast<AddOperation*>(reader.Reserve(sizeof(AddOperation)));
    if (checked) *checked = operation->a == a && operation->b == b;
    return operation->result;
}

} // namespace zktest

#endif // ZK_TESTS_THREAD_INTERNAL_TEST_EXECUTOR_H
