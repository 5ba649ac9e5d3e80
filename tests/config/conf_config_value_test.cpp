/* Typed values: what each reader makes of each type, and what storage of each width holds after a
 * store. */
#include "include/conf_config_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "tests/support/forwarding_platform.h"

namespace {

using std::string;

constexpr uint64_t kAllBits = UINT64_MAX;

class ConfigValue : public platform::PlatformTest {};

template <typename Argument>
ConfConfigValue made(int32_t (*build)(ConfConfigValue *, Argument), Argument argument) {
    ConfConfigValue value;
    EXPECT_EQ(build(&value, argument), 0);
    return value;
}

ConfConfigValue ofText(const char *text) {
    return made(ConfConfigStr2V, text);
}

ConfConfigValue ofFloat(double number) {
    return made(ConfConfigFloat2V, number);
}

string rendered(const ConfConfigValue &value) {
    char text[400];
    return ConfConfigV2Str(&value, text, sizeof(text)) == 0 ? text : "failed";
}

TEST_F(ConfigValue, ReadersByType) {
    ConfConfigValue data;
    ASSERT_EQ(ConfConfigData2V(&data, "1", 1), 0);
    ConfConfigValue other = made<int64_t>(ConfConfigInt2V, 1);
    other.type = 7;
    const struct {
        ConfConfigValue value;
        int64_t i;
        uint64_t u;
        double f;
        uint8_t b;
        const char *text;
    } cases[] = {
        {made<int64_t>(ConfConfigInt2V, -2), -2, kAllBits - 1, -2, 1, "-2"},
        {made<uint64_t>(ConfConfigUInt2V, kAllBits), -1, kAllBits, 0x1p64, 1,
         "18446744073709551615"},
        {ofFloat(1.5), 1, 1, 1.5, 1, "1.500000"},
        {ofFloat(-0.5), 0, 0, -0.5, 1, "-0.500000"},
        {ofFloat(-1e19), INT64_MIN, 0, -1e19, 1, "-10000000000000000000.000000"},
        {ofFloat(0x1p63), INT64_MAX, 1ULL << 63, 0x1p63, 1, "9223372036854775808.000000"},
        {ofFloat(0x1p64), INT64_MAX, kAllBits, 0x1p64, 1, "18446744073709551616.000000"},
        {made<uint8_t>(ConfConfigBool2V, 7), 1, 1, 1, 1, "TRUE"},
        {made<uint8_t>(ConfConfigBool2V, 0), 0, 0, 0, 0, "FALSE"},
        {ofText("12abc"), 12, 12, 12, 1, "12abc"},
        {ofText("0x10"), 0, 0, 16, 0, "0x10"},
        {ofText("-1"), -1, kAllBits, -1, 0, "-1"},
        {ofText("2.5e1"), 2, 2, 25, 1, "2.5e1"},
        {ofText(" 1"), 1, 1, 1, 0, " 1"},
        {ofText("Tx"), 0, 0, 0, 1, "Tx"},
        {ofText("true"), 0, 0, 0, 1, "true"},
        {ofText("yes"), 0, 0, 0, 0, "yes"},
        {data, 0, 0, 0, 0, "failed"},
        {other, 0, 0, 0, 0, "failed"},
    };
    for (const auto &c : cases) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, c.text);
        EXPECT_EQ(ConfConfigV2Int(&c.value), c.i);
        EXPECT_EQ(ConfConfigV2UInt(&c.value), c.u);
        EXPECT_EQ(ConfConfigV2Float(&c.value), c.f);
        EXPECT_EQ(ConfConfigV2Bool(&c.value), c.b);
        EXPECT_EQ(rendered(c.value), c.text);
    }
    const ConfConfigValue notANumber = ofFloat(NAN);
    EXPECT_EQ(ConfConfigV2Int(&notANumber), 0);
    EXPECT_EQ(ConfConfigV2UInt(&notANumber), 0u);
    EXPECT_EQ(ConfConfigV2Bool(&notANumber), 1);
    EXPECT_EQ(ConfConfigV2Int(nullptr), -1);
    EXPECT_EQ(ConfConfigV2UInt(nullptr), kAllBits);
    EXPECT_EQ(ConfConfigV2Float(nullptr), 0);
    EXPECT_EQ(ConfConfigV2Bool(nullptr), 0);
    EXPECT_TRUE(platform::records().empty());
}

