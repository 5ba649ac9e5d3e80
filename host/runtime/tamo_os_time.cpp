/* The system time. */
#include "platform/tamo_os_time.h"

#include <time.h>

void OsGetTimeEx(OsTimeEx *record) {
    if (record == nullptr) {
        return;
    }
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    tzset(); /* localtime_r alone would not see a new time zone */
    localtime_r(&now.tv_sec, &local);
    record->milliseconds = static_cast<uint32_t>(now.tv_nsec / 1000000);
    record->seconds = static_cast<uint32_t>(local.tm_sec);
    record->minutes = static_cast<uint32_t>(local.tm_min);
    record->hours = static_cast<uint32_t>(local.tm_hour);
    record->day = static_cast<uint32_t>(local.tm_mday);
    record->month = static_cast<uint32_t>(local.tm_mon);
    record->year = static_cast<uint32_t>(local.tm_year);
}

uint32_t OsGetSysTimeSec(void) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint32_t>(now.tv_sec);
}
