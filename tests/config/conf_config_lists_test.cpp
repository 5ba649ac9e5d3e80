/* List handlers: blocks of keys and values, good ones and lying ones, against the real store. */
#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_config.h"
#include "include/conf_msg_api.h"
#include "tamo_host.h"

namespace {

using std::string;
using testkit::hasRecord;

constexpr uint32_t kFailed = 0xFFFFFFFF;

using Item = std::pair<string, string>;

/* A message block in a buffer of exactly its size, so that a sanitizer sees every byte read too far. */
class Block {
  public:
    Block(std::initializer_list<Item> items) : Block(std::vector<Item>(items)) {}
    explicit Block(const std::vector<Item> &items) {
        const auto bodyLength = static_cast<uint32_t>(items.size() * sizeof(ConfConfigListItem));
        bytes_.reset(new char[bodyLength + 83]());
        get()->bodyLength = bodyLength;
        get()->itemCount = static_cast<uint32_t>(items.size());
        for (uint32_t i = 0; i < items.size(); i++) {
            memcpy(item(i).key, items[i].first.data(), items[i].first.size());
            memcpy(item(i).value, items[i].second.data(), items[i].second.size());
        }
    }
    ~Block() {
        if (get()->resultList != nullptr) {
            OSMemTypeFreeMon(get()->resultList, 0, 0, 1, "test");
        }
    }
    MeetingServerMsgBlock *get() { return reinterpret_cast<MeetingServerMsgBlock *>(bytes_.get()); }
    ConfConfigListItem &item(uint32_t i) {
        return reinterpret_cast<ConfConfigListItem *>(bytes_.get() + 80)[i];
    }
    uint32_t size() { return GetMeetingServerMsgBlockSize(get()); }
    uint32_t read() { return ConfConfigGetConfConfig(0, get(), size()); }
    uint32_t write() { return ConfConfigSetConfConfig(0, get(), size()); }
    const ConfConfigListItem &result(uint32_t i) {
        return static_cast<ConfConfigListItem *>(get()->resultList)[i];
    }

