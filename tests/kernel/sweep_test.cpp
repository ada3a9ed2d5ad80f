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

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>

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

int32_t ZK_CALL NoBlock(zkAddr, uint32_t, uint32_t, void*) {
    return 1;
}
int32_t ZK_CALL NoRange(zkAddr, uint32_t, void*) {
    return 1;
}
int32_t ZK_CALL NoCategory(zkAddr, uint32_t, uint32_t, void*) {
    return 1;
}

using Call = std::function<void()>;

// One case per export; calls that change the library's life (begin, end,
// initialise, terminate, the frame loop) are exercised by the test itself.
const std::map<std::string, Call>& Cases() {
    static const std::map<std::string, Call> cases = {
        {"zkBeginProcess", [] {}},
        {"zkEndProcess", [] {}},
        {"zkInitialize", [] {}},
        {"zkInitializeEx", [] {}},
        {"zkTerminate", [] {}},
        {"zkMain", [] {}},
        {"zkGetLoopCount", [] { zkGetLoopCount(); }},
        {"zkResetLoopCount", [] { zkResetLoopCount(); }},
        {"zkGetApplicationInstance", [] { zkGetApplicationInstance(); }},
        {"zkGetTickCount", [] { zkGetTickCount(); }},
        {"zkSleep", [] { zkSleep(0); }},
        {"zkExecute", [] { zkExecute(); }},
        {"zkEnableInterrupt", [] { zkEnableInterrupt(); }},
        {"zkDisableInterrupt", [] { zkDisableInterrupt(); }},
        {"zkInitializeDevice", [] { zkInitializeDevice(); }},
        {"zkTrace2", [] { zkTrace2(); }},
        {"zkTerminateDevice", [] { zkTerminateDevice(); }},
        {"zkSkipLoadModule", [] { zkSkipLoadModule(); }},
        {"zkReleaseOverlay", [] { zkReleaseOverlay(); }},
        {"zkSetDisplayFrequency", [] { zkSetDisplayFrequency(); }},
        {"zkWaitVblank", [] { zkWaitVblank(); }},
        {"zkWaitVblankEx", [] { zkWaitVblankEx(kMax); }},
        {"zkGetVblankCount", [] { zkGetVblankCount(); }},
        {"zkGetDisplayFrequency", [] { zkGetDisplayFrequency(); }},
        {"zkSetPeriodInterval",
         [] { zkSetPeriodInterval(0), zkSetPeriodInterval(kMax), zkSetPeriodInterval(1); }},
        {"zkWaitForPeriodStart", [] { zkWaitForPeriodStart(); }},
        {"zkAddVblankHandler", [] { EXPECT_EQ(zkAddVblankHandler(nullptr, 0), nullptr); }},
        {"zkRemoveVblankHandler",
         [] { zkRemoveVblankHandler(nullptr), zkRemoveVblankHandler(Junk<VblankHandlerSlot>()); }},
        {"zkSetTitle", [] { zkSetTitle(nullptr, nullptr); }},
        {"zkCreateMainWindow", [] { zkReleaseWindow(zkCreateMainWindow()); }},
        {"zkGetMainWindow", [] { zkGetMainWindow(); }},
        {"zkReleaseWindow", [] { zkReleaseWindow(nullptr), zkReleaseWindow(Junk<Window>()); }},
        {"zkGetWindowNativeHandle",
         [] {
             zkGetWindowNativeHandle(nullptr, nullptr);
             zkNativeHandle h;
             zkGetWindowNativeHandle(Junk<Window>(), &h);
         }},
        {"zkSetWindowVisibility",
         [] { zkSetWindowVisibility(nullptr, 1), zkSetWindowVisibility(Junk<Window>(), 1); }},
        {"zkIsWindowVisible",
         [] { zkIsWindowVisible(nullptr), zkIsWindowVisible(Junk<Window>()); }},
        {"zkAddWindowHook", [] { zkAddWindowHook(nullptr, 0); }},
        {"zkCheckMultipleInstances", [] { zkCheckMultipleInstances(kMax); }},
        {"zkPostWindowMessage",
         [] {
             EXPECT_EQ(zkPostWindowMessage(nullptr, 0, 0, 0), -4);
             EXPECT_EQ(zkPostWindowMessage(Junk<Window>(), ZK_WM_CLOSE, 0, 0), -4);
         }},
        {"zkPostQuitMessage", [] {}}, // exercised with the frame loop
        {"zkGetAppArgCount", [] { zkGetAppArgCount(); }},
        {"zkGetAppArg", [] { EXPECT_EQ(zkGetAppArg(kMax), nullptr); }},
        {"zkSetModuleDir", [] { zkSetModuleDir(nullptr); }},
        {"zkGetModuleDir", [] { EXPECT_NE(zkGetModuleDir(), nullptr); }},
        {"zkGetModulePath",
         [] {
             zkGetModulePath(nullptr, g_out, sizeof g_out), zkGetModulePath("x", nullptr, kMax),
                 zkGetModulePath("x", g_out, 0);
         }},
        {"zkLoadModuleEx", [] { zkLoadModuleEx(nullptr, nullptr, nullptr); }},
        {"zkLoadModule", [] { zkLoadModule(); }},
        {"zkUnloadModule", [] { zkUnloadModule(); }},
        {"zkLoadDefaultModule", [] { zkLoadDefaultModule(); }},
        {"zkTrace", [] { zkTrace(nullptr); }},
        {"zkSetTraceProc", [] {}}, // the capture of the test stays installed
        {"zkAssertFailed", [] { zkAssertFailed(nullptr, -1); }},
        {"zkDumpMemory", [] { zkDumpMemory(nullptr, kMax); }},
        {"zkRegisterLibrary", [] { EXPECT_EQ(zkRegisterLibrary(nullptr, nullptr), nullptr); }},
        {"zkOutputLibraryVersion", [] { zkOutputLibraryVersion(nullptr, kMax, kMax, kMax, kMax); }},
        {"zkAddIdleHandler", [] { EXPECT_EQ(zkAddIdleHandler(nullptr, 0), nullptr); }},
        {"zkRemoveIdleHandler",
         [] { zkRemoveIdleHandler(nullptr), zkRemoveIdleHandler(Junk<IdleHandlerSlot>()); }},
        {"zkAddEventCallback", [] { zkAddEventCallback(nullptr); }},
        {"zkGetPerformanceCounter", [] { zkGetPerformanceCounter(); }},
        {"zkGetPerformanceFrequency", [] { zkGetPerformanceFrequency(); }},
        {"zkResetPerformanceCounter", [] { zkResetPerformanceCounter(); }},
        {"zkInitializeProfiler",
         [] { zkInitializeProfiler(kMax, kMax), zkInitializeProfiler(0, 0); }},
        {"zkSetProfileSwitch", [] { zkSetProfileSwitch(kMax), zkSetProfileSwitch(0); }},
        {"zkSetProfileInterval", [] { zkSetProfileInterval(0), zkSetProfileInterval(kMax); }},
        {"zkBeginProfile", [] { zkBeginProfile(kMax); }},
        {"zkEndProfile", [] { zkEndProfile(kMax); }},
        {"zkSetProfileName", [] { zkSetProfileName(kMax, nullptr), zkSetProfileName(0, nullptr); }},
        {"zkInitializeSystemProfiler",
         [] { zkInitializeSystemProfiler(kMax, kMax), zkInitializeSystemProfiler(0, 0); }},
        {"zkSetSystemProfileSwitch",
         [] { zkSetSystemProfileSwitch(kMax), zkSetSystemProfileSwitch(0); }},
        {"zkSetSystemProfileInterval", [] { zkSetSystemProfileInterval(0); }},
        {"zkBeginSystemProfile", [] { zkBeginSystemProfile(kMax); }},
        {"zkEndSystemProfile", [] { zkEndSystemProfile(kMax); }},
        {"zkSetSystemProfileName",
         [] { zkSetSystemProfileName(kMax, nullptr), zkSetSystemProfileName(0, nullptr); }},
        {"zkUpdateAllProfilers", [] { zkUpdateAllProfilers(); }},
        {"zkGetTime", [] { zkGetTime(nullptr); }},
        {"zkGetTimeSec", [] { zkGetTimeSec(); }},
        {"zkGetStringLength", [] { EXPECT_EQ(zkGetStringLength(nullptr), 0u); }},
        {"zkCompareString",
         [] {
             zkCompareString(nullptr, nullptr), zkCompareString("a", nullptr),
                 zkCompareString(nullptr, "a");
         }},
        {"zkMalloc", [] { EXPECT_EQ(zkMalloc(kMax), nullptr); }},
        {"zkMallocEx", [] { EXPECT_EQ(zkMallocEx(kMax, kMax), nullptr); }},
        {"zkAllocateSystemMemory",
         [] { EXPECT_EQ(zkAllocateSystemMemory(kMax, 0, kMax), nullptr); }},
        {"zkFree", [] { zkFree(nullptr), zkFree(g_junk), zkFree(g_stale.address); }},
        {"zkFreeSystemMemory", [] { zkFreeSystemMemory(nullptr), zkFreeSystemMemory(g_junk); }},
        {"zkAllocMemoryBlock", [] { EXPECT_EQ(zkAllocMemoryBlock(kMax, kMax), nullptr); }},
        {"zkFreeMemoryBlock",
         [] {
             zkFreeMemoryBlock(nullptr), zkFreeMemoryBlock(Junk<MemoryBlock>()),
                 zkFreeMemoryBlock(g_stale.block);
         }},
        {"zkLockMemory",
         [] {
             zkLockMemory(nullptr), zkLockMemory(Junk<MemoryBlock>()), zkLockMemory(g_stale.block);
         }},
        {"zkUnlockMemory",
         [] {
             zkUnlockMemory(nullptr), zkUnlockMemory(Junk<MemoryBlock>()),
                 zkUnlockMemory(g_stale.block);
         }},
        {"zkGetMemoryBlockSize",
         [] { zkGetMemoryBlockSize(nullptr), zkGetMemoryBlockSize(Junk<MemoryBlock>()); }},
        {"zkGetSystemMemoryPool", [] { zkGetSystemMemoryPool(); }},
        {"zkSetAllocMode", [] { zkSetAllocMode(kMax); }},
        {"zkSetAllocHook", [] { zkSetAllocHook(nullptr); }},
        {"zkSetFreeHook", [] { zkSetFreeHook(nullptr); }},
        {"zkSetBreakAlloc", [] { zkSetBreakAlloc(kMax), zkSetBreakAlloc(0); }},
        {"zkSetMemoryCheckpoint", [] { zkSetMemoryCheckpoint(kMax); }},
        {"zkFillMemory", [] { zkFillMemory(nullptr, 16, 1), zkFillMemory(g_out, 0, 1); }},
        {"zkZeroMemory", [] { zkZeroMemory(nullptr, 16); }},
        {"zkCopyMemory",
         [] { zkCopyMemory(nullptr, g_out, 16), zkCopyMemory(g_out, nullptr, 16); }},
        {"zkCopyString",
         [] {
             zkCopyString(nullptr, 4, 0, "x"), zkCopyString(g_out, sizeof g_out - 1, 0, nullptr),
                 zkCopyString(g_out, 0, kMax, "x");
         }},
        {"zkCreateMemoryPool",
         [] {
             EXPECT_EQ(zkCreateMemoryPool(0, kMax, kMax), nullptr);
             EXPECT_EQ(zkCreateMemoryPool(~zkAddr{0}, 16, 4), nullptr);
         }},
        {"zkReleaseMemoryPool",
         [] {
             zkReleaseMemoryPool(nullptr), zkReleaseMemoryPool(Junk<MemoryPool>()),
                 zkReleaseMemoryPool(g_stale.pool), zkReleaseMemoryPool(zkGetSystemMemoryPool());
         }},
        {"zkAllocMemoryPoolBlock",
         [] {
             EXPECT_EQ(zkAllocMemoryPoolBlock(nullptr, 16, 16), nullptr);
             EXPECT_EQ(zkAllocMemoryPoolBlock(Junk<MemoryPool>(), 16, 16), nullptr);
             EXPECT_EQ(zkAllocMemoryPoolBlock(g_stale.pool, 16, 16), nullptr);
         }},
        {"zkAllocMemoryPoolBlockEx",
         [] {
             EXPECT_EQ(zkAllocMemoryPoolBlockEx(Junk<MemoryPool>(), kMax, kMax, kMax), nullptr);
         }},
        {"zkFreeMemoryPoolBlock",
         [] {
             zkFreeMemoryPoolBlock(nullptr, nullptr),
                 zkFreeMemoryPoolBlock(Junk<MemoryPool>(), Junk<MemoryBlock>()),
                 zkFreeMemoryPoolBlock(zkGetSystemMemoryPool(), Junk<MemoryBlock>());
         }},
        {"zkFindMemoryPoolBlock",
         [] {
             zkFindMemoryPoolBlock(nullptr, 0), zkFindMemoryPoolBlock(Junk<MemoryPool>(), kMax);
         }},
        {"zkLockMemoryPoolBlock",
         [] { zkLockMemoryPoolBlock(nullptr), zkLockMemoryPoolBlock(Junk<MemoryBlock>()); }},
        {"zkUnlockMemoryPoolBlock",
         [] { zkUnlockMemoryPoolBlock(nullptr), zkUnlockMemoryPoolBlock(Junk<MemoryBlock>()); }},
        {"zkGetMemoryPoolBlockSize", [] { zkGetMemoryPoolBlockSize(nullptr); }},
        {"zkSetMemoryPoolAllocMode",
         [] {
             zkSetMemoryPoolAllocMode(nullptr, kMax),
                 zkSetMemoryPoolAllocMode(Junk<MemoryPool>(), kMax);
         }},
        {"zkSetMemoryPoolCheckpoint",
         [] {
             zkSetMemoryPoolCheckpoint(nullptr, 1),
                 zkSetMemoryPoolCheckpoint(Junk<MemoryPool>(), 1);
         }},
        {"zkSetBreakPoolAlloc",
         [] { zkSetBreakPoolAlloc(nullptr, 1), zkSetBreakPoolAlloc(Junk<MemoryPool>(), 1); }},
        {"zkGetMemoryInfo", [] { zkGetMemoryInfo(nullptr); }},
        {"zkGetMemoryPoolInfo",
         [] {
             MemoryInfo info;
             zkGetMemoryPoolInfo(nullptr, nullptr), zkGetMemoryPoolInfo(Junk<MemoryPool>(), &info),
                 zkGetMemoryPoolInfo(g_stale.pool, &info);
         }},
        {"zkQueryMemoryInfo", [] { zkQueryMemoryInfo(kMax); }},
        {"zkQueryMemoryPoolInfo",
         [] { zkQueryMemoryPoolInfo(nullptr, 1), zkQueryMemoryPoolInfo(Junk<MemoryPool>(), 1); }},
        {"zkEnumerateMemoryBlocks",
         [] {
             zkEnumerateMemoryBlocks(nullptr, nullptr), zkEnumerateMemoryBlocks(NoBlock, nullptr);
         }},
        {"zkEnumerateMemoryPoolBlocks",
         [] { zkEnumerateMemoryPoolBlocks(Junk<MemoryPool>(), NoBlock, nullptr); }},
        {"zkEnumerateMemoryGaps",
         [] { zkEnumerateMemoryGaps(nullptr, nullptr), zkEnumerateMemoryGaps(NoRange, nullptr); }},
        {"zkEnumerateMemoryPoolGaps",
         [] { zkEnumerateMemoryPoolGaps(Junk<MemoryPool>(), NoRange, nullptr); }},
        {"zkEnumerateMemoryUsed", [] { zkEnumerateMemoryUsed(NoRange, nullptr); }},
        {"zkEnumerateMemoryPoolUsed",
         [] { zkEnumerateMemoryPoolUsed(g_stale.pool, NoRange, nullptr); }},
        {"zkEnumerateMemoryPoolCategory",
         [] {
             zkEnumerateMemoryPoolCategory(nullptr, NoCategory, nullptr),
                 zkEnumerateMemoryPoolCategory(Junk<MemoryPool>(), NoCategory, nullptr);
         }},
        {"zkDumpAllMemoryBlocks", [] { zkDumpAllMemoryBlocks(kMax); }},
        {"zkDumpAllMemoryPoolBlocks", [] { zkDumpAllMemoryPoolBlocks(Junk<MemoryPool>(), 0); }},
        {"zkDumpAllMemoryGaps", [] { zkDumpAllMemoryGaps(kMax); }},
        {"zkDumpAllMemoryPoolGaps", [] { zkDumpAllMemoryPoolGaps(Junk<MemoryPool>(), 0); }},
        {"zkShowMemoryStatus", [] { zkShowMemoryStatus(0); }},
        {"zkCreateThread", [] { zkReleaseThread(zkCreateThread(kMax)); }},
        {"zkStartThread",
         [] {
             EXPECT_LT(zkStartThread(nullptr, nullptr, nullptr), 0);
             EXPECT_LT(zkStartThread(Junk<ThreadRecord>(), nullptr, nullptr), 0);
             EXPECT_LT(zkStartThread(g_stale.thread, nullptr, nullptr), 0);
         }},
        {"zkWaitForThread",
         [] {
             zkWaitForThread(nullptr), zkWaitForThread(Junk<ThreadRecord>()),
                 zkWaitForThread(g_stale.thread);
         }},
        {"zkIsThreadRunning",
         [] { zkIsThreadRunning(nullptr), zkIsThreadRunning(Junk<ThreadRecord>()); }},
        {"zkReleaseThread",
         [] {
             zkReleaseThread(nullptr), zkReleaseThread(Junk<ThreadRecord>()),
                 zkReleaseThread(g_stale.thread);
         }},
        {"zkCreateSemaphore",
         [] {
             EXPECT_EQ(zkCreateSemaphore(2, 1), nullptr);
             EXPECT_EQ(zkCreateSemaphore(-1, -1), nullptr);
         }},
        {"zkReleaseSemaphore",
         [] {
             zkReleaseSemaphore(nullptr), zkReleaseSemaphore(Junk<SemaphoreRecord>()),
                 zkReleaseSemaphore(g_stale.semaphore);
         }},
        {"zkWaitSemaphore",
         [] {
             zkWaitSemaphore(nullptr), zkWaitSemaphore(Junk<SemaphoreRecord>()),
                 zkWaitSemaphore(g_stale.semaphore);
         }},
        {"zkPollSemaphore",
         [] { zkPollSemaphore(nullptr), zkPollSemaphore(Junk<SemaphoreRecord>()); }},
        {"zkSignalSemaphore",
         [] {
             zkSignalSemaphore(nullptr), zkSignalSemaphore(Junk<SemaphoreRecord>()),
                 zkSignalSemaphore(g_stale.semaphore);
         }},
        {"zkCreateRingBuffer",
         [] {
             EXPECT_EQ(zkCreateRingBuffer(nullptr, 64), nullptr);
             EXPECT_EQ(zkCreateRingBuffer(g_out, 0), nullptr);
         }},
        {"zkReleaseRingBuffer",
         [] { zkReleaseRingBuffer(nullptr), zkReleaseRingBuffer(Junk<RingBuffer>()); }},
        {"zkGetRingBufferDataSize",
         [] {
             zkGetRingBufferDataSize(Junk<RingBuffer>()), zkGetRingBufferDataSize(g_stale.ring);
         }},
        {"zkGetRingBufferAddress", [] { zkGetRingBufferAddress(Junk<RingBuffer>()); }},
        {"zkLockRingBufferForRead",
         [] {
             zkLockRingBufferForRead(Junk<RingBuffer>(), &g_ptr, &g_u32, &g_ptr, &g_u32),
                 zkLockRingBufferForRead(g_stale.ring, nullptr, nullptr, nullptr, nullptr);
         }},
        {"zkUnlockRingBufferForRead",
         [] {
             zkUnlockRingBufferForRead(Junk<RingBuffer>(), kMax),
                 zkUnlockRingBufferForRead(g_stale.ring, kMax);
         }},
        {"zkLockRingBufferForWrite",
         [] { zkLockRingBufferForWrite(Junk<RingBuffer>(), &g_ptr, &g_u32, &g_ptr, &g_u32); }},
        {"zkUnlockRingBufferForWrite",
         [] {
             zkUnlockRingBufferForWrite(Junk<RingBuffer>(), kMax),
                 zkUnlockRingBufferForWrite(g_stale.ring, kMax);
         }},
        {"zkInitializeRequest", [] {}}, // sizes the request table: exercised by the test itself
        {"zkCreateRequest", [] { zkReleaseRequest(zkCreateRequest()); }},
        {"zkReleaseRequest",
         [] {
             zkReleaseRequest(nullptr), zkReleaseRequest(Junk<Request>()),
                 zkReleaseRequest(g_stale.request);
         }},
        {"zkIsRequestCompleted",
         [] {
             zkIsRequestCompleted(nullptr), zkIsRequestCompleted(Junk<Request>()),
                 zkIsRequestCompleted(g_stale.request);
         }},
        {"zkWaitForRequestCompletion",
         [] {
             zkWaitForRequestCompletion(nullptr), zkWaitForRequestCompletion(Junk<Request>()),
                 zkWaitForRequestCompletion(g_stale.request);
         }},
        {"zkUpdateAllRequests", [] { zkUpdateAllRequests(); }},
        {"zkLoadOverlayForDebug", [] { zkLoadOverlayForDebug(nullptr, nullptr); }},
        {"zkLoadOverlayForRelease", [] { zkLoadOverlayForRelease(nullptr, nullptr); }},
        {"zkLoadOverlayFromMemoryForDebug",
         [] { zkLoadOverlayFromMemoryForDebug(nullptr, nullptr, nullptr); }},
        {"zkLoadOverlayFromMemoryForRelease",
         [] { zkLoadOverlayFromMemoryForRelease(nullptr, nullptr, nullptr); }},
        {"zkBeginLoadOverlay",
         [] {
             zkBeginLoadOverlay(nullptr, nullptr, nullptr),
                 zkBeginLoadOverlay(nullptr, nullptr, Junk<Request>());
         }},
        {"zkEndLoadOverlayForDebug",
         [] {
             zkEndLoadOverlayForDebug(nullptr, nullptr),
                 zkEndLoadOverlayForDebug(nullptr, Junk<Request>());
         }},
        {"zkEndLoadOverlayForRelease",
         [] { zkEndLoadOverlayForRelease(nullptr, g_stale.request); }},
        {"zkRegisterDevice", [] { EXPECT_EQ(zkRegisterDevice(nullptr), -3); }},
        {"zkMount",
         [] { zkMount(nullptr, nullptr, kMax), zkMount("/x", nullptr, 0), zkMount("", "", 0); }},
        {"zkUnmount", [] { zkUnmount(nullptr), zkUnmount(""); }},
        {"zkUnmountAll", [] {}}, // would take the root mount away: exercised by the test itself
        {"zkControlDevice",
         [] { zkControlDevice(nullptr, kMax, kMax, kMax), zkControlDevice("", 0, 0, 0); }},
        {"zkGetPartitionStatus",
         [] { zkGetPartitionStatus(nullptr), zkGetPartitionStatus("nodev0:"); }},
        {"zkCreatePartition", [] { zkCreatePartition(nullptr, 0, 0); }},
        {"zkDeletePartition", [] { zkDeletePartition(nullptr); }},
        {"zkFormat", [] { zkFormat(nullptr); }},
        {"zkQueryDeviceInfo", [] { zkQueryDeviceInfo(nullptr, kMax, 0, 0); }},
        {"zkGetDeviceStatus", [] { zkGetDeviceStatus(nullptr); }},
        {"zkSetDeviceTryCount", [] { zkSetDeviceTryCount(nullptr, kMax); }},
        {"zkGetDeviceTryCount", [] { zkGetDeviceTryCount(nullptr); }},
        {"zkSetWorkDir", [] { zkSetWorkDir(nullptr); }},
        {"zkGetFullPath",
         [] {
             zkGetFullPath(nullptr, g_out, sizeof g_out), zkGetFullPath("/a", nullptr, kMax),
                 zkGetFullPath("/a", g_out, 0);
         }},
        {"zkGetPhysicalPath",
         [] {
             zkGetPhysicalPath(nullptr, g_out, sizeof g_out), zkGetPhysicalPath("/", nullptr, kMax),
                 zkGetPhysicalPath("/", g_out, 0);
         }},
        {"zkSplitPath",
         [] {
             zkSplitPath(nullptr, nullptr, 0, nullptr, 0, nullptr, 0),
                 zkSplitPath("/a/b.c", g_out, 0, g_out, 1, nullptr, kMax);
         }},
        {"zkOpenFile",
         [] {
             EXPECT_EQ(zkOpenFile(nullptr, kMax, kMax), nullptr);
             EXPECT_EQ(zkOpenFile("", 0, 0), nullptr);
         }},
        {"zkCloseFile",
         [] { zkCloseFile(nullptr), zkCloseFile(Junk<FileHandle>()), zkCloseFile(g_stale.file); }},
        {"zkReadFile",
         [] {
             EXPECT_EQ(zkReadFile(nullptr, g_out, 4, nullptr), -4);
             EXPECT_EQ(zkReadFile(Junk<FileHandle>(), g_out, 4, &g_u32), -4);
             EXPECT_EQ(zkReadFile(g_stale.file, nullptr, kMax, &g_u32), -4);
         }},
        {"zkReadFileOffset",
         [] {
             EXPECT_EQ(zkReadFileOffset(Junk<FileHandle>(), kMax, g_out, kMax, nullptr, kMax), -4);
         }},
        {"zkWriteFile",
         [] {
             EXPECT_EQ(zkWriteFile(g_stale.file, g_out, 4, nullptr), -4);
             EXPECT_EQ(zkWriteFile(Junk<FileHandle>(), nullptr, kMax, &g_u32), -4);
         }},
        {"zkSeekFile", [] { EXPECT_EQ(zkSeekFile(Junk<FileHandle>(), -1, kMax, nullptr), -4); }},
        {"zkGetFileSize", [] { EXPECT_EQ(zkGetFileSize(g_stale.file, nullptr), -4); }},
        {"zkGetFilePath",
         [] {
             zkGetFilePath(Junk<FileHandle>(), g_out, sizeof g_out),
                 zkGetFilePath(nullptr, nullptr, kMax);
         }},
        {"zkGetFileTime", [] { zkGetFileTime(Junk<FileHandle>(), nullptr, nullptr, nullptr); }},
        {"zkSetFileTime", [] { zkSetFileTime(g_stale.file, nullptr, nullptr, nullptr); }},
        {"zkDeleteFile", [] { zkDeleteFile(nullptr, kMax), zkDeleteFile("", 0); }},
        {"zkCopyFile",
         [] {
             EXPECT_LT(zkCopyFile(nullptr, nullptr), 0);
             EXPECT_LT(zkCopyFile("", ""), 0);
         }},
        {"zkGetOpenFileCount", [] { zkGetOpenFileCount(); }},
        {"zkGetTotalBytesRead", [] { zkGetTotalBytesRead(); }},
        {"zkResetTotalBytesRead", [] { zkResetTotalBytesRead(); }},
        {"zkSetFileTryCount", [] { EXPECT_EQ(zkSetFileTryCount(kMax, kMax), -3); }},
        {"zkGetFileTryCount", [] { EXPECT_EQ(zkGetFileTryCount(kMax), 0u); }},
        {"zkOpenDir",
         [] {
             EXPECT_EQ(zkOpenDir(nullptr), nullptr);
             EXPECT_EQ(zkOpenDir(""), nullptr);
         }},
        {"zkReadDir",
         [] {
             zkReadDir(nullptr, nullptr), zkReadDir(Junk<DirHandle>(), g_junk),
                 zkReadDir(g_stale.dir, g_junk);
         }},
        {"zkCloseDir",
         [] { zkCloseDir(nullptr), zkCloseDir(Junk<DirHandle>()), zkCloseDir(g_stale.dir); }},
        {"zkMakeDir", [] { zkMakeDir(nullptr, kMax, kMax); }},
        {"zkRemoveDir", [] { zkRemoveDir(nullptr, kMax); }},
        {"zkDumpDir", [] { zkDumpDir(nullptr, kMax); }},
        {"zkBeginOpenFile",
         [] {
             zkBeginOpenFile(nullptr, 0, 0, nullptr), zkBeginOpenFile("/x", 0, 0, Junk<Request>());
         }},
        {"zkEndOpenFile",
         [] { zkEndOpenFile(nullptr, nullptr), zkEndOpenFile(nullptr, Junk<Request>()); }},
        {"zkBeginCloseFile",
         [] {
             zkBeginCloseFile(Junk<FileHandle>(), nullptr),
                 zkBeginCloseFile(nullptr, g_stale.request);
         }},
        {"zkEndCloseFile", [] { zkEndCloseFile(nullptr), zkEndCloseFile(Junk<Request>()); }},
        {"zkBeginReadFile",
         [] {
             zkBeginReadFile(nullptr, nullptr, kMax, nullptr),
                 zkBeginReadFile(Junk<FileHandle>(), g_out, 4, Junk<Request>());
         }},
        {"zkEndReadFile",
         [] { zkEndReadFile(nullptr, nullptr), zkEndReadFile(&g_u32, g_stale.request); }},
        {"zkLoadDataFromFile",
         [] {
             zkLoadDataFromFile(nullptr, nullptr, nullptr), zkLoadDataFromFile("", &g_ptr, &g_u32);
         }},
        {"zkStartLoadingDataFromFile",
         [] { EXPECT_EQ(zkStartLoadingDataFromFile(nullptr), nullptr); }},
        {"zkIsFileProcessing",
         [] {
             zkIsFileProcessing(nullptr), zkIsFileProcessing(Junk<FileHandle>()),
                 zkIsFileProcessing(g_stale.file);
         }},
        {"zkGetLoadedData",
         [] {
             zkGetLoadedData(nullptr, nullptr, nullptr),
                 zkGetLoadedData(Junk<FileHandle>(), &g_ptr, &g_u32);
         }},
        {"zkFreeData", [] { zkFreeData(nullptr), zkFreeData(g_junk); }},
        {"zkOpenProfile",
         [] {
             EXPECT_EQ(zkOpenProfile(nullptr), nullptr);
             EXPECT_EQ(zkOpenProfile(""), nullptr);
         }},
        {"zkGetProfileSection",
         [] {
             zkGetProfileSection(nullptr, nullptr), zkGetProfileSection(Junk<ProfileFile>(), "a"),
                 zkGetProfileSection(g_stale.profile, "a");
         }},
        {"zkGetProfileString",
         [] {
             EXPECT_STREQ(zkGetProfileString(Junk<ProfileFile>(), Junk<ProfileSection>(), "k"), "");
             EXPECT_STREQ(zkGetProfileString(g_stale.profile, nullptr, nullptr), "");
         }},
        {"zkCloseProfile",
         [] {
             zkCloseProfile(nullptr), zkCloseProfile(Junk<ProfileFile>()),
                 zkCloseProfile(g_stale.profile);
         }},
        {"zkOpenKiv",
         [] {
             EXPECT_EQ(zkOpenKiv(nullptr, kMax), nullptr);
             EXPECT_EQ(zkOpenKiv("", 0), nullptr);
         }},
        {"zkCloseKiv",
         [] { zkCloseKiv(nullptr), zkCloseKiv(Junk<KivArchive>()), zkCloseKiv(g_stale.archive); }},
        {"zkOpenChildKiv",
         [] {
             EXPECT_EQ(zkOpenChildKiv(Junk<KivArchive>(), "a", 0), nullptr);
             EXPECT_EQ(zkOpenChildKiv(nullptr, nullptr, 0), nullptr);
         }},
        {"zkOpenChildKivByIndex",
         [] { EXPECT_EQ(zkOpenChildKivByIndex(g_stale.archive, kMax, kMax), nullptr); }},
        {"zkGetKivItemCount", [] { EXPECT_EQ(zkGetKivItemCount(Junk<KivArchive>()), 0u); }},
        {"zkFindKivItem", [] { EXPECT_EQ(zkFindKivItem(g_stale.archive, nullptr), 0); }},
        {"zkLoadKivItem",
         [] { EXPECT_EQ(zkLoadKivItem(Junk<KivArchive>(), "a", &g_ptr, &g_u32), -4); }},
        {"zkLoadKivItemByIndex",
         [] { EXPECT_EQ(zkLoadKivItemByIndex(g_stale.archive, kMax, nullptr, nullptr), -4); }},
        {"zkReleaseKivItem", [] { zkReleaseKivItem(nullptr), zkReleaseKivItem(g_junk); }},
        {"zkLoadKivFileItem",
         [] { EXPECT_EQ(zkLoadKivFileItem(nullptr, nullptr, nullptr, nullptr), -51); }},
        {"zkGetKivItem",
         [] { EXPECT_EQ(zkGetKivItem(Junk<KivArchive>(), nullptr, nullptr, nullptr), -4); }},
        {"zkGetKivItemByIndex",
         [] { EXPECT_EQ(zkGetKivItemByIndex(g_stale.archive, 0, &g_ptr, &g_u32), -4); }},
        {"zkOpenKivItem", [] { EXPECT_EQ(zkOpenKivItem(Junk<KivArchive>(), "a"), nullptr); }},
        {"zkOpenKivItemByIndex",
         [] { EXPECT_EQ(zkOpenKivItemByIndex(g_stale.archive, 0), nullptr); }},
        {"zkCloseKivItem",
         [] {
             zkCloseKivItem(nullptr), zkCloseKivItem(Junk<KivItemStream>()),
                 zkCloseKivItem(g_stale.item);
         }},
        {"zkReadKivItem",
         [] { EXPECT_EQ(zkReadKivItem(Junk<KivItemStream>(), g_out, kMax, nullptr), -4); }},
        {"zkSeekKivItem", [] { EXPECT_EQ(zkSeekKivItem(g_stale.item, -1, kMax, nullptr), -4); }},
        {"zkGetKivItemSize",
         [] { EXPECT_EQ(zkGetKivItemSize(Junk<KivItemStream>(), &g_u32), -4); }},
        {"zkGetOpenKivCount", [] { zkGetOpenKivCount(); }},
        {"zkGetOpenKivItemCount", [] { zkGetOpenKivItemCount(); }},
        {"zkMountKiv",
         [] {
             EXPECT_EQ(zkMountKiv(nullptr, nullptr, 0), -3);
             EXPECT_EQ(zkMountKiv("/k", "/none.kiv", 0), -51);
         }},
        {"zkUnmountKiv",
         [] {
             EXPECT_EQ(zkUnmountKiv(nullptr), -3);
             zkUnmountKiv("/never-mounted");
         }},
        {"_zkSlideExpand", [] { _zkSlideExpand(nullptr, nullptr, kMax); }},
    };
    return cases;
}

void RunEveryCase(const char* state) {
    for (const auto& [name, call] : Cases()) {
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
    std::set<std::string> covered;
    for (const auto& [name, call] : Cases())
        covered.insert(name);
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
