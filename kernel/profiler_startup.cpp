// The kernel's start and stop steps for overlays, the performance counter and
// the profilers. The kernel context points at their objects while the library runs.
#include "kernel/context.h"
#include "kernel/profiler.h"
#include "kernel/startup.h"

#include <zk/memory.h>

namespace zk {

class OverlayLoader;
const OverlayLoader* Overlays();

void OverlaysStartup() {
    Kernel().overlays = const_cast<OverlayLoader*>(Overlays());
}

// Reads the counter's frequency and base; the profilers stay inactive until
// they are initialised.
void ProfilersStartup() {
    Counter().Start();
    Kernel().performanceCounter = &Counter();
    Kernel().userProfiler = &UserProfiler();
    Kernel().systemProfiler = &SystemProfiler();
    SystemProfiler().SetTimelineCategory("system profiler");
}

// The slot arrays live in the system pool, which the library's stop destroys:
// they go back to it and both profilers forget them, so that a profiler can be
// initialised again after the next start.
void ProfilersShutdown() {
    for (Profiler* profiler : {&UserProfiler(), &SystemProfiler()}) {
        if (profiler->Slots()) zkFree(profiler->Slots());
        profiler->Forget();
    }
    Kernel().performanceCounter = nullptr;
    Kernel().userProfiler = nullptr;
    Kernel().systemProfiler = nullptr;
}

} // namespace zk
