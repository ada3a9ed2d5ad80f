// The vertical-blank timer, the frame period and the vblank handler table.
//
// The tick runs on the periodic timer's own thread: it raises the count, calls
// the registered vblank handlers with their user values, and sets the
// auto-reset event that wakes one waiter.
//
// Stopping the timer while threads wait in zkWaitVblank: Stop takes the event
// out of use, marks a new lifetime and sets the event; each waiter that wakes
// into a new lifetime sets it again for the next one and returns, and the
// last of them to leave closes it. Stop never waits for them. Everything else runs on the thread
// that calls it. The count has one writer (the tick); the handler slots are
// atomics because the tick reads them while the main thread changes them.
#include "kernel/context.h"
#include "kernel/period_wait.h"
#include "kernel/timeline.h"

#include <zk/vblank.h>

struct VblankHandlerSlot {
    std::atomic<VblankHandler> handler;
    std::atomic<zkAddr> user;
};

namespace zk {

namespace {

constexpr uint32_t kVblankHandlerSlots = 8;
VblankHandlerSlot g_vblankHandlers[kVblankHandlerSlots];

// 59.94 Hz, what the library reports whatever the display does.
constexpr float kDisplayFrequency = 59.94f;

void CallVblankHandlers() {
    for (VblankHandlerSlot& slot : g_vblankHandlers) {
        VblankHandler handler = slot.handler.load(std::memory_order_acquire);
        if (handler) handler(slot.user.load(std::memory_order_relaxed));
    }
}

VblankHandlerSlot* AddVblankHandler(VblankHandler handler, zkAddr user) {
    for (VblankHandlerSlot& slot : g_vblankHandlers) {
        if (!slot.handler.load(std::memory_order_relaxed)) {
            slot.user.store(user, std::memory_order_relaxed);
            slot.handler.store(handler, std::memory_order_release);
            return &slot;
        }
    }
    return nullptr;
}

bool OwnsVblankSlot(const VblankHandlerSlot* slot) {
    return slot >= &g_vblankHandlers[0] && slot < &g_vblankHandlers[0] + kVblankHandlerSlots;
}

void RemoveVblankHandler(VblankHandlerSlot* slot) {
    if (!OwnsVblankSlot(slot)) return;
    slot->handler.store(nullptr, std::memory_order_release);
    slot->user.store(0, std::memory_order_relaxed);
}

} // namespace

// ---- VblankTimer --------------------------------------------------------------

void VblankTimer::Clear() {
    timerId_ = 0;
    event_.store(nullptr, std::memory_order_release);
    vblankCount_.store(0, std::memory_order_release);
}

void VblankTimer::Start() {
    vblankCount_.store(0, std::memory_order_release);
    event_.store(os::EventCreate(false, false), std::memory_order_seq_cst);
    os::TimerCaps caps{};
    os::TimerGetCaps(&caps);
    resolution_ = caps.minPeriod == 0 ? 1 : caps.minPeriod;
    if (resolution_ >= caps.maxPeriod) resolution_ = caps.maxPeriod;
    os::TimerBeginPeriod(resolution_);
    displayFrequency_ = kDisplayFrequency;
    tickInterval_ = kTickInterval;
    timerId_ = os::TimerStartPeriodic(kTickInterval, resolution_, &VblankTimer::Tick, this);
}

void VblankTimer::Stop() {
    if (timerId_ != 0) {
        os::TimerKill(timerId_);
        timerId_ = 0;
        os::TimerEndPeriod(resolution_);
    }
    if (os::Handle event = event_.exchange(nullptr, std::memory_order_seq_cst)) {
        lifetime_.fetch_add(1, std::memory_order_seq_cst);
        retired_.store(event, std::memory_order_seq_cst);
        os::EventSet(event); // the first waiter passes it on
        if (waiting_.load(std::memory_order_seq_cst) == 0) {
            if (os::Handle idle = retired_.exchange(nullptr, std::memory_order_seq_cst))
                os::CloseHandle(idle);
        }
    }
    vblankCount_.store(0, std::memory_order_release);
}

void VblankTimer::Tick(void* timer) {
    VblankTimer* self = static_cast<VblankTimer*>(timer);
    // One writer: a plain read-add-store is enough.
    self->vblankCount_.store(self->vblankCount_.load(std::memory_order_relaxed) + 1,
                             std::memory_order_release);
    CallVblankHandlers();
    os::EventSet(self->event_.load(std::memory_order_acquire));
}

void VblankTimer::LeaveWait() {
    if (waiting_.fetch_sub(1, std::memory_order_seq_cst) == 1) {
        if (os::Handle idle = retired_.exchange(nullptr, std::memory_order_seq_cst))
            os::CloseHandle(idle);
    }
}

uint32_t VblankTimer::WaitVblank(uint32_t mode) {
    waiting_.fetch_add(1, std::memory_order_seq_cst);
    const uint32_t lifetime = lifetime_.load(std::memory_order_seq_cst);
    os::Handle event = event_.load(std::memory_order_seq_cst);
    if (!event) {
        LeaveWait();
        return 1;
    }
    // A tick that came before the call does not count. A Stop that set the
    // event before this reset has already changed the lifetime.
    os::EventReset(event);
    bool stopped = lifetime_.load(std::memory_order_seq_cst) != lifetime;
    if (!stopped) {
        os::Wait(event, os::kInfinite);
        stopped = lifetime_.load(std::memory_order_seq_cst) != lifetime;
        if (!stopped && mode == 2 && (Count() & 1u) != 0) {
            os::Wait(event, os::kInfinite);
            stopped = lifetime_.load(std::memory_order_seq_cst) != lifetime;
        }
    }
    if (stopped) os::EventSet(event); // wakes the next waiter of the stopped timer
    LeaveWait();
    return 1;
}

bool VblankTimer::WaitTickOrMessage() {
    return os::WaitEventOrMessage(event_.load(std::memory_order_acquire)) == os::WakeReason::Event;
}

// ---- FramePeriod ----------------------------------------------------------------

void FramePeriod::Setup(VblankTimer* timer) {
    timer_ = timer;
    interval_ = 1;
    loopCount_ = 0;
    lastStart_ = 0;
    waitLength_ = 1;
}

void FramePeriod::SetInterval(uint32_t interval) {
    interval_ = interval;
    waitLength_ = interval == 1 ? 1 : 0;
}

int32_t FramePeriod::WaitForStart(void (*beforeBlocking)()) {
    const int64_t waitStart = timeline::On() ? timeline::Now() : 0;
    int32_t started = 1;
    if (!timer_ || !timer_->Running()) {
        lastStart_ = timer_ ? timer_->Count() : 0;
    } else {
        VblankTimer* timer = timer_;
        started = WaitForPeriodStart(
            lastStart_, waitLength_, [timer]() { return timer->Count(); },
            [timer]() { return timer->WaitTickOrMessage(); },
            [beforeBlocking]() {
                if (beforeBlocking) beforeBlocking();
            });
    }
    // A period that started ends the timeline's open frame and opens the next.
    if (waitStart != 0) {
        if (started)
            timeline::PeriodStarted(waitStart, loopCount_);
        else
            timeline::PeriodWaitCut(waitStart);
    }
    return started;
}

} // namespace zk

