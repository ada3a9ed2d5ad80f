// Clocks: the millisecond tick, sleeping, the performance counter and the
// local calendar time.
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
