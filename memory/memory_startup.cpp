// Placeholder until the memory manager lands: initialisation proceeds without
// a system pool. Replaced by the memory subsystem.
#include "kernel/startup.h"

namespace zk {
int32_t MemoryStartup(uint32_t, uint32_t) { return 0; }
void MemoryShutdown() {}
} // namespace zk
