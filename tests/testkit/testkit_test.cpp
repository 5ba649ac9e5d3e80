/* The test kit, as a test of a module uses it with GoogleTest. */
#include <conf_config.h>
#include <conf_log_adapter.h>
#include <conf_msg_api.h>
#include <conf_timer.h>
#include <conference_testkit_gtest.h>
#include <gtest/gtest-spi.h>
#include <signal.h>
#include <tamo_host.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/open_descriptors.h"

namespace {

using namespace std::chrono_literals;
using testkit::Peer;
using testkit::PlatformTest;

uint32_t twice(uint32_t param, void *data, uint32_t dataLength) {
    for (uint32_t i = 0; i < dataLength; ++i) {
        static_cast<char *>(data)[i] = static_cast<char>(2 * static_cast<char *>(data)[i]);
    }
    return 2 * param;
}

uint32_t other(uint32_t, void *, uint32_t) {
    return 0;
}

uint32_t ask(uint32_t param, std::string data = "") {
    return ConfCommMsgSynSend("Peer", twice, param, data.empty() ? nullptr : data.data(),
                              static_cast<uint32_t>(data.size()));
}

/* ---- operations ---- */

TEST_F(PlatformTest, FailedCallsFollowTheContract) {
    char text[8] = "before";
    testkit::failCall(strcpy_s, 2);
    EXPECT_EQ(strcpy_s(text, sizeof(text), "first"), 0);
    EXPECT_NE(strcpy_s(text, sizeof(text), "second"), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(strcpy_s(text, sizeof(text), "third"), 0);
    EXPECT_EQ(testkit::callCount(strcpy_s), 3u);
    testkit::failEveryCall(memcpy_s);
    EXPECT_NE(memcpy_s(text, 4, "ab", 2), 0);
    EXPECT_EQ(std::string(text, 5), std::string("\0\0\0\0d", 5));
    testkit::failCall(OsMemMallocSetCharMon, 1);
    EXPECT_EQ(GenerateMeetingServerMsgBlock("body", 4), nullptr);
    EXPECT_TRUE(testkit::failureReached(OsMemMallocSetCharMon));
    testkit::replace(sprintf_s, [](char *dst, size_t, const char *finished) {
        dst[0] = finished[1];
        return 7;
    });
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%d", 42), 7);
    EXPECT_EQ(text[0], '2');
    testkit::reset();
    EXPECT_EQ(testkit::callCount(strcpy_s) + testkit::callCount(sprintf_s), 0u);
    EXPECT_EQ(sprintf_s(text, sizeof(text), "%d", 42), 2);
}

TEST_F(PlatformTest, RecordsAndBlocksAreValues) {
    ConfLogPrintf(CONF_LOG_WARNING, __func__, "volume", 12, "at %d %%", 80);
    ConfLogPrintfStr(CONF_LOG_ERROR, "f", "volume", 13, "[2] of 3");
    const auto records = testkit::records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].level, CONF_LOG_WARNING);
    EXPECT_EQ(records[0].function, __func__);
    EXPECT_EQ(records[0].unit + records[0].text, "volumeat 80 %");
    EXPECT_EQ(records[0].line, 12);
    EXPECT_TRUE(testkit::hasRecord(CONF_LOG_ERROR, "volume", "[f][2] of 3"));

    void *block = OsMemMallocSetCharMon(16, 0, 0, 0, 4711, "a_unit");
    ASSERT_EQ(testkit::outstandingBlocks().size(), 1u);
    EXPECT_EQ(testing::PrintToString(testkit::outstandingBlocks()), "{ a_unit:4711 16 bytes }");
    testkit::failCall(OSMemTypeFreeMon, 1);
    EXPECT_NE(OSMemTypeFreeMon(block, 0, 0, 1, "a_unit"), 0u);
    EXPECT_EQ(testkit::outstandingBlocks().size(), 1u) << "it was not released";
    EXPECT_EQ(OSMemTypeFreeMon(block, 0, 0, 1, "a_unit"), 0u);
    EXPECT_EQ(testkit::outstanding() + std::ssize(testkit::outstandingBlocks()), 0);
}

/* ---- the clock ---- */

struct Fired {
    testkit::ManualClock *clock;
    std::string order;
    uint32_t deleted;
} fired;

