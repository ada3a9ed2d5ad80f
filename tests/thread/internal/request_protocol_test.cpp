// The request frame protocol over the internal interface that Begin and End
// functions use: frame layout, statuses, completion on another thread,
// the completion walk and the continuation order.
#include "support/library_test.h"
#include "test_executor.h"

#include <atomic>
#include <optional>
#include <thread>

namespace {

using zktest::BeginAdd;
using zktest::Codes;
using zktest::EndAdd;
using zktest::TestExecutor;

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
    const int32_t four = 0x11223344;
    const char bytes[] = "abcdefghijklmnopqrstuvwxyz";
    {
        zk::RequestWriter writer(request_, 32);
        ASSERT_EQ(writer.Status(), 0);
        auto offset = [&writer, start = writer.Reserve(0)] {
            return static_cast<char*>(writer.Reserve(0)) - static_cast<char*>(start);
        };
        EXPECT_EQ(reinterpret_cast<zkAddr>(writer.Reserve(0)) % 8, 0u);
        writer.Put(&four, 4);
        EXPECT_EQ(offset(), 8);
        writer.Put(bytes, 25); // 8 + 25 passes 32: dropped
        EXPECT_EQ(writer.Reserve(25), nullptr);
        EXPECT_EQ(offset(), 8);
        writer.Put(bytes, 24); // fits exactly
        EXPECT_EQ(offset(), 32);
        EXPECT_EQ(writer.Reserve(1), nullptr);
        request_->NotifyCompletion();
    }
    zk::RequestReader reader(request_);
    ASSERT_EQ(reader.Status(), 0);
    int32_t gotFour = 0;
    char back[24] = {};
    reader.Get(&gotFour, 4);
    reader.Get(back, 24);
    EXPECT_EQ(gotFour, four);
    EXPECT_EQ(std::string(back, 24), "abcdefghijklmnopqrstuvwx");
}

