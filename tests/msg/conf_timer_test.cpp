/* The timer service: starts, expiries, start-up and end, what it refuses, and the system time. */
#include "include/conf_timer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <conference_testkit_gtest.h>
#include "msg/message_format.h"

namespace {

using std::string;

constexpr uint32_t kUnknownId = 77;

uint32_t remind(uint32_t, void *, uint32_t) {
    return 0;
}

struct Sent {
    string receiver;
    uint32_t param;
    string data;
    bool operator==(const Sent &) const = default;
};

uint32_t lengthOf(const char *data) {
    return data == nullptr ? 0 : static_cast<uint32_t>(strlen(data));
}

/* A service of four table timers and one object, and a timer manager that the test plays: it keeps what
 * was created and fires when the test says so. */
class Timer : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        again();
        ASSERT_EQ(ConfCommTimerInit(table, 4), 0u);
        testkit::clearRecords();
    }
    void TearDown() override {
        ConfCommTimerDeInit();
        ConfTimerStop(&object);
        PlatformTest::TearDown();
    }

    /* The platform and the object as at the begin of a test, for another round. */
    void again() {
        testkit::reset();
        testkit::replace(OsTmrManagerInit, [](uint32_t, uint32_t, uint32_t) { return 0u; });
        testkit::replace(OsTmrCreate, [this](OsTmrCreateParam *param, uint32_t *handle) {
            created.push_back(*param);
            *handle = static_cast<uint32_t>(created.size());
            return 0u;
        });
        testkit::replace(OsTmrDelete, [this](uint32_t handle) {
            deleted.push_back(handle);
            return 0u;
        });
        testkit::replace(OsMutexLock, [this](OsMutex *) { return held++; });
        testkit::replace(OsMutexUnLock, [this](OsMutex *) { return --held; });
        testkit::replace(OsMsgAsynSend, [this](OsMsgHeader *header) {
            EXPECT_EQ(held, 0u) << "no message is sent under the mutex";
            auto *body = static_cast<ConfMsgBody *>(header->body);
            EXPECT_EQ(body->handler, remind);
            sent.push_back({header->receiver, body->param,
                            string(static_cast<char *>(bodyData(body)), body->dataLength)});
            return 0u;
        });
        ConfTimerInit(&object, 1, 1, "receiver", remind);
    }

    static uint32_t start(uint32_t id, uint32_t param, const char *data) {
        return ConfCommTimerStart(id, param, data, lengthOf(data));
    }
    uint32_t startObject(uint32_t param, const char *data) {
        return ConfTimerStart(&object, 10, param, data, lengthOf(data));
    }

    /* The platform fires its n-th timer (from 1). */
    void expire(size_t n) {
        OsTmrCreateParam record = {};
        record.key = created.at(n - 1).key;
        created.at(n - 1).expiry(&record);
    }

    static void expectRecords(std::initializer_list<string> texts) {
        for (const string &text : texts) {
            EXPECT_TRUE(testkit::hasRecord(1, "conf_timer", text)) << text;
        }
    }

    ConfCommTimerEntry table[4] = {
        {10, 0, 1000, "periodic", remind, 0, 0, nullptr, 0},
        {20, 1, 250, "oneShot", remind, 0, 0, nullptr, 0},
        {30, 2, 0, "sixteen_chars_xx", remind, 0, 0, nullptr, 0},
        {10, 1, 10, "hidden", remind, 0, 0, nullptr, 0},
    };
    ConfTimer object = {};
    std::vector<OsTmrCreateParam> created;
    std::vector<uint32_t> deleted;
    std::vector<Sent> sent;
    uint32_t held = 0;
};

TEST_F(Timer, RecordForThePlatformSaysWhatTheTimerIs) {
    ASSERT_EQ(start(10, 0, nullptr), 0u);
    ASSERT_EQ(ConfCommTimerStartEx(20, 25, 0, nullptr, 0), 0u);
    OsTmrCreateParam expected = {};
    strcpy(expected.receiver, "periodic");
    expected.key = 10;
    expected.kind = 1;
    expected.ticks = 100;
    expected.periodic = 1;
    expected.expiry = created.at(0).expiry;
    EXPECT_EQ(memcmp(&created[0], &expected, sizeof(expected)), 0);
    EXPECT_EQ(created[1].ticks, 2u);
    EXPECT_EQ(created[1].periodic, 0u) << "mode 1";
    EXPECT_EQ(ConfCommTimerStop(20), 0u);
    ASSERT_EQ(ConfCommTimerStartEx(20, 5, 0, nullptr, 0), 0u);
    EXPECT_EQ(created[2].ticks, 0u);

    ASSERT_EQ(ConfTimerInit(&object, 3, 5, "receiver", remind), 0u);
    ASSERT_EQ(ConfTimerStart(&object, 0, 0, nullptr, 0), 0u);
    strcpy(expected.receiver, "receiver");
    expected.key = reinterpret_cast<uintptr_t>(&object);
    expected.kind = 8;
    expected.ticks = 0;
    expected.expiry = created[3].expiry;
    EXPECT_EQ(memcmp(&created[3], &expected, sizeof(expected)), 0);
    EXPECT_NE(created[3].expiry, created[0].expiry);
}