void expire(OsTmrCreateParam *param) {
    fired.order += static_cast<char>(param->key);
    fired.order += std::to_string(fired.clock->elapsed().count()) + ' ';
    if (param->key == 'd') {
        EXPECT_EQ(OsTmrDelete(fired.deleted), 0u);
    }
}

uint32_t start(char key, uint32_t ticks, uint32_t periodic = 0) {
    OsTmrCreateParam param = {};
    param.key = static_cast<uintptr_t>(key);
    param.ticks = ticks;
    param.periodic = periodic;
    param.expiry = expire;
    uint32_t handle = 0;
    EXPECT_EQ(OsTmrCreate(&param, &handle), 0u);
    return handle;
}

TEST_F(PlatformTest, TimersExpireInOrderWhenTheClockIsMoved) {
    testkit::ManualClock clock(1000);
    fired = {&clock, "", 0};
    ASSERT_EQ(OsTmrManagerInit(0, 10000, 0), 0u);
    start('c', 30);
    start('a', 10);
    start('b', 10);
    const uint32_t periodic = start('p', 20, 1);
    fired.deleted = start('x', 25);
    start('d', 22);
    start('z', 0);
    EXPECT_EQ(clock.timers(), 7u);
    EXPECT_EQ(clock.advance(5ms), 0u);
    EXPECT_EQ(clock.advance(595ms), 8u);
    EXPECT_EQ(fired.order, "z10 a100 b100 p200 d220 c300 p400 p600 ");
    EXPECT_TRUE(clock.advanceToNextExpiry());
    EXPECT_EQ(clock.elapsed(), 800ms);
    EXPECT_EQ(OsTmrDelete(periodic), 0u);
    EXPECT_NE(OsTmrDelete(periodic), 0u);
    EXPECT_FALSE(clock.advanceToNextExpiry());
    clock.advance(1h);
    EXPECT_EQ(OsGetSysTimeSec(), 1000u + 3600);
}

TEST_F(PlatformTest, AReminderReachesItsPeerWithoutWaiting) {
    testkit::ManualClock clock;
    Peer peer("Peer");
    ASSERT_EQ(ConfCommTimerInit(nullptr, 0), 1u);
    ConfCommTimerEntry table[] = {{1, 0, 60000, "Peer", twice, 0, 0, nullptr, 0}};
    ASSERT_EQ(ConfCommTimerInit(table, 1), 0u);
    peer.expect(twice, 5, "now").times(3);
    EXPECT_EQ(ConfCommTimerStart(1, 5, "now", 3), 0u);
    clock.advance(3min);
    EXPECT_TRUE(peer.done());
    ConfCommTimerDeInit();
    EXPECT_EQ(clock.timers(), 0u);
    ConfSysTime time;
    ConfBasicGetSysTime(&time);
    EXPECT_EQ(time.year, 2026);
}

/* ---- peers ---- */

TEST_F(PlatformTest, APeerFollowsItsScript) {
    Peer peer("Peer");
    peer.expect(twice, 7);
    peer.expect(twice, 8, "ab").answer(3, "xy");
    peer.expect(nullptr).run();
    peer.expect(twice).run([](uint32_t param, void *, uint32_t) { return param + 1; });
    peer.expect(twice).staySilent();
    peer.expect(twice, 1).times(2).answer(9);
    peer.expect(twice).die();
    EXPECT_EQ(ask(7), 0u);
    char data[] = "ab";
    EXPECT_EQ(ConfCommMsgSynSend("Peer", twice, 8, data, 2), 3u);
    EXPECT_STREQ(data, "xy");
    data[0] = data[1] = '1';
    EXPECT_EQ(ConfCommMsgSynSend("Peer", twice, 21, data, 2), 42u);
    EXPECT_STREQ(data, "bb");
    EXPECT_EQ(ask(40), 41u);
    EXPECT_EQ(ask(0), uint32_t{CONF_COMM_ERR_FAILED});
    EXPECT_TRUE(testkit::hasRecord(1, "conf_msg_api", "OsMsgSynSend fail 0x4"));
    std::thread([] { EXPECT_EQ(ask(1) + ask(1), 18u); }).join();
    EXPECT_EQ(ask(0), uint32_t{CONF_COMM_ERR_FAILED});
    EXPECT_TRUE(testkit::hasRecord(1, "conf_msg_api", "OsMsgSynSend fail 0x7")) << "it died";
    EXPECT_EQ(ConfCommMsgAsynSend("Peer", twice, 0, nullptr, 0), uint32_t{CONF_COMM_ERR_FAILED});
    peer.revive();
    peer.expect(twice, 6);
    EXPECT_EQ(ConfCommMsgAsynSend("Peer", twice, 6, nullptr, 0), 0u);
    EXPECT_TRUE(peer.waitUntilDone(0ms));
    EXPECT_EQ(peer.received().size(), 9u);
    EXPECT_FALSE(peer.received().back().waits);
}

