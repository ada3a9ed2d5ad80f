// Clocks: tick count, performance counter, sleep, local time, and the
// monotonic helpers the waits of this backend share.
#include "platform/posix/posix_internal.h"

#include <sched.h>
#include <time.h>

#include <cerrno>

namespace zk::os::posix {

int64_t MonotonicNanoseconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

timespec ToTimespec(int64_t nanoseconds) {
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(nanoseconds / 1000000000LL);
    ts.tv_nsec = static_cast<long>(nanoseconds % 1000000000LL);
    return ts;
}

void ConditionInit(pthread_cond_t* cond) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(cond, &attr);
    pthread_condattr_destroy(&attr);
}

bool ConditionWait(pthread_cond_t* cond, pthread_mutex_t* lock, int64_t deadline) {
    if (deadline < 0) {
        pthread_cond_wait(cond, lock);
        return true;
    }
    timespec ts = ToTimespec(deadline);
    return pthread_cond_timedwait(cond, lock, &ts) != ETIMEDOUT;
}

} // namespace zk::os::posix

namespace zk::os {

uint32_t TickCount() {
    return static_cast<uint32_t>(static_cast<uint64_t>(posix::MonotonicNanoseconds()) / 1000000u);
}

void Sleep(uint32_t milliseconds) {
    if (milliseconds == 0) {
        sched_yield();
        return;
    }
    // An absolute deadline, so that interruptions by signals do not stretch the sleep.
    timespec deadline = posix::ToTimespec(posix::MonotonicNanoseconds() +
                                          static_cast<int64_t>(milliseconds) * 1000000LL);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

int64_t PerformanceCounter() {
    return posix::MonotonicNanoseconds();
}

int64_t PerformanceFrequency() {
    return 1000000000LL;
}

uint64_t ProcessCpuTimeMicroseconds() {
    timespec used{};
    if (clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used) != 0) return 0;
    return static_cast<uint64_t>(used.tv_sec) * 1000000u + static_cast<uint64_t>(used.tv_nsec) / 1000u;
}

void LocalTime(LocalDateTime* out) {
    if (!out) return;
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    out->year = static_cast<uint16_t>(local.tm_year + 1900);
    out->month = static_cast<uint16_t>(local.tm_mon + 1);
    out->day = static_cast<uint16_t>(local.tm_mday);
    out->hour = static_cast<uint16_t>(local.tm_hour);
    out->minute = static_cast<uint16_t>(local.tm_min);
    out->second = static_cast<uint16_t>(local.tm_sec);
}

} // namespace zk::os
