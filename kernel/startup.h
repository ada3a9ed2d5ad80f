// The start and stop steps that the library's initialisation and termination
// call in other subsystems. Each subsystem implements its own pair; the
// lifecycle code in kernel/lifecycle.cpp fixes the order.
#ifndef ZK_KERNEL_STARTUP_H
#define ZK_KERNEL_STARTUP_H

#include <cstdint>

namespace zk {

// memory/: the pool table and the memory manager (commits the arena, builds
// the system pool). Negative (-5) when no system pool results.
int32_t MemoryStartup(uint32_t arenaSize, uint32_t descriptorCount);
// memory/: system pool destroyed, arena released, pool table released.
void MemoryShutdown();

// thread/: the main thread record, set as the calling thread's current thread.
int32_t MainThreadStartup();
void MainThreadShutdown();

// thread/: the request manager, cleared at start; its array returned at stop.
void RequestsStartup();
void RequestsShutdown();

// kernel/: the overlay loader; the performance counter and the two profilers.
void OverlaysStartup();
void ProfilersStartup();
void ProfilersShutdown();
// kernel/: profile files still open are closed (their blocks freed) before the
// system pool goes away.
void ProfilesShutdown();

// archive/: the archive registry's tables built (first start only) and the
// archive device put first in the device table; at stop every archive and
// item stream still open is closed, before the file system stops.
void ArchivesStartup();
void ArchivesShutdown();

} // namespace zk

#endif // ZK_KERNEL_STARTUP_H
