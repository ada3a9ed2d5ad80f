// The periodic timer: each running timer has a joinable thread of its own
// that calls the callback on absolute deadlines of the monotonic clock.
//
// 16 timers in static storage, guarded by the timer lock (a leaf lock, never
// held while a callback runs). The next deadline is the previous one plus the
// period, so the tick does not drift; when the thread has fallen behind by a
// whole period or more it skips the missed deadlines instead of calling the
// callback in a burst. The thread sleeps on a condition variable with the
// absolute deadline so that TimerKill wakes it at once; TimerKill joins the
// thread, so the callback never runs after it returns.
//
// Priority: a tick that comes late makes every frame waiting on it late, so
// the timer thread asks for the most the process may have, as a multimedia
// timer's thread gets on Windows: first a real-time policy (SCHED_FIFO at a
// modest level, within RLIMIT_RTPRIO when unprivileged), else the lowest nice
// value that RLIMIT_NICE allows, when that is below the thread's own. Each
// refusal is silent and leaves the thread as it was. The callback is short
// (a count and an event), so a real-time thread gives its core back at once.
#include "platform/posix/posix_internal.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

namespace zk::os::posix {
namespace {

struct Timer {
    bool inUse;
    bool stop;
    bool joined; // killed from its own callback: the thread frees the slot
    uint32_t id;
    uint32_t generation;
    int64_t period; // ns
    TimerCallback callback;
    void* user;
    pthread_t thread;
    pthread_cond_t wake;
};

pthread_mutex_t gTimerLock = PTHREAD_MUTEX_INITIALIZER;
Timer gTimers[kTimerCount];
bool gTimersBuilt = false;

void BuildTimersLocked() {
    for (Timer& t : gTimers)
        ConditionInit(&t.wake);
    gTimersBuilt = true;
}

// The real-time level asked for: above ordinary real-time work at the
// bottom of the range, well below the system's own threads at the top.
constexpr int kTimerRealTimeLevel = 10;

void RaiseTimerPriority() {
    const int lowest = sched_get_priority_min(SCHED_FIFO);
    const int highest = sched_get_priority_max(SCHED_FIFO);
    int level = lowest + kTimerRealTimeLevel - 1;
    if (level > highest) level = highest;
    sched_param parameters{};
    parameters.sched_priority = level;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0) return;
    // Unprivileged, RLIMIT_RTPRIO may still allow a lower real-time level.
    rlimit limit{};
    if (getrlimit(RLIMIT_RTPRIO, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        static_cast<int>(limit.rlim_cur) >= lowest) {
        parameters.sched_priority =
            static_cast<int>(limit.rlim_cur) < level ? static_cast<int>(limit.rlim_cur) : level;
        if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0) return;
    }
    // No real-time policy: the lowest nice value the limit allows (20 - limit).
    if (getrlimit(RLIMIT_NICE, &limit) != 0) return;
    int floor = limit.rlim_cur == RLIM_INFINITY ? -20 : 20 - static_cast<int>(limit.rlim_cur);
    if (floor < -20) floor = -20;
    const id_t self = static_cast<id_t>(gettid());
    errno = 0;
    const int now = getpriority(PRIO_PROCESS, self);
    if (errno == 0 && floor < now) setpriority(PRIO_PROCESS, self, floor);
}

void* TimerMain(void* argument) {
    auto* t = static_cast<Timer*>(argument);
    RaiseTimerPriority();
    pthread_mutex_lock(&gTimerLock);
    int64_t next = MonotonicNanoseconds() + t->period;
    while (!t->stop) {
        if (ConditionWait(&t->wake, &gTimerLock, next)) continue; // woken: test stop, sleep again
        if (t->stop) break;
        TimerCallback callback = t->callback;
        void* user = t->user;
        pthread_mutex_unlock(&gTimerLock);
        callback(user);
        pthread_mutex_lock(&gTimerLock);
        next = NextTimerDeadline(next, t->period, MonotonicNanoseconds());
    }
    if (t->joined) t->inUse = false; // nobody will join this detached thread
    pthread_mutex_unlock(&gTimerLock);
    return nullptr;
}

} // namespace

int64_t NextTimerDeadline(int64_t previous, int64_t period, int64_t now) {
    int64_t next = previous + period;
    if (now - next >= period) next += (now - next) / period * period;
    return next;
}

} // namespace zk::os::posix

namespace zk::os {

using namespace posix;

bool TimerGetCaps(TimerCaps* caps) {
    if (!caps) return false;
    caps->minPeriod = 1;
    caps->maxPeriod = 1000000;
    return true;
}

// The monotonic clock already has the resolution asked for.
void TimerBeginPeriod(uint32_t) {}
void TimerEndPeriod(uint32_t) {}

uint32_t TimerStartPeriodic(uint32_t periodMilliseconds, uint32_t, TimerCallback callback,
                            void* user) {
    if (!callback || periodMilliseconds < 1 || periodMilliseconds > 1000000) return 0;
    pthread_mutex_lock(&gTimerLock);
    if (!gTimersBuilt) BuildTimersLocked();
    Timer* t = nullptr;
    uint32_t index = 0;
    for (; index < kTimerCount; ++index) {
        if (!gTimers[index].inUse) {
            t = &gTimers[index];
            break;
        }
    }
    if (!t) {
        pthread_mutex_unlock(&gTimerLock);
        return 0;
    }
    t->inUse = true;
    t->stop = false;
    t->joined = false;
    t->generation = (t->generation + 1) & 0xFFFFFFu;
    // Index in the low byte, a generation above it: a stale id never kills a newer timer.
    t->id = (t->generation << 8) | (index + 1);
    t->period = static_cast<int64_t>(periodMilliseconds) * 1000000LL;
    t->callback = callback;
    t->user = user;
    uint32_t id = t->id;
    if (pthread_create(&t->thread, nullptr, &TimerMain, t) != 0) {
        t->inUse = false;
        id = 0;
    }
    pthread_mutex_unlock(&gTimerLock);
    return id;
}

void TimerKill(uint32_t id) {
    uint32_t index = (id & 0xFFu);
    if (index == 0 || index > kTimerCount) return;
    Timer* t = &gTimers[index - 1];
    pthread_mutex_lock(&gTimerLock);
    if (!t->inUse || t->id != id || t->stop) {
        pthread_mutex_unlock(&gTimerLock);
        return;
    }
    t->stop = true;
    pthread_cond_signal(&t->wake);
    pthread_t thread = t->thread;
    if (pthread_equal(thread, pthread_self())) {
        // Killed from its own callback: the thread ends after the callback returns.
        t->joined = true;
        pthread_detach(thread);
        pthread_mutex_unlock(&gTimerLock);
        return;
    }
    pthread_mutex_unlock(&gTimerLock);
    pthread_join(thread, nullptr);
    pthread_mutex_lock(&gTimerLock);
    t->inUse = false;
    pthread_mutex_unlock(&gTimerLock);
}

} // namespace zk::os
