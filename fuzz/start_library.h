// Starting the library once for a fuzz target, quietly. Starting it moves
// the working directory to the program's folder; the fuzzer's corpus paths
// may be relative to the one it was started in, so that is kept.
#ifndef ZK_FUZZ_START_LIBRARY_H
#define ZK_FUZZ_START_LIBRARY_H

#include <zk.h>

#include <cstdlib>
#include <filesystem>

inline void StartLibraryForFuzzing(uint32_t arenaSize, uint32_t descriptors) {
    const std::filesystem::path workingDirectory = std::filesystem::current_path();
    if (zkInitializeEx(arenaSize, descriptors) != 0) std::abort();
    std::filesystem::current_path(workingDirectory);
    zkSetTraceProc([](const char*) {});
}

#endif
