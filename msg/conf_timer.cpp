/* Timers: the service's start and end, table timers, and the system time. */
#include "include/conf_timer.h"

#include <atomic>

#include "common/log.h"
#include "msg/conf_timer_start.h"
#include "platform/tamo_os_signal.h"
#include "platform/tamo_os_time.h"

namespace {

constexpr const char *kUnit = kTimerUnit;
constexpr uint32_t kTickUs = 10000;
constexpr uint32_t kTableKind = 1;
constexpr int32_t kBlockedSignals[] = {18, 16};

std::atomic<ConfCommTimerEntry *> timerTable{nullptr};
std::atomic<int32_t> timerCount{0};

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

void deliver(const char *function, ConfCommTimerEntry *entry) {
    const ContentReader content(runningTimer(entry).content);
    if (sendExpiry(content, entry->receiver, entry->handler) != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "ConfCommTimerIDOut send msg fail");
    }
}

/* The expiry of a table timer. */
void ConfCommTimerOut(OsTmrCreateParam *record) {
    if (record == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    ConfCommTimerEntry *entry = findEntry(__func__, static_cast<uint32_t>(record->key));
    uint32_t handle = 0;
    if (entry != nullptr && !isLeftToStart(runningTimer(entry), &handle)) {
        deliver(__func__, entry);
    }
}

/* A start up to what it delivers itself; `fired` says whether it does. */
uint32_t startEntry(ConfCommTimerEntry *entry, uint32_t durationMs, const TimerStart &start,
                    bool *fired) {
    const TimerLock lock;
    const RunningTimer running = runningTimer(entry);
    uint32_t created = 0;
    if (beginStart(running)) {
        OsTmrCreateParam create = {};
        nameReceiver(start.function, &create, entry->receiver);
        create.key = entry->timerId;
        create.kind = kTableKind;
        create.expiry = ConfCommTimerOut;
        const uint32_t duration = durationMs == 0 ? entry->defaultDuration : durationMs;
        created = createTimer(running, start.function, &create, duration, entry->mode);
        if (created == 0) {
            return 1;
        }
    }
    const bool stored = storeContent(running, start);
    *fired = created != 0 && finishStart(running, created, created);
    return stored ? 0 : 1;
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

void ConfCommTimerFuncDeInit(void) {
    ConfCommTimerDeInit();
}

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
    bool fired = false;
    const uint32_t result =
        startEntry(entry, durationMs, {__func__, param, data, dataLength}, &fired);
    if (fired) {
        deliver(__func__, entry);
    }
    return result;
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

uint32_t ConfCommTimerFree(uint32_t timerId) {
    return ConfCommTimerStop(timerId);
}

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

uint32_t ConfGetSysTimeSec(void) {
    return OsGetSysTimeSec();
}
