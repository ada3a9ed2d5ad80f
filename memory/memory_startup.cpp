// The memory subsystem's steps in the library's initialisation and termination.
#include "kernel/startup.h"
#include "memory/memory_manager.h"

namespace zk {

int32_t MemoryStartup(uint32_t arenaSize, uint32_t descriptorCount) {
    Memory().BindTable(&PoolTable());
    return Memory().Start(arenaSize, descriptorCount);
}

void MemoryShutdown() {
    Memory().Stop();
    PoolTable().ReclaimAbandoned();
}

} // namespace zk
