// Bounded spinning before a blocking wait: a thread that expects its partner
// to finish within microseconds (the I/O worker, a request's completion)
// checks a condition for a short budget instead of going to sleep at once,
// so a quick hand-off costs no sleep and wake.
#ifndef ZK_THREAD_SPIN_H
#define ZK_THREAD_SPIN_H

#include "platform/platform.h"

#include <cstdint>

namespace zk {

// Spin budgets, in microseconds, before a waiter or the idle worker sleeps.
constexpr int64_t kWaiterSpinMicroseconds = 50;
constexpr int64_t kWorkerSpinMicroseconds = 50;

inline void CpuPause() {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Spins until done() or the budget is spent; true when done() came true.
template <typename Done> bool SpinUntil(int64_t microseconds, Done done) {
    static const int64_t frequency = os::PerformanceFrequency();
    const int64_t budget = frequency * microseconds / 1000000;
    const int64_t start = os::PerformanceCounter();
    for (uint32_t round = 0;; ++round) {
        for (int i = 0; i < 32; ++i) {
            if (done()) return true;
            CpuPause();
        }
        if (os::PerformanceCounter() - start > budget) return done();
        // After a few microseconds, give the core away between rounds: when
        // the partner thread waits for this very core, spinning on cannot help.
        if (round >= 4) os::Sleep(0);
    }
}

} // namespace zk

#endif // ZK_THREAD_SPIN_H
