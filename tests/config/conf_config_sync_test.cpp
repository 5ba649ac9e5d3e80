/* Values between the service and bound variables: what is pulled, applied and written back, in how
 * many operations, and what the log may show of it. The service is the test's own. */
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "include/conf_config.h"
#include "include/conf_log_adapter.h"
#include "tests/support/forwarding_platform.h"

namespace {

using std::string;
using Strings = std::vector<string>;

ConfConfigListItem listItem(const string &key, const string &value) {
    ConfConfigListItem item = {};
    memcpy(item.key, key.data(), key.size());
    memcpy(item.value, value.data(), value.size());
    return item;
}

Strings recordTexts() {
    Strings texts;
    for (const auto &record : platform::records()) {
        texts.push_back(std::to_string(record.level) + record.text);
    }
    return texts;
}

class ConfigSync : public platform::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        serve();
        ASSERT_EQ(ConfConfigInit([] {}, "TamoUIConf", "Conf"), 0);
        bind("Conf.A.number", CONF_VALUE_INT, &number, sizeof(number));
        bind("Conf.A.text", CONF_VALUE_STR, text, sizeof(text));
        bind("conf.a.small", CONF_VALUE_UINT, &small, sizeof(small));
        bind("Conf.A_b", CONF_VALUE_BOOL, &flag, sizeof(flag));
        bind("Conf.A.data", CONF_VALUE_DATA, data, sizeof(data));
        platform::clearRecords();
    }
    void TearDown() override {
        SetLogLevel(3);
        ConfConfigDeInit();
        PlatformTest::TearDown();
    }
    static void bind(const string &name, int32_t type, void *value, size_t size) {
        ConfConfigBind(name.c_str(), type, value, static_cast<uint32_t>(size), nullptr);
    }
    /* A service that notes each write as its keys and values. */
    void serve() {
        platform::override(TamoOmConfigInit,
                           [](uint32_t, const char *, const char *) { return 0; });
        platform::override(TamoOmConfigNotifyCallback,
                           [](ConfConfigChangeHandler, const char *) { return 0; });
        platform::override(TamoOmConfigStringGet, [this](ConfConfigOmRecord *record) {
            const auto found = stored.find(record->key.text);
            return found == stored.end()
                       ? 7
                       : TamoOmConfigcopyStr2Val(&record->value, found->second.c_str());
        });
        platform::override(
            TamoOmConfigStringMset, [this](const ConfConfigOmRecord *records, uint32_t count) {
                Strings &write = writes.emplace_back();
                for (uint32_t i = 0; i < count; i++) {
                    EXPECT_EQ(records[i].key.length, strlen(records[i].key.text));
                    EXPECT_EQ(records[i].value.length, strlen(records[i].value.text));
                    write.push_back(string(records[i].key.text) + "=" + records[i].value.text);
                }
                return refusal;
            });
    }
    int32_t number = 1;
    char text[8] = "old";
    uint8_t small = 2;
    uint64_t flag = 0;
    char data[4] = "abc";
    std::map<string, string> stored;
    std::vector<Strings> writes;
    int32_t refusal = 0;
};

TEST_F(ConfigSync, StartPullsWhatTheServiceHasAndKeepsTheRest) {
    char tiny[1] = {'x'};
    bind("Conf.A.tiny", CONF_VALUE_STR, tiny, sizeof(tiny));
    stored = {{"Conf.A.number", "-5"},
              {"Conf.A.text", "new"},
              {"Conf.A.data", "zzz"},
              {"Conf.A_b", "true"},
              {"Conf.A.tiny", ""}};
    SetLogLevel(4);
    ConfConfigInitOmCfg();
    EXPECT_EQ(number, -5);
    EXPECT_STREQ(text, "new");
    EXPECT_EQ(small, 2) << "the service has none";
    EXPECT_EQ(flag, 1u);
    EXPECT_STREQ(data, "abc") << "local";
    EXPECT_EQ(tiny[0], 'x') << "no room for a text";
    EXPECT_EQ(recordTexts(),
              Strings{"4[ConfConfigInitOmCfg]TamoOmConfigStringGet conf.a.small failed!!!\n"});
    EXPECT_TRUE(writes.empty());
}