// ---- exports ----------------------------------------------------------------------

extern "C" ZK_API uint32_t ZK_CALL zkWaitVblank(void) {
    return zk::Kernel().vblankTimer.WaitVblank(1);
}

extern "C" ZK_API uint32_t ZK_CALL zkWaitVblankEx(uint32_t mode) {
    return zk::Kernel().vblankTimer.WaitVblank(mode);
}

extern "C" ZK_API uint32_t ZK_CALL zkGetVblankCount(void) {
    return zk::Kernel().vblankTimer.Count();
}

extern "C" ZK_API float ZK_CALL zkGetDisplayFrequency(void) {
    return zk::Kernel().vblankTimer.DisplayFrequency();
}

extern "C" ZK_API void ZK_CALL zkSetPeriodInterval(uint32_t interval) {
    zk::Kernel().framePeriod.SetInterval(interval);
}

extern "C" ZK_API int32_t ZK_CALL zkWaitForPeriodStart(void) {
    return zk::Kernel().framePeriod.WaitForStart();
}

extern "C" ZK_API VblankHandlerSlot* ZK_CALL zkAddVblankHandler(VblankHandler handler,
                                                                zkAddr user) {
    if (!handler) return nullptr;
    return zk::AddVblankHandler(handler, user);
}

extern "C" ZK_API void ZK_CALL zkRemoveVblankHandler(VblankHandlerSlot* handle) {
    if (!handle) return;
    zk::RemoveVblankHandler(handle);
}
