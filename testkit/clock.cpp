/* The clock that the test moves: the timers that were created while it lives, and its time. Its expiries
 * run on the thread that moves it, without the lock. */
#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>

#include "testkit/dispatch.h"

namespace testkit {

namespace {

using std::chrono::microseconds;

constexpr uint32_t kFirstHandle = 0x60000001; /* apart from the host's, which count from 1 */
constexpr uint32_t kUsualTick = 10000;

/* When a timer is due; of two at the same time the older one is first. */
using Due = std::pair<int64_t, uint64_t>;

struct Timer {
    OsTmrCreateParam param;
    uint32_t handle;
};

struct Clock {
    std::mutex mutex;
    std::condition_variable expiryEnded;
    std::atomic<bool> lives{false};
    int64_t startUs = 0, nowUs = 0; /* since 1970; since the start */
    int64_t tickUs = kUsualTick;
    uint32_t lastHandle = kFirstHandle - 1;
    uint64_t created = 0;
    std::map<Due, Timer> timers;
    uint32_t expiring = 0; /* handle of the timer whose expiry runs */
};

Clock &clock() {
    static Clock *instance = new Clock;
    return *instance;
}

thread_local bool movesClock = false;

int64_t spanOf(const OsTmrCreateParam &param, const Clock &state) {
    return std::max<int64_t>(param.ticks, 1) * state.tickUs;
}

auto findTimer(Clock *state, uint32_t handle) {
    return std::find_if(state->timers.begin(), state->timers.end(),
                        [&](const auto &each) { return each.second.handle == handle; });
}

/* Runs the first expiry that is due until `untilUs`, at its own time; false when there is none. */
bool expireNext(Clock *state, std::unique_lock<std::mutex> *lock, int64_t untilUs) {
    if (state->timers.empty() || state->timers.begin()->first.first > untilUs) {
        return false;
    }
    auto first = state->timers.extract(state->timers.begin());
    state->nowUs = std::max(state->nowUs, first.key().first);
    Timer timer = first.mapped();
    if (timer.param.periodic != 0) {
        first.key() = {first.key().first + spanOf(timer.param, *state), state->created++};
        state->timers.insert(std::move(first));
    }
    state->expiring = timer.handle;
    lock->unlock();
    timer.param.expiry(&timer.param);
    lock->lock();
    state->expiring = 0;
    state->expiryEnded.notify_all();
    return true;
}

std::time_t secondsNow() {
    const std::lock_guard lock(clock().mutex);
    return static_cast<std::time_t>((clock().startUs + clock().nowUs) / 1000000);
}

}  // namespace

ManualClock::ManualClock(int64_t start) {
    Clock &state = clock();
    const std::lock_guard lock(state.mutex);
    if (state.lives) {
        detail::reportFault("there is a manual clock already");
    }
    state.startUs = start * 1000000;
    state.nowUs = 0;
    state.tickUs = kUsualTick;
    state.lives = true;
}

ManualClock::~ManualClock() {
    const std::lock_guard lock(clock().mutex);
    clock().timers.clear();
    clock().lives = false;
}

uint64_t ManualClock::advance(std::chrono::milliseconds span) {
    Clock &state = clock();
    std::unique_lock lock(state.mutex);
    const int64_t untilUs = state.nowUs + microseconds(span).count();
    uint64_t expiries = 0;
    movesClock = true;
    while (expireNext(&state, &lock, untilUs)) {
        expiries++;
    }
    movesClock = false;
    state.nowUs = std::max(state.nowUs, untilUs);
    return expiries;
}

bool ManualClock::advanceToNextExpiry() {
    Clock &state = clock();
    std::unique_lock lock(state.mutex);
    movesClock = true;
    const bool expired = expireNext(&state, &lock, INT64_MAX);
    movesClock = false;
    return expired;
}

std::chrono::milliseconds ManualClock::elapsed() const {
    const std::lock_guard lock(clock().mutex);
    return std::chrono::duration_cast<std::chrono::milliseconds>(microseconds(clock().nowUs));
}

size_t ManualClock::timers() const {
    const std::lock_guard lock(clock().mutex);
    return clock().timers.size();
}

namespace detail {

bool clockStarts(uint32_t tickMicroseconds, uint32_t *result) {
    Clock &state = clock();
    const std::lock_guard lock(state.mutex);
    if (state.lives && tickMicroseconds != 0) {
        state.tickUs = tickMicroseconds;
    }
    *result = tickMicroseconds == 0 ? 1 : 0;
    return state.lives;
}

bool clockCreates(const OsTmrCreateParam *param, uint32_t *handle, uint32_t *result) {
    Clock &state = clock();
    const std::lock_guard lock(state.mutex);
    if (!state.lives) {
        return false;
    }
    *result = 1;
    if (param != nullptr && handle != nullptr && param->expiry != nullptr) {
        *handle = ++state.lastHandle;
        state.timers[{state.nowUs + spanOf(*param, state), state.created++}] = {*param, *handle};
        *result = 0;
    }
    return true;
}

bool clockDeletes(uint32_t handle, uint32_t *result) {
    Clock &state = clock();
    std::unique_lock lock(state.mutex);
    if (handle < kFirstHandle || handle > state.lastHandle) {
        return false;
    }
    const auto timer = findTimer(&state, handle);
    *result = timer == state.timers.end() && state.expiring != handle ? 1 : 0;
    if (timer != state.timers.end()) {
        state.timers.erase(timer);
    }
    if (!movesClock) {
        state.expiryEnded.wait(lock, [&] { return state.expiring != handle; });
    }
    return true;
}

bool clockTells(OsTimeEx *record) {
    if (!clock().lives) {
        return false;
    }
    const std::time_t seconds = secondsNow();
    std::tm now = {};
    localtime_r(&seconds, &now);
    if (record != nullptr) {
        const auto number = [](int value) { return static_cast<uint32_t>(value); };
        record->milliseconds = static_cast<uint32_t>(clock().nowUs / 1000 % 1000);
        record->seconds = number(now.tm_sec);
        record->minutes = number(now.tm_min);
        record->hours = number(now.tm_hour);
        record->day = number(now.tm_mday);
        record->month = number(now.tm_mon);
        record->year = number(now.tm_year);
    }
    return true;
}

bool clockTells(uint32_t *seconds) {
    if (!clock().lives) {
        return false;
    }
    *seconds = static_cast<uint32_t>(secondsNow());
    return true;
}

}  // namespace detail

}  // namespace testkit
