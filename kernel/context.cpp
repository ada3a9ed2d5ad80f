// The kernel's one object.
#include "kernel/context.h"

namespace zk {

namespace {
KernelContext g_kernel;
} // namespace

KernelContext& Kernel() {
    return g_kernel;
}

} // namespace zk
