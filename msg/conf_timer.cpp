/* Timers: the service's start and end, table timers, timer objects, and the system time.
 *
 * How it works. A start has the platform create a timer whose key leads back to the table entry or to the
 * object. The expiry, on the timer manager's thread, sends what the entry or the object then holds.
 *
 * Starts and stops take turns by the timer mutex, which is the platform's. An expiry never takes it: it
 * is held while the platform allocates memory, and while a deletion waits for the running expiry to end.
 * What expiries share with starts and stops is guarded by `stateMutex`: the changing fields of all
 * timers, and the lists of the starts and expiries under way. It is held for a few loads and
 * stores in which nothing is called, so that no thread waits for another's work under it.
 *
 * A start or a stop may meet an expiry:
 * - An expiry during a start is left to the start, which delivers the new content when it is complete.
 *   So one start of a one-shot timer is one message, wherever the expiry falls, and an expiry that is
 *   faster than its start waits for the content.
 * - A block of data that is replaced or taken while an expiry sends it is released by that expiry.
 * - A one-shot object counts as running until its message is out. Its receiver may have it started again
 *   before that: a start that meets the object's last expiry has another timer created.
 * So nobody waits for an expiry but a deletion, which does not wait when the expiry itself makes it. */
#include "include/conf_timer.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "common/log.h"
#include "common/platform_block.h"
#include "include/conf_msg_api.h"
#include "msg/conf_timer_table.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_os_lock.h"
#include "platform/tamo_os_signal.h"
#include "platform/tamo_os_time.h"
#include "platform/tamo_os_timer.h"

namespace {

constexpr char kUnit[] = "conf_timer";
constexpr uint32_t kTickMs = 10;

/* What the records for the platform say of the two kinds of timers. */
constexpr uint32_t kTableKind = 1;
constexpr uint32_t kObjectKind = 8;

OsMutex timerMutex = {};
constinit std::mutex stateMutex;

using StateLock = std::lock_guard<std::mutex>;

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

void logCopyFailure(const char *function, int error) {
    ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "conf secure func failed, err = %d!\n",
                  error);
}

/* Handles change under stateMutex, and are read without it too. */
uint32_t handleOf(uint32_t *timer) {
    return std::atomic_ref<uint32_t>(*timer).load(std::memory_order_acquire);
}

void setHandle(uint32_t *timer, uint32_t handle) {
    std::atomic_ref<uint32_t>(*timer).store(handle, std::memory_order_release);
}

void releaseBlock(void *block, uint32_t line = __builtin_LINE()) {
    if (block != nullptr) {
        OSMemTypeFreeMon(block, 0, 0, line, kUnit);
    }
}

/* ---- what is under way: under stateMutex ---- */

/* Records on the stacks of the threads that work on timers. */
template <typename Record>
class List {
  public:
    void add(Record *record) {
        record->next = first_;
        first_ = record;
    }
    void remove(const Record *record) {
        Record **link = &first_;
        while (*link != record) {
            link = &(*link)->next;
        }
        *link = record->next;
    }
    Record *first() const { return first_; }

  private:
    Record *first_ = nullptr;
};

/* A start; the address of its handle tells a timer from all others. */
struct StartUnderWay {
    const uint32_t *timer;
    uint32_t expiries = 0; /* that were left to it */
    bool ended = false;    /* the service has ended meanwhile */
    StartUnderWay *next = nullptr;
};

/* An expiry: what it sends, as of its begin. */
struct ExpiryUnderWay {
    uint32_t *timer = nullptr; /* null: it has not begun */
    uint32_t handle = 0;
    bool isLast = false; /* of a one-shot object */
    const char *receiver = nullptr;
    ConfMsgHandler handler = nullptr;
    uint32_t param = 0, dataLength = 0;
    void *data = nullptr;
    bool releasesData = false;
    ExpiryUnderWay *next = nullptr;
};

constinit List<StartUnderWay> starts;
constinit List<ExpiryUnderWay> expiries;

StartUnderWay *findStart(const uint32_t *timer) {
    StartUnderWay *start = starts.first();
    while (start != nullptr && start->timer != timer) {
        start = start->next;
    }
    return start;
}