TEST_F(ConfigValue, TextWithoutAnythingToReadIsRecorded) {
    for (const char *text : {"", " \t\n"}) {
        const ConfConfigValue value = ofText(text);
        platform::clearRecords();
        int64_t stored = 5;
        EXPECT_EQ(ConfConfigV2Int(&value), 0);
        EXPECT_EQ(ConfConfigV2UInt(&value), 0u);
        EXPECT_EQ(ConfConfigV2Float(&value), 0);
        EXPECT_EQ(ConfConfigV2Bool(&value), 0);
        EXPECT_EQ(ConfConfigV2DByType(&value, &stored, 3, CONF_VALUE_FLOAT), -1);
        const string end = "]sscanf_s fail " + std::to_string(strlen(text) + 1);
        const char *const readers[] = {"[ConfConfigV2Int", "[ConfConfigV2UInt",
                                       "[ConfConfigV2Float", "[ConfConfigV2Float"};
        ASSERT_EQ(platform::records().size(), std::size(readers));
        for (size_t i = 0; i < std::size(readers); i++) {
            EXPECT_EQ(platform::records()[i].text, readers[i] + end);
            EXPECT_EQ(platform::records()[i].unit, "conf_config_value");
        }
    }
    const ConfConfigValue digit = ofText("1");
    platform::failCall("sscanf_s", 1);
    EXPECT_EQ(ConfConfigV2Bool(&digit), 0);
    EXPECT_TRUE(platform::hasRecord(1, "conf_config_value", "[ConfConfigV2Bool]sscanf_s fail 2"));
}

TEST_F(ConfigValue, StoresTellWhetherTheStorageChanged) {
    const ConfConfigValue minusOne = made<int64_t>(ConfConfigInt2V, -1);
    const ConfConfigValue one = made<uint8_t>(ConfConfigBool2V, 9);
    const struct {
        ConfConfigValue value;
        uint32_t size;
        int32_t type;
        uint64_t before, after; /* in the storage's low bytes */
        int32_t first, second;
    } cases[] = {
        {ofText("300"), 1, CONF_VALUE_INT, 0, 44, 0, 0},
        {minusOne, 1, CONF_VALUE_INT, 0, 0xFF, 0, 1},
        {minusOne, 2, CONF_VALUE_INT, 7, 0xFFFF, 0, 1},
        {minusOne, 4, CONF_VALUE_INT, 7, 0xFFFFFFFF, 0, 1},
        {minusOne, 8, CONF_VALUE_INT, 7, kAllBits, 0, 1},
        {minusOne, 4, CONF_VALUE_UINT, 7, 0xFFFFFFFF, 0, 0},
        {minusOne, 8, CONF_VALUE_UINT, 7, kAllBits, 0, 1},
        {ofText("200"), 1, CONF_VALUE_UINT, 7, 200, 0, 1},
        {ofText("60000"), 2, CONF_VALUE_UINT, 7, 60000, 0, 1},
        {minusOne, 3, CONF_VALUE_INT, 7, 7, -1, -1},
        {minusOne, 16, CONF_VALUE_UINT, 7, 7, -1, -1},
        {ofText("0.1"), 4, CONF_VALUE_FLOAT, 0, 0x3DCCCCCD, 0, 0},
        {ofText("0.1"), 8, CONF_VALUE_FLOAT, 0, 0x3FB999999999999A, 0, 1},
        {ofText("nan"), 8, CONF_VALUE_FLOAT, 0, 0x7FF8000000000000, 0, 0},
        {ofFloat(1e300), 4, CONF_VALUE_FLOAT, 0, 0x7F800000, 0, 0},
        {minusOne, 2, CONF_VALUE_FLOAT, 7, 7, -1, -1},
        {one, 1, CONF_VALUE_BOOL, 0xFF, 1, 0, 1},
        {one, 2, CONF_VALUE_BOOL, 0x100, 1, 0, 1},
        {one, 4, CONF_VALUE_BOOL, 2, 1, 0, 1},
        {one, 8, CONF_VALUE_BOOL, 0x100000001, 1, 0, 1},
        {one, 3, CONF_VALUE_BOOL, 7, 7, -1, -1},
        {ofText("ABC"), 4, CONF_VALUE_STR, 0x636261, 0x636261, 1, 1}, /* "abc" stays */
        {ofText("ABC"), 3, CONF_VALUE_STR, 0x636261, 0x636200, -1, -1},
        {ofText("AB"), 3, CONF_VALUE_STR, 0x636261, 0x4241, 0, 1}, /* had no terminator */
        {ofText("1"), 4, CONF_VALUE_DATA, 7, 7, -1, -1},
        {minusOne, 4, 0, 7, 7, -1, -1},
        {minusOne, 4, 7, 7, 7, -1, -1},
    };
    for (const auto &c : cases) {
        const string name = std::to_string(&c - cases);
        char place[1 + sizeof(c.before) + 1] = {};
        char *storage = place + 1; /* not aligned */
        memcpy(storage, &c.before, sizeof(c.before));
        EXPECT_EQ(ConfConfigV2DByType(&c.value, storage, c.size, c.type), c.first) << name;
        EXPECT_EQ(memcmp(storage, &c.after, c.size > 8 ? 8 : c.size), 0) << name;
        EXPECT_EQ(ConfConfigV2DByType(&c.value, storage, c.size, c.type), c.second) << name;
    }
}

