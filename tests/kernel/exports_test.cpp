// The library's interface, pinned: every function the public headers declare
// is listed here and its address taken, so an export that is declared but
// missing from the library fails this program's link, and one that resolves
// to nothing fails the test. The names follow the order of the headers.
#include <zk.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace {

struct Export {
    const char* name;
    void (*address)();
};

// clang-format off
#define X(fn) {#fn, reinterpret_cast<void (*)()>(&fn)},
const Export kExports[] = {
    X(zkBeginProcess) X(zkEndProcess) X(zkInitialize) X(zkInitializeEx) X(zkTerminate) X(zkMain)
    X(zkGetLoopCount) X(zkResetLoopCount) X(zkGetApplicationInstance) X(zkGetTickCount) X(zkSleep)
    X(zkExecute) X(zkEnableInterrupt) X(zkDisableInterrupt) X(zkInitializeDevice) X(zkTrace2)
    X(zkTerminateDevice) X(zkSkipLoadModule) X(zkReleaseOverlay) X(zkSetDisplayFrequency)
    X(zkWaitVblank) X(zkWaitVblankEx) X(zkGetVblankCount) X(zkGetDisplayFrequency)
    X(zkSetPeriodInterval) X(zkWaitForPeriodStart) X(zkAddVblankHandler) X(zkRemoveVblankHandler)
    X(zkSetTitle) X(zkCreateMainWindow) X(zkGetMainWindow) X(zkReleaseWindow)
    X(zkGetWindowNativeHandle) X(zkSetWindowVisibility) X(zkIsWindowVisible) X(zkAddWindowHook)
    X(zkCheckMultipleInstances) X(zkPostWindowMessage) X(zkPostQuitMessage) X(zkGetAppArgCount)
    X(zkGetAppArg) X(zkSetModuleDir) X(zkGetModuleDir) X(zkGetModulePath) X(zkLoadModuleEx)
    X(zkLoadModule) X(zkUnloadModule) X(zkLoadDefaultModule) X(zkTrace) X(zkSetTraceProc)
    X(zkAssertFailed) X(zkDumpMemory) X(zkRegisterLibrary) X(zkOutputLibraryVersion)
    X(zkAddIdleHandler) X(zkRemoveIdleHandler) X(zkAddEventCallback) X(zkGetPerformanceCounter)
    X(zkGetPerformanceFrequency) X(zkResetPerformanceCounter) X(zkInitializeProfiler)
    X(zkSetProfileSwitch) X(zkSetProfileInterval) X(zkBeginProfile) X(zkEndProfile)
    X(zkSetProfileName) X(zkInitializeSystemProfiler) X(zkSetSystemProfileSwitch)
    X(zkSetSystemProfileInterval) X(zkBeginSystemProfile) X(zkEndSystemProfile)
    X(zkSetSystemProfileName) X(zkUpdateAllProfilers) X(zkGetTime) X(zkGetTimeSec)
    X(zkGetStringLength) X(zkCompareString) X(zkMalloc) X(zkMallocEx) X(zkAllocateSystemMemory)
    X(zkFree) X(zkFreeSystemMemory) X(zkAllocMemoryBlock) X(zkFreeMemoryBlock) X(zkLockMemory)
    X(zkUnlockMemory) X(zkGetMemoryBlockSize) X(zkGetSystemMemoryPool) X(zkSetAllocMode)
    X(zkSetAllocHook) X(zkSetFreeHook) X(zkSetBreakAlloc) X(zkSetMemoryCheckpoint) X(zkFillMemory)
    X(zkZeroMemory) X(zkCopyMemory) X(zkCopyString) X(zkCreateMemoryPool) X(zkReleaseMemoryPool)
    X(zkAllocMemoryPoolBlock) X(zkAllocMemoryPoolBlockEx) X(zkFreeMemoryPoolBlock)
    X(zkFindMemoryPoolBlock) X(zkLockMemoryPoolBlock) X(zkUnlockMemoryPoolBlock)
    X(zkGetMemoryPoolBlockSize) X(zkSetMemoryPoolAllocMode) X(zkSetMemoryPoolCheckpoint)
    X(zkSetBreakPoolAlloc) X(zkGetMemoryInfo) X(zkGetMemoryPoolInfo) X(zkQueryMemoryInfo)
    X(zkQueryMemoryPoolInfo) X(zkEnumerateMemoryBlocks) X(zkEnumerateMemoryPoolBlocks)
    X(zkEnumerateMemoryGaps) X(zkEnumerateMemoryPoolGaps) X(zkEnumerateMemoryUsed)
    X(zkEnumerateMemoryPoolUsed) X(zkEnumerateMemoryPoolCategory) X(zkDumpAllMemoryBlocks)
    X(zkDumpAllMemoryPoolBlocks) X(zkDumpAllMemoryGaps) X(zkDumpAllMemoryPoolGaps)
    X(zkShowMemoryStatus) X(zkCreateThread) X(zkStartThread) X(zkWaitForThread) X(zkIsThreadRunning)
    X(zkReleaseThread) X(zkCreateSemaphore) X(zkReleaseSemaphore) X(zkWaitSemaphore)
    X(zkPollSemaphore) X(zkSignalSemaphore) X(zkCreateRingBuffer) X(zkReleaseRingBuffer)
    X(zkGetRingBufferDataSize) X(zkGetRingBufferAddress) X(zkLockRingBufferForRead)
    X(zkUnlockRingBufferForRead) X(zkLockRingBufferForWrite) X(zkUnlockRingBufferForWrite)
    X(zkInitializeRequest) X(zkCreateRequest) X(zkReleaseRequest) X(zkIsRequestCompleted)
    X(zkWaitForRequestCompletion) X(zkUpdateAllRequests) X(zkLoadOverlayForDebug)
    X(zkLoadOverlayForRelease) X(zkLoadOverlayFromMemoryForDebug)
    X(zkLoadOverlayFromMemoryForRelease) X(zkBeginLoadOverlay) X(zkEndLoadOverlayForDebug)
    X(zkEndLoadOverlayForRelease) X(zkRegisterDevice) X(zkMount) X(zkUnmount) X(zkUnmountAll)
    X(zkControlDevice) X(zkGetPartitionStatus) X(zkCreatePartition) X(zkDeletePartition)
    X(zkFormat) X(zkQueryDeviceInfo) X(zkGetDeviceStatus) X(zkSetDeviceTryCount)
    X(zkGetDeviceTryCount) X(zkSetWorkDir) X(zkGetFullPath) X(zkGetPhysicalPath) X(zkSplitPath)
    X(zkOpenFile) X(zkCloseFile) X(zkReadFile) X(zkReadFileOffset) X(zkWriteFile) X(zkSeekFile)
    X(zkGetFileSize) X(zkGetFilePath) X(zkGetFileTime) X(zkSetFileTime) X(zkDeleteFile)
    X(zkCopyFile) X(zkGetOpenFileCount) X(zkGetTotalBytesRead) X(zkResetTotalBytesRead)
    X(zkSetFileTryCount) X(zkGetFileTryCount) X(zkOpenDir) X(zkReadDir) X(zkCloseDir) X(zkMakeDir)
    X(zkRemoveDir) X(zkDumpDir)
    // asynchronous files and whole-file loading
    X(zkBeginOpenFile) X(zkEndOpenFile) X(zkBeginCloseFile) X(zkEndCloseFile) X(zkBeginReadFile)
    X(zkEndReadFile) X(zkLoadDataFromFile) X(zkStartLoadingDataFromFile) X(zkIsFileProcessing)
    X(zkGetLoadedData) X(zkFreeData)
    // profiles
    X(zkOpenProfile) X(zkGetProfileSection) X(zkGetProfileString) X(zkCloseProfile)
    // archives
    X(zkOpenKiv) X(zkCloseKiv) X(zkOpenChildKiv) X(zkOpenChildKivByIndex) X(zkGetKivItemCount)
    X(zkFindKivItem) X(zkLoadKivItem) X(zkLoadKivItemByIndex) X(zkReleaseKivItem)
    X(zkLoadKivFileItem) X(zkGetKivItem) X(zkGetKivItemByIndex) X(zkOpenKivItem)
    X(zkOpenKivItemByIndex) X(zkCloseKivItem) X(zkReadKivItem) X(zkSeekKivItem)
    X(zkGetKivItemSize) X(zkGetOpenKivCount) X(zkGetOpenKivItemCount) X(zkMountKiv)
    X(zkUnmountKiv) X(_zkSlideExpand)
};
#undef X
// clang-format on

