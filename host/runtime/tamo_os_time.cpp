/* The system time. */
#include "platform/tamo_os_time.h"

#include <time.h>

#include "host/base/clock.h"

void OsGetTimeEx(OsTimeEx *record) {
    if (record == nullptr) {
        return;
    }
    const uint64_t now = tamo::wallClockNs();
    const auto second = static_cast<time_t>(now / tamo::kNsPerSecond);
    tm local = {};
    tzset(); /* localtime_r alone would not see a new time zone */
    localtime_r(&second, &local);
    record->milliseconds = static_cast<uint32_t>(now % tamo::kNsPerSecond / tamo::kNsPerMs);
    record->seconds = static_cast<uint32_t>(local.tm_sec);
    record->minutes = static_cast<uint32_t>(local.tm_min);
    record->hours = static_cast<uint32_t>(local.tm_hour);
    record->day = static_cast<uint32_t>(local.tm_mday);
    record->month = static_cast<uint32_t>(local.tm_mon);
    record->year = static_cast<uint32_t>(local.tm_year);
}

uint32_t OsGetSysTimeSec(void) {
    return static_cast<uint32_t>(tamo::wallClockNs() / tamo::kNsPerSecond);
}
