// Frame pacing: the emulated vertical blank (a periodic 16 ms tick on a timer
// thread of its own) and the frame period the main loop starts each frame on.
#ifndef ZK_KERNEL_FRAME_PACING_H
#define ZK_KERNEL_FRAME_PACING_H

#include "platform/platform.h"

#include <atomic>
#include <cstdint>

namespace zk {

class VblankTimer {
public:
    static constexpr uint32_t kTickInterval = 16;

    // No timer, no event, count 0. The display frequency is kept.
    void Clear();
    // Starts the periodic tick; the count restarts at 0.
    void Start();
    // Stops the tick and closes the event; the count goes back to 0.
    void Stop();

    bool Running() const { return event_.load(std::memory_order_acquire) != nullptr; }
    uint32_t Count() const { return vblankCount_.load(std::memory_order_acquire); }
    float DisplayFrequency() const { return displayFrequency_; }
    // Waits for the next tick (mode 2: for the next even count). Returns at
    // once when the timer is stopped, and returns when Stop runs meanwhile.
    uint32_t WaitVblank(uint32_t mode);
    // Waits for a tick or for a message to the calling thread: true for a tick.
    bool WaitTickOrMessage();

private:
    static void Tick(void* timer);

    // The thread that leaves a stopped timer's wait last closes its event.
    void LeaveWait();

    uint32_t timerId_ = 0;
    std::atomic<os::Handle> event_{nullptr};   // auto-reset, set on every tick
    std::atomic<uint32_t> lifetime_{0};        // changes at every Stop
    std::atomic<uint32_t> waiting_{0};         // threads inside WaitVblank
    std::atomic<os::Handle> retired_{nullptr}; // a stopped timer's event, still waited on
    std::atomic<uint32_t> vblankCount_{0};
    uint32_t resolution_ = 0;
    uint32_t tickInterval_ = 0;
    float displayFrequency_ = 0.0f;
};

class FramePeriod {
public:
    void Setup(VblankTimer* timer);
    // 1 paces frames on every tick; any other value switches pacing off.
    void SetInterval(uint32_t interval);
    // Waits for the start of the next period: 1 when it started, 0 when a
    // message arrived first. The frame loop passes its idle work, run once
    // before the wait blocks. With the timer stopped it returns 1 at once.
    int32_t WaitForStart(void (*beforeBlocking)() = nullptr);

    uint32_t LoopCount() const { return loopCount_; }
    void ResetLoopCount() { loopCount_ = 0; }
    void AdvanceLoopCount() { ++loopCount_; }

private:
    VblankTimer* timer_ = nullptr;
    uint32_t interval_ = 0;
    uint32_t loopCount_ = 0;
    uint32_t lastStart_ = 0;
    uint32_t waitLength_ = 0;
};

} // namespace zk

#endif // ZK_KERNEL_FRAME_PACING_H
