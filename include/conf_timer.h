/* Timers whose expiries arrive as messages, and the system time.
 *
 * 1. When a timer expires, its handler, parameter and data go to its receiver as an asynchronous
 *    message; the receiver's message loop runs the handler (see conf_msg_api.h).
 * 2. There are table timers, known by a number in a table that the application gives once, and timer
 *    objects, which their owners hold one by one. Both need ConfCommTimerInit first.
 * 3. Durations are in milliseconds and are rounded down to ticks of 10 ms.
 * 4. Results are 0 for success and 1 for failure. Each failure leaves a record in the log, but for null
 *    tables and for a table timer's start without memory.
 * 5. Any thread may start and stop timers. A stop that meets an expiry may still see that expiry's
 *    message delivered. An expiry that falls into a start delivers what the start was given.
 * 6. An expiry whose message cannot be sent is recorded in the log, and is not tried again.
 *
 *     static ConfTimer reminder;
 *     ConfTimerInit(&reminder, 1, CONF_TIMER_ONE_SHOT, "TamoUIConf", remind);
 *     ConfTimerStart(&reminder, 60000, 0, "now", 4);
 */
#pragma once
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* What an expiry makes the receiver run; see conf_msg_api.h. */
typedef uint32_t (*ConfMsgHandler)(uint32_t param, void *data, uint32_t dataLength);

/* The mode of a timer that expires once; with any other mode it expires again and again. */
enum { CONF_TIMER_ONE_SHOT = 1 };

/* A table timer. The application fills the first five fields; the others belong to the library and
 * begin as zero. */
typedef struct ConfCommTimerEntry {
    uint32_t timerId;
    uint32_t mode;
    uint32_t defaultDuration; /* milliseconds, for a start that passes 0 */
    const char *receiver;     /* process that gets the expiries; outlives the table */
    ConfMsgHandler handler;
    uint32_t handle; /* of the platform's timer, any number; 0 when there is none */
    uint32_t param;
    void *data; /* the library's copy, or null */
    uint32_t dataLength;
} ConfCommTimerEntry;

/* A timer object, filled by ConfTimerInit. It begins as zero, stays where it is while it runs, and is
 * stopped before it goes. */
typedef struct ConfTimer {
    uint32_t timerId; /* the owner's */
    uint32_t mode;
    const char *receiver;
    ConfMsgHandler handler;
    uint32_t handle;
    uint32_t param, dataLength;
    void *data;
} ConfTimer;

/* A calendar time, in the device's time zone. */
typedef struct ConfSysTime {
    uint16_t year;
    uint8_t month, day; /* from 1 */
    uint8_t hour, minute, second;
    uint16_t millisecond;
} ConfSysTime;

/* ConfCommTimerInit, with a null table refused, unrecorded, before anything is done. */
uint32_t ConfCommTimerFuncInit(ConfCommTimerEntry *table, int32_t count);

/* Starts the timer service with the application's table of `count` timers, which stays the
 * application's, outlives the service and keeps its ids; of entries with one id only the first is
 * used. Blocks the signals 18 and 16 in the calling thread. Call it once, at start-up. A null table
 * is refused, unrecorded, after the lock was made. */
uint32_t ConfCommTimerInit(ConfCommTimerEntry *table, int32_t count);

/* ConfCommTimerDeInit. */
void ConfCommTimerFuncDeInit(void);

/* Ends the service: stops every table timer and releases its data. Timer objects are their owners' to
 * stop first. */
void ConfCommTimerDeInit(void);

/* ConfCommTimerStartEx with the timer's default duration. */
uint32_t ConfCommTimerStart(uint32_t timerId, uint32_t param, const void *data,
                            uint32_t dataLength);

/* Starts a table timer (`durationMs` 0: its default duration) that delivers `param` and a copy of
 * `dataLength` bytes of `data`, which may be null. A timer that has been started is not started again:
 * only what it delivers is replaced, from its next expiry. A one-shot table timer is stopped before it
 * is started again, also after it has fired.
 *
 * A start for which the platform has no timer changes nothing. A start without memory for the copy
 * leaves no record, yet the timer runs, and has lost its previous data: its expiries fail, recorded,
 * until it is started with data that can be copied, or stopped. */