TEST_F(Timer, StartOfARunningTimerOnlyReplacesWhatItDelivers) {
    ASSERT_EQ(start(10, 1, "first"), 0u);
    ASSERT_EQ(startObject(2, "one"), 0u);
    /* The new data may be the timer's own. */
    ASSERT_EQ(ConfCommTimerStartEx(10, 20, 3, table[0].data, 3), 0u);
    ASSERT_EQ(startObject(4, "other"), 0u);
    EXPECT_EQ(created.size(), 2u);
    expire(1);
    expire(2);
    EXPECT_EQ(sent, (std::vector<Sent>{{"periodic", 3, "fir"}, {"receiver", 4, "other"}}));
    EXPECT_EQ(testkit::outstanding(), 2);
    EXPECT_TRUE(deleted.empty());
}

TEST_F(Timer, NameThatDoesNotFitIsRecordedAndTheTimerRuns) {
    table[1].receiver = nullptr;
    for (const uint32_t id : {30u, 20u}) {
        testkit::clearRecords();
        ASSERT_EQ(start(id, 0, nullptr), 0u);
        EXPECT_STREQ(created.back().receiver, "");
        expire(created.size());
        expectRecords({"[ConfCommTimerStartEx]conf secure func failed, err = ",
                       "[ConfCommTimerOut]ConfCommTimerIDOut send msg fail"});
    }
    EXPECT_TRUE(sent.empty());
}

TEST_F(Timer, TimerThatThePlatformRefusesLeavesEverythingAsItWas) {
    ASSERT_EQ(start(20, 1, "kept") + startObject(1, "kept"), 0u);
    void *const kept[] = {table[1].data, object.data};
    table[1].handle = object.handle = 0;
    for (const uint32_t result : {9u, 0u}) { /* refused with a handle, or accepted without one */
        testkit::replace(OsTmrCreate,
                         [=](OsTmrCreateParam *, uint32_t *handle) { return *handle = result; });
        EXPECT_EQ(start(20, 2, "new") + startObject(2, "new"), 2u);
        const string text = "OsTmrCreate fail! ret:" + std::to_string(result);
        expectRecords({"[ConfCommTimerStartEx]" + text, "[ConfTimerStart]" + text});
    }
    EXPECT_EQ(table[1].handle + held, 0u);
    EXPECT_EQ(table[1].data, kept[0]);
    EXPECT_EQ(table[1].param, 1u);
    EXPECT_FALSE(ConfTimerIsVaild(&object));
    EXPECT_EQ(object.data, kept[1]);
}

TEST_F(Timer, WithoutMemoryARunningTimerDeliversNoData) {
    ASSERT_EQ(start(10, 1, "old") + startObject(1, "old"), 0u);
    testkit::failEveryCall(OsMemMallocSetCharMon);
    EXPECT_EQ(start(10, 2, "newer"), 1u);
    EXPECT_TRUE(testkit::records().empty());
    EXPECT_EQ(startObject(2, "newer"), 1u);
    expectRecords(
        {"[ConfTimerStart]TAMO_CONF_LOG_ERROR: CONF_MALLOC failed, timer->data is NULL!"});
    EXPECT_EQ(testkit::outstanding(), 0) << "the old data is released";
    EXPECT_EQ(table[0].data, nullptr);
    EXPECT_EQ(table[0].dataLength, 5u);
    EXPECT_EQ(object.param, 2u);
    EXPECT_TRUE(ConfTimerIsVaild(&object));
    EXPECT_EQ(held, 0u);
}

TEST_F(Timer, EveryFailedCopyOfAStartIsRecordedAndTheStartSucceeds) {
    for (const char *operation : {"strcpy_s", "memcpy_s"}) {
        const uint64_t failures = testkit::forEachFailure(
            operation, [this] { again(); },
            [this] {
                return start(20, 0, "data") + startObject(0, "data") + ConfCommTimerStop(20) +
                       ConfTimerStop(&object);
            },
            [](uint64_t, uint32_t result) {
                EXPECT_EQ(result, 0u);
                expectRecords({"Start", "]conf secure func failed, err = "});
            });
        EXPECT_GE(failures, 2u);
    }
}

