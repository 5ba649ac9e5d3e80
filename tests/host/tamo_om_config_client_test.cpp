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

TEST_F(ConfigClient, KeepsOneTextPerKeyInAnyLetterCaseUnderItsFirstSpelling) {
    EXPECT_EQ(kMissing, get("Conf.Key"));
    EXPECT_EQ(0, set("Conf.Key", "one"));
    EXPECT_EQ(0, set("conf.KEY", "two"));
    EXPECT_EQ("two", get("Conf.Key"));
    EXPECT_EQ(0, set("Conf.Key_", "underscore"));
    EXPECT_EQ(0, set("CONF.\xC3\x84", "A umlaut"));
    EXPECT_EQ(kMissing, get("conf.\xC3\xA4")) << "only ASCII letters have two cases";
    std::string listed;
    const auto visit = [](const char *key, const char *, void *text) -> uint32_t {
        *static_cast<std::string *>(text) += std::string(key) + " ";
        return get(key) == kMissing ? 1 : 0;
    };
    EXPECT_EQ(0U, TamoHostConfigList("C*", visit, &listed));
    EXPECT_EQ("Conf.Key Conf.Key_ CONF.\xC3\x84 ", listed);
    const TamoHostConfigPair pairs[] = {{"conf.key", "three"}, {"CONF.Key", "four"}, {"New", "5"}};
    EXPECT_EQ(0U, TamoHostConfigImport(pairs, 3, 1, nullptr, nullptr));
    listed.clear();
    EXPECT_EQ(0U, TamoHostConfigList(nullptr, visit, &listed));
    EXPECT_EQ("Conf.Key New ", listed);
    EXPECT_EQ("four", get("Conf.Key"));
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

TEST_F(ConfigClient, RemovedKeysReadAsIfTheyHadNeverHadAValue) {
    ConfConfigOmRecord stored[] = {record("a", "1"), record("b", "2"), record("c", "3")};
    ASSERT_EQ(0, TamoOmConfigStringMset(stored, 3));
    const char *const keys[] = {"A", "c", ""};
    EXPECT_EQ(TAMO_HOST_INVALID, TamoHostConfigReset(keys, 3));
    EXPECT_EQ("1", get("a"));
    EXPECT_EQ(0U, TamoHostConfigReset(keys, 2));
    EXPECT_EQ(kMissing + kMissing + "2", get("a") + get("c") + get("b"));
    EXPECT_EQ(TAMO_HOST_NOT_FOUND, TamoHostConfigReset(keys, 1));
    EXPECT_EQ(0U, TamoHostConfigReset(nullptr, 0));
    EXPECT_EQ(TAMO_HOST_INVALID, TamoHostConfigReset(nullptr, 1));
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

}  // namespace
