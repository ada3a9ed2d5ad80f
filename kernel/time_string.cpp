// Local time, calendar seconds, and the byte-string length and comparison.
#include <zk/timeutil.h>

#include "platform/platform.h"

#include <ctime>

extern "C" ZK_API void ZK_CALL zkGetTime(DateTime* out) {
    if (!out) return;
    zk::os::LocalDateTime now{};
    zk::os::LocalTime(&now);
    out->year = now.year;
    out->month = now.month;
    out->day = now.day;
    out->hour = now.hour;
    out->minute = now.minute;
    out->second = now.second;
}

extern "C" ZK_API int32_t ZK_CALL zkGetTimeSec(void) {
    return static_cast<int32_t>(std::time(nullptr));
}

extern "C" ZK_API uint32_t ZK_CALL zkGetStringLength(const char* text) {
    if (!text) return 0;
    uint32_t length = 0;
    while (text[length] != '\0')
        ++length;
    return length;
}

extern "C" ZK_API int32_t ZK_CALL zkCompareString(const char* first, const char* second) {
    if (!first || !second) return 0;
    // The walk ends when the first string ends, so a first string that is a
    // prefix of the second compares equal ("ab" against "abc" is 0, while
    // "abc" against "ab" is 'c'). Bytes compare as signed 8-bit values: 0x80
    // to 0xFF order before ASCII.
    for (uint32_t i = 0;; ++i) {
        signed char a = static_cast<signed char>(first[i]);
        signed char b = static_cast<signed char>(second[i]);
        if (a == '\0') return 0;
        if (a != b) return static_cast<int32_t>(a) - static_cast<int32_t>(b);
    }
}
