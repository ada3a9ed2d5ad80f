#include "support/library_test.h"

#include <atomic>
#include <numeric>

namespace zktest {

namespace {

int32_t ZK_CALL CollectForeignBlock(zkAddr start, uint32_t length, uint32_t category, void* user) {
    if (category != ZK_CATEGORY_LIBRARY)
        static_cast<std::vector<std::string>*>(user)->push_back(
            "block at " + std::to_string(start) + ", " + std::to_string(length) +
            " bytes, category " + std::to_string(category));
    return 1;
}

std::atomic<TraceCapture*> g_activeCapture{nullptr};

uint32_t g_refuseIn = 0; // allocations until the refused one; 0 when none is due
bool g_refused = false;
int32_t ZK_CALL RefuseKth(uint32_t, uint32_t) {
    if (g_refuseIn == 0 || --g_refuseIn != 0) return 1;
    g_refused = true;
    return 0;
}

} // namespace

uint32_t UsedBlocks() {
    MemoryInfo info{};
    zkGetMemoryInfo(&info);
    return info.blockCount;
}

uint32_t WalkRefusals(const char* what, const std::function<bool()>& attempt) {
    uint32_t k = 1;
    for (;; ++k) {
        const Codes before = {UsedBlocks(), zkGetOpenFileCount()};
        g_refuseIn = k;
        g_refused = false;
        zkSetAllocHook(RefuseKth);
        const bool ok = attempt();
        zkSetAllocHook(nullptr);
        g_refuseIn = 0;
        EXPECT_EQ(Codes({UsedBlocks(), zkGetOpenFileCount()}), before)
            << what << ", allocation " << k << " refused";
        EXPECT_TRUE(ok || g_refused) << what << ": nothing was refused, yet it failed";
        if (!g_refused || k == 400) break;
    }
    return k - 1;
}

void LibraryTest::SetUp() {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
}

void LibraryTest::TearDown() {
    std::vector<std::string> left;
    if (MemoryPool* systemPool = zkGetSystemMemoryPool())
        zkEnumerateMemoryPoolCategory(systemPool, CollectForeignBlock, &left);
    EXPECT_EQ(left, std::vector<std::string>{}) << "system-pool blocks the test left behind";
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}

TraceCapture::TraceCapture() : previous_(g_activeCapture.load()) {
    g_activeCapture.store(this);
    zkSetTraceProc(&TraceCapture::Record);
}

TraceCapture::~TraceCapture() {
    g_activeCapture.store(previous_);
    zkSetTraceProc(previous_ ? &TraceCapture::Record : nullptr);
}

void ZK_CALL TraceCapture::Record(const char* text) {
    TraceCapture* capture = g_activeCapture.load();
    if (!capture) return;
    std::lock_guard<std::mutex> guard(capture->mutex_);
    capture->lines_.emplace_back(text ? text : "");
}

std::vector<std::string> TraceCapture::Lines() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

std::string TraceCapture::Text() const {
    const std::vector<std::string> lines = Lines();
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

void TraceCapture::Clear() {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.clear();
}

} // namespace zktest