TEST_F(Timer, OneShotObjectCanStartAgainAndOneShotTableTimerIsStoppedFirst) {
    ASSERT_EQ(start(20, 1, "x") + startObject(2, "y"), 0u);
    expire(1);
    expire(2);
    EXPECT_EQ(sent, (std::vector<Sent>{{"oneShot", 1, "x"}, {"receiver", 2, "y"}}));
    EXPECT_EQ(table[1].handle, 1u);
    EXPECT_FALSE(ConfTimerIsVaild(&object));
    EXPECT_TRUE(deleted.empty());
    ASSERT_EQ(start(20, 1, nullptr) + startObject(2, nullptr), 0u);
    EXPECT_EQ(object.handle, 3u) << "the table timer runs on, the object is new";
}

TEST_F(Timer, ExpiryThatCannotBeDeliveredIsRecorded) {
    ASSERT_EQ(ConfCommTimerStart(10, 1, nullptr, 8), 0u) << "a length without data";
    ASSERT_EQ(ConfTimerStart(&object, 10, 2, nullptr, 8), 0u);
    expire(1);
    expire(2);
    created[0].expiry(nullptr);
    created[1].expiry(nullptr);
    OsTmrCreateParam record = {};
    created[1].expiry(&record);
    record.key = kUnknownId;
    created[0].expiry(&record);
    expectRecords({"[ConfCommTimerOut]ConfCommTimerIDOut send msg fail",
                   "[ConfCommTimerIDOut]ConfCommTimerIDOut send msg fail! ret:989a6c",
                   "[ConfCommTimerOut]Null ptr.", "[ConfCommTimerIDOut]Null ptr.",
                   "[ConfCommTimerOut]timerId:77 invalid", "[ConfCommTimerIDOut]timer is NULL"});
    ASSERT_EQ(start(10, 1, "data"), 0u);
    ConfTimerInit(&object, 1, 0, "receiver", remind);
    ASSERT_EQ(startObject(2, "data"), 0u);
    testkit::failCall(memcpy_s, 1);
    expire(3);
    expectRecords({"[ConfCommTimerIDOut]conf secure func failed, err = "});
    EXPECT_TRUE(sent.empty());
}

/* The manager's thread may be faster than the thread that starts. */
TEST_F(Timer, ExpiryBeforeTheEndOfItsStartDeliversWhatTheStartStores) {
    testkit::replace(OsTmrCreate, [this](OsTmrCreateParam *param, uint32_t *handle) {
        *handle = 5;
        param->expiry(param);
        EXPECT_TRUE(sent.empty());
        return 0u;
    });
    table[0].param = 1;
    ASSERT_EQ(start(10, 2, "new"), 0u);
    EXPECT_EQ(std::exchange(sent, {}), (std::vector<Sent>{{"periodic", 2, "new"}}));
    EXPECT_EQ(table[0].handle, 5u);
    ASSERT_EQ(startObject(3, "new"), 0u);
    EXPECT_EQ(sent, (std::vector<Sent>{{"receiver", 3, "new"}}));
    EXPECT_FALSE(ConfTimerIsVaild(&object)) << "a one-shot object has fired";
}

/* The timer of a first start fires at each step of the second. */
TEST_F(Timer, OneStartOfAOneShotObjectIsOneMessageWhereverAnExpiryFalls) {
    for (const char *step : {"lock", "allocate", "release", "unlock"}) {
        SCOPED_TRACE(step);
        again();
        created.clear();
        sent.clear();
        ASSERT_EQ(startObject(1, "old"), 0u);
        string awaited = step;
        const auto meet = [&](const char *at) {
            if (awaited == at) {
                awaited.clear();
                const uint32_t before = std::exchange(held, 0); /* it is another thread's */
                expire(1);
                held = before;
            }
        };
        testkit::replace(OsMutexLock, [&](OsMutex *) { return meet("lock"), held++; });
        testkit::replace(OsMutexUnLock, [&](OsMutex *) { return meet("unlock"), --held; });
        testkit::replace(OsMemMallocSetCharMon, [&](size_t size, uint32_t a, uint32_t b, uint32_t c,
                                                    uint32_t line, const char *file) {
            meet(size == 5 ? "allocate" : "another size");
            return testkit::real(OsMemMallocSetCharMon)(size, a, b, c, line, file);
        });
        testkit::replace(OSMemTypeFreeMon,
                         [&](void *block, uint32_t a, uint32_t b, uint32_t line, const char *file) {
                             meet("release");
                             return testkit::real(OSMemTypeFreeMon)(block, a, b, line, file);
                         });
        ASSERT_EQ(startObject(2, "newer"), 0u);
        if (created.size() == 2) {
            expire(2);
        }
        EXPECT_EQ(std::count(sent.begin(), sent.end(), Sent{"receiver", 2, "newer"}), 1);
        EXPECT_EQ(sent.size(), created.size());
        EXPECT_FALSE(ConfTimerIsVaild(&object));
        EXPECT_EQ(ConfTimerStop(&object), 0u);
    }
    again();
}

