// Requests through the exports: the pool sized by zkInitializeRequest, and the
// state of a request with no operation. The frame protocol with operations
// completing on another thread is tested in internal/request_protocol_test.cpp.
#include "support/library_test.h"

namespace {

using RequestTest = zktest::LibraryTest;

TEST(RequestLifecycle, RequestsNeedTheLibrary) {
    EXPECT_EQ(zkInitializeRequest(2), ZK_ERR_REQUESTS_NOT_READY);
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(8u << 20, 256), 0);
    EXPECT_EQ(zkInitializeRequest(2), 0);
    Request* request = zkCreateRequest();
    EXPECT_NE(request, nullptr);
    EXPECT_EQ(zkReleaseRequest(request), 0);
    EXPECT_EQ(zkTerminate(), 0);
    // Termination returned the array: requests are unavailable again ...
    EXPECT_EQ(zkInitializeRequest(2), ZK_ERR_REQUESTS_NOT_READY);
    EXPECT_EQ(zkCreateRequest(), nullptr);
    // ... until the next initialisation, which starts with an empty manager.
    ASSERT_EQ(zkInitializeEx(8u << 20, 256), 0);
    EXPECT_EQ(zkCreateRequest(), nullptr);
    EXPECT_EQ(zkInitializeRequest(1), 0);
    EXPECT_NE(zkCreateRequest(), nullptr); // still active at termination
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TEST_F(RequestTest, PoolOfTwo) {
    ASSERT_EQ(zkInitializeRequest(2), 0);
    Request* first = zkCreateRequest();
    Request* second = zkCreateRequest();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(zkCreateRequest(), nullptr);
    EXPECT_EQ(zkReleaseRequest(first), 0);
    EXPECT_EQ(zkCreateRequest(), first);
    EXPECT_EQ(zkCreateRequest(), nullptr);
    EXPECT_EQ(zkReleaseRequest(first), 0);
    EXPECT_EQ(zkReleaseRequest(second), 0);
}

TEST_F(RequestTest, EachInitializeReplacesThePool) {
    ASSERT_EQ(zkInitializeRequest(0), 0);
    EXPECT_EQ(zkCreateRequest(), nullptr);
    ASSERT_EQ(zkInitializeRequest(1), 0);
    ASSERT_NE(zkCreateRequest(), nullptr);
    EXPECT_EQ(zkCreateRequest(), nullptr);
    ASSERT_EQ(zkInitializeRequest(3), 0);
    Request* made[3];
    for (Request*& r : made) {
        r = zkCreateRequest();
        ASSERT_NE(r, nullptr);
    }
    EXPECT_EQ(zkCreateRequest(), nullptr);
    for (Request* r : made)
        EXPECT_EQ(zkReleaseRequest(r), 0);
}

TEST_F(RequestTest, TooManyRequestsForThePool) {
    // An array larger than the 32 MiB arena, and one larger than 4 GiB.
    EXPECT_EQ(zkInitializeRequest(200000), ZK_ERR_NO_MEMORY);
    EXPECT_EQ(zkCreateRequest(), nullptr); // the manager was left with none
    EXPECT_EQ(zkInitializeRequest(0x7FFFFFFF), ZK_ERR_NO_MEMORY);
    EXPECT_EQ(zkCreateRequest(), nullptr);
    EXPECT_EQ(zkInitializeRequest(1), 0);
    EXPECT_NE(zkCreateRequest(), nullptr);
}

TEST_F(RequestTest, ArenasComeFromTheSystemPool) {
    // 4 arenas of 16384 bytes fit into a small remainder of the pool; the
    // creates beyond what the pool holds fail and leave the request free.
    ASSERT_EQ(zkInitializeRequest(4096), 0);
    std::vector<Request*> made;
    while (Request* r = zkCreateRequest())
        made.push_back(r);
    EXPECT_GT(made.size(), 4u);
    EXPECT_LT(made.size(), 4096u); // 4096 x 16 KiB is twice the 32 MiB arena
    ASSERT_EQ(zkReleaseRequest(made.back()), 0);
    Request* again = zkCreateRequest();
    EXPECT_EQ(again, made.back());
    for (Request* r : made)
        EXPECT_EQ(zkReleaseRequest(r), 0);
}

TEST_F(RequestTest, NewRequestHasNothingPending) {
    ASSERT_EQ(zkInitializeRequest(1), 0);
    Request* request = zkCreateRequest();
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(zkIsRequestCompleted(request), 1);
    EXPECT_EQ(zkWaitForRequestCompletion(request), ZK_ERR_REQUEST_STATE);
    zkUpdateAllRequests(); // nothing to run
    EXPECT_EQ(zkIsRequestCompleted(request), 1);
    EXPECT_EQ(zkReleaseRequest(request), 0);
}

// ---- overlays: the request protocol without an operation -------------------------

TEST_F(RequestTest, OverlayLoadsReportSuccess) {
    int dummy = 0;
    EXPECT_EQ(zkLoadOverlayForDebug(&dummy, nullptr), 0);
    EXPECT_EQ(zkLoadOverlayForRelease(nullptr, &dummy), 0);
    EXPECT_EQ(zkLoadOverlayFromMemoryForDebug(&dummy, nullptr, &dummy), 0);
    EXPECT_EQ(zkLoadOverlayFromMemoryForRelease(nullptr, nullptr, nullptr), 0);
    zkReleaseOverlay();
}

TEST_F(RequestTest, OverlayBeginCompletesAtOnceAndEndReportsUnsupported) {
    ASSERT_EQ(zkInitializeRequest(1), 0);
    Request* request = zkCreateRequest();
    ASSERT_NE(request, nullptr);
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
        EXPECT_EQ(zkEndLoadOverlayForRelease(nullptr, request), ZK_ERR_REQUEST_STATE);
        EXPECT_EQ(zkWaitForRequestCompletion(request), ZK_ERR_REQUEST_STATE);
    }
    EXPECT_EQ(zkReleaseRequest(request), 0);
}

TEST_F(RequestTest, NullRequestOrEndWithoutBeginIsRefused) {
    EXPECT_EQ(zkReleaseRequest(nullptr), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zkWaitForRequestCompletion(nullptr), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zkIsRequestCompleted(nullptr), 0);
    EXPECT_EQ(zkBeginLoadOverlay(nullptr, nullptr, nullptr), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zkEndLoadOverlayForDebug(nullptr, nullptr), ZK_ERR_NULL_REQUEST);
    EXPECT_EQ(zkEndLoadOverlayForRelease(nullptr, nullptr), ZK_ERR_NULL_REQUEST);
    ASSERT_EQ(zkInitializeRequest(1), 0);
    Request* request = zkCreateRequest();
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(zkEndLoadOverlayForRelease(nullptr, request), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(zkEndLoadOverlayForDebug(nullptr, request), ZK_ERR_REQUEST_STATE);
    EXPECT_EQ(zkReleaseRequest(request), 0);
}

} // namespace
