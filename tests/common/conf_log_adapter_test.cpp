/* Logging: what reaches the platform's log client, record by record. */
#include "include/conf_log_adapter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <conference_testkit_gtest.h>

namespace {

using std::string;

class ConfLog : public testkit::PlatformTest {
  protected:
    void TearDown() override {
        SetLogLevel(CONF_LOG_INFO);
        PlatformTest::TearDown();
    }

    static string textOf(size_t i) { return testkit::records().at(i).whole(); }
    static size_t count() { return testkit::records().size(); }
    static void expectTexts(const std::vector<string> &texts) {
        ASSERT_EQ(count(), texts.size());
        for (size_t i = 0; i < texts.size(); i++) {
            EXPECT_EQ(textOf(i), texts[i]);
        }
    }
};

TEST_F(ConfLog, RecordCarriesFunctionUnitAndLine) {
    ConfLogPrintf(1, "ConfCommMsgProcess", "conf_msg_api", 230, "Null ptr.");
    const auto records = testkit::records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 1);
    EXPECT_EQ(records[0].logFileId + GetConfLogFileId(), 0) << "no log file is made yet";
    EXPECT_EQ(records[0].unit, "conf_msg_api");
    EXPECT_EQ(records[0].line, 230);
    EXPECT_EQ(records[0].whole(), "[ConfCommMsgProcess]Null ptr.");
}

TEST_F(ConfLog, FilterDecidesByLevelAndRefusesLevelsAboveDebug) {
    EXPECT_EQ(GetLogLevel(), CONF_LOG_INFO);
    ConfLogPrintf(4, "f", "u", 1, "hidden");
    EXPECT_EQ(testkit::callCount(TamoOmLogModuleLogRecord), 0u);
    EXPECT_EQ(SetLogLevel(5), -1);
    EXPECT_EQ(GetLogLevel(), CONF_LOG_INFO);
    EXPECT_EQ(SetLogLevel(4), 0);
    ConfLogPrintf(4, "f", "u", 1, "shown");
    EXPECT_EQ(count(), 1u);
    EXPECT_EQ(SetLogLevel(0), 0);
    ConfLogPrintf(1, "f", "u", 1, "silenced");
    ConfLogPrintfStr(1, "f", "u", 1, string(700, 'x').c_str());
    EXPECT_EQ(count(), 1u);
}

TEST_F(ConfLog, RecordThatDoesNotFitIsDroppedWholeAndNullTextsWriteNothing) {
    ConfLogPrintf(1, "f", "u", 1, "%s", string(508, 'x').c_str());
    ASSERT_EQ(count(), 1u);
    EXPECT_EQ(textOf(0).size(), 511u);
    ConfLogPrintf(1, "f", "u", 1, "%s", string(509, 'x').c_str());
    ConfLogPrintf(1, string(509, 'f').c_str(), "u", 1, "x");
    ConfLogPrintf(1, string(600, 'f').c_str(), "u", 1, "x");
    const char *volatile absent = nullptr;
    ConfLogPrintf(1, "f", nullptr, 1, "x");
    ConfLogPrintf(1, "f", "u", 1, absent, 0);
    ConfLogPrintfStr(1, "f", "u", 1, nullptr);
    ConfLogPrintfStr(1, "f", nullptr, 1, "text");
    ConfLogPrintfStr(1, "f", "u", 1, "");
    EXPECT_EQ(count(), 1u);
}

/* Long texts and buffers, and the texts of the records that they become. */
TEST_F(ConfLog, LongTextsAndBuffersAreCutIntoPieces) {
    string lines(700, 'b');
    lines[100] = '\n';
    const std::pair<string, std::vector<string>> texts[] = {
        {string(700, 'a'), {"[fn]" + string(352, 'a'), string(348, 'a')}},
        {string(352, 'c'), {"[fn]" + string(352, 'c')}},
        {lines, {"[fn]" + lines.substr(0, 101), string(352, 'b'), string(247, 'b')}}};
    for (const auto &[text, pieces] : texts) {
        testkit::clearRecords();
        ConfLogPrintfStr(1, "fn", "u", 1, text.c_str());
        expectTexts(pieces);
    }
    const string head = "[ConfLogSegmentPrint][unit.cpp : 7] \n";
    const string one(256, '1'), two(256, '2'), text(399, 's');
    const std::pair<string, std::vector<string>> buffers[] = {
        {text, {head + text}},
        {one + two, {head + one, head + two}},
        {one + two + "rest", {head + one, head + two, head + "rest"}}};
    for (const auto &[bytes, pieces] : buffers) {
        testkit::clearRecords();
        ConfLogSegmentPrint("/some/where/unit.cpp", 7, 1, bytes.data(),
                            static_cast<uint32_t>(bytes.size()));
        expectTexts(pieces);
    }
}

TEST_F(ConfLog, SegmentThatCannotBeCopiedGoesOnWithTheRemainder) {
    const string text(516, 'x');
    testkit::failCall(memcpy_s, 1);
    ConfLogSegmentPrint("u.c", 9, 1, text.data(), 516);
    ASSERT_EQ(count(), 2u);
    EXPECT_TRUE(testkit::hasRecord(1, "conf_log_adapter", "] [u.c : 9] secure func fail,ret:"));
    EXPECT_EQ(textOf(1), "[ConfLogSegmentPrint][u.c : 9] \nxxxx");

    testkit::clearRecords();
    testkit::failCall(memset_s, 3);
    ConfLogSegmentPrint("u.c", 9, 1, text.data(), 516);
    ASSERT_EQ(count(), 3u);
    EXPECT_EQ(textOf(2).back(), ' ');
    EXPECT_NE(textOf(2).find("][u.c : 9] secure func fail,ret:"), string::npos);

    testkit::clearRecords();
    ConfLogSegmentPrint(nullptr, 12, 1, "x", 1);
    ConfLogSegmentPrint("u.c", 12, 1, nullptr, 1);
    ConfLogSegmentPrint("u.c", 12, 1, "x", 0);
    expectTexts(std::vector<string>(3, "[ConfLogSegmentPrint][12] param is null"));
}

TEST_F(ConfLog, InitReturnsTheFirstFailingStep) {
    OmLogCreateParam seen = {};
    testkit::replace(TamoOmLogClientInit, [](const char *mode, uint32_t flag) {
        return strcmp(mode, "C") == 0 && flag == 1 ? 0 : 99;
    });
    testkit::replace(TamoOmLogCreateLog, [&](const OmLogCreateParam *param, uint16_t *id) {
        seen = *param;
        *id = 17;
        return 0;
    });
    testkit::failCall(strcpy_s, 1);
    EXPECT_NE(ConfLogInit(), 0);
    EXPECT_EQ(testkit::callCount(TamoOmLogCreateLog), 0u);
    EXPECT_EQ(ConfLogInit(), 0);
    EXPECT_EQ(GetConfLogFileId(), 17u);
    const OmLogCreateParam expected = {512, 9, 0xA00000, "Conference.log"};
    EXPECT_EQ(memcmp(&seen, &expected, sizeof(expected)), 0);

    testkit::replace(TamoOmLogCreateLog, [](const OmLogCreateParam *, uint16_t *) { return 5; });
    EXPECT_EQ(ConfLogInit(), 5);
    testkit::replace(TamoOmLogClientInit, [](const char *, uint32_t) { return 77; });
    EXPECT_EQ(ConfLogInit(), 77);
    EXPECT_EQ(ConfLogUnInit(), 0);
    EXPECT_EQ(testkit::callCount(TamoOmLogClientUnInit), 1u);
    EXPECT_EQ(GetConfLogFileId(), 17u);
}

}  // namespace
