// The library started inside the internal test program (which holds the
// library's own objects), with a request pool and a trace capture.
#ifndef ZK_TESTS_THREAD_INTERNAL_LIBRARY_FIXTURE_H
#define ZK_TESTS_THREAD_INTERNAL_LIBRARY_FIXTURE_H

#include <zk.h>

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace zktest {

class StartedLibrary : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(zkBeginProcess(0), 0);
        ASSERT_EQ(zkInitializeEx(16u << 20, 512), 0);
        ASSERT_EQ(zkInitializeRequest(16), 0);
        Lines().clear();
        zkSetTraceProc(&Record);
    }
    void TearDown() override {
        zkSetTraceProc(nullptr);
        EXPECT_EQ(zkTerminate(), 0);
        EXPECT_EQ(zkEndProcess(), 0);
    }

    // The trace texts since SetUp, one per call.
    static std::vector<std::string>& Lines() {
        static std::vector<std::string> lines;
        return lines;
    }

private:
    static void ZK_CALL Record(const char* text) {
        static std::mutex mutex;
        std::lock_guard<std::mutex> guard(mutex);
        Lines().emplace_back(text);
    }
};

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#else
constexpr bool kThreadSanitizer = false;
#endif

} // namespace zktest

#endif // ZK_TESTS_THREAD_INTERNAL_LIBRARY_FIXTURE_H
