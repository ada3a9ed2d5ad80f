// The argument sweep: every exported function is called with null pointers,
// zero and maximal sizes and counts, handles that were never valid (pointers
// into a junk block), handles already released, and handles of another kind,
// in each state of the library's life: before process begin (after process
// end), begun but not initialised, running, and after termination. Nothing
// may crash or trip a sanitizer, and the library must work normally
// afterwards. A case exists for every pinned export: a new export without one
// fails the test.
#include "kernel/export_list.h"
#include "support/library_test.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace zktest {
namespace {

// Never a handle of the library: a block of junk bytes, large enough for any
// record a call may read through a pointer it cannot check.
alignas(64) unsigned char g_junk[4096];
template <typename T> T* Junk() {
    return reinterpret_cast<T*>(g_junk + 64);
}

// Handles that were valid once: taken and given back while running (their
// records are free now), and reused in every later state.
struct Stale {
    FileHandle* file = nullptr;
    SemaphoreRecord* semaphore = nullptr;
    ThreadRecord* thread = nullptr;
    MemoryPool* pool = nullptr;
    MemoryBlock* block = nullptr;
    Request* request = nullptr;
    ProfileFile* profile = nullptr;
    KivArchive* archive = nullptr;
    KivItemStream* item = nullptr;
    RingBuffer* ring = nullptr;
    DirHandle* dir = nullptr;
    void* address = nullptr;
} g_stale;

constexpr uint32_t kMax = 0xFFFFFFFFu;
char g_out[16];
uint32_t g_u32;
void* g_ptr;
zkNativeHandle g_handle;
MemoryInfo g_info;

int32_t ZK_CALL NoBlock(zkAddr, uint32_t, uint32_t, void*) {
    return 1;
}
int32_t ZK_CALL NoRange(zkAddr, uint32_t, void*) {
    return 1;
}
int32_t ZK_CALL NoCategory(zkAddr, uint32_t, uint32_t, void*) {
    return 1;
}

// One call's arguments, for Calls and Expect.
template <typename... T> std::tuple<T...> Args(T... values) {
    return {values...};
}
template <typename T> constexpr bool kIsArgs = false;
template <typename... T> constexpr bool kIsArgs<std::tuple<T...>> = true;

// Calls `call` with one set of arguments: a single value or Args(...).
template <typename F, typename A> auto CallWith(F call, A set) {
    if constexpr (kIsArgs<A>)
        return std::apply([&](auto... values) { return call(values...); }, set);
    else
        return call(set);
}

// Calls `call` once with each set of arguments; without sets, once with none.
template <typename F, typename... A> void Calls(F call, A... sets) {
    if constexpr (sizeof...(A) == 0)
        call();
    else
        (CallWith(call, sets), ...);
}

// Calls `call` once with each set of arguments and expects `result` from each.
template <typename F, typename R, typename... A> void Expect(F call, R result, A... sets) {
    auto check = [&](auto set) { EXPECT_EQ(CallWith(call, set), result); };
    (check(sets), ...);
}

// Calls that change the library's life (begin, end, initialise, terminate,
// the frame loop, the trace procedure, the request table, the root mount) are
// exercised by the test itself (zkInitialize by the memory start-up tests).
const std::set<std::string> kNotSwept = {"zkBeginProcess",   "zkEndProcess",        "zkInitialize",
                                         "zkInitializeEx",   "zkTerminate",         "zkMain",
                                         "zkSetTraceProc",   "zkInitializeRequest", "zkUnmountAll",
                                         "zkPostQuitMessage"};

using Cases = std::vector<std::pair<std::string, std::function<void()>>>;

// One case for every other export. SWEEP calls the export with each set of
// arguments, SWEEP_EXPECT also expects the given result from each call.
#define SWEEP(fn, ...) all.emplace_back(#fn, [] { Calls(fn __VA_OPT__(, ) __VA_ARGS__); })
#define SWEEP_EXPECT(fn, ...) all.emplace_back(#fn, [] { Expect(fn, __VA_ARGS__); })
const Cases& EveryCase() {
    static const Cases cases = [] {
        Cases all;
        all.emplace_back("zkGetResultText", [] {
            for (int32_t code : {INT32_MIN, -1000, -2, 1, INT32_MAX})
                EXPECT_STREQ(zkGetResultText(code), "unknown result") << code;
        });
        SWEEP(zkGetLoopCount);
        SWEEP(zkResetLoopCount);
        SWEEP(zkGetApplicationInstance);
        SWEEP(zkGetTickCount);
        SWEEP(zkSleep, 0);
        SWEEP(zkExecute);
        SWEEP(zkEnableInterrupt);
        SWEEP(zkDisableInterrupt);
        SWEEP(zkInitializeDevice);
        SWEEP(zkTrace2);
        SWEEP(zkTerminateDevice);
        SWEEP(zkSkipLoadModule);
        SWEEP(zkReleaseOverlay);
        SWEEP(zkSetDisplayFrequency);
        SWEEP(zkWaitVblank);
        SWEEP(zkWaitVblankEx, kMax);
        SWEEP(zkGetVblankCount);
        SWEEP(zkGetDisplayFrequency);
        SWEEP(zkSetPeriodInterval, 0, kMax, 1);
        SWEEP(zkWaitForPeriodStart);
        SWEEP_EXPECT(zkAddVblankHandler, nullptr, Args(nullptr, 0));
        SWEEP(zkRemoveVblankHandler, nullptr, Junk<VblankHandlerSlot>());
        SWEEP(zkSetTitle, Args(nullptr, nullptr));
        all.emplace_back("zkCreateMainWindow", [] { zkReleaseWindow(zkCreateMainWindow()); });
        SWEEP(zkGetMainWindow);
        SWEEP(zkReleaseWindow, nullptr, Junk<Window>());
        SWEEP(zkGetWindowNativeHandle, Args(nullptr, nullptr), Args(Junk<Window>(), &g_handle));
        SWEEP(zkSetWindowVisibility, Args(nullptr, 1), Args(Junk<Window>(), 1));
        SWEEP(zkIsWindowVisible, nullptr, Junk<Window>());
        SWEEP(zkAddWindowHook, Args(nullptr, 0));
        SWEEP(zkCheckMultipleInstances, kMax);
        SWEEP_EXPECT(zkPostWindowMessage, -4, Args(nullptr, 0, 0, 0),
                     Args(Junk<Window>(), ZK_WM_CLOSE, 0, 0));
        SWEEP(zkGetAppArgCount);
        SWEEP_EXPECT(zkGetAppArg, nullptr, kMax);
        SWEEP(zkSetModuleDir, nullptr);
        all.emplace_back("zkGetModuleDir", [] { EXPECT_NE(zkGetModuleDir(), nullptr); });
        SWEEP(zkGetModulePath, Args(nullptr, g_out, 16), Args("x", nullptr, kMax),
              Args("x", g_out, 0));
        SWEEP(zkLoadModuleEx, Args(nullptr, nullptr, nullptr));
        SWEEP(zkLoadModule);
        SWEEP(zkUnloadModule);
        SWEEP(zkLoadDefaultModule);
        SWEEP(zkTrace, nullptr);
        SWEEP(zkAssertFailed, Args(nullptr, -1));
        SWEEP(zkDumpMemory, Args(nullptr, kMax));
        SWEEP_EXPECT(zkRegisterLibrary, nullptr, Args(nullptr, nullptr));
        SWEEP(zkOutputLibraryVersion, Args(nullptr, kMax, kMax, kMax, kMax));
        SWEEP_EXPECT(zkAddIdleHandler, nullptr, Args(nullptr, 0));
        SWEEP(zkRemoveIdleHandler, nullptr, Junk<IdleHandlerSlot>());
        SWEEP(zkAddEventCallback, nullptr);
        SWEEP(zkGetPerformanceCounter);
        SWEEP(zkGetPerformanceFrequency);
        SWEEP(zkResetPerformanceCounter);
        SWEEP(zkInitializeProfiler, Args(kMax, kMax), Args(0, 0));
        SWEEP(zkSetProfileSwitch, kMax, 0);
        SWEEP(zkSetProfileInterval, 0, kMax);
        SWEEP(zkBeginProfile, kMax);
        SWEEP(zkEndProfile, kMax);
        SWEEP(zkSetProfileName, Args(kMax, nullptr), Args(0, nullptr));
        SWEEP(zkInitializeSystemProfiler, Args(kMax, kMax), Args(0, 0));
        SWEEP(zkSetSystemProfileSwitch, kMax, 0);
        SWEEP(zkSetSystemProfileInterval, 0);
        SWEEP(zkBeginSystemProfile, kMax);
        SWEEP(zkEndSystemProfile, kMax);
        SWEEP(zkSetSystemProfileName, Args(kMax, nullptr), Args(0, nullptr));
        SWEEP(zkUpdateAllProfilers);
        SWEEP(zkGetTime, nullptr);
        SWEEP(zkGetTimeSec);
        SWEEP_EXPECT(zkGetStringLength, 0u, nullptr);
        SWEEP(zkCompareString, Args(nullptr, nullptr), Args("a", nullptr), Args(nullptr, "a"));
        SWEEP_EXPECT(zkMalloc, nullptr, kMax);
        SWEEP_EXPECT(zkMallocEx, nullptr, Args(kMax, kMax));
        SWEEP_EXPECT(zkAllocateSystemMemory, nullptr, Args(kMax, 0, kMax));
        SWEEP(zkFree, nullptr, g_junk, g_stale.address);
        SWEEP(zkFreeSystemMemory, nullptr, g_junk);
        SWEEP_EXPECT(zkAllocMemoryBlock, nullptr, Args(kMax, kMax));
        SWEEP(zkFreeMemoryBlock, nullptr, Junk<MemoryBlock>(), g_stale.block);
        SWEEP(zkLockMemory, nullptr, Junk<MemoryBlock>(), g_stale.block);
        SWEEP(zkUnlockMemory, nullptr, Junk<MemoryBlock>(), g_stale.block);
        SWEEP(zkGetMemoryBlockSize, nullptr, Junk<MemoryBlock>());
        SWEEP(zkGetSystemMemoryPool);
        SWEEP(zkSetAllocMode, kMax);
        SWEEP(zkSetAllocHook, nullptr);
        SWEEP(zkSetFreeHook, nullptr);
        SWEEP(zkSetBreakAlloc, kMax, 0);
        SWEEP(zkSetMemoryCheckpoint, kMax);
        SWEEP(zkFillMemory, Args(nullptr, 16, 1), Args(g_out, 0, 1));
        SWEEP(zkZeroMemory, Args(nullptr, 16));
        SWEEP(zkCopyMemory, Args(nullptr, g_out, 16), Args(g_out, nullptr, 16));
        SWEEP(zkCopyString, Args(nullptr, 4, 0, "x"), Args(g_out, 15, 0, nullptr),
              Args(g_out, 0, kMax, "x"));
        SWEEP_EXPECT(zkCreateMemoryPool, nullptr, Args(0, kMax, kMax), Args(~zkAddr{0}, 16, 4));
        SWEEP(zkReleaseMemoryPool, nullptr, Junk<MemoryPool>(), g_stale.pool,
              zkGetSystemMemoryPool());
        SWEEP_EXPECT(zkAllocMemoryPoolBlock, nullptr, Args(nullptr, 16, 16),
                     Args(Junk<MemoryPool>(), 16, 16), Args(g_stale.pool, 16, 16));
        SWEEP_EXPECT(zkAllocMemoryPoolBlockEx, nullptr, Args(Junk<MemoryPool>(), kMax, kMax, kMax));
        SWEEP(zkFreeMemoryPoolBlock, Args(nullptr, nullptr),
              Args(Junk<MemoryPool>(), Junk<MemoryBlock>()),
              Args(zkGetSystemMemoryPool(), Junk<MemoryBlock>()));
        SWEEP(zkFindMemoryPoolBlock, Args(nullptr, 0), Args(Junk<MemoryPool>(), kMax));
        SWEEP(zkLockMemoryPoolBlock, nullptr, Junk<MemoryBlock>());
        SWEEP(zkUnlockMemoryPoolBlock, nullptr, Junk<MemoryBlock>());
        SWEEP(zkGetMemoryPoolBlockSize, nullptr);
        SWEEP(zkSetMemoryPoolAllocMode, Args(nullptr, kMax), Args(Junk<MemoryPool>(), kMax));
        SWEEP(zkSetMemoryPoolCheckpoint, Args(nullptr, 1), Args(Junk<MemoryPool>(), 1));
        SWEEP(zkSetBreakPoolAlloc, Args(nullptr, 1), Args(Junk<MemoryPool>(), 1));
        SWEEP(zkGetMemoryInfo, nullptr);
        SWEEP(zkGetMemoryPoolInfo, Args(nullptr, nullptr), Args(Junk<MemoryPool>(), &g_info),
              Args(g_stale.pool, &g_info));
        SWEEP(zkQueryMemoryInfo, kMax);
        SWEEP(zkQueryMemoryPoolInfo, Args(nullptr, 1), Args(Junk<MemoryPool>(), 1));
        SWEEP(zkEnumerateMemoryBlocks, Args(nullptr, nullptr), Args(NoBlock, nullptr));
        SWEEP(zkEnumerateMemoryPoolBlocks, Args(Junk<MemoryPool>(), NoBlock, nullptr));
        SWEEP(zkEnumerateMemoryGaps, Args(nullptr, nullptr), Args(NoRange, nullptr));
        SWEEP(zkEnumerateMemoryPoolGaps, Args(Junk<MemoryPool>(), NoRange, nullptr));
        SWEEP(zkEnumerateMemoryUsed, Args(NoRange, nullptr));
        SWEEP(zkEnumerateMemoryPoolUsed, Args(g_stale.pool, NoRange, nullptr));
        SWEEP(zkEnumerateMemoryPoolCategory, Args(nullptr, NoCategory, nullptr),
              Args(Junk<MemoryPool>(), NoCategory, nullptr));
        SWEEP(zkDumpAllMemoryBlocks, kMax);
        SWEEP(zkDumpAllMemoryPoolBlocks, Args(Junk<MemoryPool>(), 0));
        SWEEP(zkDumpAllMemoryGaps, kMax);
        SWEEP(zkDumpAllMemoryPoolGaps, Args(Junk<MemoryPool>(), 0));
        SWEEP(zkShowMemoryStatus, 0);
        all.emplace_back("zkCreateThread", [] { zkReleaseThread(zkCreateThread(kMax)); });
        all.emplace_back("zkStartThread", [] {
            ThreadRecord* const threads[] = {nullptr, Junk<ThreadRecord>(), g_stale.thread};
            for (ThreadRecord* t : threads)
                EXPECT_LT(zkStartThread(t, nullptr, nullptr), 0);
        });
        SWEEP(zkWaitForThread, nullptr, Junk<ThreadRecord>(), g_stale.thread);
        SWEEP(zkIsThreadRunning, nullptr, Junk<ThreadRecord>());
        SWEEP(zkReleaseThread, nullptr, Junk<ThreadRecord>(), g_stale.thread);
        SWEEP_EXPECT(zkCreateSemaphore, nullptr, Args(2, 1), Args(-1, -1));
        SWEEP(zkReleaseSemaphore, nullptr, Junk<SemaphoreRecord>(), g_stale.semaphore);
        SWEEP(zkWaitSemaphore, nullptr, Junk<SemaphoreRecord>(), g_stale.semaphore);
        SWEEP(zkPollSemaphore, nullptr, Junk<SemaphoreRecord>());
        SWEEP(zkSignalSemaphore, nullptr, Junk<SemaphoreRecord>(), g_stale.semaphore);
        SWEEP_EXPECT(zkCreateRingBuffer, nullptr, Args(nullptr, 64), Args(g_out, 0));
        SWEEP(zkReleaseRingBuffer, nullptr, Junk<RingBuffer>());
        SWEEP(zkGetRingBufferDataSize, Junk<RingBuffer>(), g_stale.ring);
        SWEEP(zkGetRingBufferAddress, Junk<RingBuffer>());
        SWEEP(zkLockRingBufferForRead, Args(Junk<RingBuffer>(), &g_ptr, &g_u32, &g_ptr, &g_u32),
              Args(g_stale.ring, nullptr, nullptr, nullptr, nullptr));
        SWEEP(zkUnlockRingBufferForRead, Args(Junk<RingBuffer>(), kMax), Args(g_stale.ring, kMax));
        SWEEP(zkLockRingBufferForWrite, Args(Junk<RingBuffer>(), &g_ptr, &g_u32, &g_ptr, &g_u32));
        SWEEP(zkUnlockRingBufferForWrite, Args(Junk<RingBuffer>(), kMax), Args(g_stale.ring, kMax));
        all.emplace_back("zkCreateRequest", [] { zkReleaseRequest(zkCreateRequest()); });
        SWEEP(zkReleaseRequest, nullptr, Junk<Request>(), g_stale.request);
        SWEEP(zkIsRequestCompleted, nullptr, Junk<Request>(), g_stale.request);
        SWEEP(zkWaitForRequestCompletion, nullptr, Junk<Request>(), g_stale.request);
        SWEEP(zkUpdateAllRequests);
        SWEEP(zkLoadOverlayForDebug, Args(nullptr, nullptr));
        SWEEP(zkLoadOverlayForRelease, Args(nullptr, nullptr));
        SWEEP(zkLoadOverlayFromMemoryForDebug, Args(nullptr, nullptr, nullptr));
        SWEEP(zkLoadOverlayFromMemoryForRelease, Args(nullptr, nullptr, nullptr));
        SWEEP(zkBeginLoadOverlay, Args(nullptr, nullptr, nullptr),
              Args(nullptr, nullptr, Junk<Request>()));
        SWEEP(zkEndLoadOverlayForDebug, Args(nullptr, nullptr), Args(nullptr, Junk<Request>()));
        SWEEP(zkEndLoadOverlayForRelease, Args(nullptr, g_stale.request));
        SWEEP_EXPECT(zkRegisterDevice, -3, nullptr);
        SWEEP(zkMount, Args(nullptr, nullptr, kMax), Args("/x", nullptr, 0), Args("", "", 0));
        SWEEP(zkUnmount, nullptr, "");
        SWEEP(zkControlDevice, Args(nullptr, kMax, kMax, kMax), Args("", 0, 0, 0));
        SWEEP(zkGetPartitionStatus, nullptr, "nodev0:");
        SWEEP(zkCreatePartition, Args(nullptr, 0, 0));
        SWEEP(zkDeletePartition, nullptr);
        SWEEP(zkFormat, nullptr);
        SWEEP(zkQueryDeviceInfo, Args(nullptr, kMax, 0, 0));
        SWEEP(zkGetDeviceStatus, nullptr);
        SWEEP(zkSetDeviceTryCount, Args(nullptr, kMax));
        SWEEP(zkGetDeviceTryCount, nullptr);
        SWEEP(zkSetWorkDir, nullptr);
        SWEEP(zkGetFullPath, Args(nullptr, g_out, 16), Args("/a", nullptr, kMax),
              Args("/a", g_out, 0));
        SWEEP(zkGetPhysicalPath, Args(nullptr, g_out, 16), Args("/", nullptr, kMax),
              Args("/", g_out, 0));
        SWEEP(zkSplitPath, Args(nullptr, nullptr, 0, nullptr, 0, nullptr, 0),
              Args("/a/b.c", g_out, 0, g_out, 1, nullptr, kMax));
        SWEEP_EXPECT(zkOpenFile, nullptr, Args(nullptr, kMax, kMax), Args("", 0, 0));
        SWEEP(zkCloseFile, nullptr, Junk<FileHandle>(), g_stale.file);
        SWEEP_EXPECT(zkReadFile, -4, Args(nullptr, g_out, 4, nullptr),
                     Args(Junk<FileHandle>(), g_out, 4, &g_u32),
                     Args(g_stale.file, nullptr, kMax, &g_u32));
        SWEEP_EXPECT(zkReadFileOffset, -4,
                     Args(Junk<FileHandle>(), kMax, g_out, kMax, nullptr, kMax));
        SWEEP_EXPECT(zkWriteFile, -4, Args(g_stale.file, g_out, 4, nullptr),
                     Args(Junk<FileHandle>(), nullptr, kMax, &g_u32));
        SWEEP_EXPECT(zkSeekFile, -4, Args(Junk<FileHandle>(), -1, kMax, nullptr));
        SWEEP_EXPECT(zkGetFileSize, -4, Args(g_stale.file, nullptr));
        SWEEP(zkGetFilePath, Args(Junk<FileHandle>(), g_out, 16), Args(nullptr, nullptr, kMax));
        SWEEP(zkGetFileTime, Args(Junk<FileHandle>(), nullptr, nullptr, nullptr));
        SWEEP(zkSetFileTime, Args(g_stale.file, nullptr, nullptr, nullptr));
        SWEEP(zkDeleteFile, Args(nullptr, kMax), Args("", 0));
        all.emplace_back("zkCopyFile", [] {
            EXPECT_LT(zkCopyFile(nullptr, nullptr), 0);
            EXPECT_LT(zkCopyFile("", ""), 0);
        });
        SWEEP(zkGetOpenFileCount);
        SWEEP(zkGetTotalBytesRead);
        SWEEP(zkResetTotalBytesRead);
        SWEEP_EXPECT(zkSetFileTryCount, -3, Args(kMax, kMax));
        SWEEP_EXPECT(zkGetFileTryCount, 0u, kMax);
        SWEEP_EXPECT(zkOpenDir, nullptr, nullptr, "");
        SWEEP(zkReadDir, Args(nullptr, nullptr), Args(Junk<DirHandle>(), g_junk),
              Args(g_stale.dir, g_junk));
        SWEEP(zkCloseDir, nullptr, Junk<DirHandle>(), g_stale.dir);
        SWEEP(zkMakeDir, Args(nullptr, kMax, kMax));
        SWEEP(zkRemoveDir, Args(nullptr, kMax));
        SWEEP(zkDumpDir, Args(nullptr, kMax));
        SWEEP(zkBeginOpenFile, Args(nullptr, 0, 0, nullptr), Args("/x", 0, 0, Junk<Request>()));
        SWEEP(zkEndOpenFile, Args(nullptr, nullptr), Args(nullptr, Junk<Request>()));
        SWEEP(zkBeginCloseFile, Args(Junk<FileHandle>(), nullptr), Args(nullptr, g_stale.request));
        SWEEP(zkEndCloseFile, nullptr, Junk<Request>());
        SWEEP(zkBeginReadFile, Args(nullptr, nullptr, kMax, nullptr),
              Args(Junk<FileHandle>(), g_out, 4, Junk<Request>()));
        SWEEP(zkEndReadFile, Args(nullptr, nullptr), Args(&g_u32, g_stale.request));
        SWEEP(zkLoadDataFromFile, Args(nullptr, nullptr, nullptr), Args("", &g_ptr, &g_u32));
        SWEEP_EXPECT(zkStartLoadingDataFromFile, nullptr, nullptr);
        SWEEP(zkIsFileProcessing, nullptr, Junk<FileHandle>(), g_stale.file);
        SWEEP(zkGetLoadedData, Args(nullptr, nullptr, nullptr),
              Args(Junk<FileHandle>(), &g_ptr, &g_u32));
        SWEEP(zkFreeData, nullptr, g_junk);
        SWEEP_EXPECT(zkOpenProfile, nullptr, nullptr, "");
        SWEEP(zkGetProfileSection, Args(nullptr, nullptr), Args(Junk<ProfileFile>(), "a"),
              Args(g_stale.profile, "a"));
        all.emplace_back("zkGetProfileString", [] {
            EXPECT_STREQ(zkGetProfileString(Junk<ProfileFile>(), Junk<ProfileSection>(), "k"), "");
            EXPECT_STREQ(zkGetProfileString(g_stale.profile, nullptr, nullptr), "");
        });
        SWEEP(zkCloseProfile, nullptr, Junk<ProfileFile>(), g_stale.profile);
        SWEEP_EXPECT(zkOpenKiv, nullptr, Args(nullptr, kMax), Args("", 0));
        SWEEP(zkCloseKiv, nullptr, Junk<KivArchive>(), g_stale.archive);
        SWEEP_EXPECT(zkOpenChildKiv, nullptr, Args(Junk<KivArchive>(), "a", 0),
                     Args(nullptr, nullptr, 0));
        SWEEP_EXPECT(zkOpenChildKivByIndex, nullptr, Args(g_stale.archive, kMax, kMax));
        SWEEP_EXPECT(zkGetKivItemCount, 0u, Junk<KivArchive>());
        SWEEP_EXPECT(zkFindKivItem, 0, Args(g_stale.archive, nullptr));
        SWEEP_EXPECT(zkLoadKivItem, -4, Args(Junk<KivArchive>(), "a", &g_ptr, &g_u32));
        SWEEP_EXPECT(zkLoadKivItemByIndex, -4, Args(g_stale.archive, kMax, nullptr, nullptr));
        SWEEP(zkReleaseKivItem, nullptr, g_junk);
        SWEEP_EXPECT(zkLoadKivFileItem, -51, Args(nullptr, nullptr, nullptr, nullptr));
        SWEEP_EXPECT(zkGetKivItem, -4, Args(Junk<KivArchive>(), nullptr, nullptr, nullptr));
        SWEEP_EXPECT(zkGetKivItemByIndex, -4, Args(g_stale.archive, 0, &g_ptr, &g_u32));
        SWEEP_EXPECT(zkOpenKivItem, nullptr, Args(Junk<KivArchive>(), "a"));
        SWEEP_EXPECT(zkOpenKivItemByIndex, nullptr, Args(g_stale.archive, 0));
        SWEEP(zkCloseKivItem, nullptr, Junk<KivItemStream>(), g_stale.item);
        SWEEP_EXPECT(zkReadKivItem, -4, Args(Junk<KivItemStream>(), g_out, kMax, nullptr));
        SWEEP_EXPECT(zkSeekKivItem, -4, Args(g_stale.item, -1, kMax, nullptr));
        SWEEP_EXPECT(zkGetKivItemSize, -4, Args(Junk<KivItemStream>(), &g_u32));
        SWEEP(zkGetOpenKivCount);
        SWEEP(zkGetOpenKivItemCount);
        all.emplace_back("zkMountKiv", [] {
            EXPECT_EQ(zkMountKiv(nullptr, nullptr, 0), -3);
            EXPECT_EQ(zkMountKiv("/k", "/none.kiv", 0), -51);
        });
        all.emplace_back("zkUnmountKiv", [] {
            EXPECT_EQ(zkUnmountKiv(nullptr), -3);
            zkUnmountKiv("/never-mounted");
        });
        SWEEP(_zkSlideExpand, Args(nullptr, nullptr, kMax));
        return all;
    }();
    return cases;
}
#undef SWEEP
#undef SWEEP_EXPECT

void RunEveryCase(const char* state) {
    for (const auto& [name, call] : EveryCase()) {
        SCOPED_TRACE(std::string(state) + ": " + name);
        call();
    }
}

// Takes one handle of each kind and gives it back, so that the cases have
// handles that were valid once.
void MakeStaleHandles() {
    std::memset(g_junk, 0xA5, sizeof g_junk);
    zkInitializeRequest(8);
    g_stale.file = zkOpenFile("/sweep.tmp", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0);
    zkCloseFile(g_stale.file);
    g_stale.semaphore = zkCreateSemaphore(1, 1);
    zkReleaseSemaphore(g_stale.semaphore);
    g_stale.thread = zkCreateThread(0);
    zkReleaseThread(g_stale.thread);
    static uint8_t region[4096];
    g_stale.pool = zkCreateMemoryPool(reinterpret_cast<zkAddr>(region), sizeof region, 8);
    zkReleaseMemoryPool(g_stale.pool);
    g_stale.block = zkAllocMemoryBlock(64, 0);
    zkFreeMemoryBlock(g_stale.block);
    g_stale.address = zkMalloc(64);
    zkFree(g_stale.address);
    g_stale.request = zkCreateRequest();
    zkReleaseRequest(g_stale.request);
    static char ringBytes[64];
    g_stale.ring = zkCreateRingBuffer(ringBytes, sizeof ringBytes);
    zkReleaseRingBuffer(g_stale.ring);
    // A profile, an archive and a listing are stale as records that were
    // never taken: their tables refuse them the same way.
    g_stale.profile = Junk<ProfileFile>();
    g_stale.archive = Junk<KivArchive>();
    g_stale.item = Junk<KivItemStream>();
    g_stale.dir = Junk<DirHandle>();
}

uint32_t ZK_CALL EndAtOnce() {
    return ZK_FRAME_END;
}

TEST(ArgumentSweep, EveryExportHasACase) {
    std::set<std::string> pinned;
#define X(fn) pinned.insert(#fn);
    ZK_PINNED_EXPORTS(X)
#undef X
    std::set<std::string> covered = kNotSwept;
    for (const auto& [name, call] : EveryCase())
        EXPECT_TRUE(covered.insert(name).second) << name << " has two cases";
    EXPECT_EQ(covered, pinned);
    EXPECT_GT(pinned.size(), 230u);
}

TEST(ArgumentSweep, NoCallBreaksTheLibraryInAnyState) {
    TraceCapture quiet; // the sweep traces a lot; none of it matters here
    zkEndProcess();
    RunEveryCase("before process begin");
    ASSERT_EQ(zkBeginProcess(0), 0);
    RunEveryCase("begun");
    ASSERT_GE(zkInitializeEx(kArenaSize, kDescriptors), 0);
    MakeStaleHandles();
    RunEveryCase("running");
    // A handle of another kind where a section belongs: nothing matches.
    ASSERT_EQ(zkMount("/profiles", ZK_SOURCE_DIR "/tests/data/profiles", 0), 0);
    ProfileFile* profile = zkOpenProfile("/profiles/game.ini");
    ASSERT_NE(profile, nullptr);
    EXPECT_STREQ(
        zkGetProfileString(profile, reinterpret_cast<ProfileSection*>(g_stale.file), "Width"), "");
    EXPECT_STREQ(zkGetProfileString(profile, Junk<ProfileSection>(), "Width"), "");
    zkCloseProfile(profile);
    // The frame loop ends at the quit message posted before it.
    zkPostQuitMessage(0);
    zkTerminate();
    RunEveryCase("terminated");
    zkTerminate(), zkTerminate();
    EXPECT_LT(zkInitializeEx(kMax, 0), 0);
    EXPECT_LT(zkInitializeEx(kArenaSize, 1), 0);
    zkEndProcess(), zkEndProcess();

    // Afterwards everything works as before: a frame loop, files, memory.
    EXPECT_EQ(zkMain(StartLibrary, EndAtOnce, StopLibrary, 0), 0);
    zkBeginProcess(0);
    ASSERT_GE(zkInitializeEx(kArenaSize, kDescriptors), 0);
    void* p = zkMalloc(100);
    EXPECT_NE(p, nullptr);
    zkFree(p);
    FileHandle* f = zkOpenFile("/sweep.tmp", ZK_OPEN_WRITE | ZK_OPEN_CREATE | ZK_OPEN_TRUNCATE, 0);
    uint32_t written = 0;
    EXPECT_EQ(zkWriteFile(f, "ok", 2, &written), 0);
    zkCloseFile(f);
    EXPECT_EQ(zkUnmountAll(), 0);
    EXPECT_EQ(zkOpenFile("/sweep.tmp", ZK_OPEN_READ, 0), nullptr); // no root mount any more
    zkTerminate();
    zkEndProcess();
}

} // namespace
} // namespace zktest