TEST_F(RequestProtocol, StatusesAndNestedFrames) {
    EXPECT_EQ(zk::RequestWriter(nullptr, 4096).Status(), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zk::RequestReader(nullptr).Status(), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zk::RequestReader(request_).Status(), ZK_ERR_REQUEST_STATE);
    {
        // Frames nest while a writer is open, four deep; a fifth is refused.
        std::optional<zk::RequestWriter> writers[4];
        for (auto& writer : writers)
            ASSERT_EQ(writer.emplace(request_, 512).Status(), 0);
        EXPECT_EQ(zk::RequestWriter(request_, 512).Status(), ZK_ERR_REQUEST_STATE);
    }
    EXPECT_EQ(request_->FrameCount() + request_->Cursor(), 4u);
    // One open operation per request: another Begin is refused and changes nothing.
    EXPECT_EQ(zk::RequestWriter(request_, 512).Status(), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(request_->Arena().LiveCount(), 4u);
    EXPECT_EQ(zkIsRequestCompleted(request_), 0);
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
    EXPECT_EQ(BeginAdd(executor, request_, 1, 1), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(zkIsRequestCompleted(request_), 0);
    std::thread opener([&] {
        // Let the End start waiting first, most of the time.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        executor.Hold(false);
    });
    bool checked = false;
    EXPECT_EQ(EndAdd(request_, &checked), 42);
    EXPECT_TRUE(checked);
    opener.join();
    EXPECT_EQ(zkWaitForRequestCompletion(request_), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(EndAdd(request_), ZK_ERR_REQUEST_STATE);

    ASSERT_EQ(BeginAdd(executor, request_, 5, 6), 0);
    while (!zkIsRequestCompleted(request_))
        std::this_thread::yield();
    EXPECT_EQ(zkWaitForRequestCompletion(request_), 0);
    EXPECT_EQ(EndAdd(request_), 11);
}

struct Event {
    char name;
    uint32_t cursor, argument;
    bool operator==(const Event&) const = default;
};

// Records each resume, then ends its frame's use (popping it) and, when told
// to, completes the operation below, as a composite operation's step would.
struct Step final : zk::Continuation {
    Step(char name, std::vector<Event>* log, bool completeBelow)
        : name(name), log(log), completeBelow(completeBelow) {}
    void Resume(Request* request, uint32_t argument) override {
        log->push_back({name, request->Cursor(), argument});
        { zk::RequestReader reader(request); }
        if (completeBelow) request->NotifyCompletion();
    }
    char name;
    std::vector<Event>* log;
    bool completeBelow;
};

TEST_F(RequestProtocol, ContinuationsRunFromTheTopDown) {
    std::vector<Event> log;
    Step a('A', &log, false), b('B', &log, true);
    {
        zk::RequestWriter outer(request_, 4096);
        outer.SetContinuation(&a, 7);
        zk::RequestWriter(request_, 4096).SetContinuation(&b, 9);
    }
    TestExecutor executor;
    zktest::AddOperation complete{request_, 0, 0};
    executor.Submit(&complete);
    // The inner frame's continuation stops the walk: the outer one stays pending.
    while (request_->FrameState(1) != zk::kFrameCompleted)
        std::this_thread::yield();
    EXPECT_EQ(request_->FrameState(0), zk::kFramePending);
    EXPECT_EQ(zkIsRequestCompleted(request_), 0);

    EXPECT_EQ(zkWaitForRequestCompletion(request_), 0);
    // B ran on frame 1, popped it and completed frame 0; then A ran on frame 0.
    EXPECT_EQ(log, (std::vector<Event>{{'B', 1, 9}, {'A', 0, 7}}));
    EXPECT_EQ(request_->FrameCount() + request_->Cursor() + request_->Arena().LiveCount(), 0u);
    EXPECT_EQ(zkIsRequestCompleted(request_), 1);
}

TEST_F(RequestProtocol, UpdateAllRunsReadyContinuations) {
    std::vector<Event> log;
    Step a('A', &log, false);
    zk::RequestWriter(request_, 4096).SetContinuation(&a, 3);
    zkUpdateAllRequests();
    EXPECT_TRUE(log.empty()); // still pending
    request_->NotifyCompletion();
    EXPECT_EQ(request_->FrameState(0), zk::kFrameCompleted);
    EXPECT_EQ(zkIsRequestCompleted(request_), 1);
    zkUpdateAllRequests();
    zkUpdateAllRequests(); // nothing left to run
    EXPECT_EQ(log, (std::vector<Event>{{'A', 0, 3}}));
    EXPECT_EQ(request_->FrameCount(), 0u);
}

TEST(RequestArena, StackOfEightSixteenByteSteps) {
    alignas(64) static unsigned char block[1024];
    zk::RequestArena arena;
    const zkAddr base = reinterpret_cast<zkAddr>(block);
    arena.Initialize(base, sizeof(block));
    EXPECT_EQ(arena.Allocate(1), base);
    EXPECT_EQ(arena.Allocate(17), base + 16);
    EXPECT_EQ(arena.Allocate(16), base + 48);
    arena.FreeLast(17); // not the most recent size: nothing happens
    EXPECT_EQ(arena.LiveCount(), 3u);
    arena.FreeLast(16);
    EXPECT_EQ(arena.LiveCount(), 2u);
    EXPECT_EQ(arena.Current(), base + 48);
    for (int i = 0; i < 6; ++i)
        EXPECT_NE(arena.Allocate(8), 0u);
    EXPECT_EQ(arena.Allocate(8), 0u); // 8 live allocations
    for (int i = 0; i < 6; ++i)
        arena.FreeLast(8);
    EXPECT_EQ(arena.Allocate(1024 - 48 + 1), 0u);    // rounded up, it does not fit
    EXPECT_EQ(arena.Allocate(1024 - 48), base + 48); // the rest exactly
    EXPECT_EQ(arena.Allocate(1), 0u);
}

constexpr int kRounds = zktest::kThreadSanitizer ? 10000 : 20000;

using RequestStress = RequestProtocol;

// Each application thread drives its own request; one executor serves all.
TEST_F(RequestStress, OneRequestPerThread) {
    TestExecutor executor;
    Request* requests[4] = {request_, zkCreateRequest(), zkCreateRequest(), zkCreateRequest()};
    std::atomic<int> wrong{0};
    std::vector<std::thread> users;
    for (int t = 0; t < 4; ++t) {
        users.emplace_back([&, t] {
            for (int round = 0; round < kRounds / 4; ++round)
                wrong += BeginAdd(executor, requests[t], round, t) != 0 ||
                         EndAdd(requests[t]) != round + t;
        });
    }
    for (std::thread& user : users)
        user.join();
    EXPECT_EQ(wrong.load(), 0);
    for (int t = 1; t < 4; ++t)
        EXPECT_EQ(zkReleaseRequest(requests[t]), 0);
}

} // namespace
