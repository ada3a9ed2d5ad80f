// Test support shared by every suite: the library fixture with its leak check,
// and a capture of the trace channel.
#ifndef ZK_TESTS_SUPPORT_LIBRARY_TEST_H
#define ZK_TESTS_SUPPORT_LIBRARY_TEST_H

#include <zk.h>

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace zktest {

// Stress suites scale their work down under ThreadSanitizer.
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

// The arena and descriptor count every test starts the library with.
constexpr uint32_t kArenaSize = 32u << 20;
constexpr uint32_t kDescriptors = 1024;

// Results and counts of a run of calls, compared in one go (evaluated in order).
using Codes = std::vector<int64_t>;

// Blocks in use in the system pool.
uint32_t UsedBlocks();

// The allocation-failure walk: runs `attempt` with the k-th system-pool
// allocation after its start refused, for k = 1, 2, ..., until a run in which
// nothing was refused; each run must leave the pool's blocks and the open
// files as it found them, and `attempt` (true when all its work succeeded)
// may fail only in a run that had a refusal. Returns the number of
// allocations the work makes (the runs with a refusal).
uint32_t WalkRefusals(const char* what, const std::function<bool()>& attempt);

// initProc and termProc for zkMain runs: start the library, terminate it.
inline int ZK_CALL StartLibrary() {
    return zkInitializeEx(kArenaSize, kDescriptors) >= 0 ? 1 : 0;
}
inline void ZK_CALL StopLibrary() {
    zkTerminate();
}

// Opens the process level and starts the library with kArenaSize and
// kDescriptors; at tear-down fails the test for every system-pool block
// it left behind (blocks of the library's own category excepted), then
// terminates and ends the process level.
class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// Records the text of every trace call, each call as one string, while it
// lives; restores the capture (or the default sink) that was there before.
class TraceCapture {
public:
    TraceCapture();
    ~TraceCapture();
    // Not copyable (it holds a mutex): it stands for one installed procedure.
    std::vector<std::string> Lines() const;
    // All texts joined.
    std::string Text() const;
    void Clear();

private:
    static void ZK_CALL Record(const char* text);

    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    TraceCapture* previous_;
};

} // namespace zktest

#endif // ZK_TESTS_SUPPORT_LIBRARY_TEST_H
