/* The timer manager beside libevent's timers (with its locks on) and beside a bare kernel timer:
 *
 * - creating and deleting a timer while 100,000 others run, with the same durations on both sides;
 * - how late timers expire on busy processors. */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#ifdef BENCH_EVENT
#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>
#endif

#include "bench/take_turns.h"
#include "include/conf_timer.h"
#include "platform/tamo_os_timer.h"

namespace {

using bench::percentile;
constexpr uint32_t kOthers = 100000;
constexpr size_t kPairs = 500; /* in a row before another's turn */
constexpr double kTickUs = 10000;

using bench::require;

double nowUs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/* Durations from a minute to an hour: none of these timers expires meanwhile. */
class Durations {
  public:
    Durations() {
        std::mt19937 random(1);
        for (uint32_t &ms : ms_) {
            ms = 60000 + static_cast<uint32_t>(random() % 3540000);
        }
    }
    uint32_t next() { return ms_[at_++ % ms_.size()]; }

  private:
    std::vector<uint32_t> ms_ = std::vector<uint32_t>(65536);
    size_t at_ = 0;
};

/* ---- creating and deleting ---- */

uint32_t createTimer(uint32_t ms) {
    OsTmrCreateParam param = {};
    param.ticks = ms / 10;
    param.expiry = [](OsTmrCreateParam *) {};
    uint32_t handle = 0;
    require(OsTmrCreate(&param, &handle) == 0, "OsTmrCreate");
    return handle;
}

void managerPair(uint32_t ms) {
    OsTmrDelete(createTimer(ms));
}

void objectPair(uint32_t ms) {
    static ConfTimer timer = {1,        CONF_TIMER_ONE_SHOT,
                              "Nobody", [](uint32_t, void *, uint32_t) { return 0u; },
                              0,        0,
                              0,        nullptr};
    static const char payload[64] = "the data of an expiry";
    require(ConfTimerStart(&timer, ms, 1, payload, sizeof(payload)) == 0, "ConfTimerStart");
    ConfTimerStop(&timer);
}

#ifdef BENCH_EVENT

timeval timevalOf(uint32_t ms) {
    return {static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
}

/* An event base with its loop on a thread of its own, until the end of the process. It reads the exact
 * clock, as the timer manager must: by the coarse one a timer expires some milliseconds early. */
struct EventTimers {
    explicit EventTimers(Durations durations) : events(kOthers) {
        require(evthread_use_pthreads() == 0, "evthread_use_pthreads");
        event_config *config = event_config_new();
        event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
        base = event_base_new_with_config(config);
        event_config_free(config);
        for (event &each : events) {
            assign(&each);
            add(&each, durations.next());
        }
        assign(&one);
        std::thread([this] { event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY); }).detach();
    }
    void assign(event *timer) const {
        evtimer_assign(
            timer, base, [](evutil_socket_t, short, void *) {}, nullptr);
    }
    static void add(event *timer, uint32_t ms) {
        const timeval after = timevalOf(ms);
        require(evtimer_add(timer, &after) == 0, "evtimer_add");
    }
    void pair(uint32_t ms) {
        add(&one, ms);
        evtimer_del(&one);
    }

    event_base *base;
    std::vector<event> events;
    event one;
};

#endif

void measurePairs() {
    Durations durations;
    std::vector<bench::Row> rows;
#ifdef BENCH_EVENT
    auto *timers = new EventTimers(durations); /* its thread runs on */
    rows.push_back({"libevent: event_add, event_del", 0, [&] { timers->pair(durations.next()); }});
    const double limits[] = {1.3, 3};
#else
    printf("libevent-dev was not there when this was configured\n");
    const double limits[] = {0, 3};
#endif
    for (uint32_t i = 0; i < kOthers; i++) {
        createTimer(durations.next());
    }
    rows.push_back({"OsTmrCreate, OsTmrDelete", limits[0], [&] { managerPair(durations.next()); }});
    rows.push_back({"ConfTimerStart of 64 bytes, ConfTimerStop", limits[1],
                    [&] { objectPair(durations.next()); }});
    bench::compare({.title = "A timer created and deleted among 100,000", .runs = kPairs}, rows);
}

/* ---- lateness ---- */

constexpr size_t kLateRounds = 12;
constexpr size_t kLateTimers = 400; /* of each kind in one round */

/* One timer and how late it came. */
struct LateTimer {
    double due;
    std::atomic<double> late;
};

void expireLate(OsTmrCreateParam *record) {
    auto *timer = reinterpret_cast<LateTimer *>(record->key);
    timer->late = nowUs() - timer->due;
}

void measureManager(std::mt19937 &random, std::vector<double> *late) {
    const auto timers = std::make_unique<LateTimer[]>(kLateTimers);
    for (size_t i = 0; i < kLateTimers; i++) {
        OsTmrCreateParam param = {};
        param.key = reinterpret_cast<uintptr_t>(&timers[i]);
        param.ticks = static_cast<uint32_t>(5 + random() % 40);
        param.expiry = expireLate;
        timers[i].late = -1e9;
        timers[i].due = nowUs() + param.ticks * kTickUs;
        uint32_t handle = 0;
        require(OsTmrCreate(&param, &handle) == 0, "OsTmrCreate");
    }
    for (size_t i = 0; i < kLateTimers; i++) {
        while (timers[i].late == -1e9) {
            usleep(1000);
        }
        late->push_back(timers[i].late);
    }
}

/* A thread that does nothing but wait for the kernel timer. */
void measureBare(std::mt19937 &random, std::vector<double> *late) {
    const int descriptor = timerfd_create(CLOCK_MONOTONIC, 0);
    for (size_t i = 0; i < kLateTimers / 4; i++) {
        const double due = nowUs() + 1000 + static_cast<double>(random() % 5000);
        itimerspec when = {};
        when.it_value.tv_sec = static_cast<time_t>(due / 1e6);
        when.it_value.tv_nsec =
            static_cast<long>((due - static_cast<double>(when.it_value.tv_sec) * 1e6) * 1e3);
        uint64_t rings;
        require(timerfd_settime(descriptor, TFD_TIMER_ABSTIME, &when, nullptr) == 0 &&
                    read(descriptor, &rings, sizeof(rings)) == sizeof(rings),
                "the bare timer");
        late->push_back(nowUs() - due);
    }
    close(descriptor);
}

void measureLateness() {
    std::atomic<bool> end{false};
    std::vector<std::thread> load;
    for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); i++) {
        load.emplace_back([&] {
            while (!end) {
            }
        });
    }
    std::vector<double> ours, bare;
    std::mt19937 random(2);
    for (size_t round = 0; round < kLateRounds; round++) {
        std::thread([&] { measureManager(random, &ours); }).join();
        std::thread([&] { measureBare(random, &bare); }).join();
    }
    end = true;
    for (std::thread &thread : load) {
        thread.join();
    }
    printf("how late timers expire, one busy thread for each processor, microseconds\n");
    printf("  %-12s %12s %12s\n", "", "bare timer", "OsTmr");
    for (const double part : {0.5, 0.9, 0.99, 1.0}) { /* the very latest is the machine's */
        printf("  p%-11.0f %12.1f %12.1f\n", part * 100, percentile(bare, part),
               percentile(ours, part));
    }
    for (const double part : {0.5, 0.9, 0.99}) {
        bench::figure("Lateness of expiries on busy processors, p" +
                          std::to_string(static_cast<int>(part * 100)) +
                          ", against a tick and 1.5 of a bare kernel timer's",
                      percentile(ours, part) / 1000,
                      (kTickUs + 1.5 * percentile(bare, part)) / 1000, "ms");
    }
}

}  // namespace

int main() {
    static ConfCommTimerEntry table[1] = {};
    require(ConfCommTimerInit(table, 1) == 0, "ConfCommTimerInit");
    measurePairs();
    measureLateness();
    _exit(bench::finish()); /* without waiting for libevent's thread */
}
