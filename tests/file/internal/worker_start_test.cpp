// The POSIX backend's fixed pool of thread objects is filled so that the worker cannot start.
#include "platform/platform.h"
#include "support/library_test.h"

#include <cstdio>
#include <vector>

namespace zktest {
namespace {

#if !defined(_WIN32)
namespace os = zk::os;

uint32_t EndAtOnce(void*) {
    return 0;
}
#endif

TEST(WorkerStart, AWorkerThatCannotStartFailsInitialisationAndTheNextStartWorks) {
#if defined(_WIN32)
    GTEST_SKIP() << "the Windows backend cannot be made to refuse a thread";
#else
    ASSERT_EQ(zkBeginProcess(0), 0);
    // Suspended threads hold the pool's objects until they are let go.
    std::vector<os::Handle> held;
    while (held.size() < 4096) {
        os::Handle thread = os::ThreadCreateSuspended(0, EndAtOnce, nullptr);
        if (!thread) break;
        held.push_back(thread);
    }
    ASSERT_LT(held.size(), 4096u) << "the thread pool never ran out";

    EXPECT_EQ(zkInitializeEx(kArenaSize, kDescriptors), -19);
    // No worker: a file call fails at once rather than waiting for ever.
    EXPECT_EQ(zkOpenFile("/missing.bin", ZK_OPEN_READ, 0), nullptr);
    EXPECT_EQ(zkGetOpenFileCount(), 0u);
    EXPECT_EQ(zkTerminate(), 0);

    for (os::Handle thread : held) {
        os::ThreadResume(thread);
        os::Wait(thread, os::kInfinite);
        os::CloseHandle(thread);
    }
    ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
    FileHandle* file = zkOpenFile("/worker_start.bin", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    ASSERT_NE(file, nullptr);
    uint32_t written = 0;
    EXPECT_EQ(zkWriteFile(file, "ok", 2, &written), 0);
    EXPECT_EQ(written, 2u);
    zkCloseFile(file);
    char path[261];
    ASSERT_EQ(zkGetPhysicalPath("/worker_start.bin", path, sizeof(path)), 0);
    EXPECT_EQ(std::remove(path), 0);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
#endif
}

} // namespace
} // namespace zktest
