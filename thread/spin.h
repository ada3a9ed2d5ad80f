// Bounded spinning before a blocking wait: a thread that expects its partner
// to finish within microseconds (the I/O worker, a request's completion)
// checks a condition for a short budget instead of going to sleep at once,
// so a quick hand-off costs no sleep and wake.
#ifndef ZK_THREAD_SPIN_H
#define ZK_THREAD_SPIN_H

#include "platform/platform.h"

#include <atomic>
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

// Where a spinner's partner last ran. A spinner on that same core gives the
// core away at once: the partner cannot run while it spins. On another core
// it keeps spinning and yields only now and then, since each yield is a
// system call that delays the hand-off it waits for. The mark is stored only
// when it changes, so the spinners that read it keep their copy of its cache
// line.
class CoreMark {
public:
    void Here() {
        const uint32_t core = os::CurrentProcessor();
        if (core_.load(std::memory_order_relaxed) != core)
            core_.store(core, std::memory_order_relaxed);
    }
    bool IsCallers() const {
        const uint32_t core = core_.load(std::memory_order_relaxed);
        return core != os::kUnknownProcessor && core == os::CurrentProcessor();
    }

private:
    std::atomic<uint32_t> core_{os::kUnknownProcessor};
};

// The device I/O worker's mark: callers waiting for an operation or a
// request's completion spin for the worker.
alignas(64) inline CoreMark gIoWorkerCore;

// Spins until done() or the budget is spent; true when done() came true.
// The core is given away between rounds when the partner last ran on this
// one, and every sixteenth round in any case, for a partner that moved here
// and could not say so.
template <typename Done> bool SpinUntil(int64_t microseconds, Done done, const CoreMark& partner) {
    static const int64_t frequency = os::PerformanceFrequency();
    const int64_t budget = frequency * microseconds / 1000000;
    const int64_t start = os::PerformanceCounter();
    for (uint32_t round = 0;; ++round) {
        for (int i = 0; i < 32; ++i) {
            if (done()) return true;
            CpuPause();
        }
        if (os::PerformanceCounter() - start > budget) return done();
        if ((round & 15) == 15 || partner.IsCallers()) os::Sleep(0);
    }
}

} // namespace zk

#endif // ZK_THREAD_SPIN_H
