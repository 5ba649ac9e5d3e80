/* The application's table of timers, as ConfCommTimerInit was given it. Any thread may ask. */
#pragma once

#include <cstdint>

#include "include/conf_timer.h"

struct TimerTable {
    ConfCommTimerEntry *entries;
    int32_t count;
};

void keepTimerTable(TimerTable table);

TimerTable timerTable();

/* The first entry with an id, or null. */
ConfCommTimerEntry *findTimerEntry(uint32_t timerId);
