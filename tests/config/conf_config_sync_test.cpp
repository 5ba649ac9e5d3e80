/* Values between the service and bound variables: what is pulled, applied and written back, in how
 * many operations, and what the log may show of it. The service is the test's own. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_config.h"
#include "include/conf_log_adapter.h"

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
    for (const auto &record : testkit::records()) {
        texts.push_back(std::to_string(record.level) + record.whole());
    }
    return texts;
}

size_t countOf(const string &part) {
    const Strings all = recordTexts();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const string &text) {
        return text.find(part) != string::npos;
    }));
}

void bind(const string &name, int32_t type, void *value, size_t size) {
    ConfConfigBind(name.c_str(), type, value, static_cast<uint32_t>(size), nullptr);
}

/* Bound variables, and a service that notes each write as its keys and values. */
class ConfigSync : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        testkit::replace(TamoOmConfigStringGet, [this](ConfConfigOmRecord *record) {
            const char *value = stored[record->key.text].c_str();
            return *value == 0 ? 7 : TamoOmConfigcopyStr2Val(&record->value, value);
        });
        testkit::replace(TamoOmConfigStringMset, [this](const auto *records, uint32_t count) {
            Strings &write = writes.emplace_back();
            for (const auto &[key, value] : std::span(records, count)) {
                EXPECT_TRUE(key.length == strlen(key.text) && value.length == strlen(value.text));
                write.push_back(string(key.text) + "=" + value.text);
            }
            return refusal;
        });
        ASSERT_EQ(ConfConfigInit([] {}, "TamoUIConf", "Conf"), 0);
        bind("Conf.A.number", CONF_VALUE_INT, &number, sizeof(number));
        bind("Conf.A.text", CONF_VALUE_STR, text, sizeof(text));
        bind("conf.a.small", CONF_VALUE_UINT, &small, sizeof(small));
        bind("Conf.A_b", CONF_VALUE_BOOL, &flag, sizeof(flag));
        bind("Conf.A.data", CONF_VALUE_DATA, data, sizeof(data));
        bind("Conf.A.tiny", CONF_VALUE_STR, tiny, sizeof(tiny));
        SetLogLevel(4);
        testkit::clearRecords();
    }
    void TearDown() override {
        SetLogLevel(3);
        ConfConfigDeInit();
        PlatformTest::TearDown();
    }
    string variables() const {
        return std::to_string(number) + " " + text + " " + std::to_string(small) + " " +
               std::to_string(flag) + " " + data;
    }
    int32_t number = 1, refusal = 0;
    char text[8] = "old", data[4] = "abc", tiny[1] = {};
    uint8_t small = 2;
    uint64_t flag = 0;
    std::map<string, string> stored;
    std::vector<Strings> writes;
};

TEST_F(ConfigSync, StartPullsWhatTheServiceHasAndKeepsTheRest) {
    stored = {{"Conf.A.number", "-5"}, {"Conf.A.text", "new"}, {"Conf.A.data", "zzz"}};
    stored["Conf.A_b"] = stored["Conf.A.tiny"] = "true";
    tiny[0] = 'x';
    ConfConfigInitOmCfg();
    EXPECT_EQ(variables(), "-5 new 2 1 abc");
    EXPECT_EQ(tiny[0], 'x') << "no room for a text";
    EXPECT_EQ(recordTexts(),
              Strings{"4[ConfConfigInitOmCfg]TamoOmConfigStringGet conf.a.small failed!!!\n"});
}

TEST_F(ConfigSync, ListIsAppliedAndItsChangesAreStored) {
    const ConfConfigListItem list[] = {
        listItem("conf.a.NUMBER", "12"), listItem("", "x"),
        listItem("Conf.A.text", "OLD"),  listItem("Nobody", "1"),
        listItem("Conf.A.data", "q"),    listItem("Conf.A.small", "300")};
    EXPECT_EQ(ConfConfigSetList(list, 6, 9), 3);
    EXPECT_EQ(writes, (std::vector<Strings>{{"conf.a.NUMBER=12", "Conf.A.small=300"}}));
    EXPECT_EQ(variables(), "12 old 44 0 abc");
    const string set = "3[ConfConfigSetValue]key = ";
    const string add = "3[ConfConfigAddOmCfg]key = ";
    const string sync = "4[ConfConfigSyncOmCfg]ConfConfigSyncOmCfg ";
    EXPECT_EQ(recordTexts(),
              (Strings{add + "conf.a.NUMBER, val = 12", set + "conf.a.NUMBER, ret = 0",
                       set + "Conf.A.text, ret = 1",
                       "1[ConfConfigSetValue]ConfConfigSetValue CALLCONFIG_NOTFIND\n",
                       set + "Conf.A.data, ret = -1", add + "Conf.A.small, val = 300",
                       set + "Conf.A.small, ret = 0", sync + "0 2\n", sync + "conf.a.NUMBER 12 \n",
                       sync + "Conf.A.small 300 \n"}));
    EXPECT_EQ(ConfConfigSetList(list, 3, 1), -2) << "nothing changed, so nothing is stored";
    EXPECT_EQ(recordTexts().back(),
              "1[ConfConfigSetList][ConfConfigSetList]:ConfConfigSyncOmCfg fail.\n");
    number = 0;
    EXPECT_EQ(ConfConfigSetList(list, 3, 0), 2);
    EXPECT_EQ(number, 12);
    EXPECT_EQ(writes.size(), 1u);
}

