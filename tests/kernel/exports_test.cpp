// The library's interface, pinned: every function the public headers declare
// is listed here and its address taken, so an export that is declared but
// missing from the library fails this program's link, and one that resolves
// to nothing fails the test.
#include <zk.h>

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

namespace {

struct Export {
    const char* name;
    void (*address)();
};

// clang-format off
#define ZK_EXPORT(fn) {#fn, reinterpret_cast<void (*)()>(&fn)}
// clang-format on

// One line per exported function, grouped by header.
const Export kExports[] = {
    // zk/lifecycle.h
    ZK_EXPORT(zkBeginProcess),
    ZK_EXPORT(zkEndProcess),
    ZK_EXPORT(zkInitialize),
    ZK_EXPORT(zkInitializeEx),
    ZK_EXPORT(zkTerminate),
    ZK_EXPORT(zkMain),
    ZK_EXPORT(zkGetLoopCount),
    ZK_EXPORT(zkResetLoopCount),
    ZK_EXPORT(zkGetApplicationInstance),
    ZK_EXPORT(zkGetTickCount),
    ZK_EXPORT(zkSleep),
    ZK_EXPORT(zkExecute),
    ZK_EXPORT(zkEnableInterrupt),
    ZK_EXPORT(zkDisableInterrupt),
    ZK_EXPORT(zkInitializeDevice),
    ZK_EXPORT(zkTrace2),
    ZK_EXPORT(zkTerminateDevice),
    ZK_EXPORT(zkSkipLoadModule),
    ZK_EXPORT(zkReleaseOverlay),
    ZK_EXPORT(zkSetDisplayFrequency),
    // zk/vblank.h
    ZK_EXPORT(zkWaitVblank),
    ZK_EXPORT(zkWaitVblankEx),
    ZK_EXPORT(zkGetVblankCount),
    ZK_EXPORT(zkGetDisplayFrequency),
    ZK_EXPORT(zkSetPeriodInterval),
    ZK_EXPORT(zkWaitForPeriodStart),
    ZK_EXPORT(zkAddVblankHandler),
    ZK_EXPORT(zkRemoveVblankHandler),
    // zk/window.h
    ZK_EXPORT(zkSetTitle),
    ZK_EXPORT(zkCreateMainWindow),
    ZK_EXPORT(zkGetMainWindow),
    ZK_EXPORT(zkReleaseWindow),
    ZK_EXPORT(zkGetWindowNativeHandle),
    ZK_EXPORT(zkSetWindowVisibility),
    ZK_EXPORT(zkIsWindowVisible),
    ZK_EXPORT(zkAddWindowHook),
    ZK_EXPORT(zkCheckMultipleInstances),
    ZK_EXPORT(zkPostWindowMessage),
    ZK_EXPORT(zkPostQuitMessage),
    // zk/args.h
    ZK_EXPORT(zkGetAppArgCount),
    ZK_EXPORT(zkGetAppArg),
    ZK_EXPORT(zkSetModuleDir),
    ZK_EXPORT(zkGetModuleDir),
    ZK_EXPORT(zkGetModulePath),
    ZK_EXPORT(zkLoadModuleEx),
    ZK_EXPORT(zkLoadModule),
    ZK_EXPORT(zkUnloadModule),
    ZK_EXPORT(zkLoadDefaultModule),
    // zk/trace.h
    ZK_EXPORT(zkTrace),
    ZK_EXPORT(zkSetTraceProc),
    ZK_EXPORT(zkAssertFailed),
    ZK_EXPORT(zkDumpMemory),
    ZK_EXPORT(zkRegisterLibrary),
    ZK_EXPORT(zkOutputLibraryVersion),
    // zk/callbacks.h
    ZK_EXPORT(zkAddIdleHandler),
    ZK_EXPORT(zkRemoveIdleHandler),
    ZK_EXPORT(zkAddEventCallback),
    // zk/profiler.h
    ZK_EXPORT(zkGetPerformanceCounter),
    ZK_EXPORT(zkGetPerformanceFrequency),
    ZK_EXPORT(zkResetPerformanceCounter),
    ZK_EXPORT(zkInitializeProfiler),
    ZK_EXPORT(zkSetProfileSwitch),
    ZK_EXPORT(zkSetProfileInterval),
    ZK_EXPORT(zkBeginProfile),
    ZK_EXPORT(zkEndProfile),
    ZK_EXPORT(zkSetProfileName),
    ZK_EXPORT(zkInitializeSystemProfiler),
    ZK_EXPORT(zkSetSystemProfileSwitch),
    ZK_EXPORT(zkSetSystemProfileInterval),
    ZK_EXPORT(zkBeginSystemProfile),
    ZK_EXPORT(zkEndSystemProfile),
    ZK_EXPORT(zkSetSystemProfileName),
    ZK_EXPORT(zkUpdateAllProfilers),
    // zk/timeutil.h
    ZK_EXPORT(zkGetTime),
    ZK_EXPORT(zkGetTimeSec),
    ZK_EXPORT(zkGetStringLength),
    ZK_EXPORT(zkCompareString),
    // zk/memory.h
    ZK_EXPORT(zkMalloc),
    ZK_EXPORT(zkMallocEx),
    ZK_EXPORT(zkAllocateSystemMemory),
    ZK_EXPORT(zkFree),
    ZK_EXPORT(zkFreeSystemMemory),
    ZK_EXPORT(zkAllocMemoryBlock),
    ZK_EXPORT(zkFreeMemoryBlock),
    ZK_EXPORT(zkLockMemory),
    ZK_EXPORT(zkUnlockMemory),
    ZK_EXPORT(zkGetMemoryBlockSize),
    ZK_EXPORT(zkGetSystemMemoryPool),
    ZK_EXPORT(zkSetAllocMode),
    ZK_EXPORT(zkSetAllocHook),
    ZK_EXPORT(zkSetFreeHook),
    ZK_EXPORT(zkSetBreakAlloc),
    ZK_EXPORT(zkSetMemoryCheckpoint),
    ZK_EXPORT(zkFillMemory),
    ZK_EXPORT(zkZeroMemory),
    ZK_EXPORT(zkCopyMemory),
    ZK_EXPORT(zkCopyString),
    // zk/pool.h
    ZK_EXPORT(zkCreateMemoryPool),
    ZK_EXPORT(zkReleaseMemoryPool),
    ZK_EXPORT(zkAllocMemoryPoolBlock),
    ZK_EXPORT(zkAllocMemoryPoolBlockEx),
    ZK_EXPORT(zkFreeMemoryPoolBlock),
    ZK_EXPORT(zkFindMemoryPoolBlock),
    ZK_EXPORT(zkLockMemoryPoolBlock),
    ZK_EXPORT(zkUnlockMemoryPoolBlock),
    ZK_EXPORT(zkGetMemoryPoolBlockSize),
    ZK_EXPORT(zkSetMemoryPoolAllocMode),
    ZK_EXPORT(zkSetMemoryPoolCheckpoint),
    ZK_EXPORT(zkSetBreakPoolAlloc),
    // zk/memdiag.h
    ZK_EXPORT(zkGetMemoryInfo),
    ZK_EXPORT(zkGetMemoryPoolInfo),
    ZK_EXPORT(zkQueryMemoryInfo),
    ZK_EXPORT(zkQueryMemoryPoolInfo),
    ZK_EXPORT(zkEnumerateMemoryBlocks),
    ZK_EXPORT(zkEnumerateMemoryPoolBlocks),
    ZK_EXPORT(zkEnumerateMemoryGaps),
    ZK_EXPORT(zkEnumerateMemoryPoolGaps),
    ZK_EXPORT(zkEnumerateMemoryUsed),
    ZK_EXPORT(zkEnumerateMemoryPoolUsed),
    ZK_EXPORT(zkEnumerateMemoryPoolCategory),
    ZK_EXPORT(zkDumpAllMemoryBlocks),
    ZK_EXPORT(zkDumpAllMemoryPoolBlocks),
    ZK_EXPORT(zkDumpAllMemoryGaps),
    ZK_EXPORT(zkDumpAllMemoryPoolGaps),
    ZK_EXPORT(zkShowMemoryStatus),
    // zk/thread.h
    ZK_EXPORT(zkCreateThread),
    ZK_EXPORT(zkStartThread),
    ZK_EXPORT(zkWaitForThread),
    ZK_EXPORT(zkIsThreadRunning),
    ZK_EXPORT(zkReleaseThread),
    // zk/semaphore.h
    ZK_EXPORT(zkCreateSemaphore),
    ZK_EXPORT(zkReleaseSemaphore),
    ZK_EXPORT(zkWaitSemaphore),
    ZK_EXPORT(zkPollSemaphore),
    ZK_EXPORT(zkSignalSemaphore),
    // zk/ringbuffer.h
    ZK_EXPORT(zkCreateRingBuffer),
    ZK_EXPORT(zkReleaseRingBuffer),
    ZK_EXPORT(zkGetRingBufferDataSize),
    ZK_EXPORT(zkGetRingBufferAddress),
    ZK_EXPORT(zkLockRingBufferForRead),
    ZK_EXPORT(zkUnlockRingBufferForRead),
    ZK_EXPORT(zkLockRingBufferForWrite),
    ZK_EXPORT(zkUnlockRingBufferForWrite),
    // zk/request.h
    ZK_EXPORT(zkInitializeRequest),
    ZK_EXPORT(zkCreateRequest),
    ZK_EXPORT(zkReleaseRequest),
    ZK_EXPORT(zkIsRequestCompleted),
    ZK_EXPORT(zkWaitForRequestCompletion),
    ZK_EXPORT(zkUpdateAllRequests),
    // zk/overlay.h
    ZK_EXPORT(zkLoadOverlayForDebug),
    ZK_EXPORT(zkLoadOverlayForRelease),
    ZK_EXPORT(zkLoadOverlayFromMemoryForDebug),
    ZK_EXPORT(zkLoadOverlayFromMemoryForRelease),
    ZK_EXPORT(zkBeginLoadOverlay),
    ZK_EXPORT(zkEndLoadOverlayForDebug),
    ZK_EXPORT(zkEndLoadOverlayForRelease),
};

#undef ZK_EXPORT

TEST(Exports, EveryDeclaredFunctionResolves) {
    for (const Export& e : kExports)
        EXPECT_NE(e.address, nullptr) << e.name;
}

TEST(Exports, NamesAreUniqueAndCarryThePrefix) {
    std::set<std::string> seen;
    for (const Export& e : kExports) {
        EXPECT_EQ(std::strncmp(e.name, "zk", 2), 0) << e.name;
        EXPECT_TRUE(seen.insert(e.name).second) << e.name << " listed twice";
    }
}

} // namespace
