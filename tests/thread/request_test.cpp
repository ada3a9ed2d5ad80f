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

// A released request is the next one created. 0x7FFFFFFF requests pass 4 GiB,
// 200000 pass the 32 MiB arena; 4096 arenas of 16 KiB are twice the arena:
// creates stop when the system pool is full.
TEST_F(RequestTest, PoolSizesAndReuse) {
    const struct {
        uint32_t count;
        int32_t result;
        size_t least, most; // requests creatable
    } cases[] = {{2, 0, 2, 2},
                 {0, 0, 0, 0},
                 {200000, ZK_ERR_NO_MEMORY, 0, 0},
                 {0x7FFFFFFF, ZK_ERR_NO_MEMORY, 0, 0},
                 {3, 0, 3, 3},
                 {4096, 0, 5, 4095}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.count);
        ASSERT_EQ(zkInitializeRequest(c.count), c.result);
        std::vector<Request*> made;
        while (Request* r = zkCreateRequest())
            made.push_back(r);
        EXPECT_TRUE(made.size() >= c.least && made.size() <= c.most) << made.size();
        if (made.empty()) continue;
        ASSERT_EQ(zkReleaseRequest(made.front()), 0);
        EXPECT_EQ(zkCreateRequest(), made.front());
        for (Request* r : made)
            EXPECT_EQ(zkReleaseRequest(r), 0);
    }
}

TEST_F(RequestTest, OverlayBeginCompletesAtOnceAndEndReportsUnsupported) {
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
    // A released request is refused as one whose state allows no call; a null one as null.
    EXPECT_EQ(
        zktest::Codes({zkBeginLoadOverlay(nullptr, nullptr, request),
                       zkWaitForRequestCompletion(request),
                       zkBeginLoadOverlay(nullptr, nullptr, nullptr), zkReleaseRequest(nullptr)}),
        zktest::Codes({ZK_ERR_REQUEST_STATE, ZK_ERR_REQUEST_STATE, ZK_ERR_NULL_REQUEST,
                       ZK_ERR_NULL_REQUEST}));
}

} // namespace
