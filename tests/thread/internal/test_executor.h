// An executor for the request protocol tests: one thread that runs queued
// operations in order and notifies each operation's completion target, the
// way the file system's device I/O worker does. A gate can hold it back so a
// test can look at a request while its operation is still pending.
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

class Operation {
public:
    explicit Operation(zk::CompletionTarget* target) : target_(target) {}
    virtual void Execute() = 0;
    zk::CompletionTarget* Target() const { return target_; }

protected:
    ~Operation() = default;

private:
    zk::CompletionTarget* target_;
};

class TestExecutor {
public:
    TestExecutor() : worker_([this] { Loop(); }) {}
    ~TestExecutor() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            stopping_ = true;
            held_ = false;
        }
        wake_.notify_all();
        worker_.join();
    }

    void Submit(Operation* operation) {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            queue_.push_back(operation);
        }
        wake_.notify_all();
    }
    // While held, queued operations wait.
    void Hold() {
        std::lock_guard<std::mutex> guard(mutex_);
        held_ = true;
    }
    void Go() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            held_ = false;
        }
        wake_.notify_all();
    }
    // Operations taken off the queue so far.
    uint64_t Started() {
        std::lock_guard<std::mutex> guard(mutex_);
        return started_;
    }

private:
    void Loop() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stopping_ || (!held_ && !queue_.empty()); });
            if (queue_.empty()) return;
            Operation* operation = queue_.front();
            queue_.pop_front();
            ++started_;
            lock.unlock();
            // The operation lives in the request's frame: it must not be
            // touched once its target has been told.
            zk::CompletionTarget* target = operation->Target();
            operation->Execute();
            target->NotifyCompletion();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Operation*> queue_;
    bool held_ = false;
    bool stopping_ = false;
    uint64_t started_ = 0;
    std::thread worker_;
};

// A sample asynchronous operation in the shape of the library's own: the
// Begin writes the parameters and builds the operation in the request's
// frame; the End reads them back in the same order and takes the result.
struct AddOperation final : Operation {
    AddOperation(zk::CompletionTarget* target, int32_t a, int32_t b)
        : Operation(target), a(a), b(b) {}
    void Execute() override { result = a + b; }
    int32_t a, b;
    int32_t result = 0;
};

inline int32_t BeginAdd(TestExecutor& executor, ::Request* request, int32_t a, int32_t b) {
    zk::RequestWriter writer(request, 4096);
    if (writer.Status() < 0) return writer.Status();
    writer.Put(&a, sizeof(a));
    writer.Put(&b, sizeof(b));
    void* room = writer.Reserve(sizeof(AddOperation));
    auto* operation = new (room) AddOperation(request, a, b);
    executor.Submit(operation);
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
    int32_t result = operation->result;
    operation->~AddOperation();
    return result;
}

} // namespace zktest

#endif // ZK_TESTS_THREAD_INTERNAL_TEST_EXECUTOR_H