TEST_F(ConfigSync, InputThatIsNoneIsRefused) {
    ConfConfigListItem item = listItem("Conf.A.number", "9");
    memset(item.value, '9', sizeof(item.value));
    EXPECT_EQ(ConfConfigSetList(&item, 1, 0), 0) << "a value without an end";
    EXPECT_EQ(recordTexts().back(), "3[ConfConfigSetValue]key = Conf.A.number, ret = -1");
    memset(item.key, 'k', sizeof(item.key));
    EXPECT_EQ(ConfConfigSetList(&item, 1, 0), 0) << "a key without an end";
    EXPECT_EQ(number, 1);
    ConfConfigOmRecord record = {};
    ConfConfigOmBatch batches[] = {{1, 1, nullptr}, {0, 1, &record}, {-1, 1, &record}};
    for (ConfConfigOmBatch &batch : batches) {
        EXPECT_EQ(ConfConfigSyncOmCfg(&batch), -1);
    }
    EXPECT_EQ(ConfConfigSyncOmCfg(nullptr), -1);
    EXPECT_EQ(ConfConfigSyncToOM(nullptr, 1), -1);
    EXPECT_EQ(ConfConfigSetList(nullptr, 1, 1), 0);
    EXPECT_EQ(ConfConfigSetList(&item, 0, 1), 0);
    ConfConfigDeInit();
    EXPECT_EQ(ConfConfigSetList(&item, 1, 1), 0);
    EXPECT_EQ(countOf("1[ConfConfigSetList][ConfConfigSetList]: invalue input. \n"), 3u);
    EXPECT_EQ(ConfConfigSyncByKeyToOM(""), -1);
    EXPECT_TRUE(writes.empty());
}

TEST_F(ConfigSync, ListGoesOnWhenTheServiceRefusesABatch) {
    std::vector<int32_t> values(120, 0);
    std::vector<ConfConfigListItem> list;
    for (size_t i = 0; i < values.size(); i++) {
        list.push_back(listItem("Many." + std::to_string(i), std::to_string(i + 1)));
        bind(list[i].key, CONF_VALUE_INT, &values[i], sizeof(values[i]));
    }
    refusal = 44;
    EXPECT_EQ(ConfConfigSetList(list.data(), 120, 1), -120);
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[1].size(), 50u);
    EXPECT_EQ(writes[2][0], "Many.100=101");
    EXPECT_EQ(writes[2].size(), 20u);
    EXPECT_EQ(countOf("1[ConfConfigAddOmCfg]ConfConfigAddOmCfg ConfConfigSyncOmCfg fail"), 2u);
    EXPECT_EQ(countOf("1[ConfConfigSyncOmCfg][ConfConfigSyncOmCfg]:TamoOmConfigStringMset fail, "
                      "ret = 44 \n"),
              3u);
    refusal = 0;
    EXPECT_EQ(ConfConfigSyncByKeyToOM("many."), 0);
    EXPECT_EQ(writes.size(), 6u);
}

TEST_F(ConfigSync, KeysSelectWhatIsWrittenBack) {
    string longText(1024, 'k');
    const Strings below = {"Conf.A.number=1", "conf.a.small=2", "Conf.A.text=old", "Conf.A.tiny="};
    Strings all = below;
    all.push_back("Conf.A_b=FALSE");
    const struct {
        std::vector<const char *> keys;
        Strings written;
    } cases[] = {
        {{"CONF.a."}, below},
        {{""}, all},
        {{nullptr, "conf.A_B", "Conf.A.number"}, {"Conf.A_b=FALSE", "Conf.A.number=1"}},
        {{"Conf.A", "Conf.A.data", "Z.", "Conf.A.n.", longText.c_str(), nullptr}, {}},
    };
    for (const auto &[keys, written] : cases) {
        writes.clear();
        const int32_t result = ConfConfigSyncToOM(keys.data(), static_cast<int32_t>(keys.size()));
        EXPECT_EQ(result, written.empty() ? -1 : 0);
        EXPECT_EQ(writes, std::vector(written.empty() ? 0 : 1, written));
    }
    EXPECT_EQ(recordTexts().back(), "1[ConfConfigSyncToOM]ConfConfigSyncOmCfg fail\n");
    EXPECT_EQ(recordTexts()[0], "3[ConfConfigAddOmCfgByKey]key strlen: 7  key: CO***a.");
    bind("Conf.long", CONF_VALUE_STR, longText.data(), longText.size() + 1);
    bind("Conf.endless", CONF_VALUE_STR, data, 3);
    bind("Conf.boundless", CONF_VALUE_STR, data, 0);
    writes.clear();
    EXPECT_EQ(ConfConfigSyncByKeyToOM("Conf.boundless"), 0) << "a size of 0 tells no bound";
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0], Strings{"Conf.boundless=abc"});
    for (const string name : {"Conf.long", "Conf.endless"}) {
        EXPECT_EQ(ConfConfigSyncByKeyToOM(name.c_str()), -1) << "no text that a record holds";
        EXPECT_EQ(countOf("3[ConfConfigAddOmCfg]ConfConfigAddOmCfg ConfConfigV2Str fail " + name),
                  1u);
    }
    testkit::failCall(OsMemMallocSetCharMon, 1);
    EXPECT_EQ(ConfConfigSyncByKeyToOM(""), -1);
    EXPECT_EQ(recordTexts().back(), "1[ConfConfigSyncToOM]Null ptr.");
}

