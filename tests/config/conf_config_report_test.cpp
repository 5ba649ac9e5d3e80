/* Change reports: which callback hears of which keys, in which order, and never half a report. */
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_config.h"
#include "include/conf_log_adapter.h"

namespace {

using std::string;

/* Each callback call: who, and the keys with their values. */
std::vector<std::pair<char, std::vector<string>>> calls;

template <char Name>
void callback(const ConfConfigListItem *items, uint32_t count) {
    calls.push_back({Name, {}});
    for (uint32_t i = 0; i < count; i++) {
        calls.back().second.push_back(string(items[i].key) + "=" + items[i].value);
    }
}

/* A report and its storage. */
struct Report {
    std::deque<ConfConfigOmVal> values;
    std::vector<ConfConfigChangeItem> items;
    ConfConfigChangeList list = {};

    void add(const string &key, const string &value) {
        ConfConfigOmVal &v = values.emplace_back();
        memcpy(v.text, value.data(), value.size());
        v.length = static_cast<uint32_t>(value.size());
        ConfConfigChangeItem item = {};
        memcpy(item.key.text, key.data(), key.size());
        item.key.length = static_cast<uint8_t>(key.size());
        item.value = &v;
        items.push_back(item);
        list = {static_cast<uint32_t>(items.size()), items.data()};
    }
};

template <size_t... I>
constexpr auto manyCallbacks(std::index_sequence<I...>) {
    return std::array{+[](const ConfConfigListItem *items, uint32_t) {
        calls.push_back({static_cast<char>(I), {items[0].key}});
    }...};
}

class ConfigReport : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        calls.clear();
        ASSERT_EQ(ConfConfigInit([] {}, "TamoUIConf", "Conf"), 0);
        ConfConfigBind("A.1", CONF_VALUE_INT, &storage, 4, callback<'A'>);
        ConfConfigBind("A.2", CONF_VALUE_INT, &storage, 4, callback<'A'>);
        ConfConfigBind("B.1", CONF_VALUE_INT, &storage, 4, callback<'B'>);
        ConfConfigBind("B.2", CONF_VALUE_INT, &storage, 4, callback<'B'>);
        ConfConfigBind("Local", CONF_VALUE_DATA, &storage, 4, callback<'B'>);
        ConfConfigBind("Quiet", CONF_VALUE_INT, &storage, 4, nullptr);
        testkit::clearRecords();
        for (const char *key : {"A.1", "B.1", "a.2", "Unbound", "Local", "Quiet", "B.2"}) {
            mixed.add(key, "v");
        }
    }
    void TearDown() override {
        SetLogLevel(3);
        ConfConfigDeInit();
        PlatformTest::TearDown();
    }
    int storage = 0;
    Report mixed;
};

TEST_F(ConfigReport, EachCallbackHearsItsKeysOnceInReportOrder) {
    SetLogLevel(4);
    ConfConfigClientCallBack(65536, 1, 2, &mixed.list);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].first, 'A');
    EXPECT_EQ(calls[0].second, (std::vector<string>{"A.1=v", "a.2=v"}));
    EXPECT_EQ(calls[1].first, 'B');
    EXPECT_EQ(calls[1].second, (std::vector<string>{"B.1=v", "B.2=v"}));
    string texts;
    for (const auto &record : testkit::records()) {
        texts += std::to_string(record.level) + record.whole() + "|";
    }
    EXPECT_EQ(texts,
              "4[ConfConfigClientCallBack]ConfConfigClientCallBack msgid :0x10000|"
              "4[ConfConfigClientCallBack]ConfConfigClientCallBack arraySize = 7|"
              "4[ConfConfigAddCallBackCount]ConfConfigAddCallBackCount CfgItemCount = 2\n|"
              "4[ConfConfigAddCallBackCount]ConfConfigAddCallBackCount CfgItemCount = 2\n|"
              "4[ConfConfigDealCallBackList]ConfConfigDealCallBackList count = 2|");
    EXPECT_EQ(storage, 0) << "a report writes no variable";
}