TEST_F(ConfigSync, ListIsAppliedAndItsChangesAreStored) {
    const ConfConfigListItem list[] = {
        listItem("conf.a.NUMBER", "12"), listItem("", "x"),
        listItem("Conf.A.text", "OLD"),  listItem("Nobody", "1"),
        listItem("Conf.A_b", "yes"),     listItem("Conf.A.data", "q"),
        listItem("Conf.A.small", "300")};
    SetLogLevel(4);
    EXPECT_EQ(ConfConfigSetList(list, 7, 9), 4);
    EXPECT_EQ(writes, (std::vector<Strings>{{"conf.a.NUMBER=12", "Conf.A.small=300"}}));
    EXPECT_EQ(number, 12);
    EXPECT_EQ(small, 44);
    EXPECT_STREQ(text, "old") << "the same in another letter case";
    EXPECT_STREQ(data, "abc");
    EXPECT_EQ(recordTexts(),
              (Strings{"3[ConfConfigAddOmCfg]key = conf.a.NUMBER, val = 12",
                       "3[ConfConfigSetValue]key = conf.a.NUMBER, ret = 0",
                       "3[ConfConfigSetValue]key = Conf.A.text, ret = 1",
                       "1[ConfConfigSetValue]ConfConfigSetValue CALLCONFIG_NOTFIND\n",
                       "3[ConfConfigSetValue]key = Conf.A_b, ret = 1",
                       "3[ConfConfigSetValue]key = Conf.A.data, ret = -1",
                       "3[ConfConfigAddOmCfg]key = Conf.A.small, val = 300",
                       "3[ConfConfigSetValue]key = Conf.A.small, ret = 0",
                       "4[ConfConfigSyncOmCfg]ConfConfigSyncOmCfg 0 2\n",
                       "4[ConfConfigSyncOmCfg]ConfConfigSyncOmCfg conf.a.NUMBER 12 \n",
                       "4[ConfConfigSyncOmCfg]ConfConfigSyncOmCfg Conf.A.small 300 \n"}));
    platform::clearRecords();
    EXPECT_EQ(ConfConfigSetList(list, 3, 1), -2) << "nothing changed, so nothing is stored";
    EXPECT_EQ(recordTexts().back(),
              "1[ConfConfigSetList][ConfConfigSetList]:ConfConfigSyncOmCfg fail.\n");
    number = 0;
    EXPECT_EQ(ConfConfigSetList(list, 3, 0), 2);
    EXPECT_EQ(number, 12);
    EXPECT_EQ(writes.size(), 1u);
}

TEST_F(ConfigSync, ListInputThatIsNoneIsRefused) {
    ConfConfigListItem item = listItem("Conf.A.number", "9");
    EXPECT_EQ(ConfConfigSetList(nullptr, 1, 1), 0);
    EXPECT_EQ(ConfConfigSetList(&item, 0, 1), 0);
    memset(item.value, '9', sizeof(item.value));
    EXPECT_EQ(ConfConfigSetList(&item, 1, 0), 0) << "a value without an end";
    EXPECT_EQ(recordTexts().back(), "3[ConfConfigSetValue]key = Conf.A.number, ret = -1");
    memset(item.key, 'k', sizeof(item.key));
    EXPECT_EQ(ConfConfigSetList(&item, 1, 0), 0) << "a key without an end";
    EXPECT_EQ(number, 1);
    ConfConfigDeInit();
    EXPECT_EQ(ConfConfigSetList(&item, 1, 1), 0);
    EXPECT_EQ(recordTexts().back(), "1[ConfConfigSetList][ConfConfigSetList]: invalue input. \n");
    const char *keys[] = {""};
    EXPECT_EQ(ConfConfigSyncToOM(keys, 1), -1);
    ConfConfigInitOmCfg();
    EXPECT_TRUE(writes.empty());
}

TEST_F(ConfigSync, ListGoesOnWhenTheServiceRefusesABatch) {
    std::vector<int32_t> values(120, 0);
    std::vector<ConfConfigListItem> list;
    for (size_t i = 0; i < values.size(); i++) {
        const string key = "Many." + std::to_string(i);
        bind(key, CONF_VALUE_INT, &values[i], sizeof(values[i]));
        list.push_back(listItem(key, std::to_string(i + 1)));
    }
    refusal = 44;
    EXPECT_EQ(ConfConfigSetList(list.data(), 120, 1), -120);
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[1].size(), 50u);
    EXPECT_EQ(writes[1][0], "Many.50=51");
    EXPECT_EQ(writes[2].size(), 20u);
    EXPECT_TRUE(platform::hasRecord(
        1, "conf_config", "[ConfConfigAddOmCfg]ConfConfigAddOmCfg ConfConfigSyncOmCfg fail"));
    EXPECT_TRUE(platform::hasRecord(
        1, "conf_config",
        "[ConfConfigSyncOmCfg][ConfConfigSyncOmCfg]:TamoOmConfigStringMset fail, ret = 44 \n"));
    refusal = 0;
    EXPECT_EQ(ConfConfigSyncByKeyToOM("many."), 0);
    EXPECT_EQ(writes.size(), 6u);
}

