// The library's interface, pinned: every function the public headers declare,
// in the order of the headers. X(name) for each; the export tests take every
// address, and scripts/update-def.sh writes qaxkrnl.def from this list.
#ifndef ZK_TESTS_KERNEL_EXPORT_LIST_H
#define ZK_TESTS_KERNEL_EXPORT_LIST_H

// clang-format off
#define ZK_PINNED_EXPORTS(X) \
    /* result texts (an extension) */ \
    X(zkGetResultText) \
    /* lifecycle and the rest of the kernel core */ \
    X(zkBeginProcess) X(zkEndProcess) X(zkInitialize) X(zkInitializeEx) X(zkTerminate) X(zkMain) \
    X(zkGetLoopCount) X(zkResetLoopCount) X(zkGetApplicationInstance) X(zkGetTickCount) X(zkSleep) \
    X(zkExecute) X(zkEnableInterrupt) X(zkDisableInterrupt) X(zkInitializeDevice) X(zkTrace2) \
    X(zkTerminateDevice) X(zkSkipLoadModule) X(zkReleaseOverlay) X(zkSetDisplayFrequency) \
    X(zkWaitVblank) X(zkWaitVblankEx) X(zkGetVblankCount) X(zkGetDisplayFrequency) \
    X(zkSetPeriodInterval) X(zkWaitForPeriodStart) X(zkAddVblankHandler) X(zkRemoveVblankHandler) \
    X(zkSetTitle) X(zkCreateMainWindow) X(zkGetMainWindow) X(zkReleaseWindow) \
    X(zkGetWindowNativeHandle) X(zkSetWindowVisibility) X(zkIsWindowVisible) X(zkAddWindowHook) \
    X(zkCheckMultipleInstances) X(zkPostWindowMessage) X(zkPostQuitMessage) X(zkGetAppArgCount) \
    X(zkGetAppArg) X(zkSetModuleDir) X(zkGetModuleDir) X(zkGetModulePath) X(zkLoadModuleEx) \
    X(zkLoadModule) X(zkUnloadModule) X(zkLoadDefaultModule) X(zkTrace) X(zkSetTraceProc) \
    X(zkAssertFailed) X(zkDumpMemory) X(zkRegisterLibrary) X(zkOutputLibraryVersion) \
    X(zkAddIdleHandler) X(zkRemoveIdleHandler) X(zkAddEventCallback) X(zkGetPerformanceCounter) \
    X(zkGetPerformanceFrequency) X(zkResetPerformanceCounter) X(zkInitializeProfiler) \
    X(zkSetProfileSwitch) X(zkSetProfileInterval) X(zkBeginProfile) X(zkEndProfile) \
    X(zkSetProfileName) X(zkInitializeSystemProfiler) X(zkSetSystemProfileSwitch) \
    X(zkSetSystemProfileInterval) X(zkBeginSystemProfile) X(zkEndSystemProfile) \
    X(zkSetSystemProfileName) X(zkUpdateAllProfilers) X(zkGetTime) X(zkGetTimeSec) \
    X(zkGetStringLength) X(zkCompareString) X(zkMalloc) X(zkMallocEx) X(zkAllocateSystemMemory) \
    X(zkFree) X(zkFreeSystemMemory) X(zkAllocMemoryBlock) X(zkFreeMemoryBlock) X(zkLockMemory) \
    X(zkUnlockMemory) X(zkGetMemoryBlockSize) X(zkGetSystemMemoryPool) X(zkSetAllocMode) \
    X(zkSetAllocHook) X(zkSetFreeHook) X(zkSetBreakAlloc) X(zkSetMemoryCheckpoint) X(zkFillMemory) \
    X(zkZeroMemory) X(zkCopyMemory) X(zkCopyString) X(zkCreateMemoryPool) X(zkReleaseMemoryPool) \
    X(zkAllocMemoryPoolBlock) X(zkAllocMemoryPoolBlockEx) X(zkFreeMemoryPoolBlock) \
    X(zkFindMemoryPoolBlock) X(zkLockMemoryPoolBlock) X(zkUnlockMemoryPoolBlock) \
    X(zkGetMemoryPoolBlockSize) X(zkSetMemoryPoolAllocMode) X(zkSetMemoryPoolCheckpoint) \
    X(zkSetBreakPoolAlloc) X(zkGetMemoryInfo) X(zkGetMemoryPoolInfo) X(zkQueryMemoryInfo) \
    X(zkQueryMemoryPoolInfo) X(zkEnumerateMemoryBlocks) X(zkEnumerateMemoryPoolBlocks) \
    X(zkEnumerateMemoryGaps) X(zkEnumerateMemoryPoolGaps) X(zkEnumerateMemoryUsed) \
    X(zkEnumerateMemoryPoolUsed) X(zkEnumerateMemoryPoolCategory) X(zkDumpAllMemoryBlocks) \
    X(zkDumpAllMemoryPoolBlocks) X(zkDumpAllMemoryGaps) X(zkDumpAllMemoryPoolGaps) \
    X(zkShowMemoryStatus) X(zkCreateThread) X(zkStartThread) X(zkWaitForThread) X(zkIsThreadRunning) \
    X(zkReleaseThread) X(zkCreateSemaphore) X(zkReleaseSemaphore) X(zkWaitSemaphore) \
    X(zkPollSemaphore) X(zkSignalSemaphore) X(zkCreateRingBuffer) X(zkReleaseRingBuffer) \
    X(zkGetRingBufferDataSize) X(zkGetRingBufferAddress) X(zkLockRingBufferForRead) \
    X(zkUnlockRingBufferForRead) X(zkLockRingBufferForWrite) X(zkUnlockRingBufferForWrite) \
    X(zkInitializeRequest) X(zkCreateRequest) X(zkReleaseRequest) X(zkIsRequestCompleted) \
    X(zkWaitForRequestCompletion) X(zkUpdateAllRequests) X(zkLoadOverlayForDebug) \
    X(zkLoadOverlayForRelease) X(zkLoadOverlayFromMemoryForDebug) \
    X(zkLoadOverlayFromMemoryForRelease) X(zkBeginLoadOverlay) X(zkEndLoadOverlayForDebug) \
    X(zkEndLoadOverlayForRelease) X(zkRegisterDevice) X(zkMount) X(zkUnmount) X(zkUnmountAll) \
    X(zkControlDevice) X(zkGetPartitionStatus) X(zkCreatePartition) X(zkDeletePartition) \
    X(zkFormat) X(zkQueryDeviceInfo) X(zkGetDeviceStatus) X(zkSetDeviceTryCount) \
    X(zkGetDeviceTryCount) X(zkSetWorkDir) X(zkGetFullPath) X(zkGetPhysicalPath) X(zkSplitPath) \
    X(zkOpenFile) X(zkCloseFile) X(zkReadFile) X(zkReadFileOffset) X(zkWriteFile) X(zkSeekFile) \
    X(zkGetFileSize) X(zkGetFilePath) X(zkGetFileTime) X(zkSetFileTime) X(zkDeleteFile) \
    X(zkCopyFile) X(zkGetOpenFileCount) X(zkGetTotalBytesRead) X(zkResetTotalBytesRead) \
    X(zkSetFileTryCount) X(zkGetFileTryCount) X(zkOpenDir) X(zkReadDir) X(zkCloseDir) X(zkMakeDir) \
    X(zkRemoveDir) X(zkDumpDir) \
    /* asynchronous files and whole-file loading */ \
    X(zkBeginOpenFile) X(zkEndOpenFile) X(zkBeginCloseFile) X(zkEndCloseFile) X(zkBeginReadFile) \
    X(zkEndReadFile) X(zkLoadDataFromFile) X(zkStartLoadingDataFromFile) X(zkIsFileProcessing) \
    X(zkGetLoadedData) X(zkFreeData) \
    /* profiles */ \
    X(zkOpenProfile) X(zkGetProfileSection) X(zkGetProfileString) X(zkCloseProfile) \
    /* archives */ \
    X(zkOpenKiv) X(zkCloseKiv) X(zkOpenChildKiv) X(zkOpenChildKivByIndex) X(zkGetKivItemCount) \
    X(zkFindKivItem) X(zkLoadKivItem) X(zkLoadKivItemByIndex) X(zkReleaseKivItem) \
    X(zkLoadKivFileItem) X(zkGetKivItem) X(zkGetKivItemByIndex) X(zkOpenKivItem) \
    X(zkOpenKivItemByIndex) X(zkCloseKivItem) X(zkReadKivItem) X(zkSeekKivItem) \
    X(zkGetKivItemSize) X(zkGetOpenKivCount) X(zkGetOpenKivItemCount) X(zkMountKiv) \
    X(zkUnmountKiv) X(_zkSlideExpand)
// clang-format on

#endif
