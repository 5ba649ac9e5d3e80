/* The test of example_module: no second process, no waiting, every way to fail. */
#include <conf_log_adapter.h>
#include <conf_timer.h>
#include <conference_testkit_gtest.h>

#include "example_module.h"

namespace {

using namespace std::chrono_literals;

const testkit::ScratchRoot root; /* the developer's own device root stays as it is */

class ReminderTest : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        ASSERT_EQ(ConfCommTimerInit(table, 1), 0u);
    }

    void TearDown() override {
        cancelReminder();
        ConfCommTimerDeInit();
        PlatformTest::TearDown(); /* fails the test when a block is left */
    }

    ConfCommTimerEntry table[1] = {};
    testkit::ManualClock clock;
    testkit::Peer display{"Display"};
    testkit::Peer self{kReminderQueue};
};

TEST_F(ReminderTest, ShowsTheTitleInTime) {
    self.expect(nullptr, 1, "Weekly").run(); /* as the module's own message loop does */
    display.expect(showTitle, 1, "Weekly");
    ASSERT_TRUE(scheduleReminder("Weekly", 10));
    clock.advance(10min - 10ms);
    EXPECT_TRUE(display.received().empty());
    clock.advance(10ms);
    EXPECT_TRUE(display.done());
    EXPECT_EQ(clock.timers(), 0u);
}

TEST_F(ReminderTest, AsksAgainUntilTheDisplayIsBack) {
    self.expect(nullptr).times(3).run();
    display.expect(showTitle, 1).die();
    display.expect(showTitle, 3);
    ASSERT_TRUE(scheduleReminder("Weekly", 1));
    clock.advance(1min);
    clock.advance(5s); /* nobody there */
    display.revive();
    clock.advance(5s);
    EXPECT_TRUE(display.done());
}

TEST_F(ReminderTest, GivesUpAfterThreeAttemptsAndSaysSo) {
    self.expect(nullptr).times(3).run();
    display.expect(showTitle).times(3).staySilent();
    ASSERT_TRUE(scheduleReminder("Weekly", 1));
    clock.advance(1h);
    EXPECT_TRUE(testkit::hasRecord(CONF_LOG_ERROR, "reminder", "attempt 3 was the last"));
}

/* Wherever memory ends, the module says so and leaves no block. */
TEST_F(ReminderTest, IsRefusedWithoutMemory) {
    const auto schedule = [] { return scheduleReminder("Weekly", 1); };
    const auto isRefused = [](uint64_t, bool scheduled) {
        EXPECT_FALSE(scheduled);
        EXPECT_TRUE(testkit::hasRecord(CONF_LOG_ERROR, "reminder", "there will be no reminder"));
    };
    const auto succeeded = [](bool scheduled) {
        EXPECT_TRUE(scheduled);
        cancelReminder();
    };
    testkit::forEachFailure(
        OsMemMallocSetCharMon, [] {}, schedule, isRefused, succeeded);
}

}  // namespace
