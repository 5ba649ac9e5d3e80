/* Single values, against the host's real store and against a failing service. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "include/conf_config.h"
#include "tests/support/forwarding_platform.h"

namespace {

using platform::hasRecord;
using std::string;

void store(const char *key, const char *value) {
    ConfConfigOmRecord record = {};
    ASSERT_EQ(TamoOmConfigcopyStr2Key(&record, key), 0);
    ASSERT_EQ(TamoOmConfigcopyStr2Val(&record.value, value), 0);
    ASSERT_EQ(TamoOmConfigStringMset(&record, 1), 0);
}

string stored(const char *key) {
    ConfConfigOmRecord record = {};
    TamoOmConfigcopyStr2Key(&record, key);
    return TamoOmConfigStringGet(&record) == 0 ? record.value.text : "(none)";
}

class ConfigAccess : public platform::PlatformTest {};

TEST_F(ConfigAccess, NumbersGoAndComeBack) {
    EXPECT_EQ(ConfConfigSetUint64Value("Acc.u", UINT64_MAX), 0);
    EXPECT_EQ(stored("Acc.u"), "18446744073709551615");
    uint64_t number = 0;
    EXPECT_EQ(ConfConfigGetUint64Value("Acc.u", &number), 0);
    EXPECT_EQ(number, UINT64_MAX);
    const struct {
        const char *text;
        uint64_t number;
    } cases[] = {{"0x1Fz", 31}, {"010", 8}, {"none", 0}, {"", 0}};
    for (const auto &c : cases) {
        store("Acc.t", c.text);
        EXPECT_EQ(ConfConfigGetUint64Value("Acc.t", &number), 0);
        EXPECT_EQ(number, c.number) << c.text;
    }
    store("Acc.i", "-0x10");
    EXPECT_EQ(ConfConfigGetIntValue("Acc.i"), -16);
    store("Acc.i", "12 ");
    EXPECT_EQ(ConfConfigGetIntValue("Acc.i"), 1);
    EXPECT_TRUE(hasRecord(1, "param_check", "[ConfGetAtoi]strtol failed. defaultValue:1"));
}

TEST_F(ConfigAccess, SecuritySettingsAreOnUntilStored) {
    EXPECT_EQ(GetEnableEofb(), 1);
    EXPECT_EQ(GetSipPreventAttack(), 1);
    EXPECT_TRUE(hasRecord(3, "conf_config",
                          "[ConfConfigGetIntValue]Call TamoOmConfigStringMget failed! "
                          "key:Conf.SIPCallParam.PreventAttack.\n"));
    EXPECT_EQ(SetEnableEofb(255), 0);
    EXPECT_EQ(stored("Conf.SecurityParam.enableEofb"), "255");
    EXPECT_EQ(GetEnableEofb(), 255);
    EXPECT_EQ(SetSipPreventAttack(0), 0);
    EXPECT_EQ(GetSipPreventAttack(), 0);
}

TEST_F(ConfigAccess, MissingArgumentsAndTooLongKeysAreRefused) {
    uint64_t number = 7;
    const string longKey(128, 'k');
    EXPECT_EQ(ConfConfigGetIntValue(nullptr), 1);
    EXPECT_EQ(ConfConfigGetIntValue(longKey.c_str()), 1);
    EXPECT_EQ(ConfConfigGetUint64Value(nullptr, &number), 1);
    EXPECT_EQ(ConfConfigGetUint64Value("k", nullptr), 1);
    EXPECT_EQ(ConfConfigGetUint64Value(longKey.c_str(), &number), 1);
    EXPECT_EQ(ConfConfigSetUint64Value(nullptr, 1), 1);
    EXPECT_EQ(number, 7u);
    for (const char *text :
         {"[ConfConfigGetIntValue]Null ptr.", "[ConfConfigGetUint64Value]Null ptr.",
          "[ConfConfigSetUint64Value]key is null."}) {
        EXPECT_TRUE(hasRecord(1, "conf_config", text)) << text;
    }
    EXPECT_TRUE(hasRecord(3, "conf_config", "Call TamoOmConfigcopyStr2Key failed! key:" + longKey));
}

TEST_F(ConfigAccess, EveryFailedStepOfAWriteIsNamed) {
    const struct {
        const char *operation, *record;
    } steps[] = {{"TamoOmConfigcopyStr2Key", "[ConfConfigSetIntValue]TamoOmConfigcopyStr2Key fail"},
                 {"TamoOmConfigsetIntValue", "[ConfConfigSetIntValue]TamoOmConfigsetIntValue fail"},
                 {"TamoOmConfigStringMset", "[ConfConfigSetIntValue]TamoOmConfigStringMset fail"}};
    for (const auto &step : steps) {
        platform::failCall(step.operation, 1);
        EXPECT_EQ(SetEnableEofb(3), 1);
        EXPECT_TRUE(hasRecord(1, "conf_config", step.record));
    }
    platform::failCall("TamoOmConfigsetUintValue", 1);
    EXPECT_EQ(ConfConfigSetUint64Value("k", 3), 1);
    EXPECT_TRUE(
        hasRecord(1, "conf_config", "[ConfConfigSetUint64Value]TamoOmConfigsetUintValue fail"));
}

}  // namespace
