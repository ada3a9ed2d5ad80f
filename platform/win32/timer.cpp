// The periodic timer: the multimedia timer of winmm.
//
// timeSetEvent calls back a stdcall function with one pointer-sized user word;
// a fixed table of timer records carries the library's callback and its user
// value to it. A record is filled before its timer starts and given back only
// after timeKillEvent has returned; TIME_KILL_SYNCHRONOUS makes that call wait
// for a callback in progress, so a record is never read after it is reused.
// The callbacks run on winmm's own thread at time-critical priority, which is
// what keeps the tick on time while the application's threads are busy.
#include "platform/platform.h"
#include "platform/win32/library_state.h"

#include <windows.h>
#include <mmsystem.h>

#include <atomic>

namespace zk::os {

namespace {

struct TimerRecord {
    std::atomic<bool> taken{false};
    UINT id = 0;
    TimerCallback callback = nullptr;
    void* user = nullptr;
};

constexpr int kTimerRecords = 8;
TimerRecord g_timers[kTimerRecords];

TimerRecord* TakeTimerRecord() {
    for (TimerRecord& record : g_timers) {
        bool expected = false;
        if (record.taken.compare_exchange_strong(expected, true, std::memory_order_acquire))
            return &record;
    }
    return nullptr;
}

void GiveBackTimerRecord(TimerRecord* record) {
    record->id = 0;
    record->taken.store(false, std::memory_order_release);
}

void ZK_SYSTEM_CALLBACK TimerTick(UINT /*id*/, UINT /*message*/, DWORD_PTR user, DWORD_PTR,
                                  DWORD_PTR) {
    // The multimedia timer's thread runs time-critical on Windows; where an
    // implementation of winmm gives it less, it is raised once (a refusal
    // leaves it as it is).
    static thread_local bool raised = false;
    if (!raised) {
        raised = true;
        if (GetThreadPriority(GetCurrentThread()) < THREAD_PRIORITY_TIME_CRITICAL)
            SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
    }
    const TimerRecord* record = reinterpret_cast<const TimerRecord*>(user);
    record->callback(record->user);
}

} // namespace

bool TimerGetCaps(TimerCaps* caps) {
    if (!caps) return false;
    TIMECAPS native{};
    if (timeGetDevCaps(&native, sizeof(native)) != TIMERR_NOERROR) return false;
    caps->minPeriod = native.wPeriodMin;
    caps->maxPeriod = native.wPeriodMax;
    return true;
}

void TimerBeginPeriod(uint32_t resolution) {
    timeBeginPeriod(resolution);
}

void TimerEndPeriod(uint32_t resolution) {
    timeEndPeriod(resolution);
}

uint32_t TimerStartPeriodic(uint32_t periodMilliseconds, uint32_t resolution,
                            TimerCallback callback, void* user) {
    if (!callback || periodMilliseconds == 0) return 0;
    TimerRecord* record = TakeTimerRecord();
    if (!record) return 0;
    record->callback = callback;
    record->user = user;
    UINT id =
        timeSetEvent(periodMilliseconds, resolution, TimerTick, reinterpret_cast<DWORD_PTR>(record),
                     TIME_PERIODIC | TIME_CALLBACK_FUNCTION | TIME_KILL_SYNCHRONOUS);
    if (id == 0) {
        GiveBackTimerRecord(record);
        return 0;
    }
    record->id = id;
    return id;
}

void TimerKill(uint32_t id) {
    if (id == 0) return;
    timeKillEvent(id);
    for (TimerRecord& record : g_timers) {
        if (record.taken.load(std::memory_order_acquire) && record.id == id) {
            GiveBackTimerRecord(&record);
            break;
        }
    }
}

} // namespace zk::os
