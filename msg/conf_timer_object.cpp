/* Timer objects.
 *
 * A one-shot object counts as running until its message is out. The message's receiver may have the
 * object started again before that: such a start would only replace what no expiry delivers any more.
 * So the expiry says beforehand which object fires for the last time, and a start that meets it
 * creates the next timer at once. */
#include <atomic>

#include "common/log.h"
#include "include/conf_timer.h"
#include "msg/conf_timer_start.h"
#include "platform/bounds_checked.h"

namespace {

constexpr const char *kUnit = kTimerUnit;
constexpr uint32_t kObjectKind = 8;

/* Handles of one-shot objects whose expiries run; 0: a free place. More expiries than that at once go
 * unannounced. */
std::atomic<uint32_t> lastExpiries[16];

/* Announces the last expiry of a timer, unless that was stopped, until the end of the scope. */
class LastExpiry {
  public:
    explicit LastExpiry(uint32_t handle) {
        for (std::atomic<uint32_t> &place : lastExpiries) {
            uint32_t free = 0;
            if (handle != 0 && place.compare_exchange_strong(free, handle)) {
                place_ = &place;
                return;
            }
        }
    }
    ~LastExpiry() {
        if (place_ != nullptr) {
            place_->store(0);
        }
    }
    LastExpiry(const LastExpiry &) = delete;
    LastExpiry &operator=(const LastExpiry &) = delete;

  private:
    std::atomic<uint32_t> *place_ = nullptr;
};

/* Takes a timer for a start whose last expiry is under way or over; false when it runs on. */
bool beginStartAfterExpiry(const RunningTimer &running) {
    const uint32_t handle = running.handle.load();
    for (const std::atomic<uint32_t> &place : lastExpiries) {
        if (handle != 0 && place.load() == handle && takeFired(running, handle)) {
            return true;
        }
    }
    return beginStart(running);
}

void deliver(const char *function, ConfTimer *timer) {
    const ContentReader content(runningTimer(timer).content);
    const uint32_t result = sendExpiry(content, timer->receiver, timer->handler);
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
    uint32_t fired = 0;
    if (isLeftToStart(running, &fired)) {
        return;
    }
    if (timer->mode != CONF_TIMER_ONE_SHOT) {
        deliver(__func__, timer);
        return;
    }
    const LastExpiry lastExpiry(fired);
    deliver(__func__, timer);
    /* The last access: an owner that sees the object stopped may end it. A start or a stop that came
     * in between has left another handle. */
    running.handle.compare_exchange_strong(fired, 0);
}

/* 0, with a record, when there is no timer. */
uint32_t createObjectTimer(const char *function, ConfTimer *timer, uint32_t durationMs) {
    OsTmrCreateParam create = {};
    nameReceiver(function, &create, timer->receiver);
    const int error = memcpy_s(&create.key, sizeof(create.key), &timer, sizeof(timer));
    if (error != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "conf secure func failed, err = %d!\n", error);
    }
    create.kind = kObjectKind;
    create.expiry = ConfCommTimerIDOut;
    return createTimer(runningTimer(timer), function, &create, durationMs, timer->mode);
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
    if (!begun && beginStartAfterExpiry(running)) {
        /* The running timer fires, or has fired, for the last time: the new content needs another. */
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
        deliver(__func__, timer);
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
