/* Timers: table timers and timer objects over the platform's timer manager, and the system time. */
#include "include/conf_timer.h"

#include <atomic>
#include <cstring>

#include "common/log.h"
#include "common/platform_block.h"
#include "include/conf_msg_api.h"
#include "msg/conf_timer_snapshot.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_os_lock.h"
#include "platform/tamo_os_signal.h"
#include "platform/tamo_os_time.h"
#include "platform/tamo_os_timer.h"

namespace {

constexpr char kUnit[] = "conf_timer";

constexpr uint32_t kTickMs = 10;
constexpr uint32_t kTickUs = 10000;
constexpr uint32_t kTableKind = 1;
constexpr uint32_t kObjectKind = 8;
constexpr uint32_t kStarting = 0xFFFFFFFF; /* a handle that no platform timer has */
constexpr int32_t kBlockedSignals[] = {18, 16};

OsMutex timerMutex = {}; /* start and stop of all timers */
std::atomic<ConfCommTimerEntry *> timerTable{nullptr};
std::atomic<int32_t> timerCount{0};

struct TimerLock {
    TimerLock() { OsMutexLock(&timerMutex); }
    ~TimerLock() { OsMutexUnLock(&timerMutex); }
    TimerLock(const TimerLock &) = delete;
    TimerLock &operator=(const TimerLock &) = delete;
};

/* The fields of either kind of timer that a start and a stop change. */
struct RunningTimer {
    std::atomic_ref<uint32_t> handle; /* an expiry clears a one-shot object's without the mutex */
    TimerContent content;
};

template <typename Timer>
RunningTimer runningTimer(Timer *timer) {
    return {std::atomic_ref<uint32_t>(timer->handle),
            {&timer->param, &timer->dataLength, &timer->data}};
}

ConfCommTimerEntry *findEntry(const char *function, uint32_t timerId) {
    ConfCommTimerEntry *table = timerTable.load();
    const int32_t count = table == nullptr ? 0 : timerCount.load();
    for (int32_t i = 0; i < count; i++) {
        if (table[i].timerId == timerId) {
            return table + i;
        }
    }
    ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "timerId:%d invalid", timerId);
    return nullptr;
}

/* The timer manager with the signals blocked that would interrupt its caller; 0, or a failure. */
uint32_t InitTimer() {
    OsSigSet set = {};
    OsSigSet oldSet = {};
    uint32_t result = OsSigEmptySet(&set);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "SigEmptySet fail:%d", result);
        return result;
    }
    for (const int32_t signal : kBlockedSignals) {
        result = OsSigAddSet(&set, signal);
        if (result != 0) {
            CONF_LOG(CONF_LOG_ERROR, "OsSigAddSet fail:%d", result);
            return result;
        }
    }
    result = OsPthreadSigmask(0, &set, &oldSet);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "OsPthreadSigmask fail:%d", result);
        return result;
    }
    result = OsTmrManagerInit(0, kTickUs, 0);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "Init 10ms tiemr failed:%d", result);
    }
    return result;
}

/* Completes a record with the receiver's name and creates the timer; false, with a record. A timer
 * object may fire, and clear its handle, before its creator has stored it: only a handle that still says
 * "starting" is replaced. */
bool createTimer(const char *function, OsTmrCreateParam *param, const char *receiver,
                 uint32_t durationMs, uint32_t mode, std::atomic_ref<uint32_t> handle) {
    const int error = strcpy_s(param->receiver, sizeof(param->receiver), receiver);
    if (error != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "conf secure func failed, err = %d!\n", error);
    }
    param->ticks = durationMs / kTickMs;
    param->periodic = mode == CONF_TIMER_ONE_SHOT ? 0 : 1;
    handle.store(kStarting);
    uint32_t created = 0;
    const uint32_t result = OsTmrCreate(param, &created);
    if (result != 0 || created == 0) {
        handle.store(0);
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "OsTmrCreate fail! ret:%d",
                      result);
        return false;
    }
    uint32_t starting = kStarting;
    handle.compare_exchange_strong(starting, created);
    return true;
}

/* Replaces what a timer delivers; false when there is no memory for the data, of which then none is
 * delivered. */
bool storeContent(const char *function, const TimerContent &content, uint32_t param,
                  const void *data, uint32_t dataLength) {
    if (data == nullptr || dataLength == 0) {
        replaceContent(content, param, nullptr, dataLength);
        return true;
    }
    auto copy = takeBlock<void>(dataLength, kUnit);
    if (copy == nullptr) {
        replaceContent(content, param, nullptr, dataLength);
        return false;
    }
    const int error = memcpy_s(copy.get(), dataLength, data, dataLength);
    if (error != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "conf secure func failed, err = %d!\n", error);
    }
    replaceContent(content, param, copy.release(), dataLength);
    return true;
}

/* Deletes the platform's timer and releases the data. On the workstation no expiry of this timer runs
 * once the deletion has returned. */
void endTimer(const RunningTimer &timer) {
    const uint32_t handle = timer.handle.exchange(0);
    if (handle != 0) {
        OsTmrDelete(handle);
    }
    releaseContent(timer.content);
}

