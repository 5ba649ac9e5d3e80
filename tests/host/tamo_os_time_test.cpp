/* The system time, beside the C library's. */
#include "platform/tamo_os_time.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

namespace {

/* The clock that time() reads may be some milliseconds late. */
time_t clockSeconds() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

/* The fields as a time in seconds, in the current time zone. */
time_t secondsOf(const OsTimeEx &record) {
    tm fields = {};
    fields.tm_sec = static_cast<int>(record.seconds);
    fields.tm_min = static_cast<int>(record.minutes);
    fields.tm_hour = static_cast<int>(record.hours);
    fields.tm_mday = static_cast<int>(record.day);
    fields.tm_mon = static_cast<int>(record.month);
    fields.tm_year = static_cast<int>(record.year);
    fields.tm_isdst = -1;
    return mktime(&fields);
}

TEST(TamoOsTime, IsTheCurrentTimeInTheTimeZoneOfTheMoment) {
    for (const char *zone : {"UTC0", "XXX-5:30", "YYY+11"}) {
        setenv("TZ", zone, 1);
        OsTimeEx record;
        record.spare[0] = record.spare[1] = 7;
        const time_t before = clockSeconds();
        OsGetTimeEx(&record);
        const time_t after = clockSeconds();
        EXPECT_GE(secondsOf(record), before) << zone;
        EXPECT_LE(secondsOf(record), after) << zone;
        EXPECT_LT(record.milliseconds, 1000u);
        EXPECT_EQ(record.spare[0] + record.spare[1], 14u);
    }
    OsGetTimeEx(nullptr);
}

}  // namespace
