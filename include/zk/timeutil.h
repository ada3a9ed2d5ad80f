/* QAX kernel: local time, calendar seconds and byte-string utilities. */
#ifndef ZK_TIMEUTIL_H
#define ZK_TIMEUTIL_H

#include "config.h"

ZK_EXTERN_C_BEGIN

typedef struct DateTime {
    uint16_t year;
    uint16_t month;
    uint16_t day;
    uint16_t hour;
    uint16_t minute;
    uint16_t second;
} DateTime;

/* Local time. */
ZK_API void ZK_CALL zkGetTime(DateTime* out);
/* Seconds since 1970-01-01 00:00:00 UTC. */
ZK_API int32_t ZK_CALL zkGetTimeSec(void);
/* Bytes before the terminator; 0 for null. */
ZK_API uint32_t ZK_CALL zkGetStringLength(const char* text);
/* 0 when equal up to the first string's end, else the difference of the first
 * differing bytes taken as signed 8-bit values. */
ZK_API int32_t ZK_CALL zkCompareString(const char* first, const char* second);

ZK_EXTERN_C_END

#endif /* ZK_TIMEUTIL_H */