/* Its message is out before the object is stopped: the receiver has it started. */
TEST_F(Timer, StartDuringTheLastExpiryOfAOneShotObjectGetsATimerOfItsOwn) {
    ASSERT_EQ(startObject(1, "old"), 0u);
    testkit::replace(OsMsgAsynSend, [this](OsMsgHeader *) {
        EXPECT_EQ(object.handle, 1u);
        for (const uint32_t param : {3u, 4u}) {
            EXPECT_EQ(startObject(param, nullptr), 0u);
            EXPECT_EQ(object.handle, 2u) << "one more timer, however often it is started";
        }
        return 0u;
    });
    expire(1);
    EXPECT_EQ(object.handle, 2u);
    EXPECT_EQ(object.param, 4u);
}

TEST_F(Timer, StartUpBlocksTwoSignalsAndStartsTheManager) {
    std::vector<uint32_t> seen;
    testkit::replace(OsSigAddSet, [&](OsSigSet *, int32_t signal) {
        seen.push_back(static_cast<uint32_t>(signal));
        return 0u;
    });
    testkit::replace(OsPthreadSigmask, [&](int32_t how, const OsSigSet *, OsSigSet *old) {
        seen.push_back(how == 0 && old != nullptr ? 1 : 0);
        return 0u;
    });
    testkit::replace(OsTmrManagerInit, [&](uint32_t a, uint32_t tick, uint32_t b) {
        seen.insert(seen.end(), {a, tick, b});
        return 0u;
    });
    EXPECT_EQ(ConfCommTimerFuncInit(table, 4), 0u);
    EXPECT_EQ(seen, (std::vector<uint32_t>{18, 16, 1, 0, 10000, 0}));
}

TEST_F(Timer, EachFailedStepOfTheStartUpEndsItWithARecord) {
    const std::pair<const char *, const char *> steps[] = {
        {"OsSigEmptySet", "[InitTimer]SigEmptySet fail:1"},
        {"OsSigAddSet", "[InitTimer]OsSigAddSet fail:1"},
        {"OsPthreadSigmask", "[InitTimer]OsPthreadSigmask fail:1"},
        {"OsTmrManagerInit", "[InitTimer]Init 10ms tiemr failed:1"}};
    /* The service refers to it until another table is given. */
    static ConfCommTimerEntry other = {55, 1, 10, "other", remind, 0, 0, nullptr, 0};
    for (const auto &[operation, text] : steps) {
        testkit::forEachFailure(
            operation, [this] { again(); }, [] { return ConfCommTimerInit(&other, 1); },
            [text = text](uint64_t, uint32_t result) {
                EXPECT_EQ(result, 1u);
                expectRecords({text});
                EXPECT_EQ(testkit::records().size(), 1u);
                EXPECT_EQ(ConfCommTimerStop(55), 0u) << "the table is stored all the same";
            });
    }
    testkit::failCall(OsMutexInit, 1);
    EXPECT_EQ(ConfCommTimerInit(table, 4), 1u);
    expectRecords({"[ConfCommTimerInit]OsSemInit fail! ret:1"});
    EXPECT_EQ(ConfCommTimerStop(20), 1u) << "the table is not stored";
}

TEST_F(Timer, NullTableAndNegativeCountStartNothing) {
    EXPECT_EQ(ConfCommTimerFuncInit(nullptr, 4) + ConfCommTimerInit(nullptr, 4), 2u);
    EXPECT_EQ(testkit::callCount(OsMutexInit), 2u) << "of the set-up and of the second";
    EXPECT_EQ(testkit::callCount(OsTmrManagerInit), 1u);
    EXPECT_TRUE(testkit::records().empty());
    EXPECT_EQ(ConfCommTimerStop(20), 0u) << "the table of before is still in use";
    EXPECT_EQ(ConfCommTimerInit(table, -1), 0u);
    EXPECT_EQ(start(20, 0, nullptr), 1u);
}

