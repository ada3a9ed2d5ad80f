// Clocks: the millisecond tick, sleeping, the performance counter, the
// process's CPU time and the local calendar time.
#include "platform/platform.h"

#include <windows.h>

namespace zk::os {

uint32_t TickCount() {
    return GetTickCount();
}

void Sleep(uint32_t milliseconds) {
    ::Sleep(milliseconds);
}

int64_t PerformanceCounter() {
    LARGE_INTEGER value;
    return QueryPerformanceCounter(&value) ? value.QuadPart : 0;
}

int64_t PerformanceFrequency() {
    LARGE_INTEGER value;
    return QueryPerformanceFrequency(&value) ? value.QuadPart : 0;
}

uint64_t ProcessCpuTimeMicroseconds() {
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
    auto ticks = [](const FILETIME& t) {
        return (static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
    };
    return (ticks(kernel) + ticks(user)) / 10u; // 100 ns units
}

void LocalTime(LocalDateTime* out) {
    if (!out) return;
    SYSTEMTIME now;
    GetLocalTime(&now);
    out->year = now.wYear;
    out->month = now.wMonth;
    out->day = now.wDay;
    out->hour = now.wHour;
    out->minute = now.wMinute;
    out->second = now.wSecond;
}

} // namespace zk::os