  private:
    std::unique_ptr<char[]> bytes_;
};

class ConfigLists : public testkit::PlatformTest {};

TEST_F(ConfigLists, ValuesAreWrittenAndReadInOneOperationEach) {
    Block values{{"List.a", "1"}, {"List.b", ""}, {"List.c", string(1023, 'c')}};
    EXPECT_EQ(values.write(), 0u);
    EXPECT_EQ(testkit::callCount(TamoOmConfigStringMset), 1u);
    EXPECT_TRUE(hasRecord(3, "conf_config",
                          "[ConfConfigSetConfConfig]ConfConfigGetConfConfigset listLen = 3.\n"));
    EXPECT_TRUE(hasRecord(1, "conf_config", "ConfConfigSetConfConfig key= List.a.\n"));
    EXPECT_TRUE(hasRecord(1, "conf_config", "ConfConfigSetConfConfig val= 1.\n"));

    Block keys{{"List.c", "old"}, {"List.a", ""}, {"List.b", "x"}};
    EXPECT_EQ(keys.read(), 0u);
    EXPECT_EQ(testkit::callCount(TamoOmConfigStringMget), 1u);
    EXPECT_EQ(keys.get()->resultSize, 3 * 1152u);
    EXPECT_EQ(keys.result(0).value, string(1023, 'c'));
    EXPECT_STREQ(keys.result(1).key, "List.a");
    EXPECT_STREQ(keys.result(1).value, "1");
    EXPECT_STREQ(keys.result(2).value, "");
}

TEST_F(ConfigLists, FewerOfCountAndBodyAreHandled) {
    Block two{{"Few.a", "1"}, {"Few.b", "2"}};
    two.get()->itemCount = 3;
    EXPECT_EQ(two.write(), 0u);
    EXPECT_EQ(two.read(), 0u);
    EXPECT_EQ(two.get()->resultSize, 2 * 1152u);
    Block three{{"Few.a", ""}, {"Few.b", ""}, {"Few.missing", ""}};
    three.get()->itemCount = 2;
    EXPECT_EQ(three.read(), 0u);
    EXPECT_EQ(three.get()->resultSize, 2 * 1152u);
    three.get()->itemCount = 3;
    Block missing{{"Few.missing", ""}};
    EXPECT_NE(missing.read(), 0u);
    EXPECT_TRUE(hasRecord(1, "conf_config", "[CONFIG_DEVM]Get iconCfg: failed ret = "));
    EXPECT_EQ(missing.get()->resultList, nullptr);
    Block none{{"Few.a", ""}};
    none.get()->itemCount = 0;
    EXPECT_EQ(none.read(), 0u);
    EXPECT_EQ(none.get()->resultSize, 0u);
    EXPECT_EQ(none.write(), 0u);
    Block endless{{string(128, 'k'), string(1024, 'v')}, {string(127, 'k'), "second"}};
    EXPECT_EQ(endless.write(), 0u);
    EXPECT_EQ(endless.read(), 0u);
    EXPECT_STREQ(endless.result(0).value, "second") << "both keys end in their fields";
    EXPECT_EQ(strlen(endless.item(0).value), 1023u);
}

TEST_F(ConfigLists, FiveHundredItemsAndNoMore) {
    std::vector<Item> items;
    for (int i = 0; i < 501; i++) {
        items.push_back({"Many." + std::to_string(i), std::to_string(i)});
    }
    Block tooMany(items);
    EXPECT_EQ(tooMany.read(), kFailed);
    EXPECT_TRUE(hasRecord(1, "conf_config",
                          "[ConfConfigGetConfConfig]Input listLen = 501 is out of range!"));
    EXPECT_EQ(tooMany.write(), kFailed);
    items.pop_back();
    Block most(items);
    EXPECT_EQ(most.write(), 0u);
    EXPECT_EQ(most.read(), 0u);
    EXPECT_STREQ(most.result(499).value, "499");
}

TEST_F(ConfigLists, FailedEncryptionStoresNothing) {
    Block list{{"Enc.other", "1"}, {"Conf.H323CallParam.gkPwd", "secret"}};
    testkit::failCall(TamoOmKeymEncrypt, 1);
    EXPECT_EQ(list.write(), 1u);
    EXPECT_TRUE(hasRecord(1, "conf_config", "[ConfConfigSetConfConfig]condition false."));
    EXPECT_EQ(testkit::callCount(TamoOmConfigStringMset), 0u);
    testkit::failCall(TamoOmConfigStringMset, 1);
    EXPECT_EQ(list.write(), uint32_t{CONF_COMM_ERR_MSG_INVALID});
    EXPECT_TRUE(hasRecord(1, "conf_config", "[CONFIG_DEVM]Set Cfg: failed ret = "));
}

TEST_F(ConfigLists, SensitiveValueDoesNotGoWithoutItsKey) {
    for (const char *key : {"Conf.H323CallParam.gkPwd", "Conf.ServerParam.pwd"}) {
        Block list{{key, "secret"}};
        string sent = "none";
        testkit::replace(TamoOmConfigStringMset, [&](const ConfConfigOmRecord *records, uint32_t) {
            sent = string(records->key.text) + records->value.text;
            return 5;
        });
        testkit::failCall(TamoOmConfigcopyStr2Key, 1);
        EXPECT_EQ(list.write(), uint32_t{CONF_COMM_ERR_MSG_INVALID});
        EXPECT_EQ(sent, "");
    }
}

TEST_F(ConfigLists, LyingBlocksAreRefusedBeforeTheirBodyIsRead) {
    EXPECT_EQ(ConfConfigGetConfConfig(0, nullptr, 84), kFailed);
    EXPECT_EQ(ConfConfigSetConfConfig(0, nullptr, 84), kFailed);
    Block list{{"Lie.a", "1"}};
    const uint32_t size = list.size();
    for (uint32_t bodyLength : {0u, 1153u, UINT32_MAX, UINT32_MAX - 83}) {
        list.get()->bodyLength = bodyLength;
        list.get()->itemCount = 500;
        EXPECT_EQ(ConfConfigGetConfConfig(0, list.get(), size), kFailed) << bodyLength;
        if (bodyLength != 0) {
            EXPECT_EQ(ConfConfigSetConfConfig(0, list.get(), size), kFailed) << bodyLength;
        }
    }
    EXPECT_TRUE(hasRecord(1, "conf_config", "[ConfConfigGetConfConfig]condition false."));
    const auto tiny = std::make_unique<char[]>(8);
    EXPECT_EQ(ConfConfigGetConfConfig(0, tiny.get(), 8), kFailed);
    EXPECT_EQ(ConfConfigSetConfConfig(0, tiny.get(), 8), kFailed);
    EXPECT_EQ(testkit::callCount(TamoOmConfigStringMset), 0u);
}

TEST_F(ConfigLists, EveryFailedStepOfAReadIsReported) {
    Block values{{"Step.a", "1"}, {"Step.b", "2"}};
    ASSERT_EQ(values.write(), 0u);
    const auto read = [&] { return values.read(); };
    const auto drop = [&](auto) {
        OSMemTypeFreeMon(values.get()->resultList, 0, 0, 1, "test");
        values.get()->resultList = nullptr;
    };
    testkit::forEachFailure(
        OsMemMallocSetCharMon, [] {}, read,
        [](uint64_t, uint32_t result) {
            EXPECT_EQ(result, kFailed);
            EXPECT_TRUE(hasRecord(1, "conf_config", "[ConfConfigGetConfConfig]Null ptr."));
        },
        drop);
    EXPECT_EQ(testkit::forEachFailure(
                  memcpy_s, [] {}, read,
                  [&](uint64_t, uint32_t result) {
                      EXPECT_EQ(result, kFailed);
                      EXPECT_TRUE(hasRecord(1, "conf_config", "memcpy_s fail\n"));
                      drop(0);
                  },
                  drop),
              4u);
    testkit::failCall(memset_s, 1);
    EXPECT_EQ(values.read(), 0u) << "a fresh list is zero anyway";
    EXPECT_TRUE(hasRecord(1, "conf_config", "ConfConfigGetConfConfig memset_s fail\n"));
    testkit::failCall(memset_s, 1);
    EXPECT_EQ(values.write(), kFailed);
    EXPECT_TRUE(hasRecord(1, "conf_config", "ConfConfigSetConfConfig memset_s fail\n"));
    drop(0);
}

}  // namespace