TEST_F(Timer, EndDeletesEveryTimerAndKeepsTheTable) {
    ASSERT_EQ(start(10, 0, "data"), 0u);
    ASSERT_EQ(ConfCommTimerStart(20, 0, nullptr, 4), 0u);
    table[3].handle = 99; /* an entry that its id does not lead to */
    ConfCommTimerFuncDeInit();
    EXPECT_EQ(testkit::callCount(OsMutexDestroy), 1u);
    EXPECT_EQ(deleted, (std::vector<uint32_t>{1, 2, 99}));
    EXPECT_EQ(testkit::outstanding(), 0);
    EXPECT_EQ(table[0].data, nullptr);
    EXPECT_EQ(table[0].handle, 0u);
    EXPECT_EQ(ConfCommTimerStop(10), 0u);

    /* An owner stops its object afterwards: there is no mutex any more to hold. */
    ASSERT_EQ(startObject(0, "data"), 0u);
    testkit::failEveryCall(OsMutexLock);
    const uint64_t unlocked = testkit::callCount(OsMutexUnLock);
    EXPECT_EQ(ConfTimerStop(&object), 0u);
    EXPECT_EQ(testkit::callCount(OsMutexUnLock), unlocked);
    EXPECT_EQ(testkit::outstanding(), 0);
}

TEST_F(Timer, UnknownIdsAndNullObjectsAreRefusedWithARecord) {
    ConfTimer untouched = {};
    EXPECT_EQ(start(kUnknownId, 0, nullptr) + ConfCommTimerFree(kUnknownId), 2u);
    EXPECT_EQ(ConfTimerInit(nullptr, 0, 1, "receiver", remind) +
                  ConfTimerInit(&untouched, 0, 1, nullptr, remind) +
                  ConfTimerInit(&untouched, 0, 1, "receiver", nullptr),
              3u);
    EXPECT_EQ(ConfTimerStart(nullptr, 0, 0, nullptr, 0) + ConfTimerFree(nullptr), 2u);
    EXPECT_FALSE(ConfTimerIsVaild(nullptr));
    ConfBasicGetSysTime(nullptr);
    expectRecords({"[ConfCommTimerStartEx]timerId:77 invalid",
                   "[ConfCommTimerStop]timerId:77 invalid", "[ConfTimerInit]Null ptr.",
                   "[ConfTimerStart]Null ptr.", "[ConfTimerStop]Null ptr.",
                   "[ConfTimerIsVaild]Null ptr.", "[ConfBasicGetSysTime]Null ptr."});
    EXPECT_EQ(testkit::records().size(), 9u);
    EXPECT_EQ(untouched.receiver, nullptr);
}

TEST_F(Timer, StopDeletesTheTimerAndItsDataOnly) {
    ASSERT_EQ(start(20, 6, "data"), 0u);
    EXPECT_EQ(ConfCommTimerStop(20) + ConfCommTimerStop(20), 0u);
    EXPECT_EQ(deleted, std::vector<uint32_t>{1});
    EXPECT_EQ(table[1].handle, 0u);
    EXPECT_EQ(table[1].data, nullptr);
    EXPECT_EQ(table[1].param, 6u);
    EXPECT_EQ(table[1].dataLength, 4u);

    EXPECT_FALSE(ConfTimerIsVaild(&object));
    ASSERT_EQ(startObject(6, "data"), 0u);
    EXPECT_TRUE(ConfTimerIsVaild(&object));
    EXPECT_EQ(ConfTimerStop(&object) + ConfTimerFree(&object), 0u);
    EXPECT_FALSE(ConfTimerIsVaild(&object));
    EXPECT_EQ(deleted, (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(object.dataLength, 4u);
}

TEST_F(Timer, SystemTimeCountsMonthsFromOneAndYearsFromZero) {
    testkit::replace(OsGetTimeEx,
                     [](OsTimeEx *record) { *record = {0x10000 + 250, 9, 5, 8, 1, 2, 126, {}}; });
    ConfSysTime now;
    ConfBasicGetSysTime(&now);
    const ConfSysTime expected = {2026, 3, 1, 8, 5, 9, 250}; /* the low 16 bits */
    EXPECT_EQ(memcmp(&now, &expected, offsetof(ConfSysTime, second) + 1), 0);
    EXPECT_EQ(now.millisecond, expected.millisecond);
    testkit::replace(OsGetSysTimeSec, [] { return 0xFFFFFFF0u; });
    EXPECT_EQ(ConfGetSysTimeSec(), 0xFFFFFFF0u);
}

}  // namespace
