/* What the timer manager owes: when expiries run, and what no longer runs after a deletion. */
#include "platform/tamo_os_timer.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <latch>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "given_time.h"
#include "tests/support/child_process.h"

namespace {

using support::awaitManager;
using support::givenNow;
using support::passTime;

constexpr uint32_t kTickUs = 5000;
constexpr uint64_t kTick = kTickUs * 1000; /* nanoseconds */
constexpr uint32_t kFar = 1000000;         /* ticks */

/* One timer of a test: its expiry runs `action`, with the number of the expiry. */
class TestTimer {
  public:
    using Action = std::function<void(uint32_t)>;

    TestTimer(
        uint32_t ticks, bool periodic, Action action = [](uint32_t) {})
        : action_(std::move(action)) {
        OsTmrCreateParam param = {};
        strcpy(param.receiver, "receiver");
        param.key = reinterpret_cast<uintptr_t>(this);
        param.kind = 8;
        param.ticks = ticks;
        param.periodic = periodic ? 1 : 0;
        param.expiry = expire;
        EXPECT_EQ(OsTmrCreate(&param, &handle), 0u);
        memset(&param, 0xEE, sizeof(param)); /* the manager has its own copy */
    }
    ~TestTimer() { OsTmrDelete(handle); }
    TestTimer(const TestTimer &) = delete;
    TestTimer &operator=(const TestTimer &) = delete;

    uint32_t count() const { return count_; }

    /* Waits until `n` expiries have ended. */
    void await(uint32_t n) const {
        for (uint32_t seen = count_; seen < n; seen = count_) {
            count_.wait(seen);
        }
    }

    uint32_t handle = 0;

  private:
    static void expire(OsTmrCreateParam *record) {
        auto *timer = reinterpret_cast<TestTimer *>(record->key);
        EXPECT_NE(timer->handle, 0u) << "the handle is stored before the timer can fire";
        EXPECT_STREQ(record->receiver, "receiver");
        EXPECT_EQ(record->kind, 8u);
        timer->action_(timer->count() + 1);
        timer->count_++;
        timer->count_.notify_all();
    }

    Action action_;
    std::atomic<uint32_t> count_ = 0;
};

/* Lets time pass in small steps; the manager does what is due at each. */
void passTicks(double ticks) {
    for (double step = 0; step < ticks; step += 0.25) {
        passTime(kTick / 4);
        awaitManager();
    }
}

class TamoOsTimer : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(OsTmrManagerInit(0, kTickUs, 0), 0u);
        awaitManager();
    }
};

/* ---- when expiries run ---- */

TEST_F(TamoOsTimer, OneShotExpiresOnceWithTheFirstTickThatIsNotEarly) {
    passTime(kTick / 3); /* off the grid */
    const uint64_t created = givenNow();
    uint64_t expired = 0;
    TestTimer timer(3, false, [&](uint32_t) { expired = givenNow(); });
    passTicks(8);
    EXPECT_EQ(timer.count(), 1u);
    EXPECT_GE(expired, created + 3 * kTick);
    EXPECT_LE(expired, created + 4 * kTick + kTick / 4);
    EXPECT_NE(OsTmrDelete(timer.handle), 0u) << "it has ended by itself";
}

TEST_F(TamoOsTimer, PeriodicTimerMakesUpForAStallButNotForAStandstill) {
    TestTimer timer(2, true);
    passTicks(1.5);
    EXPECT_EQ(timer.count(), 0u);
    passTicks(19.5);
    EXPECT_EQ(timer.count(), 10u);
    passTime(60 * kTick); /* at once */
    awaitManager();
    EXPECT_EQ(timer.count(), 40u);
    passTime(1000 * kTick);
    awaitManager();
    EXPECT_LE(timer.count(), 42u) << "a process that stood still is not flooded";
    const uint32_t before = timer.count();
    passTicks(20);
    EXPECT_EQ(timer.count(), before + 10) << "it is still on its grid";
}

/* ---- deletion ---- */

