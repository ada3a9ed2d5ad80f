// Termination leaves the file system running: host files, host mounts and the
// I/O worker keep working from any thread, also while termination runs, and
// neither termination nor process end waits for a host call the worker is in.
#include "support/library_test.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

namespace zktest {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

void Start() {
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
}

// The host path behind a path of the root mount.
std::string HostPath(const char* path) {
    char physical[261] = {};
    EXPECT_EQ(zkGetPhysicalPath(path, physical, sizeof physical), 0);
    return physical;
}

// Writes size bytes of fill to path and opens it for reading and writing.
FileHandle* MakeFile(const char* path, uint32_t size, char fill) {
    FileHandle* f = zkOpenFile(path, ZK_OPEN_READ | ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    const std::string data(size, fill);
    uint32_t written = 0;
    EXPECT_EQ(zkWriteFile(f, data.data(), size, &written), 0);
    return f;
}

// A thread reads 512 bytes at offset 0 over and over while the main thread
// terminates: every read before, during and after termination succeeds.
TEST(TerminationConcurrency, ReadsOnAnotherThreadGoOnThroughTermination) {
    const int rounds = kThreadSanitizer ? 6 : 30;
    for (int round = 0; round < rounds; ++round) {
        Start();
        const std::string host = HostPath("/termination_reads.bin");
        FileHandle* f = MakeFile("/termination_reads.bin", 4096, 'r');
        ASSERT_NE(f, nullptr);
        std::atomic<bool> stop{false};
        std::atomic<int> reads{0}, wrong{0};
        std::thread reader([&] {
            char buffer[512];
            while (!stop.load()) {
                uint32_t got = 0;
                const int32_t r = zkReadFileOffset(f, 0, buffer, 512, &got, 0);
                wrong += r != 0 || got != 512 || std::string(buffer, 512) != std::string(512, 'r');
                ++reads;
            }
        });
        std::this_thread::sleep_for(1ms);
        EXPECT_EQ(zkTerminate(), 0);
        // The reader goes on after termination too.
        for (const int after = reads.load() + 20; reads.load() < after;)
            std::this_thread::yield();
        stop = true;
        reader.join();
        EXPECT_EQ(wrong.load(), 0) << "round " << round;
        zkCloseFile(f);
        EXPECT_EQ(zkEndProcess(), 0);
        std::remove(host.c_str());
    }
}

// After termination a background load is gone with the arena, while new opens
// from any thread, host mounts and the working directory's resolution work;
// process end removes the mounts. (Files left open: the test above and
// Files.TerminationKeepsOpenFilesAndProcessEndClosesThem.)
TEST(TerminationConcurrency, MountsStayUntilProcessEndAndLoadsEndWithTheArena) {
    Start();
    zkCloseFile(MakeFile("/termination_other.bin", 60, 'o'));
    const std::string host = HostPath("/termination_other.bin");
    ASSERT_EQ(zkMount("/here", fs::path(host).parent_path().string().c_str(), 0), 0);
    FileHandle* load = zkStartLoadingDataFromFile("/termination_other.bin");
    ASSERT_NE(load, nullptr);
    EXPECT_EQ(zkTerminate(), 0);

    // The load went with the arena (its thread was waited for); its handle
    // stays open without a load until it is closed.
    void* data = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(Codes({zkIsFileProcessing(load), zkGetLoadedData(load, &data, &size),
                     zkGetOpenFileCount()}),
              Codes({0, -4, 1}));
    zkCloseFile(load);
    EXPECT_EQ(zkGetOpenFileCount(), 0u);
    auto other = std::async(std::launch::async, [] {
        FileHandle* f = zkOpenFile("/here/termination_other.bin", ZK_OPEN_READ, 0);
        uint32_t size = 0;
        const int32_t r = zkGetFileSize(f, &size);
        zkCloseFile(f);
        return f && r == 0 ? size : 0u;
    });
    EXPECT_EQ(other.get(), 60u);

    // Initialisation again keeps the mount in place; process end removes it.
    ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
    char physical[261];
    EXPECT_EQ(zkGetPhysicalPath("/here/x", physical, sizeof physical), 0);
    EXPECT_EQ(zkTerminate() + zkEndProcess(), 0);
    EXPECT_NE(zkGetPhysicalPath("/here/x", physical, sizeof physical), 0);
    std::remove(host.c_str());
}

#if !defined(_WIN32)
// The worker sits in the host's open of a FIFO that has no writer yet.
class HeldInOpen {
public:
    HeldInOpen() : path_(HostPath("/") + "/termination.fifo") {
        std::remove(path_.c_str());
        EXPECT_EQ(mkfifo(path_.c_str(), 0600), 0);
        opened_ = std::async(std::launch::async, [] {
            FileHandle* f = zkOpenFile("/termination.fifo", ZK_OPEN_READ, 0);
            zkCloseFile(f);
            return f != nullptr;
        });
        std::this_thread::sleep_for(100ms); // let the worker reach the open
    }
    // A writer lets the open finish.
    bool Release() {
        std::FILE* writer = std::fopen(path_.c_str(), "w");
        if (writer) std::fclose(writer);
        const bool opened = opened_.get();
        std::remove(path_.c_str());
        return writer && opened;
    }

private:
    std::string path_;
    std::future<bool> opened_;
};

bool ReturnsWithin(std::future<int32_t>& call, std::chrono::seconds bound) {
    return call.wait_for(bound) == std::future_status::ready;
}

TEST(TerminationConcurrency, NeitherTerminationNorProcessEndWaitsForAHeldHostCall) {
    Start();
    HeldInOpen held;
    auto terminate = std::async(std::launch::async, [] { return zkTerminate(); });
    EXPECT_TRUE(ReturnsWithin(terminate, 10s)) << "termination waited for the worker";
    // Process end waits for the worker only briefly.
    auto end = std::async(std::launch::async, [] { return zkEndProcess(); });
    EXPECT_TRUE(ReturnsWithin(end, 10s)) << "process end waited for the worker";
    EXPECT_TRUE(held.Release());
    if (terminate.valid()) terminate.get();
    if (end.valid()) end.get();
    // The worker let go ends by itself, or serves the next start.
    Start();
    FileHandle* f = MakeFile("/termination_after.bin", 10, 'a');
    EXPECT_NE(f, nullptr);
    zkCloseFile(f);
    std::remove(HostPath("/termination_after.bin").c_str());
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
}
#endif

} // namespace
} // namespace zktest
