/* The timer manager: one thread that sleeps in a read of a kernel timer until the first tick at which a
 * timer is due. The timers lie in a table (timer_table.h).
 *
 * - Tick k lies k tick lengths after the manager's start, on the monotonic clock. A timer is due n tick
 *   lengths after its creation and expires with the first tick that is not earlier. Due times are kept
 *   as nanoseconds, so that only the thread needs to know ticks.
 * - The kernel timer is set only when the thread goes to sleep, and when a timer is created that is due
 *   before all others. A deletion leaves it: at worst the thread wakes once for nothing.
 * - The lock is not held while an expiry function runs. A one-shot timer stays known until its expiry
 *   has ended, so that its deletion finds it and waits.
 * - A child of fork has no manager and no timers: it starts its own, and its parent's handles are
 *   refused. */
#include "platform/tamo_os_timer.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "host/base/clock.h"
#include "host/base/fork.h"
#include "host/base/log.h"
#include "host/base/thread.h"
#include "host/timers/timer_table.h"

namespace tamo::timers {
namespace {

constexpr char kUnit[] = "tamo_os_timer";
constexpr uint64_t kNever = UINT64_MAX;
/* A periodic timer makes up for expiries that it missed, unless it is further behind than this: a
 * process that stood still in a debugger is not flooded. */
constexpr uint64_t kTicksToMakeUp = 100;

/* All of it under the lock. */
struct Manager {
    bool started;
    uint32_t starts; /* tells a thread of before a fork from the current one */
    int alarm;       /* the kernel timer */
    uint64_t startNs, tickNs;
    uint64_t alarmNs;  /* the tick that the alarm is set to; 0 while the thread is awake */
    uint32_t expiring; /* handle of the timer whose expiry runs, or 0 */
    uint32_t waiting;  /* threads that wait for its end */
    TimerTable timers;
};

constinit Manager manager{};
pthread_mutex_t managerLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t expiryEnded = PTHREAD_COND_INITIALIZER;
thread_local bool isManagerThread;

class Locked {
  public:
    Locked() { pthread_mutex_lock(&managerLock); }
    ~Locked() { pthread_mutex_unlock(&managerLock); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;
};

/* The first tick that is not before `ns`, as a time. */
uint64_t tickFrom(uint64_t ns) {
    const uint64_t ticks = (ns - manager.startNs + manager.tickNs - 1) / manager.tickNs;
    return manager.startNs + ticks * manager.tickNs;
}

/* Has the alarm ring with the tick for a due time, at once when it has passed; 0, or the system's
 * error. */
int setAlarm(uint64_t due) {
    const uint64_t tick = tickFrom(due);
    itimerspec when = {};
    when.it_value.tv_sec = static_cast<time_t>(tick / kNsPerSecond);
    when.it_value.tv_nsec = static_cast<long>(tick % kNsPerSecond);
    if (timerfd_settime(manager.alarm, TFD_TIMER_ABSTIME, &when, nullptr) != 0) {
        return errno;
    }
    manager.alarmNs = tick;
    return 0;
}

/* ---- the thread ---- */

/* When a periodic timer is due after `due`; on its grid however late it is. */
uint64_t nextDue(uint64_t due, uint32_t ticks, uint64_t now) {
    const uint64_t period = (ticks == 0 ? 1 : ticks) * manager.tickNs;
    const uint64_t next = due + period;
    if (next + kTicksToMakeUp * manager.tickNs >= now) {
        return next;
    }
    return next + (now - next) / period * period;
}

/* Runs the expiry of the first timer, without the lock. */
void expireFirst(uint64_t now) {
    const uint32_t slot = manager.timers.queue[0].slot;
    OsTmrCreateParam record = manager.timers.slots[slot].param;
    const uint32_t handle = manager.timers.slots[slot].handle;
    const uint32_t start = manager.starts;
    if (record.periodic != 0) {
        queueTimer(&manager.timers, slot, nextDue(firstDue(manager.timers), record.ticks, now));
    } else {
        unqueueTimer(&manager.timers, slot);
    }
    manager.expiring = handle;
    pthread_mutex_unlock(&managerLock);

    record.expiry(&record);

    pthread_mutex_lock(&managerLock);
    if (manager.starts != start) {
        return;
    }
    manager.expiring = 0;
    if (record.periodic == 0) {
        const uint32_t ended = findTimer(manager.timers, handle);
        if (ended != kNoSlot) {
            removeTimer(&manager.timers, ended);
        }
    }
    if (manager.waiting != 0) {
        pthread_cond_broadcast(&expiryEnded);
    }
}

/* Runs what is due with the ticks until now. */
void expireDue(uint32_t start) {
    while (manager.starts == start) {
        const uint64_t now = monotonicNs();
        if (manager.timers.queued == 0 || tickFrom(firstDue(manager.timers)) > now) {
            return;
        }
        expireFirst(now);
    }
}

/* Sleeps until the alarm rings; false, with errno, when it never will. */
bool sleepUntilAlarm(int alarm) {
    uint64_t rings;
    ssize_t got;
    do {
        got = read(alarm, &rings, sizeof(rings));
    } while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(sizeof(rings));
}

void *runManager(void *) {
    isManagerThread = true;
    pthread_mutex_lock(&managerLock);
    const uint32_t start = manager.starts;
    const int alarm = manager.alarm;
    while (manager.starts == start) {
        manager.alarmNs = 0;
        expireDue(start);
        if (manager.starts != start) {
            break;
        }
        manager.alarmNs = kNever;
        if (manager.timers.queued != 0) {
            (void)setAlarm(firstDue(manager.timers)); /* a lost alarm shows when it is read */
        }
        pthread_mutex_unlock(&managerLock);
        const bool rang = sleepUntilAlarm(alarm);
        if (!rang) {
            hostRecord(kError, kUnit, __LINE__,
                       "the timers stand still, their descriptor cannot be read (%s): keep this "
                       "program from closing or reading descriptors that it did not open",
                       strerror(errno));
        }
        pthread_mutex_lock(&managerLock);
        if (!rang && manager.starts == start) {
            manager.started = false;
            break;
        }
    }
    pthread_mutex_unlock(&managerLock);
    return nullptr;
}

/* ---- start ---- */

void afterForkInChild() {
    isManagerThread = false;
    if (manager.started) {
        close(manager.alarm);
    }
    manager.started = false;
    manager.starts++;
    manager.expiring = 0;
    manager.waiting = 0;
    expiryEnded = PTHREAD_COND_INITIALIZER;
    pthread_mutex_unlock(&managerLock);
}

__attribute__((constructor)) void watchForks() {
    guardForks(ForkStage::kTimers, {[] { pthread_mutex_lock(&managerLock); },
                                    [] { pthread_mutex_unlock(&managerLock); }, afterForkInChild});
}

/* Under the lock; 0, or the system's error. */
int startManager(uint32_t tickMicroseconds) {
    manager.alarm = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    if (manager.alarm < 0) {
        return errno;
    }
    clearTimers(&manager.timers); /* those of before a fork */
    manager.startNs = monotonicNs();
    manager.tickNs = uint64_t{tickMicroseconds} * 1000;
    manager.alarmNs = 0;
    manager.starts++;
    const int error = startThread("tamo_timer", runManager, nullptr);
    if (error != 0) {
        close(manager.alarm);
        return error;
    }
    manager.started = true;
    return 0;
}

/* Under the lock; 0, or the system's error. */
int createTimer(const OsTmrCreateParam &param, uint32_t *handle) {
    if (!manager.started) {
        return ESRCH;
    }
    const uint32_t slot = addTimer(&manager.timers, param);
    if (slot == kNoSlot) {
        return ENOMEM;
    }
    *handle = manager.timers.slots[slot].handle;
    const uint64_t due = monotonicNs() + param.ticks * manager.tickNs;
    queueTimer(&manager.timers, slot, due);
    /* An earlier tick than the alarm's. */
    if (due + manager.tickNs <= manager.alarmNs) {
        const int error = setAlarm(due);
        if (error != 0) {
            removeTimer(&manager.timers, slot);
            return error;
        }
    }
    return 0;
}

}  // namespace
}  // namespace tamo::timers

using namespace tamo::timers;
using tamo::adviceOn;
using tamo::hostRecord;

uint32_t OsTmrManagerInit(uint32_t, uint32_t tickMicroseconds, uint32_t) {
    int error = EINVAL;
    if (tickMicroseconds != 0) {
        const Locked lock;
        error = manager.started ? 0 : startManager(tickMicroseconds);
    }
    if (error != 0) {
        hostRecord(tamo::kError, kUnit, __LINE__,
                   "the timer manager does not start with a tick of %u microseconds: %s%s",
                   tickMicroseconds, strerror(error), adviceOn(error));
    }
    return static_cast<uint32_t>(error);
}

uint32_t OsTmrCreate(OsTmrCreateParam *param, uint32_t *handle) {
    int error = EINVAL;
    if (param != nullptr && handle != nullptr && param->expiry != nullptr) {
        const Locked lock;
        error = createTimer(*param, handle);
    }
    if (error != 0) {
        const char *what = error == ESRCH ? "call OsTmrManagerInit first, also after a fork"
                           : error == EINVAL
                               ? "give it an expiry function and a place for its handle"
                               : strerror(error);
        hostRecord(tamo::kError, kUnit, __LINE__, "a timer is not created: %s%s", what,
                   adviceOn(error));
    }
    return static_cast<uint32_t>(error);
}

uint32_t OsTmrDelete(uint32_t handle) {
    const Locked lock;
    const uint32_t slot = manager.started ? findTimer(manager.timers, handle) : kNoSlot;
    if (slot != kNoSlot) {
        removeTimer(&manager.timers, slot);
    }
    /* No other timer gets this handle, so that this is the end of its last expiry. */
    while (manager.expiring == handle && handle != 0 && !isManagerThread) {
        manager.waiting++;
        pthread_cond_wait(&expiryEnded, &managerLock);
        manager.waiting--;
    }
    return slot == kNoSlot ? ENOENT : 0;
}
