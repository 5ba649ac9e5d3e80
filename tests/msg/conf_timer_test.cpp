/* The timer service's start and end, what it refuses, stops, and the system time. */
#include "include/conf_timer.h"

#include <string>
#include <vector>

#include "tests/msg/timer_fixture.h"

namespace {

using platform::hasRecord;
using std::string;

using Timer = TimerTest;

/* ---- start-up and end ---- */

TEST_F(Timer, StartUpBlocksTwoSignalsAndStartsTheManager) {
    std::vector<int32_t> signals;
    std::vector<uint32_t> manager;
    platform::override(OsSigAddSet, [&](OsSigSet *, int32_t signal) {
        signals.push_back(signal);
        return 0u;
    });
    platform::override(OsPthreadSigmask, [](int32_t how, const OsSigSet *, OsSigSet *old) {
        EXPECT_EQ(how, 0);
        EXPECT_NE(old, nullptr);
        return 0u;
    });
    platform::override(OsTmrManagerInit, [&](uint32_t a, uint32_t tick, uint32_t b) {
        manager = {a, tick, b};
        return 0u;
    });
    EXPECT_EQ(ConfCommTimerFuncInit(table, 4), 0u);
    EXPECT_EQ(signals, (std::vector<int32_t>{18, 16}));
    EXPECT_EQ(manager, (std::vector<uint32_t>{0, 10000, 0}));
}

TEST_F(Timer, EachFailedStepOfTheStartUpEndsItWithARecord) {
    struct Step {
        const char *operation;
        uint64_t calls;
        const char *text;
    };
    const Step steps[] = {{"OsSigEmptySet", 1, "[InitTimer]SigEmptySet fail:1"},
                          {"OsSigAddSet", 2, "[InitTimer]OsSigAddSet fail:1"},
                          {"OsPthreadSigmask", 1, "[InitTimer]OsPthreadSigmask fail:1"},
                          {"OsTmrManagerInit", 1, "[InitTimer]Init 10ms tiemr failed:1"}};
    /* The service refers to it until another table is given. */
    static ConfCommTimerEntry other = {55, 1, 10, "other", remind, 0, 0, nullptr, 0};
    for (const Step &step : steps) {
        const auto again = [this] {
            platform::reset();
            playManager();
        };
        const uint64_t failures = platform::forEachFailure(
            step.operation, again, [&] { return ConfCommTimerInit(&other, 1); },
            [&](uint64_t, uint32_t result) {
                EXPECT_EQ(result, 1u);
                EXPECT_TRUE(hasRecord(1, "conf_timer", step.text));
                EXPECT_EQ(platform::records().size(), 1u);
                EXPECT_EQ(ConfCommTimerStop(55), 0u) << "the table is stored all the same";
            });
        EXPECT_EQ(failures, step.calls);
    }
    platform::failCall("OsMutexInit", 1);
    EXPECT_EQ(ConfCommTimerInit(table, 4), 1u);
    EXPECT_TRUE(hasRecord(1, "conf_timer", "[ConfCommTimerInit]OsSemInit fail! ret:1"));
    EXPECT_EQ(ConfCommTimerStop(20), 1u) << "the table is not stored";
}

TEST_F(Timer, NullTableAndNegativeCountStartNothing) {
    const uint64_t mutexes = platform::callCount("OsMutexInit");
    EXPECT_EQ(ConfCommTimerFuncInit(nullptr, 4), 1u);
    EXPECT_EQ(platform::callCount("OsMutexInit"), mutexes);
    EXPECT_EQ(ConfCommTimerInit(nullptr, 4), 1u);
    EXPECT_EQ(platform::callCount("OsMutexInit"), mutexes + 1);
    EXPECT_EQ(platform::callCount("OsTmrManagerInit"), 1u);
    EXPECT_TRUE(platform::records().empty());
    EXPECT_EQ(ConfCommTimerStop(20), 0u) << "the table of before is still in use";

    EXPECT_EQ(ConfCommTimerInit(table, -1), 0u);
    EXPECT_EQ(ConfCommTimerStart(20, 0, nullptr, 0), 1u);
    ConfCommTimerDeInit();
}

TEST_F(Timer, EndDeletesEveryTimerAndKeepsTheTable) {
    ASSERT_EQ(ConfCommTimerStart(10, 0, "data", 4), 0u);
    ASSERT_EQ(ConfCommTimerStart(20, 0, nullptr, 4), 0u);
    table[3].handle = 99; /* an entry that its id does not lead to */
    ConfCommTimerFuncDeInit();
    EXPECT_EQ(platform::callCount("OsMutexDestroy"), 1u);
    EXPECT_EQ(deleted, (std::vector<uint32_t>{1, 2, 99}));
    EXPECT_EQ(platform::outstanding(), 0);
    EXPECT_EQ(table[0].data, nullptr);
    EXPECT_EQ(table[0].handle, 0u);
    EXPECT_EQ(ConfCommTimerStop(10), 0u);

    /* An owner stops its object afterwards: there is no mutex any more to hold. */
    ConfTimerInit(&object, 1, 1, "receiver", remind);
    ASSERT_EQ(ConfTimerStart(&object, 10, 0, "data", 4), 0u);
    platform::failEveryCall("OsMutexLock");
    const uint64_t unlocked = platform::callCount("OsMutexUnLock");
    EXPECT_EQ(ConfTimerStop(&object), 0u);
    EXPECT_EQ(platform::callCount("OsMutexUnLock"), unlocked);
    EXPECT_EQ(platform::outstanding(), 0);
}

TEST_F(Timer, UnknownIdsAndNullObjectsAreRefusedWithARecord) {
    EXPECT_EQ(ConfCommTimerStart(kUnknownId, 0, nullptr, 0) + ConfCommTimerFree(kUnknownId), 2u);
    EXPECT_EQ(ConfTimerInit(nullptr, 0, 1, "receiver", remind), 1u);
    EXPECT_EQ(ConfTimerInit(&object, 0, 1, nullptr, remind), 1u);
    EXPECT_EQ(ConfTimerInit(&object, 0, 1, "receiver", nullptr), 1u);
    EXPECT_EQ(ConfTimerStart(nullptr, 0, 0, nullptr, 0) + ConfTimerFree(nullptr), 2u);
    EXPECT_FALSE(ConfTimerIsVaild(nullptr));
    for (const char *text :
         {"[ConfCommTimerStartEx]timerId:77 invalid", "[ConfCommTimerStop]timerId:77 invalid",
          "[ConfTimerInit]Null ptr.", "[ConfTimerStart]Null ptr.", "[ConfTimerStop]Null ptr.",
          "[ConfTimerIsVaild]Null ptr."}) {
        EXPECT_TRUE(hasRecord(1, "conf_timer", text)) << text;
    }
    EXPECT_EQ(platform::records().size(), 8u);
    EXPECT_EQ(object.receiver, nullptr);
}

/* ---- stopping ---- */

TEST_F(Timer, StopDeletesTheTimerAndItsDataOnly) {
    ASSERT_EQ(ConfCommTimerStart(20, 6, "data", 4), 0u);
    EXPECT_EQ(ConfCommTimerStop(20), 0u);
    EXPECT_EQ(ConfCommTimerStop(20), 0u);
    EXPECT_EQ(deleted, std::vector<uint32_t>{1});
    EXPECT_EQ(table[1].handle, 0u);
    EXPECT_EQ(table[1].data, nullptr);
    EXPECT_EQ(table[1].param, 6u);
    EXPECT_EQ(table[1].dataLength, 4u);

    ConfTimerInit(&object, 1, 0, "receiver", remind);
    EXPECT_FALSE(ConfTimerIsVaild(&object));
    ASSERT_EQ(ConfTimerStart(&object, 10, 6, "data", 4), 0u);
    EXPECT_TRUE(ConfTimerIsVaild(&object));
    EXPECT_EQ(ConfTimerStop(&object), 0u);
    EXPECT_EQ(ConfTimerFree(&object), 0u);
    EXPECT_FALSE(ConfTimerIsVaild(&object));
    EXPECT_EQ(deleted, (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(object.dataLength, 4u);
}

/* ---- the system time ---- */

TEST_F(Timer, SystemTimeCountsMonthsFromOneAndYearsFromZero) {
    platform::override(OsGetTimeEx,
                       [](OsTimeEx *record) { *record = {0x10000 + 250, 9, 5, 8, 1, 2, 126, {}}; });
    ConfSysTime now;
    ConfBasicGetSysTime(&now);
    EXPECT_EQ(now.year, 2026);
    EXPECT_EQ(now.month, 3);
    EXPECT_EQ(now.day, 1);
    EXPECT_EQ(now.hour, 8);
    EXPECT_EQ(now.minute, 5);
    EXPECT_EQ(now.second, 9);
    EXPECT_EQ(now.millisecond, 250) << "the low 16 bits";
    ConfBasicGetSysTime(nullptr);
    EXPECT_TRUE(hasRecord(1, "conf_timer", "[ConfBasicGetSysTime]Null ptr."));
    platform::override(OsGetSysTimeSec, [] { return 0xFFFFFFF0u; });
    EXPECT_EQ(ConfGetSysTimeSec(), 0xFFFFFFF0u);
}

}  // namespace