TEST_F(ConfigReport, WhatIsNoReportCallsNothing) {
    ConfConfigClientCallBack(65537, 0, 0, &mixed.list);
    EXPECT_TRUE(testkit::records().empty());
    ConfConfigClientCallBack(65536, 0, 0, nullptr);
    const ConfConfigChangeList noItems = {3, nullptr};
    ConfConfigClientCallBack(65536, 0, 0, &noItems);
    EXPECT_EQ(testkit::records().size(), 2u);
    EXPECT_TRUE(testkit::hasRecord(1, "conf_config", "[ConfConfigClientCallBack]Null ptr."));
    mixed.list.count = 0;
    ConfConfigClientCallBack(65536, 0, 0, &mixed.list);
    Report unbound;
    unbound.add("Nobody.knows", "x");
    ConfConfigClientCallBack(65536, 0, 0, &unbound.list);
    mixed.list.count = 7;
    mixed.items[6].value = nullptr;
    ConfConfigClientCallBack(65536, 0, 0, &mixed.list);
    mixed.items[6].value = &mixed.values[0];
    mixed.values[0].length = 5000;
    memset(mixed.values[0].text, 'x', sizeof(mixed.values[0].text));
    ConfConfigClientCallBack(65536, 0, 0, &mixed.list);
    EXPECT_TRUE(testkit::hasRecord(1, "conf_config",
                                   "[ConfConfigClientCallBack]conf secure func failed, err = "));
    EXPECT_TRUE(calls.empty());
}

TEST_F(ConfigReport, TwoHundredCallbacksAreToldOf255KeysAtATime) {
    static constexpr auto many = manyCallbacks(std::make_index_sequence<202>());
    Report report;
    for (size_t i = 0; i < many.size(); i++) {
        const string key = "Many." + std::to_string(i);
        ConfConfigBind(key.c_str(), CONF_VALUE_INT, &storage, 4, many[i]);
        report.add(key, "");
    }
    ConfConfigClientCallBack(65536, 0, 0, &report.list);
    ASSERT_EQ(calls.size(), 200u);
    EXPECT_EQ(calls[199].second[0], "Many.199");
    calls.clear();
    Report large;
    for (int i = 0; i < 600; i++) {
        large.add(i % 2 == 0 ? "A.1" : "B.1", std::to_string(i));
    }
    ConfConfigClientCallBack(65536, 0, 0, &large.list);
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].second.size(), 255u);
    EXPECT_EQ(calls[1].second.size(), 45u);
    EXPECT_EQ(calls[1].second.back(), "A.1=598");
    EXPECT_EQ(calls[2].second.front(), "B.1=1");
}

TEST_F(ConfigReport, ReportIsDeliveredWholeOrNotAtAll) {
    allowOutstandingBlocks(); /* the index was taken before the account begins anew */
    const auto setUp = [] { calls.clear(); };
    const auto deliver = [this] {
        ConfConfigClientCallBack(65536, 0, 0, &mixed.list);
        return 0;
    };
    std::vector<string> last;
    const auto check = [&](uint64_t, int) {
        EXPECT_TRUE(calls.empty());
        ASSERT_FALSE(testkit::records().empty());
        last.push_back(testkit::records()[0].whole());
    };
    EXPECT_EQ(testkit::forEachFailure(OsMemMallocSetCharMon, setUp, deliver, check), 6u);
    EXPECT_EQ(last, (std::vector<string>{
                        "[ConfConfigClientCallBack]malloc fail\n",
                        "[ConfConfigDealCallBackList] ConfConfigDealCallBackList malloc fail\n",
                        "[ConfConfigAddCountByitemlist] ConfConfigGetCountByitemlist malloc fail\n",
                        "[ConfConfigDealCallBackList] ConfConfigDealCallBackList malloc fail\n",
                        "[ConfConfigDealCallBackList] ConfConfigDealCallBackList malloc fail\n",
                        "[ConfConfigAdditemlist] ConfConfigAdditemlist malloc fail\n"}));
    last.clear();
    EXPECT_EQ(testkit::forEachFailure(memcpy_s, setUp, deliver, check), 4u);
    EXPECT_EQ(last[3], "[ConfConfigAdditemlist] ConfConfigAdditemlist memcpy_s fail\n");
    EXPECT_EQ(testkit::forEachFailure(strncpy_s, setUp, deliver, check), 14u);
}

}  // namespace