TEST_F(ConfigSync, KeysSelectWhatIsWrittenBack) {
    const string longKey(200, 'k');
    const struct {
        std::vector<const char *> keys;
        Strings written;
    } cases[] = {
        {{"CONF.a."}, {"Conf.A.number=1", "conf.a.small=2", "Conf.A.text=old"}},
        {{""}, {"Conf.A.number=1", "conf.a.small=2", "Conf.A.text=old", "Conf.A_b=FALSE"}},
        {{nullptr, "conf.A_B", "Conf.A.number"}, {"Conf.A_b=FALSE", "Conf.A.number=1"}},
        {{"Conf.A", "Conf.A.data", "Z.", "Conf.A.n.", longKey.c_str(), nullptr}, {}},
    };
    for (const auto &each : cases) {
        writes.clear();
        const int32_t result =
            ConfConfigSyncToOM(each.keys.data(), static_cast<int32_t>(each.keys.size()));
        EXPECT_EQ(result, each.written.empty() ? -1 : 0);
        EXPECT_EQ(writes, std::vector(each.written.empty() ? 0 : 1, each.written));
    }
    EXPECT_EQ(recordTexts().back(), "1[ConfConfigSyncToOM]ConfConfigSyncOmCfg fail\n");
    EXPECT_EQ(recordTexts()[0], "3[ConfConfigAddOmCfgByKey]key strlen: 7  key: CO***a.");
    EXPECT_EQ(ConfConfigSyncToOM(nullptr, 1), -1);
    EXPECT_EQ(ConfConfigSyncByKeyToOM(nullptr), -1);
    platform::failCall("OsMemMallocSetCharMon", 1);
    EXPECT_EQ(ConfConfigSyncByKeyToOM(""), -1);
    EXPECT_EQ(recordTexts().back(), "1[ConfConfigSyncToOM]Null ptr.");
}

TEST_F(ConfigSync, WhatCannotBeRenderedStaysOutOfTheBatch) {
    char longText[1025] = {};
    memset(longText, 'x', 1024);
    bind("Conf.A.long", CONF_VALUE_STR, longText, sizeof(longText));
    EXPECT_EQ(ConfConfigSyncByKeyToOM("Conf.A.long"), -1);
    EXPECT_TRUE(platform::hasRecord(
        3, "conf_config",
        "[ConfConfigAddOmCfg]ConfConfigAddOmCfg ConfConfigV2Str fail Conf.A.long"));
    for (const uint64_t call : {1, 2}) { /* clearing the value; clearing the record */
        number = 0;
        writes.clear();
        const ConfConfigListItem item = listItem("Conf.A.number", "3");
        platform::failCall("memset_s", call);
        EXPECT_EQ(ConfConfigSetList(&item, 1, 1), call == 1 ? 1 : -1);
        EXPECT_EQ(number, 3);
        EXPECT_TRUE(platform::hasRecord(1, "conf_config", "conf secure func failed, err = "));
    }
    ConfConfigOmRecord record = {};
    ConfConfigOmBatch batches[] = {{1, 1, nullptr}, {0, 1, &record}, {-1, 1, &record}};
    for (ConfConfigOmBatch &batch : batches) {
        EXPECT_EQ(ConfConfigSyncOmCfg(&batch), -1);
    }
    EXPECT_EQ(ConfConfigSyncOmCfg(nullptr), -1);
    EXPECT_TRUE(writes.empty());
}

/* Every way that a value takes through the library, with every level on. */
TEST_F(ConfigSync, ValuesOfSensitiveKeysShowInNoRecord) {
    const char *keys[] = {"Conf.SIPCallParam.sipPwd",
                          "Conf.H323CallParam.gkPwd",
                          "Conf.SIPCallParam.sipServerAddr",
                          "Conf.H323CallParam.gkAddr",
                          "Conf.H323CallParam.vgAddr",
                          "Conf.FireWallParam.NatAddr",
                          "Conf.ServerParam.addr",
                          "Conf.ConfParam.DataConfZRBAddr",
                          "Conf.ServerParam.pwd"};
    char values[9][16] = {};
    std::vector<ConfConfigListItem> list;
    for (size_t i = 0; i < 9; i++) {
        bind(keys[i], i == 4 ? CONF_VALUE_INT : CONF_VALUE_STR, values[i], i == 4 ? 8 : 16);
        stored[keys[i]] = "47110815";
        list.push_back(listItem(keys[i], "47110816"));
    }
    const auto everyWay = [&] {
        ConfConfigInitOmCfg();
        ConfConfigSetList(list.data(), 9, 1);
        ConfConfigSetList(list.data(), 9, 0);
        ConfConfigSyncByKeyToOM("");
        ConfConfigSyncToOM(keys, 9);
        for (const auto &item : list) {
            ConfConfigOmVal value = {};
            memcpy(value.text, item.value, sizeof(value.text));
            value.length = 8;
            ConfConfigChangeItem change = {};
            memcpy(change.key.text, item.key, sizeof(change.key.text));
            change.key.length = static_cast<uint8_t>(strlen(item.key));
            change.value = &value;
            const ConfConfigChangeList changes = {1, &change};
            ConfConfigClientCallBack(65536, 0, 0, &changes);
        }
    };
    SetLogLevel(4);
    everyWay();
    refusal = 3;
    everyWay();
    EXPECT_TRUE(
        platform::hasRecord(3, "conf_config", "[ConfConfigAddOmCfg]key = Conf.ServerParam.pwd"));
    for (const auto &record : platform::records()) {
        EXPECT_EQ(record.text.find("4711"), string::npos) << record;
    }
    list[8] = listItem("conf.ServerParam.pwd", "4712");
    ConfConfigSetList(&list[8], 1, 1);
    EXPECT_TRUE(platform::hasRecord(3, "conf_config", "key = conf.ServerParam.pwd, val = 4712"))
        << "another spelling is another key";
}

}  // namespace
