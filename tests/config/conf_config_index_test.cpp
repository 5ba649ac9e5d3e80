/* The item index and the life cycle of the configuration subsystem, seen through change reports: a
 * bound item's callback tells that it is found. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <conference_testkit_gtest.h>
#include "include/conf_config.h"

namespace {

using std::string;

std::vector<string> told; /* the keys that callbacks were told of */

void tell(const ConfConfigListItem *items, uint32_t count) {
    for (uint32_t i = 0; i < count; i++) {
        told.emplace_back(items[i].key);
    }
}

/* Reports a change of a key as the service's client would. */
bool isBound(const string &key) {
    ConfConfigOmVal value = {};
    ConfConfigChangeItem item = {};
    memcpy(item.key.text, key.data(), key.size());
    item.key.length = static_cast<uint8_t>(key.size());
    item.value = &value;
    const ConfConfigChangeList list = {1, &item};
    told.clear();
    ConfConfigClientCallBack(0x10000, 0, 0, &list);
    return told == std::vector<string>{key};
}

int value;

void bindKey(const string &name, int32_t type = CONF_VALUE_INT,
             ConfConfigItemCallback callback = tell) {
    ConfConfigBind(name.c_str(), type, &value, sizeof(value), callback);
}

void bindNothing() {}

class ConfigIndex : public testkit::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        testkit::replace(TamoOmConfigInit, [](uint32_t, const char *, const char *) { return 0; });
        testkit::replace(TamoOmConfigNotifyCallback,
                         [](ConfConfigChangeHandler, const char *) { return 0; });
        testkit::replace(TamoOmConfigUnInit, [](const char *) { return 0; });
    }
    void TearDown() override {
        ConfConfigDeInit();
        PlatformTest::TearDown();
    }
};

TEST_F(ConfigIndex, NamesAreFoundInAnyLetterCaseAndOverwritten) {
    ASSERT_EQ(ConfConfigInit(bindNothing, "TamoUIConf", "Conf"), 0);
    bindKey("Conf.A.b", CONF_VALUE_INT, nullptr);
    EXPECT_FALSE(isBound("Conf.A.b")) << "an item without a callback is told nothing";
    bindKey("conf.a.B");
    EXPECT_TRUE(isBound("Conf.A.b"));
    EXPECT_TRUE(isBound("CONF.A.B"));
    EXPECT_FALSE(isBound("Conf.A"));
    EXPECT_FALSE(isBound("Conf.A.b.c"));
    bindKey("Conf.A.b", CONF_VALUE_DATA);
    EXPECT_FALSE(isBound("Conf.A.b")) << "a local item takes no part";
    bindKey("Conf.A.b", CONF_VALUE_STR);
    EXPECT_TRUE(isBound("Conf.A.b"));
    ConfConfigBind(nullptr, CONF_VALUE_INT, &value, 4, tell);
    EXPECT_TRUE(testkit::records().empty());
}

TEST_F(ConfigIndex, GrowsByTwoHundredAndKeepsEveryItem) {
    ASSERT_EQ(ConfConfigInit(bindNothing, "TamoUIConf", "Conf"), 0);
    const auto name = [](int i) { return "Key." + std::to_string(i * 7919 % 1000); };
    for (int i = 0; i < 701; i++) {
        bindKey(name(i));
    }
    EXPECT_EQ(testkit::callCount(OsMemMallocSetCharMon), 1u + 3u);
    for (int i = 0; i < 701; i++) {
        ASSERT_TRUE(isBound(name(i))) << i;
    }
    EXPECT_FALSE(isBound(name(701)));
}

TEST_F(ConfigIndex, RefusedBindingsLeaveTheOthers) {
    ASSERT_EQ(ConfConfigInit(bindNothing, "TamoUIConf", "Conf"), 0);
    for (int i = 0; i < 300; i++) {
        bindKey("Key." + std::to_string(i));
    }
    const struct {
        const char *operation;
        uint64_t call;
        const char *record;
    } failures[] = {
        {"OsMemMallocSetCharMon", 1, "[ConfConfigAddIndex]ConfConfigAddIndex malloc error \n"},
        {"memcpy_s", 1, "[ConfConfigAddIndex]memcpy error = "},
        {"memcpy_s", 2, "[ConfConfigAddIndex]memcpy error = "},
        {"memset_s", 1, "[ConfConfigInsertIndex]conf secure func failed, err = "},
        {"memmove_s", 1, "[ConfConfigInsertIndex]conf secure func failed, err = "}};
    for (const auto &failure : failures) {
        testkit::clearRecords();
        testkit::failCall(failure.operation, failure.call);
        bindKey("Key.");
        EXPECT_TRUE(testkit::hasRecord(1, "conf_config", failure.record));
        EXPECT_FALSE(isBound("Key."));
    }
    for (int i = 0; i < 300; i++) {
        EXPECT_TRUE(isBound("Key." + std::to_string(i)));
    }
    bindKey(string(127, 'x'));
    bindKey(string(128, 'y'));
    EXPECT_TRUE(testkit::hasRecord(1, "conf_config",
                                   "[ConfConfigAddIndex]conf secure func failed, err = "));
    EXPECT_TRUE(isBound(string(127, 'x')));
    EXPECT_FALSE(isBound(string(127, 'y')));
}

