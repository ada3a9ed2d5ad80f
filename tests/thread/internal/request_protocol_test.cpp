// The request frame protocol over the internal interface that Begin and End
// functions use: frame layout, statuses, completion on another thread, the
// completion walk and the continuation order.
#include "support/library_test.h"
#include "thread/request.h"

#include <zk/result.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <new>
#include <optional>
#include <thread>

namespace {

using zktest::Codes;

// A sample asynchronous operation, built in the request's frame.
struct AddOperation {
    zk::CompletionTarget* target;
    int32_t a, b, result = 0;
};

// One thread that runs queued additions in order and notifies each one's
// target, as the device I/O worker does; while held, queued work waits.
class TestExecutor {
public:
    TestExecutor() : worker_([this] { Loop(); }) {}
    ~TestExecutor() {
        Hold(false);
        Submit(nullptr); // stops the worker after the work queued before it
        worker_.join();
    }
    void Submit(AddOperation* operation) {
        Locked([&] { queue_.push_back(operation); });
    }
    void Hold(bool held) {
        Locked([&] { held_ = held; });
    }

private:
    template <typename F> void Locked(F change) {
        std::lock_guard<std::mutex> guard(mutex_);
        change();
        wake_.notify_all();
    }
    void Loop() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return !held_ && !queue_.empty(); });
            AddOperation* operation = queue_.front();
            queue_.pop_front();
            lock.unlock();
            if (!operation) return;
            // The operation lives in the frame: untouched once its target is told.
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

// Begin and End in the library's shape: the parameters and the operation go
// into the frame, and come back in the same order with the result.
int32_t BeginAdd(TestExecutor& executor, ::Request* request, int32_t a, int32_t b) {
    zk::RequestWriter writer(request, 4096);
    if (writer.Status() < 0) return writer.Status();
    writer.Put(&a, sizeof(a));
    writer.Put(&b, sizeof(b));
    executor.Submit(new (writer.Reserve(sizeof(AddOperation))) AddOperation{request, a, b});
    return writer.Status();
}

// The sum, or the reader's status; -1 when the parameters did not come back.
int32_t EndAdd(::Request* request) {
    zk::RequestReader reader(request);
    if (reader.Status() < 0) return reader.Status();
    int32_t a = 0, b = 0;
    reader.Get(&a, sizeof(a));
    reader.Get(&b, sizeof(b));
    auto* operation = static_cast<AddOperation*>(reader.Reserve(sizeof(AddOperation)));
    return operation->a == a && operation->b == b ? operation->result : -1;
}

class RequestProtocol : public zktest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(zkInitializeRequest(16), 0);
        ASSERT_NE(request_ = zkCreateRequest(), nullptr);
    }
    void TearDown() override {
        EXPECT_EQ(zkReleaseRequest(request_), 0);
        LibraryTest::TearDown();
    }
    Request* request_ = nullptr;
};

// Values take 8-byte steps; a Put or Reserve past the frame's end is dropped
// and moves nothing; what was written reads back in the same order.
TEST_F(RequestProtocol, FrameLayout) {
    const char bytes[] = "abcdefghijklmnopqrstuvwxyz0123456";
    {
        zk::RequestWriter writer(request_, 32);
        char* const start = static_cast<char*>(writer.Reserve(0));
        auto offset = [&] { return static_cast<char*>(writer.Reserve(0)) - start; };
        Codes got{int64_t(reinterpret_cast<zkAddr>(start) % 8)};
        writer.Put(bytes, 4);
        got.push_back(offset());
        writer.Put(bytes, 25); // 8 + 25 passes 32: dropped
        got.insert(got.end(), {writer.Reserve(25) == nullptr, offset()});
        writer.Put(bytes + 4, 24); // fits exactly
        got.insert(got.end(), {offset(), writer.Reserve(1) == nullptr, writer.Status()});
        EXPECT_EQ(got, Codes({0, 8, 1, 8, 32, 1, 0}));
        request_->NotifyCompletion();
    }
    zk::RequestReader reader(request_);
    char back[28] = {};
    reader.Get(back, 4);
    reader.Get(back + 4, 24);
    EXPECT_EQ(reader.Status(), 0);
    EXPECT_EQ(std::string(back, 28), "abcdefghijklmnopqrstuvwxyz01");
}

