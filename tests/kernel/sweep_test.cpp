// The argument sweep: every exported function is called with null pointers,
// zero and maximal sizes and counts, and with each of three sets of handles
// that are not the library's (null, pointers into a junk block, and handles
// already given back), in each state of the library's life: before process
// begin, begun but not initialised, running, and after termination. Nothing
// may crash or trip a sanitizer, calls that report a result report the
// refusal, and the library works normally afterwards.
#include "support/library_test.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace zktest {
namespace {

// Never a handle of the library: a block of junk bytes, large enough for any
// record a call may read through a pointer it cannot check.
alignas(64) unsigned char g_junk[4096];

// A pointer that passes as a handle of any kind.
struct Any {
    Any(void* p = nullptr) : p(p) {}
    template <typename T> operator T*() const { return static_cast<T*>(p); }
    void* p;
};

// One set of handles of every kind; `raw` is a pointer the library never
// handed out, `address` one it may have handed out and taken back.
struct Handles {
    Any file, semaphore, thread, pool, block, request, ring, profile, section, archive, item, dir,
        window, vblank, idle, raw, address;
};
const Handles kNull{};
const Any kJunkHandle{g_junk + 64};
const Handles kJunk{kJunkHandle, kJunkHandle, kJunkHandle, kJunkHandle, kJunkHandle, kJunkHandle,
                    kJunkHandle, kJunkHandle, kJunkHandle, kJunkHandle, kJunkHandle, kJunkHandle,
                    kJunkHandle, kJunkHandle, kJunkHandle, g_junk,      g_junk};
// Handles taken and given back while running (the kinds without such a
// record stay junk: their tables refuse both the same way).
Handles g_stale = kJunk;

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

// Every export that takes a handle, with the handles of one set.
void CallWithHandles(const Handles& h) {
    zkReleaseWindow(h.window), zkGetWindowNativeHandle(h.window, &g_handle);
    zkSetWindowVisibility(h.window, 1), zkIsWindowVisible(h.window);
    EXPECT_EQ(zkPostWindowMessage(h.window, ZK_WM_CLOSE, 0, 0), -4);
    zkRemoveVblankHandler(h.vblank), zkRemoveIdleHandler(h.idle);
    zkFree(h.address), zkFreeSystemMemory(h.raw), zkFreeData(h.raw), zkReleaseKivItem(h.raw);
    zkFreeMemoryBlock(h.block), zkLockMemory(h.block), zkUnlockMemory(h.block);
    zkGetMemoryBlockSize(h.block), zkLockMemoryPoolBlock(h.block);
    zkUnlockMemoryPoolBlock(h.block), zkGetMemoryPoolBlockSize(h.block);
    zkFreeMemoryPoolBlock(h.pool, h.block), zkFindMemoryPoolBlock(h.pool, kMax);
    zkSetMemoryPoolAllocMode(h.pool, kMax), zkSetMemoryPoolCheckpoint(h.pool, 1);
    zkSetBreakPoolAlloc(h.pool, 1), zkGetMemoryPoolInfo(h.pool, &g_info);
    zkQueryMemoryPoolInfo(h.pool, 1), zkGetMemoryPoolInfo(h.pool, nullptr);
    if (h.pool.p) { // a null pool is the system pool for these
        zkEnumerateMemoryPoolBlocks(h.pool, NoBlock, nullptr);
        zkEnumerateMemoryPoolGaps(h.pool, NoRange, nullptr);
        zkEnumerateMemoryPoolUsed(h.pool, NoRange, nullptr);
        zkDumpAllMemoryPoolBlocks(h.pool, 0), zkDumpAllMemoryPoolGaps(h.pool, 0);
    }
    zkEnumerateMemoryPoolCategory(h.pool, NoBlock, nullptr), zkReleaseMemoryPool(h.pool);
    EXPECT_LT(zkStartThread(h.thread, nullptr, nullptr), 0);
    zkWaitForThread(h.thread), zkIsThreadRunning(h.thread), zkReleaseThread(h.thread);
    zkWaitSemaphore(h.semaphore), zkPollSemaphore(h.semaphore);
    zkSignalSemaphore(h.semaphore), zkReleaseSemaphore(h.semaphore);
    zkGetRingBufferDataSize(h.ring), zkGetRingBufferAddress(h.ring);
    zkLockRingBufferForRead(h.ring, &g_ptr, &g_u32, &g_ptr, &g_u32);
    zkLockRingBufferForRead(h.ring, nullptr, nullptr, nullptr, nullptr);
    zkLockRingBufferForWrite(h.ring, &g_ptr, &g_u32, &g_ptr, &g_u32);
    zkUnlockRingBufferForRead(h.ring, kMax), zkUnlockRingBufferForWrite(h.ring, kMax);
    zkReleaseRingBuffer(h.ring);
    zkIsRequestCompleted(h.request), zkWaitForRequestCompletion(h.request);
    zkBeginLoadOverlay(nullptr, nullptr, h.request), zkEndLoadOverlayForDebug(nullptr, h.request);
    zkEndLoadOverlayForRelease(nullptr, h.request), zkEndOpenFile(nullptr, h.request);
    zkBeginCloseFile(h.file, h.request), zkEndCloseFile(h.request);
    zkBeginReadFile(h.file, g_out, 4, h.request), zkEndReadFile(&g_u32, h.request);
    zkReleaseRequest(h.request);
    EXPECT_EQ(
        Codes({zkReadFile(h.file, g_out, 4, &g_u32), zkReadFile(h.file, nullptr, kMax, nullptr),
               zkReadFileOffset(h.file, kMax, g_out, kMax, nullptr, kMax),
               zkWriteFile(h.file, nullptr, kMax, &g_u32), zkSeekFile(h.file, -1, kMax, nullptr),
               zkGetFileSize(h.file, nullptr)}),
        Codes(6, -4)); // invalid handle
    zkGetFilePath(h.file, g_out, 16), zkGetFileTime(h.file, nullptr, nullptr, nullptr);
    zkSetFileTime(h.file, nullptr, nullptr, nullptr), zkIsFileProcessing(h.file);
    zkGetLoadedData(h.file, &g_ptr, &g_u32), zkCloseFile(h.file);
    zkReadDir(h.dir, g_junk), zkCloseDir(h.dir);
    zkGetProfileSection(h.profile, "a");
    EXPECT_STREQ(zkGetProfileString(h.profile, h.section, "k"), "");
    zkCloseProfile(h.profile);
    EXPECT_EQ(zkGetKivItemCount(h.archive) + zkFindKivItem(h.archive, nullptr), 0u);
    EXPECT_EQ(Codes({zkLoadKivItem(h.archive, "a", &g_ptr, &g_u32),
                     zkLoadKivItemByIndex(h.archive, kMax, nullptr, nullptr),
                     zkGetKivItem(h.archive, nullptr, nullptr, nullptr),
                     zkGetKivItemByIndex(h.archive, 0, &g_ptr, &g_u32),
                     zkReadKivItem(h.item, g_out, kMax, nullptr),
                     zkSeekKivItem(h.item, -1, kMax, nullptr), zkGetKivItemSize(h.item, &g_u32)}),
              Codes(7, -4));
    const void* const refused[] = {
        zkAllocMemoryPoolBlock(h.pool, 16, 16), zkAllocMemoryPoolBlockEx(h.pool, kMax, kMax, kMax),
        zkOpenChildKiv(h.archive, "a", 0),      zkOpenChildKivByIndex(h.archive, kMax, kMax),
        zkOpenKivItem(h.archive, "a"),          zkOpenKivItemByIndex(h.archive, 0)};
    for (const void* p : refused)
        EXPECT_EQ(p, nullptr) << &p - refused;
    zkCloseKiv(h.archive), zkCloseKivItem(h.item);
}

// Every other export (but those that change the library's life, which the
// test calls itself), with null pointers, empty texts and extreme values.
void CallWithoutHandles() {
    for (int32_t code : {INT32_MIN, -1000, -2, 1, INT32_MAX})
        EXPECT_STREQ(zkGetResultText(code), "unknown result") << code;
    zkGetLoopCount(), zkResetLoopCount(), zkGetApplicationInstance(), zkGetTickCount();
    zkSleep(0), zkExecute(), zkEnableInterrupt(), zkDisableInterrupt(), zkInitializeDevice();
    zkTrace2(), zkTerminateDevice(), zkSkipLoadModule(), zkReleaseOverlay();
    zkSetDisplayFrequency(), zkWaitVblank(), zkWaitVblankEx(kMax), zkGetVblankCount();
    zkGetDisplayFrequency(), zkWaitForPeriodStart();
    zkSetPeriodInterval(0), zkSetPeriodInterval(kMax), zkSetPeriodInterval(1);
    zkSetTitle(nullptr, nullptr), zkReleaseWindow(zkCreateMainWindow()), zkGetMainWindow();
    zkGetWindowNativeHandle(nullptr, nullptr), zkAddWindowHook(nullptr, 0);
    zkCheckMultipleInstances(kMax), zkGetAppArgCount(), zkSetModuleDir(nullptr);
    EXPECT_EQ(zkPostWindowMessage(nullptr, 0, 0, 0), -4);
    EXPECT_NE(zkGetModuleDir(), nullptr);
    zkGetModulePath(nullptr, g_out, 16), zkGetModulePath("x", nullptr, kMax);
    zkGetModulePath("x", g_out, 0), zkLoadModuleEx(nullptr, nullptr, nullptr), zkLoadModule();
    zkUnloadModule(), zkLoadDefaultModule(), zkTrace(nullptr), zkAssertFailed(nullptr, -1);
    zkDumpMemory(nullptr, kMax), zkOutputLibraryVersion(nullptr, kMax, kMax, kMax, kMax);
    zkAddEventCallback(nullptr), zkGetPerformanceCounter(), zkGetPerformanceFrequency();
    zkResetPerformanceCounter(), zkUpdateAllProfilers(), zkGetTime(nullptr), zkGetTimeSec();
    for (uint32_t v : {0u, kMax}) {
        zkInitializeProfiler(v, v), zkSetProfileSwitch(v), zkSetProfileInterval(v);
        zkBeginProfile(v), zkEndProfile(v), zkSetProfileName(v, nullptr);
        zkInitializeSystemProfiler(v, v), zkSetSystemProfileSwitch(v);
        zkSetSystemProfileInterval(v), zkBeginSystemProfile(v), zkEndSystemProfile(v);
        zkSetSystemProfileName(v, nullptr), zkSetBreakAlloc(v);
    }
    zkSetAllocMode(kMax);
    EXPECT_EQ(zkGetStringLength(nullptr), 0u);
    zkCompareString(nullptr, nullptr), zkCompareString("a", nullptr);
    zkCompareString(nullptr, "a");
    zkReleaseMemoryPool(zkGetSystemMemoryPool());
    zkFreeMemoryPoolBlock(zkGetSystemMemoryPool(), kJunkHandle);
    zkSetAllocHook(nullptr), zkSetFreeHook(nullptr), zkSetMemoryCheckpoint(kMax);
    zkFillMemory(nullptr, 16, 1), zkFillMemory(g_out, 0, 1), zkZeroMemory(nullptr, 16);
    zkCopyMemory(nullptr, g_out, 16), zkCopyMemory(g_out, nullptr, 16);
    zkCopyString(nullptr, 4, 0, "x"), zkCopyString(g_out, 15, 0, nullptr);
    zkCopyString(g_out, 0, kMax, "x");
    zkGetMemoryInfo(nullptr), zkGetMemoryInfo(&g_info), zkQueryMemoryInfo(kMax);
    zkEnumerateMemoryBlocks(nullptr, nullptr), zkEnumerateMemoryBlocks(NoBlock, nullptr);
    zkEnumerateMemoryGaps(nullptr, nullptr), zkEnumerateMemoryGaps(NoRange, nullptr);
    zkEnumerateMemoryUsed(NoRange, nullptr), zkDumpAllMemoryBlocks(kMax);
    zkDumpAllMemoryGaps(kMax), zkShowMemoryStatus(0);
    zkReleaseThread(zkCreateThread(kMax)), zkReleaseRequest(zkCreateRequest());
    zkUpdateAllRequests(), zkLoadOverlayForDebug(nullptr, nullptr);
    zkLoadOverlayForRelease(nullptr, nullptr),
        zkLoadOverlayFromMemoryForDebug(nullptr, nullptr, nullptr);
    zkLoadOverlayFromMemoryForRelease(nullptr, nullptr, nullptr);
    zkBeginOpenFile(nullptr, 0, 0, nullptr);
    EXPECT_EQ(zkRegisterDevice(nullptr), -3);
    zkMount(nullptr, nullptr, kMax), zkMount("/x", nullptr, 0), zkMount("", "", 0);
    zkUnmount(nullptr), zkUnmount(""), zkControlDevice(nullptr, kMax, kMax, kMax);
    zkControlDevice("", 0, 0, 0), zkGetPartitionStatus(nullptr), zkGetPartitionStatus("nodev0:");
    zkCreatePartition(nullptr, 0, 0), zkDeletePartition(nullptr), zkFormat(nullptr);
    zkQueryDeviceInfo(nullptr, kMax, 0, 0), zkGetDeviceStatus(nullptr);
    zkSetDeviceTryCount(nullptr, kMax), zkGetDeviceTryCount(nullptr), zkSetWorkDir(nullptr);
    zkGetFullPath(nullptr, g_out, 16), zkGetFullPath("/a", nullptr, kMax);
    zkGetFullPath("/a", g_out, 0), zkGetPhysicalPath(nullptr, g_out, 16);
    zkGetPhysicalPath("/", nullptr, kMax), zkGetPhysicalPath("/", g_out, 0);
    zkSplitPath(nullptr, nullptr, 0, nullptr, 0, nullptr, 0);
    zkSplitPath("/a/b.c", g_out, 0, g_out, 1, nullptr, kMax);
    zkDeleteFile(nullptr, kMax), zkDeleteFile("", 0);
    EXPECT_LT(zkCopyFile(nullptr, nullptr), 0);
    EXPECT_LT(zkCopyFile("", ""), 0);
    zkGetOpenFileCount(), zkGetTotalBytesRead(), zkResetTotalBytesRead();
    EXPECT_EQ(zkSetFileTryCount(kMax, kMax), -3);
    EXPECT_EQ(zkGetFileTryCount(kMax), 0u);
    zkMakeDir(nullptr, kMax, kMax), zkRemoveDir(nullptr, kMax), zkDumpDir(nullptr, kMax);
    zkLoadDataFromFile(nullptr, nullptr, nullptr), zkLoadDataFromFile("", &g_ptr, &g_u32);
    EXPECT_EQ(zkLoadKivFileItem(nullptr, nullptr, nullptr, nullptr), -51);
    zkGetOpenKivCount(), zkGetOpenKivItemCount();
    EXPECT_EQ(zkMountKiv(nullptr, nullptr, 0), -3);
    EXPECT_EQ(zkMountKiv("/k", "/none.kiv", 0), -51);
    EXPECT_EQ(zkUnmountKiv(nullptr), -3);
    // clang-format off
    const void* const refused[] = {
        zkAddVblankHandler(nullptr, 0), zkAddIdleHandler(nullptr, 0), zkGetAppArg(kMax),
        zkRegisterLibrary(nullptr, nullptr), zkMalloc(kMax), zkMallocEx(kMax, kMax),
        zkAllocateSystemMemory(kMax, 0, kMax), zkAllocMemoryBlock(kMax, kMax),
        zkCreateMemoryPool(0, kMax, kMax), zkCreateMemoryPool(~zkAddr{0}, 16, 4),
        zkCreateSemaphore(2, 1), zkCreateSemaphore(-1, -1), zkCreateRingBuffer(nullptr, 64),
        zkCreateRingBuffer(g_out, 0), zkOpenFile(nullptr, kMax, kMax), zkOpenFile("", 0, 0),
        zkOpenDir(nullptr), zkOpenDir(""), zkStartLoadingDataFromFile(nullptr),
        zkOpenProfile(nullptr), zkOpenProfile(""), zkOpenKiv(nullptr, kMax), zkOpenKiv("", 0)};
    // clang-format on
    for (const void* p : refused)
        EXPECT_EQ(p, nullptr) << &p - refused;
    zkUnmountKiv("/never-mounted"), _zkSlideExpand(nullptr, nullptr, kMax);
}

void CallEverything(const char* state) {
    SCOPED_TRACE(state);
    CallWithoutHandles();
    for (const Handles* set : {&kNull, &kJunk, static_cast<const Handles*>(&g_stale)}) {
        SCOPED_TRACE(set == &kNull ? "null" : set == &kJunk ? "junk" : "given back");
        CallWithHandles(*set);
    }
}

// Takes one handle of each kind that has a record of its own and gives it back.
void MakeStaleHandles() {
    zkInitializeRequest(8);
    zkCloseFile(g_stale.file = zkOpenFile("/sweep.tmp", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0));
    zkReleaseSemaphore(g_stale.semaphore = zkCreateSemaphore(1, 1));
    zkReleaseThread(g_stale.thread = zkCreateThread(0));
    static uint8_t region[4096];
    zkReleaseMemoryPool(g_stale.pool = zkCreateMemoryPool(zkAddr(region), sizeof region, 8));
    zkFreeMemoryBlock(g_stale.block = zkAllocMemoryBlock(64, 0));
    zkFree(g_stale.address = zkMalloc(64));
    zkReleaseRequest(g_stale.request = zkCreateRequest());
    static char ringBytes[64];
    zkReleaseRingBuffer(g_stale.ring = zkCreateRingBuffer(ringBytes, sizeof ringBytes));
}

uint32_t ZK_CALL EndAtOnce() {
    return ZK_FRAME_END;
}

TEST(ArgumentSweep, NoCallBreaksTheLibraryInAnyState) {
    TraceCapture quiet; // the sweep traces a lot; none of it matters here
    std::memset(g_junk, 0xA5, sizeof g_junk);
    zkEndProcess();
    CallEverything("before process begin");
    ASSERT_EQ(zkBeginProcess(0), 0);
    CallEverything("begun");
    ASSERT_GE(zkInitializeEx(kArenaSize, kDescriptors), 0);
    MakeStaleHandles();
    CallEverything("running");
    // A handle of another kind where a section belongs: nothing matches.
    ASSERT_EQ(zkMount("/profiles", ZK_SOURCE_DIR "/tests/data/profiles", 0), 0);
    ProfileFile* profile = zkOpenProfile("/profiles/game.ini");
    ASSERT_NE(profile, nullptr);
    EXPECT_STREQ(zkGetProfileString(profile, g_stale.file, "Width"), "");
    EXPECT_STREQ(zkGetProfileString(profile, kJunkHandle, "Width"), "");
    zkCloseProfile(profile);
    // The frame loop ends at the quit message posted before it.
    zkPostQuitMessage(0);
    zkTerminate();
    CallEverything("terminated");
    zkTerminate(), zkTerminate();
    EXPECT_TRUE(zkInitializeEx(kMax, 0) < 0 && zkInitializeEx(kArenaSize, 1) < 0);
    zkEndProcess(), zkEndProcess();

    // Afterwards everything works as before: a frame loop, memory, files.
    EXPECT_EQ(zkMain(StartLibrary, EndAtOnce, StopLibrary, 0), 0);
    ASSERT_EQ(zkBeginProcess(0) + zkInitializeEx(kArenaSize, kDescriptors), 0);
    void* p = zkMalloc(100);
    zkFree(p);
    FileHandle* f = zkOpenFile("/sweep.tmp", ZK_OPEN_WRITE | ZK_OPEN_CREATE | ZK_OPEN_TRUNCATE, 0);
    uint32_t written = 0;
    EXPECT_EQ(Codes({p != nullptr, zkWriteFile(f, "ok", 2, &written)}), Codes({1, 0}));
    zkCloseFile(f);
    EXPECT_EQ(zkUnmountAll(), 0);
    EXPECT_EQ(zkOpenFile("/sweep.tmp", ZK_OPEN_READ, 0), nullptr); // no root mount any more
    EXPECT_EQ(zkTerminate() + zkEndProcess(), 0);
}

} // namespace
} // namespace zktest
