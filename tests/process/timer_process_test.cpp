/* Timers of one process whose expiries arrive in another's message loop. */
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "include/conf_msg_api.h"
#include "include/conf_timer.h"
#include "tamo_host.h"
#include "tests/host/message_parties.h"
#include "tests/support/child_process.h"
#include "tests/support/deadline.h"

namespace {

using std::string;

constexpr const char *kQueue = "Reminders";

/* ---- the receiver ---- */

bool serving = true;

/* The handlers of all timers: tell what arrived. */
uint32_t remind(uint32_t param, void *data, uint32_t dataLength) {
    support::tellParent(std::to_string(param) + " " +
                        string(static_cast<const char *>(data), dataLength));
    return 0;
}

uint32_t stopServing(uint32_t, void *, uint32_t) {
    serving = false;
    return 0;
}

const support::ChildRole receiver("receiver", [](const support::ChildArguments &) {
    TamoHostQueue *queue = nullptr;
    OsMsgHeader *message = nullptr;
    if (TamoHostMsgOpen(kQueue, &queue) != TAMO_HOST_OK) {
        return 1;
    }
    support::tellParent("ready");
    while (serving && TamoHostMsgReceive(queue, &message, -1) == TAMO_HOST_OK) {
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
    TamoHostMsgClose(queue);
    return 0;
});

/* ---- the process with the timers ---- */

enum : uint32_t { kEvery20 = 1, kOnce, kSlow };

class TimerProcess : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(child_.hear(), "ready");
        ASSERT_EQ(ConfCommTimerInit(table, 3), 0u);
        ASSERT_EQ(ConfTimerInit(&object, 0, CONF_TIMER_ONE_SHOT, kQueue, remind), 0u);
    }

    void TearDown() override {
        EXPECT_EQ(ConfTimerStop(&object), 0u);
        ConfCommTimerDeInit();
        /* The last expiry may still be about to release its message. */
        const auto deadline = std::chrono::steady_clock::now() + support::patience();
        while (parties::outstandingBlocks() != 0 && std::chrono::steady_clock::now() < deadline) {
        }
        EXPECT_EQ(parties::outstandingBlocks(), 0u);
        if (stopsReceiver) {
            EXPECT_EQ(ConfCommMsgAsynSend(kQueue, stopServing, 0, nullptr, 0), 0u);
            EXPECT_EQ(child_.wait(), support::exited(0));
        }
    }

    /* The next line that is not `passed`. */
    string hearOtherThan(const string &passed) {
        string line = child_.hear();
        while (line == passed) {
            line = child_.hear();
        }
        return line;
    }

    support::ChildProcess child_{"receiver"};
    bool stopsReceiver = true;
    ConfTimer object = {};
    ConfCommTimerEntry table[3] = {
        {kEvery20, 0, 20, kQueue, remind, 0, 0, nullptr, 0},
        {kOnce, CONF_TIMER_ONE_SHOT, 10, kQueue, remind, 0, 0, nullptr, 0},
        {kSlow, CONF_TIMER_ONE_SHOT, 3600000, kQueue, remind, 0, 0, nullptr, 0},
    };
};

TEST_F(TimerProcess, PeriodicTimerArrivesAgainAndAgainWithItsLatestData) {
    ASSERT_EQ(ConfCommTimerStart(kEvery20, 7, "first", 5), 0u);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(child_.hear(), "7 first");
    }
    ASSERT_EQ(ConfCommTimerStart(kEvery20, 8, "second", 6), 0u);
    EXPECT_EQ(hearOtherThan("7 first"), "8 second");
    ASSERT_EQ(ConfCommTimerStart(kEvery20, 9, nullptr, 0), 0u);
    EXPECT_EQ(hearOtherThan("8 second"), "9 ");

    /* What arrives after the stop was sent before it, so that it comes before this. */
    ASSERT_EQ(ConfCommTimerStop(kEvery20), 0u);
    ASSERT_EQ(ConfTimerStart(&object, 50, 1, "last", 4), 0u);
    EXPECT_EQ(hearOtherThan("9 "), "1 last");
}

TEST_F(TimerProcess, TimersOutliveTheirReceiver) {
    ASSERT_EQ(ConfCommTimerStart(kEvery20, 5, "alive", 5), 0u);
    EXPECT_EQ(child_.hear(), "5 alive");
    child_.kill();
    stopsReceiver = false;
    support::ChildProcess next("receiver");
    ASSERT_EQ(next.hear(), "ready");
    EXPECT_EQ(next.hear(), "5 alive");
}

}  // namespace
