// The frame-period wait rule, free of any clock so it can be driven by a
// scripted count as well as by the vertical-blank timer.
//
// A period lasts waitLength ticks from lastStart. The wait ends when the count
// has reached start + waitLength, or when it is found below start (the count
// wrapped, or the timer restarted since the period began). When start +
// waitLength wraps past 2^32 the period ends once the count lies in the window
// [end, start). A message reaching the thread ends the wait with 0 and leaves
// lastStart alone, so the next call waits for the same period.
#ifndef ZK_KERNEL_PERIOD_WAIT_H
#define ZK_KERNEL_PERIOD_WAIT_H

#include <cstdint>

namespace zk {

// readCount() returns the current vblank count. waitTick() blocks until the
// next tick or a message and returns true for a tick, false for anything else.
// beforeBlocking() runs once, just before the first blocking wait.
template <typename ReadCount, typename WaitTick, typename BeforeBlocking>
int32_t WaitForPeriodStart(uint32_t& lastStart, uint32_t waitLength, ReadCount readCount,
                           WaitTick waitTick, BeforeBlocking beforeBlocking) {
    const uint32_t start = lastStart;
    const uint32_t end = start + waitLength;
    bool blocked = false;
    auto block = [&]() {
        if (!blocked) {
            blocked = true;
            beforeBlocking();
        }
        return waitTick();
    };

    uint32_t now = readCount();
    if (start <= end) {
        if (now >= start) {
            while (now < end) {
                if (!block()) return 0;
                now = readCount();
                if (now < start) break;
            }
        }
    } else {
        while (!(now < start && now >= end)) {
            if (!block()) return 0;
            now = readCount();
        }
    }
    lastStart = now;
    return 1;
}

} // namespace zk

#endif // ZK_KERNEL_PERIOD_WAIT_H
