/* The program exports these functions, so that they stand before the C library's. They make the system
 * calls themselves. There is one kernel timer, the manager's. */
#include "given_time.h"

#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace {

constexpr uint64_t kNsPerSecond = 1000000000;

std::atomic<uint64_t> now{1000 * kNsPerSecond};
std::atomic<int> alarmFile{-1};

std::mutex mutex;
/* Never destroyed: the timer manager's thread uses it until the process is gone. */
std::condition_variable &slept = *new std::condition_variable;
uint64_t alarmAt; /* 0: it is not set */
bool rung, asleep;

/* Under the mutex. */
void ringWhenDue() {
    if (alarmAt == 0 || alarmAt > now) {
        return;
    }
    alarmAt = 0;
    rung = true;
    const itimerspec atOnce = {{}, {0, 1}};
    syscall(SYS_timerfd_settime, alarmFile.load(), 0, &atOnce, nullptr);
}

}  // namespace

namespace support {

uint64_t givenNow() {
    return now;
}

void passTime(uint64_t nanoseconds) {
    const std::lock_guard lock(mutex);
    now += nanoseconds;
    ringWhenDue();
}

void awaitManager() {
    std::unique_lock lock(mutex);
    slept.wait(lock, [] { return asleep && !rung; });
}

}  // namespace support

extern "C" {

int clock_gettime(clockid_t clock, timespec *time) {
    if (clock != CLOCK_MONOTONIC) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    time->tv_sec = static_cast<time_t>(now / kNsPerSecond);
    time->tv_nsec = static_cast<long>(now % kNsPerSecond);
    return 0;
}

int timerfd_create(int clock, int flags) {
    alarmFile = static_cast<int>(syscall(SYS_timerfd_create, clock, flags));
    return alarmFile;
}

int timerfd_settime(int, int, const itimerspec *when, itimerspec *) {
    const std::lock_guard lock(mutex);
    alarmAt = static_cast<uint64_t>(when->it_value.tv_sec) * kNsPerSecond +
              static_cast<uint64_t>(when->it_value.tv_nsec);
    ringWhenDue();
    return 0;
}

ssize_t read(int file, void *buffer, size_t size) {
    if (file != alarmFile) {
        return syscall(SYS_read, file, buffer, size);
    }
    {
        const std::lock_guard lock(mutex);
        asleep = true;
    }
    slept.notify_all();
    const ssize_t got = syscall(SYS_read, file, buffer, size);
    const std::lock_guard lock(mutex);
    asleep = rung = false;
    return got;
}
}
