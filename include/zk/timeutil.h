/**
 * @file
 * @brief Local time, calendar seconds and byte-string utilities.
 */
#ifndef ZK_TIMEUTIL_H
#define ZK_TIMEUTIL_H

#include "config.h"

/**
 * @defgroup timeutil Time and strings
 * @brief The local time, seconds since 1970, and two byte-string helpers.
 *
 * Every call of this group may be made from any thread at any time.
 * @{
 */

ZK_EXTERN_C_BEGIN

/** A local date and time. */
typedef struct DateTime {
    uint16_t year;   /**< such as 2026 */
    uint16_t month;  /**< 1 to 12 */
    uint16_t day;    /**< 1 to 31 */
    uint16_t hour;   /**< 0 to 23 */
    uint16_t minute; /**< 0 to 59 */
    uint16_t second; /**< 0 to 59 */
} DateTime;

/**
 * @brief The local time.
 * @param out receives the time; null does nothing
 * @threads Any thread.
 */
ZK_API void ZK_CALL zkGetTime(DateTime* out);
/**
 * @brief Seconds since 1970-01-01 00:00:00 UTC.
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkGetTimeSec(void);
/**
 * @brief Bytes before the terminator.
 * @return the length; 0 for null
 * @threads Any thread.
 */
ZK_API uint32_t ZK_CALL zkGetStringLength(const char* text);
/**
 * @brief Compares two byte strings.
 * @return 0 when equal up to the first string's end, else the difference of
 *         the first differing bytes taken as signed 8-bit values; 0 when either is null
 * @threads Any thread.
 */
ZK_API int32_t ZK_CALL zkCompareString(const char* first, const char* second);

ZK_EXTERN_C_END

/** @} */

#endif /* ZK_TIMEUTIL_H */