/* Whether a running timer fires for the last time at this moment. */
bool firesLast(const uint32_t *timer) {
    for (const ExpiryUnderWay *each = expiries.first(); each != nullptr; each = each->next) {
        if (each->timer == timer && each->isLast && each->handle == *timer) {
            return true;
        }
    }
    return false;
}

/* A block that no timer holds any more, for its release; null when an expiry sends and releases it. */
void *unlessSent(void *block) {
    for (ExpiryUnderWay *each = expiries.first(); each != nullptr; each = each->next) {
        if (each->data == block) {
            each->releasesData = true;
            return nullptr;
        }
    }
    return block;
}

/* ---- expiries ---- */

bool firesOnce(const ConfTimer &object) {
    return object.mode == CONF_TIMER_ONE_SHOT;
}

/* A table timer that has fired stays marked as running until it is stopped. */
bool firesOnce(const ConfCommTimerEntry &) {
    return false;
}

/* Under stateMutex. */
template <typename Timer>
void beginExpiry(Timer *timer, ExpiryUnderWay *expiry) {
    *expiry = {.timer = &timer->handle,
               .handle = timer->handle,
               .isLast = firesOnce(*timer),
               .receiver = timer->receiver,
               .handler = timer->handler,
               .param = timer->param,
               .dataLength = timer->dataLength,
               .data = timer->data};
    expiries.add(expiry);
}

/* The last access to an object: an owner that finds it stopped may end it. A start or a stop that came in
 * between has left another handle. */
void endExpiry(ExpiryUnderWay *expiry) {
    void *released;
    {
        const StateLock lock(stateMutex);
        expiries.remove(expiry);
        released = expiry->releasesData ? unlessSent(expiry->data) : nullptr;
        if (expiry->isLast && *expiry->timer == expiry->handle) {
            setHandle(expiry->timer, 0);
        }
    }
    releaseBlock(released);
}

uint32_t send(const ExpiryUnderWay &expiry) {
    return ConfCommMsgAsynSend(expiry.receiver, expiry.handler, expiry.param, expiry.data,
                               expiry.dataLength);
}

void deliver(const ConfCommTimerEntry *, const ExpiryUnderWay &expiry) {
    if (send(expiry) != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, "ConfCommTimerOut", kUnit, __LINE__,
                      "ConfCommTimerIDOut send msg fail");
    }
}

void deliver(const ConfTimer *, const ExpiryUnderWay &expiry) {
    const uint32_t result = send(expiry);
    if (result != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, "ConfCommTimerIDOut", kUnit, __LINE__,
                      "ConfCommTimerIDOut send msg fail! ret:%x", result);
    }
}

template <typename Timer>
void expire(Timer *timer) {
    ExpiryUnderWay expiry;
    {
        const StateLock lock(stateMutex);
        StartUnderWay *start = findStart(&timer->handle);
        if (start != nullptr) {
            start->expiries++;
            return;
        }
        beginExpiry(timer, &expiry);
    }
    deliver(timer, expiry);
    endExpiry(&expiry);
}

/* ---- the expiry functions ---- */

/* Null, with a log record, for an id that is not in the table. */
ConfCommTimerEntry *findEntry(const char *function, uint32_t timerId) {
    ConfCommTimerEntry *entry = findTimerEntry(timerId);
    if (entry == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "timerId:%d invalid", timerId);
    }
    return entry;
}

