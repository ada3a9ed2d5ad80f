// The performance counter and the frame-based profilers.
//
// Owns: the one PerformanceCounter and the two Profilers (user and system),
// whose slot arrays come from the system pool. Nothing is locked: every call
// is made from the application's main thread.
#ifndef ZK_KERNEL_PROFILER_H
#define ZK_KERNEL_PROFILER_H

#include "kernel/timeline.h"

#include <cstdint>

namespace zk {

// A monotonic counter with a known frequency, and a base that readings
// relative to it start from.
class PerformanceCounter {
public:
    // Reads the frequency and takes the base.
    void Start();
    // A raw reading.
    virtual int64_t Read() const;
    // Counts per second; read from the system on first use when Start() has
    // not run yet.
    int64_t Frequency();
    // The low 32 bits of (now - base). The base is 0 until Start() or Reset().
    uint32_t Elapsed() const { return static_cast<uint32_t>(Read() - base_); }
    // base = now; true.
    bool Reset();

protected:
    int64_t frequency_ = 0;
    int64_t base_ = 0;
};

struct ProfileSlot {
    uint32_t calls;
    int64_t start; // reading at the last begin, relative to the frame's start
    int64_t total; // ticks between begins and ends since the last report
    char name[16];
};

// A profiler with numbered slots that reports, every interval, the average
// milliseconds per frame, share of the elapsed time and calls per frame of
// each slot that measured anything.
class Profiler {
public:
    // 0, -6 when already initialised, -5 when the slots cannot be allocated.
    int32_t Initialize(uint32_t slotCount, PerformanceCounter* counter);
    // Forgets the slot array (at library stop: its pool goes away); the
    // profiler is uninitialised again.
    void Forget();
    void SetSwitch(uint32_t enabled);
    void SetInterval(uint32_t milliseconds);
    void Begin(uint32_t slot) {
        if (slot < slotCount_) {
            slots_[slot].calls += 1;
            const int64_t now = counter_->Read();
            slots_[slot].start = now - frameStart_;
            if (timeline::On() && slot < kTimelineSlots) timelineStart_[slot] = now;
        }
    }
    void End(uint32_t slot) {
        if (slot < slotCount_) {
            const int64_t now = counter_->Read();
            slots_[slot].total += (now - slots_[slot].start) - frameStart_;
            if (timeline::On() && slot < kTimelineSlots) RecordSlot(slot, now);
        }
    }
    void SetName(uint32_t slot, const char* name);
    // The timeline's category for this profiler's slices.
    void SetTimelineCategory(const char* category) { timelineCategory_ = category; }
    // Once per frame: counts the frame, reports when the interval is reached.
    void Update();

    bool IsInitialized() const { return slots_ != nullptr; }
    ProfileSlot* Slots() const { return slots_; }

private:
    // The first slots are shown in a timeline recording: each begin/end pair
    // is a slice named after the slot, on the thread that ended it.
    static constexpr uint32_t kTimelineSlots = 256;
    void RecordSlot(uint32_t slot, int64_t end);
    int64_t timelineStart_[kTimelineSlots] = {};
    const char* timelineCategory_ = "profiler";
    void Report();

    uint32_t slotCount_ = 0;
    PerformanceCounter* counter_ = nullptr;
    ProfileSlot* slots_ = nullptr;
    uint32_t frameCount_ = 0;
    int64_t frameStart_ = 0;
    int64_t elapsed_ = 0;
    float scale_ = 0.0f;
    float interval_ = 0.0f;
    uint32_t enabled_ = 0;
};

PerformanceCounter& Counter();
Profiler& UserProfiler();
Profiler& SystemProfiler();

} // namespace zk

#endif // ZK_KERNEL_PROFILER_H