TEST(Exports, EveryDeclaredFunctionResolvesOnceUnderThePrefix) {
    std::set<std::string> seen;
    for (const Export& e : kExports) {
        EXPECT_NE(e.address, nullptr) << e.name;
        const char* unprefixed = e.name[0] == '_' ? e.name + 1 : e.name; // _zkSlideExpand
        EXPECT_EQ(std::strncmp(unprefixed, "zk", 2), 0) << e.name;
        EXPECT_TRUE(seen.insert(e.name).second) << e.name << " listed twice";
    }
}

// qaxkrnl.def, from which Microsoft's tools make an import library, names
// exactly the functions above: no more, no fewer.
TEST(Exports, ModuleDefinitionFileListsExactlyTheExports) {
    std::FILE* def = std::fopen(ZK_SOURCE_DIR "/platform/win32/qaxkrnl.def", "r");
    ASSERT_NE(def, nullptr);
    std::set<std::string> listed;
    char line[256];
    bool inExports = false;
    while (std::fgets(line, sizeof line, def)) {
        char name[256];
        if (std::sscanf(line, " %255s", name) != 1 || name[0] == ';') continue;
        if (inExports) listed.insert(name);
        inExports = inExports || std::strcmp(name, "EXPORTS") == 0;
    }
    std::fclose(def);
    std::set<std::string> pinned;
    for (const Export& e : kExports)
        pinned.insert(e.name);
    EXPECT_EQ(listed, pinned) << "run scripts/update-def.sh after changing the exports";
}

// The headers are the reference: every exported function and callback type
// has its own comment right above its declaration.
TEST(Exports, EveryDeclarationInThePublicHeadersHasItsComment) {
    int headers = 0;
    for (const auto& entry : std::filesystem::directory_iterator(ZK_SOURCE_DIR "/include/zk")) {
        std::ifstream in(entry.path());
        ++headers;
        std::string line, previous;
        while (std::getline(in, line)) {
            const bool declaration =
                line.rfind("ZK_API", 0) == 0 ||
                (line.rfind("typedef ", 0) == 0 && line.find("(ZK_CALL") != std::string::npos);
            if (declaration) {
                const size_t first = previous.find_first_not_of(' ');
                const bool commented =
                    (previous.size() >= 2 && previous.compare(previous.size() - 2, 2, "*/") == 0) ||
                    (first != std::string::npos && previous.compare(first, 2, "//") == 0);
                EXPECT_TRUE(commented) << entry.path().filename().string() << ": " << line;
            }
            previous = line;
        }
    }
    EXPECT_GT(headers, 10);
}

} // namespace
