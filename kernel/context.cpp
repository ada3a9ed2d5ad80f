// The kernel's one object and the FileLock.
#include "kernel/context.h"

namespace zk {

namespace {
KernelContext g_kernel;
} // namespace

KernelContext& Kernel() {
    return g_kernel;
}

void FileLockTake() {
    if (g_kernel.fileLock) os::Wait(g_kernel.fileLock, os::kInfinite);
}

void FileLockGive() {
    if (g_kernel.fileLock) os::SemaphoreRelease(g_kernel.fileLock, 1);
}

} // namespace zk