TEST_F(ConfigIndex, BindingWithoutAnIndexChangesNothing) {
    bindKey("Conf.A");
    EXPECT_TRUE(testkit::records().empty());
    EXPECT_FALSE(isBound("Conf.A"));
    ASSERT_EQ(ConfConfigInit([] { bindKey("Conf.A"); }, "TamoUIConf", "Conf"), 0);
    EXPECT_TRUE(isBound("Conf.A"));
    ASSERT_EQ(ConfConfigInit([] { bindKey("Conf.B"); }, "TamoUIConf", "Conf"), 0);
    EXPECT_FALSE(isBound("Conf.A")) << "a second start begins anew";
    EXPECT_TRUE(isBound("Conf.B"));
    EXPECT_EQ(ConfConfigDeInit(), 0);
    bindKey("Conf.B");
    EXPECT_FALSE(isBound("Conf.B"));
    EXPECT_EQ(ConfConfigDeInit(), 0);
    EXPECT_EQ(ConfConfigInit(nullptr, "o", "m"), -1);
    EXPECT_EQ(ConfConfigInit(bindNothing, nullptr, "m"), -1);
    EXPECT_EQ(ConfConfigInit(bindNothing, "o", nullptr), -1);
    EXPECT_TRUE(testkit::hasRecord(1, "conf_config",
                                   "[ConfConfigInit]ConfConfigInit invalue param, null pointer!"));
    testkit::failCall(OsMemMallocSetCharMon, 1);
    EXPECT_EQ(ConfConfigInit([] { FAIL() << "nothing to bind to"; }, "o", "m"), -1);
    EXPECT_TRUE(testkit::hasRecord(1, "conf_config", "ConfConfigInit Malloc fail"));
    EXPECT_EQ(testkit::callCount(TamoOmConfigNotifyCallback), 3u);
}

TEST_F(ConfigIndex, ConnectionIsTheServicesAndItsRefusalIsSurvived) {
    string steps;
    testkit::replace(TamoOmConfigInit, [&](uint32_t zero, const char *owner, const char *module) {
        steps += "connect " + std::to_string(zero) + owner + module + ", ";
        return 3;
    });
    testkit::replace(
        TamoOmConfigNotifyCallback, [&](ConfConfigChangeHandler handler, const char *module) {
            steps += handler == ConfConfigClientCallBack ? string("notify ") + module + ", " : "?";
            return 0;
        });
    testkit::replace(TamoOmConfigUnInit, [&](const char *module) {
        steps += string("leave ") + module;
        return 9;
    });
    EXPECT_EQ(ConfConfigInit([] { bindKey("Conf.A"); }, "Me", "Mine"), 0);
    EXPECT_EQ(ConfConfigReInit(), 0);
    EXPECT_EQ(ConfConfigUnInit(), 0);
    EXPECT_EQ(steps,
              "connect 0MeMine, notify Mine, connect 0TamoUIConfConf, notify Conf, leave Conf");
    for (const char *text :
         {"[ConfConfigInit]TamoOmConfigInit failed", "[ConfConfigReInit]ConfInitOmConfig failed"}) {
        EXPECT_TRUE(testkit::hasRecord(1, "conf_config", text)) << text;
    }
    EXPECT_TRUE(isBound("Conf.A"));
    testkit::replace(OSMemTypeFreeMon,
                     [](void *block, uint32_t a, uint32_t b, uint32_t line, const char *file) {
                         EXPECT_EQ(testkit::real(OSMemTypeFreeMon)(block, a, b, line, file), 0u);
                         return 7u;
                     });
    EXPECT_EQ(ConfConfigDeInit(), 7) << "the release's own result";
    allowOutstandingBlocks(); /* a replaced release is not accounted for */
}

}  // namespace
