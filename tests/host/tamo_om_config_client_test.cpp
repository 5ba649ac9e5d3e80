/* The configuration service client in one process: records, reading, writing and listing. */
#include "tamo_om_config_client.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "config_records.h"
#include "tamo_host.h"

namespace {

using support::get;
using support::kMissing;
using support::record;
using support::set;

class ConfigClient : public testing::Test {
  protected:
    ConfigClient() { support::clearStore(); }
};

TEST(ConfigRecords, KeysAndValuesThatDoNotFitAreRefusedAndCleared) {
    ConfConfigOmRecord made;
    memset(&made, 0xA5, sizeof(made));
    std::string longestKey(127, 'k');
    std::string longestValue(1023, 'v');
    EXPECT_EQ(0, TamoOmConfigcopyStr2Key(&made, longestKey.c_str()));
    EXPECT_EQ(longestKey, made.key.text);
    EXPECT_EQ(127, made.key.length);
    EXPECT_EQ(0, TamoOmConfigcopyStr2Val(&made.value, longestValue.c_str()));
    EXPECT_EQ(longestValue, made.value.text);
    EXPECT_EQ(1023U, made.value.length);

    for (const char *key : {"", (longestKey += 'k').c_str(), static_cast<const char *>(nullptr)}) {
        made.key.length = 9;
        EXPECT_NE(0, TamoOmConfigcopyStr2Key(&made, key));
        EXPECT_EQ(0, made.key.text[0] + made.key.length);
    }
    for (const char *value : {(longestValue += 'v').c_str(), static_cast<const char *>(nullptr)}) {
        made.value.length = 9;
        EXPECT_NE(0, TamoOmConfigcopyStr2Val(&made.value, value));
        EXPECT_EQ(0U, made.value.length + static_cast<unsigned char>(made.value.text[0]));
    }
    EXPECT_NE(0, TamoOmConfigcopyStr2Key(nullptr, "key"));
    EXPECT_NE(0, TamoOmConfigcopyStr2Val(nullptr, "value"));
}

TEST(ConfigRecords, ValuePartMayBeItsOwnSource) {
    ConfConfigOmVal value;
    memset(&value, 0xA5, sizeof(value));
    strcpy(value.text, "rendered in place");
    EXPECT_EQ(0, TamoOmConfigcopyStr2Val(&value, value.text));
    EXPECT_STREQ("rendered in place", value.text);
    EXPECT_EQ(17U, value.length);
    memset(&value, 0xA5, sizeof(value));
    EXPECT_NE(0, TamoOmConfigcopyStr2Val(&value, value.text)) << "a text without an end";
}

TEST(ConfigRecords, NumbersBecomeDecimalTexts) {
    ConfConfigOmVal value = {};
    EXPECT_EQ(0, TamoOmConfigsetIntValue(&value, INT64_MIN));
    EXPECT_STREQ("-9223372036854775808", value.text);
    EXPECT_EQ(20U, value.length);
    EXPECT_EQ(0, TamoOmConfigsetUintValue(&value, UINT64_MAX));
    EXPECT_STREQ("18446744073709551615", value.text);
    EXPECT_EQ(0, TamoOmConfigsetIntValue(&value, 0));
    EXPECT_STREQ("0", value.text);
    EXPECT_EQ(1U, value.length);
    EXPECT_NE(0, TamoOmConfigsetIntValue(nullptr, 1));
    EXPECT_NE(0, TamoOmConfigsetUintValue(nullptr, 1));
}

TEST_F(ConfigClient, KeepsOneTextPerKeyExactly) {
    EXPECT_EQ(kMissing, get("Conf.Key"));
    EXPECT_EQ(0, set("Conf.Key", "one"));
    EXPECT_EQ(0, set("Conf.key", "another"));
    EXPECT_EQ(0, set("Conf.Key", "two"));
    EXPECT_EQ("two", get("Conf.Key"));
    EXPECT_EQ("another", get("Conf.key"));
    EXPECT_EQ(0, set("Conf.Key", ""));
    EXPECT_EQ("", get("Conf.Key"));
    std::string bytes;
    for (int c = 1; c < 256; c++) {
        bytes += static_cast<char>(c);
    }
    EXPECT_EQ(0, set("\xFF%'\"*", bytes));
    EXPECT_EQ(bytes, get("\xFF%'\"*"));
    EXPECT_EQ(0, set(std::string(127, 'k'), std::string(1023, 'v')));
    EXPECT_EQ(std::string(1023, 'v'), get(std::string(127, 'k')));
}

TEST_F(ConfigClient, ReadOfSeveralFillsWhatItFinds) {
    ConfConfigOmRecord stored[] = {record("a", "1"), record("c", "3")};
    EXPECT_EQ(0, TamoOmConfigStringMset(stored, 2));
    ConfConfigOmRecord asked[] = {record("a", "x"), record("b", "x"), record("c", "x")};
    EXPECT_EQ(TAMO_HOST_NOT_FOUND, TamoOmConfigStringMget(asked, 3));
    EXPECT_STREQ("1", asked[0].value.text);
    EXPECT_EQ(0U, asked[1].value.length + static_cast<unsigned char>(asked[1].value.text[0]));
    EXPECT_STREQ("3", asked[2].value.text);
    asked[0].key = {};
    memset(asked[1].key.text, 'k', sizeof(asked[1].key.text));
    EXPECT_EQ(TAMO_HOST_INVALID, TamoOmConfigStringMget(asked, 3));
    EXPECT_EQ(0U, asked[0].value.length + asked[1].value.length);
    EXPECT_STREQ("3", asked[2].value.text);
}

TEST_F(ConfigClient, WriteOfSeveralStoresAllOrNothing) {
    ConfConfigOmRecord stored[] = {record("a", "1"), record("b", "2"), record("a", "3")};
    EXPECT_EQ(0, TamoOmConfigStringMset(stored, 3));
    EXPECT_EQ("3", get("a")) << "the later record of a key wins";
    ConfConfigOmRecord faulty[] = {record("a", "4"), record("b", "5")};
    memset(faulty[1].value.text, 'v', sizeof(faulty[1].value.text));
    EXPECT_EQ(TAMO_HOST_INVALID, TamoOmConfigStringMset(faulty, 2));
    faulty[1] = {};
    EXPECT_EQ(TAMO_HOST_INVALID, TamoOmConfigStringMset(faulty, 2));
    EXPECT_EQ("3", get("a"));
    EXPECT_EQ("2", get("b"));
}

TEST_F(ConfigClient, BelievesNoLengthAndNoCount) {
    ConfConfigOmRecord stored = record("a", "1");
    stored.key.length = 255;
    stored.value.length = 0xFFFFFFFF;
    EXPECT_EQ(0, TamoOmConfigStringMset(&stored, 1));
    EXPECT_EQ("1", get("a"));
    EXPECT_EQ(0, TamoOmConfigStringMget(nullptr, 0));
    EXPECT_EQ(0, TamoOmConfigStringMset(nullptr, 0));
    for (uint32_t count : {1U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_NE(0, TamoOmConfigStringMget(nullptr, count));
        EXPECT_NE(0, TamoOmConfigStringMset(nullptr, count));
    }
    EXPECT_NE(0, TamoOmConfigStringMget(&stored, 0xFFFFFFFF));
    EXPECT_NE(0, TamoOmConfigStringMset(&stored, 0xFFFFFFFF));
    EXPECT_NE(0, TamoOmConfigStringGet(nullptr));
}

TEST_F(ConfigClient, ModulesConnectBeforeTheyRegisterHandlers) {
    auto handler = [](uint32_t, uint32_t, uint32_t, const ConfConfigChangeList *) {};
    EXPECT_NE(0, TamoOmConfigNotifyCallback(handler, "module"));
    EXPECT_EQ(0, TamoOmConfigInit(0, "owner", "module"));
    EXPECT_EQ(0, TamoOmConfigInit(0, "owner", "module")) << "stays connected";
    EXPECT_EQ(0, TamoOmConfigNotifyCallback(handler, "module"));
    EXPECT_EQ(0, TamoOmConfigNotifyCallback(nullptr, "module"));
    EXPECT_EQ(0, TamoOmConfigUnInit("module"));
    EXPECT_NE(0, TamoOmConfigUnInit("module"));
    for (const char *name : {"", static_cast<const char *>(nullptr)}) {
        EXPECT_NE(0, TamoOmConfigInit(0, "owner", name));
        EXPECT_NE(0, TamoOmConfigInit(0, name, "module"));
        EXPECT_NE(0, TamoOmConfigNotifyCallback(handler, name));
        EXPECT_NE(0, TamoOmConfigUnInit(name));
    }
}

TEST_F(ConfigClient, ListsMatchingKeysInOrderToAVisitorThatMayUseTheStore) {
    ConfConfigOmRecord stored[] = {record("Conf.b", "2"), record("Conf.a", "1"),
                                   record("DEVM.a", "3"), record("Conf.c", "")};
    ASSERT_EQ(0, TamoOmConfigStringMset(stored, 4));
    std::string seen;
    auto visit = [](const char *key, const char *value, void *context) -> uint32_t {
        *static_cast<std::string *>(context) += std::string(key) + "=" + value + " ";
        EXPECT_EQ(0, set("Conf.d", "written meanwhile"));
        EXPECT_EQ(value, get(key));
        return strcmp(value, "3") == 0 ? 77 : 0;
    };
    EXPECT_EQ(0U, TamoHostConfigList("Conf.[a-c]", visit, &seen));
    EXPECT_EQ("Conf.a=1 Conf.b=2 Conf.c= ", seen);
    seen.clear();
    EXPECT_EQ(77U, TamoHostConfigList(nullptr, visit, &seen));
    EXPECT_EQ("Conf.a=1 Conf.b=2 Conf.c= Conf.d=written meanwhile DEVM.a=3 ", seen);
    EXPECT_EQ(0U, TamoHostConfigList("nothing", visit, &seen));
    EXPECT_NE(0U, TamoHostConfigList("*", nullptr, &seen));
}

TEST_F(ConfigClient, ThreadsSeeWholeWritesOfEachOther) {
    std::vector<ConfConfigOmRecord> stored(20);
    for (size_t at = 0; at < stored.size(); at++) {
        stored[at] = record("k" + std::to_string(at), "0");
    }
    ASSERT_EQ(0, TamoOmConfigStringMset(stored.data(), 20));
    std::vector<std::thread> threads;
    for (int writer = 0; writer < 2; writer++) {
        threads.emplace_back([stored, writer]() mutable {
            for (int round = 0; round < 30; round++) {
                for (ConfConfigOmRecord &one : stored) {
                    TamoOmConfigsetIntValue(&one.value, 100 * round + writer);
                }
                EXPECT_EQ(0, TamoOmConfigStringMset(stored.data(), 20));
            }
        });
        threads.emplace_back([asked = stored]() mutable {
            for (int round = 0; round < 200; round++) {
                ASSERT_EQ(0, TamoOmConfigStringMget(asked.data(), 20));
                for (const ConfConfigOmRecord &one : asked) {
                    ASSERT_STREQ(asked[0].value.text, one.value.text);
                }
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

}  // namespace
