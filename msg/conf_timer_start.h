/* What table timers and timer objects have in common: the mutex, and the steps of a start, a stop and an
 * expiry.
 *
 * A timer may expire before its start has stored what to deliver. So the handle says "starting" from
 * before the platform's timer is created until the content is stored: an expiry that finds that only
 * marks it, and the start delivers in its place. */
#pragma once

#include <atomic>
#include <cstdint>

#include "include/conf_timer.h"
#include "msg/conf_timer_snapshot.h"
#include "platform/tamo_os_lock.h"
#include "platform/tamo_os_timer.h"

constexpr char kTimerUnit[] = "conf_timer";

/* Start and stop of all timers. */
extern OsMutex timerMutex;

/* After the end of the service there is no mutex to hold; owners still stop their timer objects. */
class TimerLock {
  public:
    TimerLock() : held_(OsMutexLock(&timerMutex) == 0) {}
    ~TimerLock() {
        if (held_) {
            OsMutexUnLock(&timerMutex);
        }
    }
    TimerLock(const TimerLock &) = delete;
    TimerLock &operator=(const TimerLock &) = delete;

  private:
    bool held_;
};

/* The fields of either kind of timer that a start and a stop change. Expiries, and the end of the
 * service, take no lock: hence atomics also where starts and stops hold the mutex. */
struct RunningTimer {
    std::atomic_ref<uint32_t> handle;
    TimerContent content;
};

template <typename Timer>
RunningTimer runningTimer(Timer *timer) {
    return {std::atomic_ref<uint32_t>(timer->handle),
            {&timer->param, &timer->dataLength, &timer->data}};
}

/* What a start is asked to deliver, and the name for its records. */
struct TimerStart {
    const char *function;
    uint32_t param;
    const void *data;
    uint32_t dataLength;
};

/* ---- start and stop: under the mutex ---- */

/* Takes a stopped timer for a start; false when it runs. */
bool beginStart(const RunningTimer &timer);

/* Takes a timer for a start that has fired for the last time under the handle `fired`. */
bool takeFired(const RunningTimer &timer, uint32_t fired);

/* Names the receiver in a record; one that does not fit is recorded in the log, and stays empty. */
void nameReceiver(const char *function, OsTmrCreateParam *create, const char *receiver);

/* Completes a record whose receiver, key, kind and expiry are set, and creates the timer; 0, with a
 * record in the log, when there is none. The start is then off. */
uint32_t createTimer(const RunningTimer &timer, const char *function, OsTmrCreateParam *create,
                     uint32_t durationMs, uint32_t mode);

/* Replaces what a timer delivers; false when there is no memory for the data, of which then none is
 * delivered. */
bool storeContent(const RunningTimer &timer, const TimerStart &start);

/* Gives a started timer its handle, or what its handle is after an expiry. True when it has expired:
 * then the start delivers, after it has left the mutex. */
bool finishStart(const RunningTimer &timer, uint32_t created, uint32_t handleAfterExpiry);

/* Deletes the platform's timer and releases the data. On the workstation no expiry of this timer runs
 * once the deletion has returned. */
void endTimer(const RunningTimer &timer);

/* ---- expiry: without a lock ---- */

/* Leaves an expiry to the start that is under way, if one is. If not, `*handle` is the timer's as of
 * that moment, 0 for one that was stopped. */
bool isLeftToStart(const RunningTimer &timer, uint32_t *handle);

/* Sends what a timer delivers; the result is the message's. */
uint32_t sendExpiry(const ContentReader &content, const char *receiver, ConfMsgHandler handler);