/* Blocks and batches that are used no more, in every way that a value takes through the library. */
TEST_F(ConfigSync, SensitiveValuesAreWipedAndDoNotGoWithoutTheirKey) {
    const string key = "Conf.ServerParam.pwd";
    char password[16] = "";
    static const void *held; /* where values were seen, and whether they were wiped there */
    static size_t wiped;
    const auto holds = [](const void *block, size_t size) {
        return memmem(block, size, "4711", 4) != nullptr;
    };
    testkit::replace(TamoOmConfigStringMset, [&](const ConfConfigOmRecord *records, uint32_t n) {
        EXPECT_TRUE(holds(records, n * sizeof(*records)));
        held = records;
        return 0;
    });
    testkit::replace(OSMemTypeFreeMon, [&](void *block, uint32_t a, uint32_t b, uint32_t line,
                                           const char *unit) {
        wiped += block == held && !holds(block, sizeof(ConfConfigListItem)) ? 1 : 0;
        return testkit::real(OSMemTypeFreeMon)(block, a, b, line, unit);
    });
    allowOutstandingBlocks();
    ConfConfigBind(key.c_str(), CONF_VALUE_STR, password, 16,
                   [](const ConfConfigListItem *items, uint32_t) { held = items; });
    const ConfConfigListItem item = listItem(key, "4711");
    EXPECT_EQ(ConfConfigSetList(&item, 1, 1), 1);
    EXPECT_FALSE(holds(held, sizeof(ConfConfigOmRecord)));
    EXPECT_EQ(ConfConfigSyncByKeyToOM(key.c_str()), 0);
    EXPECT_EQ(wiped, 1u);
    ConfConfigOmVal value = {"4711", 4};
    ConfConfigChangeItem change = {};
    memcpy(change.key.text, key.data(), key.size());
    change.key.length = static_cast<uint8_t>(key.size());
    change.value = &value;
    const ConfConfigChangeList changes = {1, &change};
    ConfConfigClientCallBack(65536, 0, 0, &changes);
    EXPECT_EQ(wiped, 2u);
    testkit::failCall(TamoOmConfigcopyStr2Key, 1);
    held = nullptr;
    EXPECT_EQ(ConfConfigSyncByKeyToOM(key.c_str()), -1);
    EXPECT_EQ(held, nullptr) << "nothing is sent";
    EXPECT_EQ(countOf("4711"), 0u);
}

/* Every way that a value takes through the library, with every level on. */
TEST_F(ConfigSync, ValuesOfSensitiveKeysShowInNoRecord) {
    std::vector<ConfConfigListItem> list;
    char values[9][16] = {};
    for (const char *name :
         {"SIPCallParam.sipPwd", "H323CallParam.gkPwd", "SIPCallParam.sipServerAddr",
          "H323CallParam.gkAddr", "H323CallParam.vgAddr", "FireWallParam.NatAddr",
          "ServerParam.addr", "ConfParam.DataConfZRBAddr", "ServerParam.pwd"}) {
        const size_t i = list.size();
        list.push_back(listItem(string("Conf.") + name, "47110816"));
        bind(list[i].key, CONF_VALUE_STR, values[i], 16);
        stored[list[i].key] = "47110815";
    }
    bind(list[4].key, CONF_VALUE_UINT, &flag, sizeof(flag));
    for (refusal = 0; refusal < 2; refusal++) {
        ConfConfigInitOmCfg();
        ConfConfigSetList(list.data(), 9, 1);
        ConfConfigSyncByKeyToOM("");
    }
    EXPECT_EQ(countOf("[ConfConfigAddOmCfg]key = Conf.ServerParam.pwd"), 4u);
    EXPECT_EQ(countOf("4711"), 0u);
    list[8] = listItem("conf.ServerParam.pwd", "4712");
    ConfConfigSetList(&list[8], 1, 1);
    EXPECT_EQ(countOf("key = conf.ServerParam.pwd, val = 4712"), 1u) << "another key";
}

}  // namespace