TEST_F(TamoOsTimer, DeletionWaitsForTheRunningExpiry) {
    for (const bool periodic : {false, true}) {
        std::latch inside(1), go(1);
        std::atomic<bool> ended{false};
        TestTimer timer(0, periodic, [&](uint32_t) {
            inside.count_down();
            go.wait();
            for (int i = 0; i < 1000; i++) { /* the deletion begins meanwhile */
                std::this_thread::yield();
            }
            ended = true;
        });
        passTime(kTick);
        inside.wait();
        go.count_down();
        EXPECT_EQ(OsTmrDelete(timer.handle), 0u);
        EXPECT_TRUE(ended);
        awaitManager();
        passTicks(3);
        EXPECT_EQ(timer.count(), 1u);
    }
}

TEST_F(TamoOsTimer, ExpiriesMayDeleteThemselvesAndOthersAndCreateTimers) {
    std::unique_ptr<TestTimer> born;
    TestTimer victim(40, false);
    TestTimer self(0, true, [&](uint32_t n) {
        if (n == 2) {
            EXPECT_EQ(OsTmrDelete(self.handle), 0u);
            EXPECT_NE(OsTmrDelete(self.handle), 0u);
            EXPECT_EQ(OsTmrDelete(victim.handle), 0u);
            born = std::make_unique<TestTimer>(0, false);
        }
    });
    passTicks(60);
    EXPECT_EQ(self.count(), 2u);
    EXPECT_EQ(victim.count(), 0u);
    ASSERT_NE(born, nullptr);
    EXPECT_EQ(born->count(), 1u);
}

/* ---- refusals ---- */

const support::ChildRole beforeTheStart("beforeTheStart", [](const support::ChildArguments &) {
    OsTmrCreateParam param = {};
    param.expiry = [](OsTmrCreateParam *) {};
    uint32_t handle = 0;
    const bool refused =
        OsTmrCreate(&param, &handle) != 0 && OsTmrDelete(1) != 0 && OsTmrManagerInit(0, 0, 0) != 0;
    const bool started =
        OsTmrManagerInit(0, kTickUs, 0) == 0 && OsTmrManagerInit(0, kTickUs, 0) == 0;
    const bool checked = OsTmrCreate(nullptr, &handle) != 0 && OsTmrCreate(&param, nullptr) != 0;
    return refused && started && checked && OsTmrCreate(&param, &handle) == 0 && handle != 0 ? 0
                                                                                             : 1;
});

TEST(TamoOsTimerStart, NothingIsCreatedBeforeTheManagerOrWithoutAnExpiry) {
    support::ChildProcess child("beforeTheStart");
    EXPECT_EQ(child.wait(), support::exited(0));
}

#ifndef __SANITIZE_THREAD__ /* which allows no thread after a fork */

TEST_F(TamoOsTimer, ChildOfForkHasNoTimersUntilItStartsItsOwnManager) {
    std::latch inside(1), go(1);
    TestTimer running(0, false, [&](uint32_t) {
        inside.count_down();
        go.wait();
    });
    TestTimer waiting(kFar, false);
    passTime(kTick);
    inside.wait();
    const pid_t child = fork();
    if (child == 0) {
        OsTmrCreateParam param = {};
        param.expiry = [](OsTmrCreateParam *) { _exit(42); };
        uint32_t handle = 0;
        const bool refused = OsTmrDelete(running.handle) != 0 && OsTmrDelete(waiting.handle) != 0 &&
                             OsTmrCreate(&param, &handle) != 0;
        const bool started = refused && OsTmrManagerInit(0, kTickUs, 0) == 0 &&
                             OsTmrDelete(waiting.handle) != 0 && OsTmrCreate(&param, &handle) == 0;
        while (started) {
            passTime(kTick);
        }
        _exit(1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 42);
    go.count_down();
    running.await(1);
    EXPECT_EQ(OsTmrDelete(waiting.handle), 0u) << "the parent's timers are still there";
}

#endif

}  // namespace
