/* Timer objects. */
#include "common/log.h"
#include "include/conf_timer.h"
#include "msg/conf_timer_start.h"
#include "platform/bounds_checked.h"

namespace {

constexpr const char *kUnit = kTimerUnit;
constexpr uint32_t kObjectKind = 8;

void deliver(const char *function, const ContentReader &content, const char *receiver,
             ConfMsgHandler handler) {
    const uint32_t result = sendExpiry(content, receiver, handler);
    if (result != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "ConfCommTimerIDOut send msg fail! ret:%x", result);
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
    if (isLeftToStart(running)) {
        return;
    }
    const ContentReader content(running.content);
    const char *receiver = timer->receiver;
    const ConfMsgHandler handler = timer->handler;
    /* Before the message goes, whose receiver may have the object started again. The last access: an
     * owner that sees the object stopped may end it. */
    if (timer->mode == CONF_TIMER_ONE_SHOT) {
        running.handle.store(0);
    }
    deliver(__func__, content, receiver, handler);
}

/* 0, with a record, when there is no timer. */
uint32_t createObjectTimer(const char *function, ConfTimer *timer, uint32_t durationMs) {
    OsTmrCreateParam create = {};
    const int error = memcpy_s(&create.key, sizeof(create.key), &timer, sizeof(timer));
    if (error != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "conf secure func failed, err = %d!\n", error);
    }
    create.kind = kObjectKind;
    create.expiry = ConfCommTimerIDOut;
    return createTimer(runningTimer(timer), function, &create, timer->receiver, durationMs,
                       timer->mode);
}

/* A start up to what it delivers itself; `fired` says whether it does. */
uint32_t startObject(ConfTimer *timer, uint32_t durationMs, const TimerStart &start, bool *fired) {
    const TimerLock lock;
    const RunningTimer running = runningTimer(timer);
    bool begun = beginStart(running);
    uint32_t created = begun ? createObjectTimer(start.function, timer, durationMs) : 0;
    if (begun && created == 0) {
        return 1;
    }
    const bool stored = storeContent(running, start);
    if (!stored) {
        ConfLogPrintf(CONF_LOG_ERROR, start.function, kUnit, __LINE__,
                      "TAMO_CONF_LOG_ERROR: CONF_MALLOC failed, timer->data is NULL!");
    }
    if (!begun && beginStart(running)) {
        /* The running timer has fired meanwhile, for the last time: the new content needs another. */
        begun = true;
        created = createObjectTimer(start.function, timer, durationMs);
    }
    const uint32_t afterExpiry = timer->mode == CONF_TIMER_ONE_SHOT ? 0 : created;
    *fired = created != 0 && finishStart(running, created, afterExpiry);
    return stored && (!begun || created != 0) ? 0 : 1;
}

}  // namespace

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
    bool fired = false;
    const uint32_t result =
        startObject(timer, durationMs, {__func__, param, data, dataLength}, &fired);
    if (fired) {
        deliver(__func__, ContentReader(runningTimer(timer).content), timer->receiver,
                timer->handler);
    }
    return result;
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

uint32_t ConfTimerFree(ConfTimer *timer) {
    return ConfTimerStop(timer);
}