uint32_t ConfCommTimerStartEx(uint32_t timerId, uint32_t durationMs, uint32_t param,
                              const void *data, uint32_t dataLength);

/* Stops a table timer and releases its data; 0 also when it does not run. */
uint32_t ConfCommTimerStop(uint32_t timerId);

/* ConfCommTimerStop. */
uint32_t ConfCommTimerFree(uint32_t timerId);

/* Fills a zeroed timer object. `receiver` outlives it. */
uint32_t ConfTimerInit(ConfTimer *timer, uint32_t timerId, uint32_t mode, const char *receiver,
                       ConfMsgHandler handler);

/* Whether the object has a running timer; false, with a record, for null. */
bool ConfTimerIsVaild(ConfTimer *timer);

/* Starts a timer object, as ConfCommTimerStartEx does a table timer; a duration of 0 expires with the
 * next tick. A one-shot object may be started again once its expiry is sent, also by that expiry's
 * handler; each start of a stopped object is one message. Without memory for the copy the timer runs
 * all the same, as a table timer does, but the failure is recorded. */
uint32_t ConfTimerStart(ConfTimer *timer, uint32_t durationMs, uint32_t param, const void *data,
                        uint32_t dataLength);

/* Stops a timer object and releases its data; 0 also when it does not run. */
uint32_t ConfTimerStop(ConfTimer *timer);

/* ConfTimerStop. */
uint32_t ConfTimerFree(ConfTimer *timer);

/* Stores the current time in `out`. */
void ConfBasicGetSysTime(ConfSysTime *out);

/* The current time in whole seconds, as the platform counts them. */
uint32_t ConfGetSysTimeSec(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(ConfCommTimerEntry, defaultDuration) == 8, "");
static_assert(offsetof(ConfCommTimerEntry, receiver) == (sizeof(void *) == 4 ? 12 : 16), "");
static_assert(offsetof(ConfCommTimerEntry, handler) == (sizeof(void *) == 4 ? 16 : 24), "");
static_assert(offsetof(ConfCommTimerEntry, handle) == (sizeof(void *) == 4 ? 20 : 32), "");
static_assert(offsetof(ConfCommTimerEntry, param) == (sizeof(void *) == 4 ? 24 : 36), "");
static_assert(offsetof(ConfCommTimerEntry, data) == (sizeof(void *) == 4 ? 28 : 40), "");
static_assert(offsetof(ConfCommTimerEntry, dataLength) == (sizeof(void *) == 4 ? 32 : 48), "");
static_assert(sizeof(ConfCommTimerEntry) == (sizeof(void *) == 4 ? 36 : 56), "");
static_assert(offsetof(ConfTimer, mode) == 4, "");
static_assert(offsetof(ConfTimer, receiver) == 8, "");
static_assert(offsetof(ConfTimer, handler) == (sizeof(void *) == 4 ? 12 : 16), "");
static_assert(offsetof(ConfTimer, handle) == (sizeof(void *) == 4 ? 16 : 24), "");
static_assert(offsetof(ConfTimer, param) == (sizeof(void *) == 4 ? 20 : 28), "");
static_assert(offsetof(ConfTimer, dataLength) == (sizeof(void *) == 4 ? 24 : 32), "");
static_assert(offsetof(ConfTimer, data) == (sizeof(void *) == 4 ? 28 : 40), "");
static_assert(sizeof(ConfTimer) == (sizeof(void *) == 4 ? 32 : 48), "");
static_assert(offsetof(ConfSysTime, month) == 2, "");
static_assert(offsetof(ConfSysTime, second) == 6, "");
static_assert(offsetof(ConfSysTime, millisecond) == 8, "");
static_assert(sizeof(ConfSysTime) == 10, "");
#endif
