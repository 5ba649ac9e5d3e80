/* The steps of a start, a stop and an expiry: see conf_timer_start.h. */
#include "msg/conf_timer_start.h"

#include "common/log.h"
#include "common/platform_block.h"
#include "include/conf_msg_api.h"
#include "platform/bounds_checked.h"

OsMutex timerMutex = {};

namespace {

constexpr uint32_t kTickMs = 10;

/* What a handle says while its timer is being started; no platform timer has these. */
constexpr uint32_t kStarting = 0xFFFFFFFF;
constexpr uint32_t kFiredAtStart = 0xFFFFFFFE;

void logCopyFailure(const char *function, int error) {
    ConfLogPrintf(CONF_LOG_ERROR, function, kTimerUnit, __LINE__,
                  "conf secure func failed, err = %d!\n", error);
}

}  // namespace

bool beginStart(const RunningTimer &timer) {
    return takeFired(timer, 0);
}

bool takeFired(const RunningTimer &timer, uint32_t fired) {
    return timer.handle.compare_exchange_strong(fired, kStarting);
}

void nameReceiver(const char *function, OsTmrCreateParam *create, const char *receiver) {
    const int error = strcpy_s(create->receiver, sizeof(create->receiver), receiver);
    if (error != 0) {
        logCopyFailure(function, error);
    }
}

uint32_t createTimer(const RunningTimer &timer, const char *function, OsTmrCreateParam *create,
                     uint32_t durationMs, uint32_t mode) {
    create->ticks = durationMs / kTickMs;
    create->periodic = mode == CONF_TIMER_ONE_SHOT ? 0 : 1;
    uint32_t created = 0;
    const uint32_t result = OsTmrCreate(create, &created);
    if (result != 0 || created == 0) {
        timer.handle.store(0);
        ConfLogPrintf(CONF_LOG_ERROR, function, kTimerUnit, __LINE__, "OsTmrCreate fail! ret:%d",
                      result);
        return 0;
    }
    return created;
}

bool storeContent(const RunningTimer &timer, const TimerStart &start) {
    if (start.data == nullptr || start.dataLength == 0) {
        replaceContent(timer.content, start.param, nullptr, start.dataLength);
        return true;
    }
    auto copy = takeBlock<void>(start.dataLength, kTimerUnit);
    if (copy == nullptr) {
        replaceContent(timer.content, start.param, nullptr, start.dataLength);
        return false;
    }
    const int error = memcpy_s(copy.get(), start.dataLength, start.data, start.dataLength);
    if (error != 0) {
        logCopyFailure(start.function, error);
    }
    replaceContent(timer.content, start.param, copy.release(), start.dataLength);
    return true;
}

bool finishStart(const RunningTimer &timer, uint32_t created, uint32_t handleAfterExpiry) {
    uint32_t seen = kStarting;
    if (timer.handle.compare_exchange_strong(seen, created)) {
        return false;
    }
    if (seen == kFiredAtStart && timer.handle.compare_exchange_strong(seen, handleAfterExpiry)) {
        return true;
    }
    OsTmrDelete(created); /* the service has ended meanwhile */
    return false;
}

void endTimer(const RunningTimer &timer) {
    const uint32_t handle = timer.handle.exchange(0);
    if (handle != 0 && handle != kStarting && handle != kFiredAtStart) {
        OsTmrDelete(handle);
    }
    releaseContent(timer.content);
}

bool isLeftToStart(const RunningTimer &timer, uint32_t *handle) {
    *handle = kStarting;
    return timer.handle.compare_exchange_strong(*handle, kFiredAtStart) || *handle == kFiredAtStart;
}

uint32_t sendExpiry(const ContentReader &content, const char *receiver, ConfMsgHandler handler) {
    return ConfCommMsgAsynSend(receiver, handler, content.param(), content.data(),
                               content.dataLength());
}