/* The expiry of a table timer. */
void ConfCommTimerOut(OsTmrCreateParam *record) {
    if (record == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    ConfCommTimerEntry *entry = findEntry(__func__, static_cast<uint32_t>(record->key));
    if (entry == nullptr) {
        return;
    }
    const ContentReader content(runningTimer(entry).content);
    if (ConfCommMsgAsynSend(entry->receiver, entry->handler, content.param(), content.data(),
                            content.dataLength()) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfCommTimerIDOut send msg fail");
    }
}

/* The expiry of a timer object. */
void ConfCommTimerIDOut(OsTmrCreateParam *record) {
    if (record == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    ConfTimer *timer = nullptr;
    const int error = memcpy_s(&timer, sizeof(timer), &record->key, sizeof(record->key));
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
    }
    if (timer == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "timer is NULL");
        return;
    }
    const RunningTimer running = runningTimer(timer);
    {
        const ContentReader content(running.content);
        const uint32_t result = ConfCommMsgAsynSend(timer->receiver, timer->handler,
                                                    content.param(), content.data(),
                                                    content.dataLength());
        if (result != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfCommTimerIDOut send msg fail! ret:%x", result);
        }
    }
    /* The last access: an owner that sees the object stopped may end it. */
    if (timer->mode == CONF_TIMER_ONE_SHOT) {
        running.handle.store(0);
    }
}

}  // namespace

uint32_t ConfCommTimerFuncInit(ConfCommTimerEntry *table, int32_t count) {
    return table == nullptr ? 1 : ConfCommTimerInit(table, count);
}

uint32_t ConfCommTimerInit(ConfCommTimerEntry *table, int32_t count) {
    const uint32_t result = OsMutexInit(&timerMutex, nullptr);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "OsSemInit fail! ret:%d", result);
        return 1;
    }
    if (table == nullptr) {
        return 1;
    }
    const bool started = InitTimer() == 0;
    timerCount.store(count);
    timerTable.store(table);
    return started ? 0 : 1;
}

void ConfCommTimerFuncDeInit(void) { ConfCommTimerDeInit(); }

void ConfCommTimerDeInit(void) {
    OsMutexDestroy(&timerMutex);
    ConfCommTimerEntry *table = timerTable.load();
    const int32_t count = table == nullptr ? 0 : timerCount.load();
    for (int32_t i = 0; i < count; i++) {
        endTimer(runningTimer(table + i));
    }
}

uint32_t ConfCommTimerStart(uint32_t timerId, uint32_t param, const void *data,
                            uint32_t dataLength) {
    return ConfCommTimerStartEx(timerId, 0, param, data, dataLength);
}

uint32_t ConfCommTimerStartEx(uint32_t timerId, uint32_t durationMs, uint32_t param,
                              const void *data, uint32_t dataLength) {
    ConfCommTimerEntry *entry = findEntry(__func__, timerId);
    if (entry == nullptr) {
        return 1;
    }
    const TimerLock lock;
    const RunningTimer running = runningTimer(entry);
    if (running.handle.load() == 0) {
        OsTmrCreateParam create = {};
        create.key = timerId;
        create.kind = kTableKind;
        create.expiry = ConfCommTimerOut;
        const uint32_t duration = durationMs == 0 ? entry->defaultDuration : durationMs;
        if (!createTimer(__func__, &create, entry->receiver, duration, entry->mode,
                         running.handle)) {
            return 1;
        }
    }
    return storeContent(__func__, running.content, param, data, dataLength) ? 0 : 1;
}

uint32_t ConfCommTimerStop(uint32_t timerId) {
    ConfCommTimerEntry *entry = findEntry(__func__, timerId);
    if (entry == nullptr) {
        return 1;
    }
    const TimerLock lock;
    endTimer(runningTimer(entry));
    return 0;
}

uint32_t ConfCommTimerFree(uint32_t timerId) { return ConfCommTimerStop(timerId); }

uint32_t ConfTimerInit(ConfTimer *timer, uint32_t timerId, uint32_t mode, const char *receiver,
                       ConfMsgHandler handler) {
    if (timer == nullptr || receiver == nullptr || handler == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    timer->timerId = timerId;
    timer->mode = mode;
    timer->receiver = receiver;
    timer->handler = handler;
    return 0;
}

bool ConfTimerIsVaild(ConfTimer *timer) {
    if (timer == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return false;
    }
    return runningTimer(timer).handle.load() != 0;
}

uint32_t ConfTimerStart(ConfTimer *timer, uint32_t durationMs, uint32_t param, const void *data,
                        uint32_t dataLength) {
    if (timer == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    const TimerLock lock;
    const RunningTimer running = runningTimer(timer);
    if (running.handle.load() == 0) {
        OsTmrCreateParam create = {};
        const int error = memcpy_s(&create.key, sizeof(create.key), &timer, sizeof(timer));
        if (error != 0) {
            CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
        }
        create.kind = kObjectKind;
        create.expiry = ConfCommTimerIDOut;
        if (!createTimer(__func__, &create, timer->receiver, durationMs, timer->mode,
                         running.handle)) {
            return 1;
        }
    }
    if (!storeContent(__func__, running.content, param, data, dataLength)) {
        CONF_LOG(CONF_LOG_ERROR,
                 "TAMO_CONF_LOG_ERROR: CONF_MALLOC failed, timer->data is NULL!");
        return 1;
    }
    return 0;
}

uint32_t ConfTimerStop(ConfTimer *timer) {
    if (timer == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    const TimerLock lock;
    endTimer(runningTimer(timer));
    return 0;
}

uint32_t ConfTimerFree(ConfTimer *timer) { return ConfTimerStop(timer); }

void ConfBasicGetSysTime(ConfSysTime *out) {
    if (out == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    OsTimeEx now = {};
    OsGetTimeEx(&now);
    out->year = static_cast<uint16_t>(now.year + 1900);
    out->month = static_cast<uint8_t>(now.month + 1);
    out->day = static_cast<uint8_t>(now.day);
    out->hour = static_cast<uint8_t>(now.hours);
    out->minute = static_cast<uint8_t>(now.minutes);
    out->second = static_cast<uint8_t>(now.seconds);
    out->millisecond = static_cast<uint16_t>(now.milliseconds);
}

uint32_t ConfGetSysTimeSec(void) { return OsGetSysTimeSec(); }
