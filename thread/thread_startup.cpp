// Placeholder until threads and requests land. Replaced by the thread subsystem.
#include "kernel/startup.h"

namespace zk {
int32_t MainThreadStartup() { return 0; }
void MainThreadShutdown() {}
void RequestsStartup() {}
void RequestsShutdown() {}
} // namespace zk
