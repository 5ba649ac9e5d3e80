/* libtamo_os_time: the system time. Any thread may call. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A calendar time in the device's time zone. */
typedef struct OsTimeEx {
    uint32_t milliseconds, seconds, minutes, hours;
    uint32_t day;   /* of the month, from 1 */
    uint32_t month; /* from 0 */
    uint32_t year;  /* since 1900 */
    uint32_t spare[2];
} OsTimeEx;

/* Fills the record with the current time; the spare words are left alone. Null is ignored. */
void OsGetTimeEx(OsTimeEx *record);

/* The current time in whole seconds since 1970, modulo 2 to the 32nd. */
uint32_t OsGetSysTimeSec(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(OsTimeEx, day) == 16);
static_assert(offsetof(OsTimeEx, year) == 24);
static_assert(sizeof(OsTimeEx) == 36);
#endif