TEST_F(ConfigValue, StorageIsReadInItsWidth) {
    const char bytes[] = "\0\xFE\xFF\xFF\xFF\0\0\0\0";
    const char *storage = bytes + 1;
    const struct {
        uint32_t size;
        int64_t i;
        uint64_t u;
    } cases[] = {{1, -2, 0xFE}, {2, -2, 0xFFFE}, {4, -2, 0xFFFFFFFE}, {8, 0xFFFFFFFE, 0xFFFFFFFE}};
    ConfConfigValue value;
    for (const auto &c : cases) {
        ASSERT_EQ(ConfConfigD2VByType(&value, storage, c.size, CONF_VALUE_INT), 0);
        EXPECT_EQ(value.payload.i, c.i);
        ASSERT_EQ(ConfConfigD2VByType(&value, storage, c.size, CONF_VALUE_UINT), 0);
        EXPECT_EQ(value.payload.u, c.u);
        ASSERT_EQ(ConfConfigD2VByType(&value, storage, c.size, CONF_VALUE_BOOL), 0);
        EXPECT_EQ(value.payload.b, 1);
    }
    const float single = 0.1f;
    ASSERT_EQ(ConfConfigD2VByType(&value, &single, sizeof(single), CONF_VALUE_FLOAT), 0);
    EXPECT_EQ(value.payload.f, static_cast<double>(single));
    ASSERT_EQ(ConfConfigD2VByType(&value, "hello", 1, CONF_VALUE_STR), 0);
    EXPECT_EQ(value.payload.str.length, 6u);
    char copy[3] = "xx";
    ASSERT_EQ(ConfConfigD2VByType(&value, storage, 3, CONF_VALUE_DATA), 0);
    EXPECT_EQ(ConfConfigV2DByType(&value, copy, sizeof(copy), CONF_VALUE_DATA), 0);
    EXPECT_EQ(memcmp(copy, storage, 3), 0);
    EXPECT_GT(ConfConfigV2Data(&value, copy, 2), 0);

    value.type = 99;
    for (const auto &[type, size] : {std::pair(0, 4u), {7, 4}, {1, 3}, {2, 0}, {3, 2}, {4, 16}}) {
        EXPECT_EQ(ConfConfigD2VByType(&value, storage, size, type), -1) << type;
    }
    EXPECT_EQ(value.type, 99);
}

TEST_F(ConfigValue, LongTextsAlwaysCountAsChanged) {
    const string longest(1023, 'a');
    const string longer(1024, 'a');
    char storage[2000] = "";
    for (const auto &[text, second] : {std::pair(longest, 1), {longer, 0}}) {
        const ConfConfigValue value = ofText(text.c_str());
        EXPECT_EQ(ConfConfigV2DByType(&value, storage, sizeof(storage), CONF_VALUE_STR), 0);
        EXPECT_EQ(ConfConfigV2DByType(&value, storage, sizeof(storage), CONF_VALUE_STR), second);
        EXPECT_EQ(storage, text);
    }
    const ConfConfigValue value = ofText(longer.c_str());
    EXPECT_EQ(ConfConfigV2DByType(&value, storage, 1024, CONF_VALUE_STR), -1);
    EXPECT_STREQ(storage, "");
}

TEST_F(ConfigValue, MissingArgumentsAreRefused) {
    ConfConfigValue value = made<int64_t>(ConfConfigInt2V, 3);
    EXPECT_EQ(ConfConfigInt2V(nullptr, 1), -1);
    EXPECT_EQ(ConfConfigUInt2V(nullptr, 1), -1);
    EXPECT_EQ(ConfConfigFloat2V(nullptr, 1), -1);
    EXPECT_EQ(ConfConfigBool2V(nullptr, 1), -1);
    EXPECT_EQ(ConfConfigStr2V(&value, nullptr), -1);
    EXPECT_EQ(ConfConfigData2V(&value, nullptr, 1), -1);
    char text[] = "as it was";
    EXPECT_EQ(ConfConfigV2Str(nullptr, text, 8), -1);
    EXPECT_EQ(ConfConfigV2Str(&value, nullptr, 8), -1);
    EXPECT_EQ(ConfConfigV2Data(&value, text, 8), -1);
    EXPECT_EQ(string(text), "as it was");
    EXPECT_EQ(ConfConfigV2Str(&value, text, 1), -1);
    for (int32_t type = CONF_VALUE_INT; type <= CONF_VALUE_DATA; type++) {
        EXPECT_EQ(ConfConfigD2VByType(nullptr, text, 4, type), -1);
        EXPECT_EQ(ConfConfigD2VByType(&value, nullptr, 4, type), -1);
        EXPECT_EQ(ConfConfigV2DByType(nullptr, text, 4, type), -1);
        EXPECT_EQ(ConfConfigV2DByType(&value, nullptr, 4, type), -1);
    }
    EXPECT_EQ(value.payload.i, 3);
    EXPECT_TRUE(ConfConfigStrEqual(nullptr, nullptr));
    EXPECT_TRUE(ConfConfigStrEqual(nullptr, ""));
    EXPECT_TRUE(ConfConfigStrEqual("Conf_", "CONF_"));
    EXPECT_FALSE(ConfConfigStrEqual("Conf", nullptr));
    EXPECT_FALSE(ConfConfigStrEqual("a", "ab"));
}

}  // namespace