TEST_F(RequestProtocol, StatusesAndNestedFrames) {
    EXPECT_EQ(Codes({zk::RequestWriter(nullptr, 4096).Status(), zk::RequestReader(nullptr).Status(),
                     zk::RequestReader(request_).Status()}),
              Codes({ZK_ERR_NULL_REQUEST, ZK_ERR_NULL_REQUEST, ZK_ERR_REQUEST_STATE}));
    {
        // Frames nest while a writer is open, four deep; a fifth is refused.
        std::optional<zk::RequestWriter> writers[4];
        for (auto& writer : writers)
            ASSERT_EQ(writer.emplace(request_, 512).Status(), 0);
        EXPECT_EQ(zk::RequestWriter(request_, 512).Status(), ZK_ERR_REQUEST_STATE);
    }
    // One open operation per request: another Begin is refused and changes nothing.
    EXPECT_EQ(zk::RequestWriter(request_, 512).Status(), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(Codes({request_->FrameCount(), request_->Cursor(), request_->Arena().LiveCount(),
                     zkIsRequestCompleted(request_)}),
              Codes({4, 0, 4, 0}));
    // Without continuations one completion marks every frame done.
    request_->NotifyCompletion();
    for (uint32_t i = 0; i < 4; ++i)
        EXPECT_EQ(request_->FrameState(i), zk::kFrameDone);
    EXPECT_EQ(zkIsRequestCompleted(request_), 1);
    // Readers at the cursor below the top pop nothing; the one on the top frame pops it.
    for (int i = 0; i < 3; ++i)
        zk::RequestReader{request_};
    EXPECT_EQ(request_->FrameCount(), 4u);
    { zk::RequestReader top(request_); }
    EXPECT_EQ(Codes({request_->FrameCount(), request_->Cursor()}), Codes({3, 3}));
}

TEST_F(RequestProtocol, CompletionOnAnotherThreadWakesTheEndOrThePoll) {
    TestExecutor executor;
    executor.Hold(true);
    ASSERT_EQ(BeginAdd(executor, request_, 40, 2), 0);
    EXPECT_EQ(Codes({BeginAdd(executor, request_, 1, 1), zkIsRequestCompleted(request_)}),
              Codes({ZK_ERR_REQUEST_STATE, 0}));
    std::thread opener([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the End waits first, mostly
        executor.Hold(false);
    });
    EXPECT_EQ(EndAdd(request_), 42);
    opener.join();
    EXPECT_EQ(Codes({zkWaitForRequestCompletion(request_), EndAdd(request_)}),
              Codes({ZK_ERR_REQUEST_STATE, ZK_ERR_REQUEST_STATE}));
    ASSERT_EQ(BeginAdd(executor, request_, 5, 6), 0);
    while (!zkIsRequestCompleted(request_))
        std::this_thread::yield();
    EXPECT_EQ(Codes({zkWaitForRequestCompletion(request_), EndAdd(request_)}), Codes({0, 11}));
}

// Records each resume as name, cursor, argument; ends its frame's use
// (popping it) and, when told to, completes the operation below, as a
// composite operation's step would.
struct Step final : zk::Continuation {
    Step(char name, std::string* log, bool completeBelow)
        : name(name), log(log), completeBelow(completeBelow) {}
    void Resume(Request* request, uint32_t argument) override {
        *log += name + std::to_string(request->Cursor()) + std::to_string(argument) + " ";
        { zk::RequestReader reader(request); }
        if (completeBelow) request->NotifyCompletion();
    }
    char name;
    std::string* log;
    bool completeBelow;
};

TEST_F(RequestProtocol, ContinuationsRunFromTheTopDown) {
    std::string log;
    Step a('A', &log, false), b('B', &log, true);
    {
        zk::RequestWriter outer(request_, 4096);
        outer.SetContinuation(&a, 7);
        zk::RequestWriter(request_, 4096).SetContinuation(&b, 9);
    }
    TestExecutor executor;
    AddOperation complete{request_, 0, 0};
    executor.Submit(&complete);
    // The inner frame's continuation stops the walk: the outer one stays pending.
    while (request_->FrameState(1) != zk::kFrameCompleted)
        std::this_thread::yield();
    EXPECT_EQ(Codes({request_->FrameState(0), zkIsRequestCompleted(request_)}),
              Codes({zk::kFramePending, 0}));
    EXPECT_EQ(zkWaitForRequestCompletion(request_), 0);
    // B ran on frame 1, popped it and completed frame 0; then A ran on frame 0.
    EXPECT_EQ(log, "B19 A07 ");
    EXPECT_EQ(Codes({request_->FrameCount(), request_->Cursor(), request_->Arena().LiveCount(),
                     zkIsRequestCompleted(request_)}),
              Codes({0, 0, 0, 1}));
}

TEST_F(RequestProtocol, UpdateAllRunsReadyContinuations) {
    std::string log;
    Step a('A', &log, false);
    zk::RequestWriter(request_, 4096).SetContinuation(&a, 3);
    zkUpdateAllRequests();
    EXPECT_EQ(log, ""); // still pending
    request_->NotifyCompletion();
    EXPECT_EQ(Codes({request_->FrameState(0), zkIsRequestCompleted(request_)}),
              Codes({zk::kFrameCompleted, 1}));
    zkUpdateAllRequests();
    zkUpdateAllRequests(); // nothing left to run
    EXPECT_EQ(log, "A03 ");
    EXPECT_EQ(request_->FrameCount(), 0u);
}

// A stack of eight allocations in 16-byte steps; only the latest size frees.
TEST(RequestArena, StackOfEightSixteenByteSteps) {
    alignas(64) static unsigned char block[1024];
    zk::RequestArena arena;
    const auto base = static_cast<int64_t>(reinterpret_cast<zkAddr>(block));
    arena.Initialize(reinterpret_cast<zkAddr>(block), sizeof(block));
    Codes got{int64_t(arena.Allocate(1)), int64_t(arena.Allocate(17)), int64_t(arena.Allocate(16))};
    arena.FreeLast(17);
    got.push_back(arena.LiveCount());
    arena.FreeLast(16);
    got.insert(got.end(), {arena.LiveCount(), int64_t(arena.Current())});
    for (int i = 0; i < 7; ++i)
        got.push_back(arena.Allocate(8) != 0);
    for (int i = 0; i < 6; ++i)
        arena.FreeLast(8);
    for (uint32_t size : {1024 - 48 + 1, 1024 - 48, 1})
        got.push_back(int64_t(arena.Allocate(size)));
    EXPECT_EQ(got, Codes({base, base + 16, base + 48, 3, 2, base + 48, 1, 1, 1, 1, 1, 1, 0, 0,
                          base + 48, 0}));
}

// Each application thread drives its own request; one executor serves all.
TEST_F(RequestProtocol, OneRequestPerThreadUnderStress) {
    constexpr int kRounds = zktest::kThreadSanitizer ? 2500 : 5000;
    TestExecutor executor;
    Request* requests[4] = {request_, zkCreateRequest(), zkCreateRequest(), zkCreateRequest()};
    std::atomic<int> wrong{0};
    std::vector<std::thread> users;
    for (int t = 0; t < 4; ++t)
        users.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round)
                wrong += BeginAdd(executor, requests[t], round, t) != 0 ||
                         EndAdd(requests[t]) != round + t;
        });
    for (std::thread& user : users)
        user.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(zkReleaseRequest(requests[1]) + zkReleaseRequest(requests[2]) +
                  zkReleaseRequest(requests[3]),
              0);
}

} // namespace