void ConfCommTimerOut(OsTmrCreateParam *record) {
    if (record == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    ConfCommTimerEntry *entry = findEntry(__func__, static_cast<uint32_t>(record->key));
    if (entry != nullptr) {
        expire(entry);
    }
}

void ConfCommTimerIDOut(OsTmrCreateParam *record) {
    if (record == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    ConfTimer *object = nullptr;
    const int error = memcpy_s(&object, sizeof(object), &record->key, sizeof(record->key));
    if (error != 0) {
        logCopyFailure(__func__, error);
    }
    if (object == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "timer is NULL");
        return;
    }
    expire(object);
}

/* ---- start and stop: under the timer mutex ---- */

/* What a start is asked for, and the function name of its log records. */
struct StartRequest {
    const char *function;
    uint32_t durationMs;
    uint32_t param;
    const void *data;
    uint32_t dataLength;
};

void identify(const StartRequest &, const ConfCommTimerEntry *entry, OsTmrCreateParam *create) {
    create->key = entry->timerId;
    create->kind = kTableKind;
    create->expiry = ConfCommTimerOut;
}

void identify(const StartRequest &request, const ConfTimer *object, OsTmrCreateParam *create) {
    const int error = memcpy_s(&create->key, sizeof(create->key), &object, sizeof(object));
    if (error != 0) {
        logCopyFailure(request.function, error);
    }
    create->kind = kObjectKind;
    create->expiry = ConfCommTimerIDOut;
}

/* Has the platform create a timer; 0, with a log record, when there is none. */
template <typename Timer>
uint32_t createTimer(const StartRequest &request, const Timer *timer) {
    OsTmrCreateParam create = {};
    const int error = strcpy_s(create.receiver, sizeof(create.receiver), timer->receiver);
    if (error != 0) {
        logCopyFailure(request.function, error);
    }
    identify(request, timer, &create);
    create.ticks = request.durationMs / kTickMs;
    create.periodic = timer->mode == CONF_TIMER_ONE_SHOT ? 0 : 1;
    uint32_t handle = 0;
    const uint32_t result = OsTmrCreate(&create, &handle);
    if (result != 0 || handle == 0) {
        ConfLogPrintf(CONF_LOG_ERROR, request.function, kUnit, __LINE__, "OsTmrCreate fail! ret:%d",
                      result);
        return 0;
    }
    return handle;
}

void logNoMemory(const StartRequest &, const ConfCommTimerEntry *) {}

void logNoMemory(const StartRequest &request, const ConfTimer *) {
    ConfLogPrintf(CONF_LOG_ERROR, request.function, kUnit, __LINE__,
                  "TAMO_CONF_LOG_ERROR: CONF_MALLOC failed, timer->data is NULL!");
}

/* Stores a copy of the data, or null when there is none; false without memory for it. */
template <typename Timer>
bool copyData(const StartRequest &request, const Timer *timer, void **copy) {
    *copy = nullptr;
    if (request.data == nullptr || request.dataLength == 0) {
        return true;
    }
    auto block = takeBlock<void>(request.dataLength, kUnit);
    if (block == nullptr) {
        logNoMemory(request, timer);
        return false;
    }
    const int error = memcpy_s(block.get(), request.dataLength, request.data, request.dataLength);
    if (error != 0) {
        logCopyFailure(request.function, error);
    }
    *copy = block.release();
    return true;
}

/* Deletes the platform's timer and releases the data. The deletion waits for a running expiry, so that
 * this timer delivers nothing afterwards. */
template <typename Timer>
void endTimer(Timer *timer) {
    const uint32_t handle = handleOf(&timer->handle);
    if (handle != 0) {
        OsTmrDelete(handle);
    }
    void *released;
    {
        const StateLock lock(stateMutex);
        StartUnderWay *start = findStart(&timer->handle);
        if (start != nullptr) {
            start->ended = true;
        }
        setHandle(&timer->handle, 0);
        released = unlessSent(std::exchange(timer->data, nullptr));
    }
    releaseBlock(released);
}

/* Begins a start; true when it needs a timer of the platform's. */
bool beginStart(StartUnderWay *start) {
    const StateLock lock(stateMutex);
    starts.add(start);
    return *start->timer == 0 || firesLast(start->timer);
}

void abandonStart(const StartUnderWay *start) {
    const StateLock lock(stateMutex);
    starts.remove(start);
}

/* Ends a start: stores what the timer delivers from now on and, unless it is 0, its new handle. Expiries
 * that were left to the start begin here. */
template <typename Timer>
void finishStart(const StartRequest &request, const StartUnderWay &start, Timer *timer,
                 uint32_t created, void *copy, ExpiryUnderWay *expiry) {
    void *released;
    {
        const StateLock lock(stateMutex);
        starts.remove(&start);
        if (created != 0) {
            setHandle(&timer->handle, created);
        }
        timer->param = request.param;
        timer->dataLength = request.dataLength;
        released = unlessSent(std::exchange(timer->data, copy));
        if (start.expiries != 0 && !start.ended) {
            beginExpiry(timer, expiry);
        }
    }
    releaseBlock(released);
    if (start.ended) {
        endTimer(timer);
    }
}

/* A start up to the expiries that were left to it. */
template <typename Timer>
bool startUnderLock(const StartRequest &request, StartUnderWay *start, Timer *timer,
                    ExpiryUnderWay *expiry) {
    const TimerLock lock;
    uint32_t created = 0;
    if (beginStart(start)) {
        created = createTimer(request, timer);
        if (created == 0) {
            abandonStart(start);
            return false;
        }
    }
    void *copy;
    const bool copied = copyData(request, timer, &copy);
    finishStart(request, *start, timer, created, copy, expiry);
    return copied;
}

/* 0, or 1. */
template <typename Timer>
uint32_t startTimer(const StartRequest &request, Timer *timer) {
    StartUnderWay start = {.timer = &timer->handle};
    ExpiryUnderWay expiry;
    const bool started = startUnderLock(request, &start, timer, &expiry);
    if (expiry.timer != nullptr) {
        for (uint32_t i = 0; i < start.expiries; i++) {
            deliver(timer, expiry);
        }
        endExpiry(&expiry);
    }
    return started ? 0 : 1;
}

/* ---- the service ---- */

/* Blocks the signals that would interrupt the caller, and starts the timer manager. */
bool initTimer() {
    OsSigSet set = {};
    OsSigSet oldSet = {};
    const auto succeeds = [](uint32_t result, const char *format) {
        if (result != 0) {
            ConfLogPrintf(CONF_LOG_ERROR, "InitTimer", kUnit, __LINE__, format, result);
        }
        return result == 0;
    };
    return succeeds(OsSigEmptySet(&set), "SigEmptySet fail:%d") &&
           succeeds(OsSigAddSet(&set, 18), "OsSigAddSet fail:%d") &&
           succeeds(OsSigAddSet(&set, 16), "OsSigAddSet fail:%d") &&
           succeeds(OsPthreadSigmask(0, &set, &oldSet), "OsPthreadSigmask fail:%d") &&
           succeeds(OsTmrManagerInit(0, kTickMs * 1000, 0), "Init 10ms tiemr failed:%d");
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
    const bool started = initTimer();
    keepTimerTable({table, count});
    return started ? 0 : 1;
}

void ConfCommTimerFuncDeInit(void) {
    ConfCommTimerDeInit();
}

void ConfCommTimerDeInit(void) {
    OsMutexDestroy(&timerMutex);
    const TimerTable table = timerTable();
    for (int32_t i = 0; i < table.count; i++) {
        endTimer(table.entries + i);
    }
}

/* ---- table timers ---- */

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
    const uint32_t duration = durationMs == 0 ? entry->defaultDuration : durationMs;
    const StartRequest request = {__func__, duration, param, data, dataLength};
    return startTimer(request, entry);
}

uint32_t ConfCommTimerStop(uint32_t timerId) {
    ConfCommTimerEntry *entry = findEntry(__func__, timerId);
    if (entry == nullptr) {
        return 1;
    }
    const TimerLock lock;
    endTimer(entry);
    return 0;
}

uint32_t ConfCommTimerFree(uint32_t timerId) {
    return ConfCommTimerStop(timerId);
}

/* ---- timer objects ---- */

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
    return handleOf(&timer->handle) != 0;
}

uint32_t ConfTimerStart(ConfTimer *timer, uint32_t durationMs, uint32_t param, const void *data,
                        uint32_t dataLength) {
    if (timer == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    return startTimer({__func__, durationMs, param, data, dataLength}, timer);
}

uint32_t ConfTimerStop(ConfTimer *timer) {
    if (timer == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    const TimerLock lock;
    endTimer(timer);
    return 0;
}

uint32_t ConfTimerFree(ConfTimer *timer) {
    return ConfTimerStop(timer);
}

/* ---- the system time ---- */

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
