// Requests through the exports: the pool sized by zkInitializeRequest, the
// state of a request with no operation, and overlays, whose Begin and End run
// the frame protocol without an operation. Operations completing on another
// thread are tested in internal/request_protocol_test.cpp.
#include "support/library_test.h"

namespace {

using RequestTest = zktest::LibraryTest;

TEST(RequestLifecycle, RequestsLiveFromInitialisationToTermination) {
    EXPECT_EQ(zkInitializeRequest(2), ZK_ERR_REQUESTS_NOT_READY);
    ASSERT_EQ(zkBeginProcess(0), 0);
    for (int start = 0; start < 2; ++start) {
        ASSERT_EQ(zkInitializeEx(8u << 20, 256), 0);
        EXPECT_EQ(zkCreateRequest(), nullptr); // each start begins with no pool
        EXPECT_EQ(zkInitializeRequest(1), 0);
        EXPECT_NE(zkCreateRequest(), nullptr); // left active at termination
        EXPECT_EQ(zkTerminate(), 0);
        EXPECT_EQ(zkInitializeRequest(2), ZK_ERR_REQUESTS_NOT_READY);
        EXPECT_EQ(zkCreateRequest(), nullptr);
    }
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST_F(RequestTest, PoolSizesAndReuse) {
    struct Case {
        uint32_t count;
        int32_t result;
        uint32_t creatable;
    };
    // 0x7FFFFFFF requests pass 4 GiB, 200000 pass the 32 MiB arena.
    const Case cases[] = {{2, 0, 2},           {0, 0, 0},
                          {200000, ZK_ERR_NO_MEMORY, 0}, {0x7FFFFFFF, ZK_ERR_NO_MEMORY, 0},
                          {3, 0, 3}};
    for (const Case& c : cases) {
        ASSERT_EQ(zkInitializeRequest(c.count), c.result) << c.count;
        std::vector<Request*> made;
        while (Request* r = zkCreateRequest())
            made.push_back(r);
        EXPECT_EQ(made.size(), c.creatable) << c.count;
        if (made.empty()) continue;
        // A released request is the next one created.
        ASSERT_EQ(zkReleaseRequest(made.front()), 0);
        EXPECT_EQ(zkCreateRequest(), made.front());
        for (Request* r : made)
            EXPECT_EQ(zkReleaseRequest(r), 0);
    }
}

TEST_F(RequestTest, ArenasComeFromTheSystemPool) {
    // 4096 arenas of 16 KiB are twice the arena: creates stop when the pool
    // is full and leave the request free for later.
    ASSERT_EQ(zkInitializeRequest(4096), 0);
    std::vector<Request*> made;
    while (Request* r = zkCreateRequest())
        made.push_back(r);
    EXPECT_GT(made.size(), 4u);
    EXPECT_LT(made.size(), 4096u);
    ASSERT_EQ(zkReleaseRequest(made.back()), 0);
    EXPECT_EQ(zkCreateRequest(), made.back());
    for (Request* r : made)
        EXPECT_EQ(zkReleaseRequest(r), 0);
}

TEST_F(RequestTest, OverlayBeginCompletesAtOnceAndEndReportsUnsupported) {
    int dummy = 0;
    EXPECT_EQ(zkLoadOverlayForDebug(&dummy, nullptr), 0);
    EXPECT_EQ(zkLoadOverlayFromMemoryForRelease(nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(zkInitializeRequest(1), 0);
    Request* request = zkCreateRequest();
    ASSERT_NE(request, nullptr);
    // A new request has nothing pending.
    EXPECT_EQ(zkIsRequestCompleted(request), 1);
    EXPECT_EQ(zkWaitForRequestCompletion(request), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(zkEndLoadOverlayForRelease(nullptr, request), ZK_ERR_REQUEST_STATE);
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(zkBeginLoadOverlay(nullptr, nullptr, request), 0);
        // A second Begin before the End is refused and leaves the first alone.
        EXPECT_EQ(zkBeginLoadOverlay(nullptr, nullptr, request), ZK_ERR_REQUEST_STATE);
        EXPECT_EQ(zkIsRequestCompleted(request), 1);
        EXPECT_EQ(zkWaitForRequestCompletion(request), 0);
        EXPECT_EQ(round % 2 ? zkEndLoadOverlayForDebug(nullptr, request)
                            : zkEndLoadOverlayForRelease(nullptr, request),
                  ZK_ERR_NOT_SUPPORTED);
        // The End popped the frame: nothing is pending any more.
        EXPECT_EQ(zkWaitForRequestCompletion(request), ZK_ERR_REQUEST_STATE);
    }
    EXPECT_EQ(zkReleaseRequest(request), 0);
    // A released request is refused as one whose state allows no call.
    EXPECT_EQ(zkBeginLoadOverlay(nullptr, nullptr, request), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(zkEndLoadOverlayForDebug(nullptr, request), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(zkWaitForRequestCompletion(request), ZK_ERR_REQUEST_STATE);
}

TEST_F(RequestTest, NullRequestIsRefused) {
    EXPECT_EQ(zkReleaseRequest(nullptr), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zkWaitForRequestCompletion(nullptr), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zkIsRequestCompleted(nullptr), 0);
    EXPECT_EQ(zkBeginLoadOverlay(nullptr, nullptr, nullptr), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zkEndLoadOverlayForDebug(nullptr, nullptr), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zkEndLoadOverlayForRelease(nullptr, nullptr), ZK_ERR_NULL_REQUEST);
}

} // namespace
