/* Single values, against the host's real store and against a failing service. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <conference_testkit_gtest.h>
#include "include/conf_config.h"

namespace {

using std::string;
using testkit::hasRecord;

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

class ConfigAccess : public testkit::PlatformTest {};

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
    for (const char *operation :
         {"TamoOmConfigcopyStr2Key", "TamoOmConfigsetIntValue", "TamoOmConfigStringMset"}) {
        testkit::failCall(operation, 1);
        EXPECT_EQ(SetEnableEofb(3), 1);
        EXPECT_TRUE(
            hasRecord(1, "conf_config", string("[ConfConfigSetIntValue]") + operation + " fail"));
    }
    testkit::failCall(TamoOmConfigsetUintValue, 1);
    EXPECT_EQ(ConfConfigSetUint64Value("k", 3), 1);
    EXPECT_TRUE(
        hasRecord(1, "conf_config", "[ConfConfigSetUint64Value]TamoOmConfigsetUintValue fail"));
}

TEST_F(ConfigAccess, TheLocalAddressGoesToTheServiceAndComesBack) {
    const struct {
        uint32_t family;
        int32_t (*get)(uint32_t, char *);
        const char *key, *address, *missing;
    } families[] = {
        {0, ConfConfigGetLocalIpv4, "DEVM.NET.LAN1.IPV4ADDR", "192.0.2.7",
         "[ConfConfigGetLocalIpv4]ipInfo is NULL!"},
        {1, ConfConfigGetLocalIpv6, "DEVM.NET.LAN1.IPV6ADDR", "2001:db8::7",
         "[ConfConfigGetLocalIpv6]ipInfo is NULL!"},
    };
    for (const auto &c : families) {
        char buffer[43] = "??????????????????????????????????????????";
        EXPECT_EQ(c.get(0, buffer), 0);
        EXPECT_EQ(string(buffer), string(42, '?')) << "no value is stored";
        EXPECT_EQ(ConfConfigSetLocalIp(c.family, c.address), 0);
        EXPECT_EQ(stored(c.key), c.address);
        EXPECT_EQ(c.get(0, buffer), 0);
        EXPECT_EQ(string(buffer, 42).substr(0, strlen(c.address)), c.address);
        store(c.key, string(43, '1').c_str());
        EXPECT_NE(c.get(0, buffer), 0);
        EXPECT_EQ(buffer[0], 0);
        EXPECT_TRUE(hasRecord(1, "conf_config", "conf secure func failed, err = "));
        EXPECT_EQ(c.get(0, nullptr), 1);
        EXPECT_TRUE(hasRecord(1, "conf_config", c.missing));
    }
    EXPECT_TRUE(hasRecord(1, "conf_config",
                          "[CallServiceIsForbiddenKitCap]forbiddenKitCap ConfConfigGetValueByName "
                          "error, iRes:1"));
    EXPECT_EQ(ConfConfigSetLocalIp(0, nullptr), 1);
    EXPECT_TRUE(hasRecord(1, "conf_config", "[ConfConfigSetLocalIp]param is NULL!"));
    EXPECT_EQ(ConfConfigSetLocalIp(2, "x"), 1);
    for (const char *operation : {"TamoOmConfigcopyStr2Key", "TamoOmConfigStringSet"}) {
        testkit::failCall(operation, 1);
        EXPECT_EQ(ConfConfigSetLocalIp(0, "x"), 1) << operation;
        EXPECT_EQ(stored("DEVM.NET.LAN1.IPV4ADDR"), string(43, '1'));
    }
    EXPECT_EQ(ConfConfigSetLocalIp(0, string(1024, 'x').c_str()), 0);
    EXPECT_EQ(stored("DEVM.NET.LAN1.IPV4ADDR"), "") << "the copy's result is not used";
}

}  // namespace
