// Placeholder until profilers and overlays land. Replaced by their owners.
#include "kernel/startup.h"

namespace zk {
void OverlaysStartup() {}
void ProfilersStartup() {}
void ProfilersShutdown() {}
} // namespace zk
