// The performance counter, the user and system profilers and their exports.
#include "kernel/profiler.h"

#include "platform/platform.h"

#include <zk/memory.h>
#include <zk/profiler.h>
#include <zk/result.h>
#include <zk/trace.h>

#include <cstring>

namespace zk {

// ---- counter ------------------------------------------------------------------

void PerformanceCounter::Start() {
    frequency_ = os::PerformanceFrequency();
    base_ = Read();
}

int64_t PerformanceCounter::Read() const {
    return os::PerformanceCounter();
}

int64_t PerformanceCounter::Frequency() {
    if (frequency_ == 0) frequency_ = os::PerformanceFrequency();
    return frequency_;
}

bool PerformanceCounter::Reset() {
    base_ = Read();
    return true;
}

// ---- profiler -----------------------------------------------------------------

int32_t Profiler::Initialize(uint32_t slotCount, PerformanceCounter* counter) {
    if (slots_) return ZK_ERR_NOT_SUPPORTED;
    uint64_t bytes = uint64_t(slotCount) * sizeof(ProfileSlot);
    void* memory = bytes <= 0xFFFFFFFFu
                       ? zkAllocateSystemMemory(static_cast<uint32_t>(bytes), ZK_ALLOC_DEFAULT,
                                                ZK_CATEGORY_LIBRARY)
                       : nullptr;
    if (!memory) return ZK_ERR_NO_MEMORY;
    slots_ = static_cast<ProfileSlot*>(memory);
    slotCount_ = slotCount;
    counter_ = counter;
    interval_ = 5000.0f;
    enabled_ = 1;
    frameCount_ = 0;
    elapsed_ = 0;
    scale_ = static_cast<float>(1000.0 / static_cast<double>(counter->Frequency()));
    std::memset(slots_, 0, static_cast<size_t>(bytes));
    frameStart_ = counter_->Read();
    return 0;
}

void Profiler::Forget() {
    slots_ = nullptr;
    slotCount_ = 0;
    frameCount_ = 0;
    elapsed_ = 0;
    enabled_ = 0;
}

void Profiler::SetSwitch(uint32_t enabled) {
    if (!slots_ || enabled == enabled_) return;
    enabled_ = enabled;
    frameCount_ = 0;
    elapsed_ = 0;
    std::memset(slots_, 0, sizeof(ProfileSlot) * slotCount_);
    frameStart_ = counter_->Read();
}

void Profiler::SetInterval(uint32_t milliseconds) {
    if (slots_) interval_ = static_cast<float>(milliseconds);
}

void Profiler::SetName(uint32_t slot, const char* name) {
    if (slot >= slotCount_ || !name) return;
    std::strncpy(slots_[slot].name, name, 15);
}

void Profiler::RecordSlot(uint32_t slot, int64_t end) {
    const int64_t start = timelineStart_[slot];
    if (start == 0 || start > end) return; // begun before the recording started
    timelineStart_[slot] = 0;
    char name[sizeof(slots_[slot].name) + 1];
    std::memcpy(name, slots_[slot].name, sizeof(slots_[slot].name));
    name[sizeof(slots_[slot].name)] = '\0';
    const timeline::Arg arg{"slot", slot};
    timeline::Event e;
    e.category = timelineCategory_;
    if (name[0] != '\0')
        e.nameText = name;
    else
        e.name = "profile slot";
    e.start = start;
    e.end = end;
    e.args = &arg;
    e.argCount = 1;
    timeline::Record(e);
}

void Profiler::Update() {
    if (!slots_ || enabled_ == 0) return;
    frameCount_ += 1;
    elapsed_ += counter_->Read() - frameStart_;
    if (static_cast<double>(elapsed_) * scale_ >= interval_) Report();
    frameStart_ = counter_->Read();
}

void Profiler::Report() {
    for (uint32_t i = 0; i < slotCount_; ++i) {
        ProfileSlot& slot = slots_[i];
        if (slot.total <= 0) continue;
        double ms = static_cast<double>(slot.total) * scale_ / static_cast<double>(frameCount_);
        double percent = 100.0 * static_cast<double>(slot.total) / static_cast<double>(elapsed_);
        uint32_t callsPerFrame = slot.calls / frameCount_;
        zkTrace("QaxKrnl : [%03u] %-15s: %6.2f (msec) %2.2f (percent) %u (calls)\n", i, slot.name,
                ms, percent, callsPerFrame);
        slot.calls = 0;
        slot.total = 0;
    }
    frameCount_ = 0;
    elapsed_ = 0;
}

// ---- the library's instances ----------------------------------------------------

namespace {
PerformanceCounter g_counter;
Profiler g_userProfiler;
Profiler g_systemProfiler;
} // namespace

PerformanceCounter& Counter() {
    return g_counter;
}
Profiler& UserProfiler() {
    return g_userProfiler;
}
Profiler& SystemProfiler() {
    return g_systemProfiler;
}

} // namespace zk

using zk::g_counter;
using zk::g_systemProfiler;
using zk::g_userProfiler;

extern "C" ZK_API uint32_t ZK_CALL zkGetPerformanceCounter(void) {
    return g_counter.Elapsed();
}

extern "C" ZK_API double ZK_CALL zkGetPerformanceFrequency(void) {
    return static_cast<double>(g_counter.Frequency());
}

extern "C" ZK_API int32_t ZK_CALL zkResetPerformanceCounter(void) {
    return g_counter.Reset() ? 1 : 0;
}

extern "C" ZK_API int32_t ZK_CALL zkInitializeProfiler(uint32_t slotCount, uint32_t) {
    return g_userProfiler.Initialize(slotCount, &g_counter);
}
extern "C" ZK_API void ZK_CALL zkSetProfileSwitch(uint32_t enabled) {
    g_userProfiler.SetSwitch(enabled);
}
extern "C" ZK_API void ZK_CALL zkSetProfileInterval(uint32_t milliseconds) {
    g_userProfiler.SetInterval(milliseconds);
}
extern "C" ZK_API void ZK_CALL zkBeginProfile(uint32_t slot) {
    g_userProfiler.Begin(slot);
}
extern "C" ZK_API void ZK_CALL zkEndProfile(uint32_t slot) {
    g_userProfiler.End(slot);
}
extern "C" ZK_API void ZK_CALL zkSetProfileName(uint32_t slot, const char* name) {
    g_userProfiler.SetName(slot, name);
}

extern "C" ZK_API int32_t ZK_CALL zkInitializeSystemProfiler(uint32_t slotCount, uint32_t) {
    return g_systemProfiler.Initialize(slotCount, &g_counter);
}
extern "C" ZK_API void ZK_CALL zkSetSystemProfileSwitch(uint32_t enabled) {
    g_systemProfiler.SetSwitch(enabled);
}
extern "C" ZK_API void ZK_CALL zkSetSystemProfileInterval(uint32_t milliseconds) {
    g_systemProfiler.SetInterval(milliseconds);
}
extern "C" ZK_API void ZK_CALL zkBeginSystemProfile(uint32_t slot) {
    g_systemProfiler.Begin(slot);
}
extern "C" ZK_API void ZK_CALL zkEndSystemProfile(uint32_t slot) {
    g_systemProfiler.End(slot);
}
extern "C" ZK_API void ZK_CALL zkSetSystemProfileName(uint32_t slot, const char* name) {
    g_systemProfiler.SetName(slot, name);
}

extern "C" ZK_API void ZK_CALL zkUpdateAllProfilers(void) {
    g_userProfiler.Update();
    g_systemProfiler.Update();
}