TEST_F(PlatformTest, APeerAnswersWithAList) {
    Peer peer("Peer");
    const ConfConfigListItem answered = {"Conf.Audio.volume", "80"};
    peer.expect(ConfConfigGetConfConfig).answerList(0, testkit::bytesOf(answered));
    ConfConfigListItem asked = {"Conf.Audio.volume", ""};
    MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock(&asked, sizeof(asked));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(ConfCommMsgSynSendImplHaveResp("Peer", ConfConfigGetConfConfig, 0, block,
                                             GetMeetingServerMsgBlockSize(block), 3000),
              0u);
    ASSERT_NE(block->resultList, nullptr);
    EXPECT_STREQ(static_cast<ConfConfigListItem *>(block->resultList)->value, "80");
    EXPECT_EQ(testkit::outstandingBlocks().size(), 2u);
    OSMemTypeFreeMon(block->resultList, 0, 0, __LINE__, "testkit_test");
    OSMemTypeFreeMon(block, 0, 0, __LINE__, "testkit_test");
}

/* ---- what makes a test fail ---- */

void *take(size_t size) {
    return OsMemMallocSetCharMon(size, 0, 0, 0, 12, "careless");
}

void *give(void *block) {
    EXPECT_EQ(OSMemTypeFreeMon(block, 0, 0, 0, ""), 0u);
    return nullptr;
}

/* A test within this one, which leaves a block. */
struct Careless : PlatformTest {
    void TestBody() override {
        SetUp();
        void *block = take(5);
        TearDown();
        give(block);
        SetUp();
    }
};

TEST_F(PlatformTest, WhatMustBeRedIs) {
    EXPECT_NONFATAL_FAILURE(Careless().TestBody(), "released: 1\n{ careless:12 5 bytes }");
    EXPECT_NONFATAL_FAILURE(Peer("Peer").expect(twice, 7), "did not come: ");
    EXPECT_NONFATAL_FAILURE(
        {
            Peer peer("Peer");
            peer.expect(other, 7).times(0);
            EXPECT_EQ(ask(8), uint32_t{CONF_COMM_ERR_FAILED});
        },
        "with parameter 8 and 0 bytes of data, waited for; expected: no more messages");
    EXPECT_NONFATAL_FAILURE(testkit::forEachFailure(
                                OsFopen, [] {}, [] { return 0; }, [](uint64_t, int) {}),
                            "OsFopen: the operation was never called");
    static void *first, *left;
    EXPECT_NONFATAL_FAILURE(
        testkit::forEachFailure(
            OsMemMallocSetCharMon, [] {},
            [] {
                first = take(1);
                return take(2);
            },
            [](uint64_t n, void *second) { n == 1 ? left = second : give(first); },
            [](void *second) { give(first), give(second); }),
        "blocks were left, or released twice: 1");
    give(left);
    testkit::reset();
}

/* The same for what this library's tests share. */
const support::ChildRole silent("silent", [](const support::ChildArguments &) {
    support::hearParent();
    return 0;
});
const support::ChildRole killed("killed",
                                [](const support::ChildArguments &) { return raise(SIGKILL); });

TEST_F(PlatformTest, WhatMustBeRedInAProcessIs) {
    using support::ChildProcess;
    static int left = -1;
    const auto leaveOneOpen = [] {
        const support::DescriptorCheck check;
        left = dup(0);
    };
    EXPECT_NONFATAL_FAILURE(leaveOneOpen(), "was left open");
    close(left);
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(ChildProcess("killed").wait(), support::exited(0)),
                            "signal 9");
    EXPECT_NONFATAL_FAILURE(ChildProcess("silent").hear(0.01), "said nothing in time");
}

}  // namespace
