/* Typed values: what each reader makes of each type, and what storage of each width holds after a
 * store. */
#include "include/conf_config_value.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <conference_testkit_gtest.h>
#include "include/conf_json.h"
#include "include/xmlAdapter.h"
#include "tests/support/scratch_root.h"

namespace {

using std::string;

constexpr uint64_t kAllBits = UINT64_MAX;

class ConfigValue : public testkit::PlatformTest {};

ConfConfigValue ofText(const char *text) {
    ConfConfigValue value = {};
    EXPECT_EQ(ConfConfigStr2V(&value, text), 0);
    return value;
}

ConfConfigValue ofFloat(double number) {
    return {CONF_VALUE_FLOAT, {.f = number}};
}

string rendered(const ConfConfigValue &value) {
    char text[400];
    return ConfConfigV2Str(&value, text, sizeof(text)) == 0 ? text : "failed";
}

TEST_F(ConfigValue, ReadersByType) {
    const ConfConfigValue data = {CONF_VALUE_DATA, {.data = {"1", 1}}};
    const struct {
        ConfConfigValue value;
        int64_t i;
        uint64_t u;
        double f;
        uint8_t b;
        const char *text;
    } cases[] = {
        {{CONF_VALUE_INT, {.i = -2}}, -2, kAllBits - 1, -2, 1, "-2"},
        {{CONF_VALUE_UINT, {.u = kAllBits}}, -1, kAllBits, 0x1p64, 1, "18446744073709551615"},
        {ofFloat(1.5), 1, 1, 1.5, 1, "1.500000"},
        {ofFloat(-1e19), INT64_MIN, 0, -1e19, 1, "-10000000000000000000.000000"},
        {ofFloat(0x1p63), INT64_MAX, 1ULL << 63, 0x1p63, 1, "9223372036854775808.000000"},
        {{CONF_VALUE_BOOL, {.b = 7}}, 1, 1, 1, 1, "TRUE"},
        {ofText("12abc"), 12, 12, 12, 1, "12abc"},
        {ofText("0x10"), 0, 0, 16, 0, "0x10"},
        {ofText("-1"), -1, kAllBits, -1, 0, "-1"},
        {ofText(" 1"), 1, 1, 1, 0, " 1"},
        {ofText("Tx"), 0, 0, 0, 1, "Tx"},
        {data, 0, 0, 0, 0, "failed"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(ConfConfigV2Int(&c.value), c.i) << c.text;
        EXPECT_EQ(ConfConfigV2UInt(&c.value), c.u) << c.text;
        EXPECT_EQ(ConfConfigV2Float(&c.value), c.f) << c.text;
        EXPECT_EQ(ConfConfigV2Bool(&c.value), c.b) << c.text;
        EXPECT_EQ(rendered(c.value), c.text);
    }
    const ConfConfigValue notANumber = ofFloat(NAN);
    EXPECT_EQ(ConfConfigV2Int(&notANumber), 0);
    EXPECT_EQ(ConfConfigV2UInt(&notANumber), 0u);
    EXPECT_EQ(ConfConfigV2Int(nullptr), -1);
    EXPECT_EQ(ConfConfigV2UInt(nullptr), kAllBits);
    EXPECT_EQ(ConfConfigV2Float(nullptr), 0);
    EXPECT_EQ(ConfConfigV2Bool(nullptr), 0);
    EXPECT_TRUE(testkit::records().empty());
}

TEST_F(ConfigValue, TextWithoutAnythingToReadIsRecorded) {
    const ConfConfigValue value = ofText(" \t");
    double stored = 5;
    EXPECT_EQ(ConfConfigV2Int(&value), 0);
    EXPECT_EQ(ConfConfigV2UInt(&value), 0u);
    EXPECT_EQ(ConfConfigV2Bool(&value), 0);
    EXPECT_EQ(ConfConfigV2DByType(&value, &stored, 3, CONF_VALUE_FLOAT), -1);
    ASSERT_EQ(testkit::records().size(), 3u);
    for (const char *reader : {"V2Int", "V2UInt", "V2Float"}) {
        const string record = string("[ConfConfig") + reader + "]sscanf_s fail 3";
        EXPECT_TRUE(testkit::hasRecord(1, "conf_config_value", record)) << reader;
    }
}

TEST_F(ConfigValue, StoresTellWhetherTheStorageChanged) {
    const ConfConfigValue minusOne = {CONF_VALUE_INT, {.i = -1}};
    const ConfConfigValue one = {CONF_VALUE_BOOL, {.b = 9}};
    const struct {
        ConfConfigValue value;
        uint32_t size;
        int32_t type;
        uint64_t before, after; /* in the storage's low bytes */
        int32_t first, second;
    } cases[] = {
        {ofText("300"), 1, CONF_VALUE_INT, 0, 44, 0, 0},
        {minusOne, 2, CONF_VALUE_INT, 7, 0xFFFF, 0, 1},
        {minusOne, 8, CONF_VALUE_INT, 7, kAllBits, 0, 1},
        {minusOne, 4, CONF_VALUE_UINT, 7, 0xFFFFFFFF, 0, 0},
        {ofText("200"), 1, CONF_VALUE_UINT, 7, 200, 0, 1},
        {ofText("0.1"), 4, CONF_VALUE_FLOAT, 0, 0x3DCCCCCD, 0, 0},
        {ofText("0.1"), 8, CONF_VALUE_FLOAT, 0, 0x3FB999999999999A, 0, 1},
        {ofText("nan"), 8, CONF_VALUE_FLOAT, 0, 0x7FF8000000000000, 0, 0},
        {ofFloat(1e300), 4, CONF_VALUE_FLOAT, 0, 0x7F800000, 0, 0},
        {minusOne, 2, CONF_VALUE_FLOAT, 7, 7, -1, -1},
        {one, 1, CONF_VALUE_BOOL, 0xFF, 1, 0, 1},
        {one, 4, CONF_VALUE_BOOL, 2, 1, 0, 1},
        {one, 8, CONF_VALUE_BOOL, 0x100000001, 1, 0, 1},
        {one, 3, CONF_VALUE_BOOL, 7, 7, -1, -1},
        {ofText("ABC"), 4, CONF_VALUE_STR, 0x636261, 0x636261, 1, 1}, /* "abc" stays */
        {ofText("ABC"), 0, CONF_VALUE_STR, 0x636261, 0x636261, 1, 1},
        {ofText("AB"), 3, CONF_VALUE_STR, 0x636261, 0x4241, 0, 1}, /* had no terminator */
        {minusOne, 4, 7, 7, 7, -1, -1},
    };
    for (const auto &c : cases) {
        char place[1 + sizeof(c.before) + 1] = {};
        char *storage = place + 1; /* not aligned */
        memcpy(storage, &c.before, sizeof(c.before));
        EXPECT_EQ(ConfConfigV2DByType(&c.value, storage, c.size, c.type), c.first) << &c - cases;
        EXPECT_EQ(memcmp(storage, &c.after, c.size > 8 ? 8 : c.size), 0) << &c - cases;
        EXPECT_EQ(ConfConfigV2DByType(&c.value, storage, c.size, c.type), c.second) << &c - cases;
    }
}

TEST_F(ConfigValue, StorageIsReadInItsWidth) {
    const char *storage = &"\0\xFE\xFF\xFF\xFF\0\0\0\0"[1]; /* not aligned */
    ConfConfigValue value = {};
    for (const auto &[size, i] :
         {std::pair(1u, -2LL), {2u, -2LL}, {4u, -2LL}, {8u, 0xFFFFFFFELL}}) {
        EXPECT_EQ(ConfConfigD2VByType(&value, storage, size, CONF_VALUE_INT), 0);
        EXPECT_EQ(value.payload.i, i);
        EXPECT_EQ(ConfConfigD2VByType(&value, storage, size, CONF_VALUE_UINT), 0);
        EXPECT_EQ(value.payload.u, size == 8 ? 0xFFFFFFFE : 0xFFFFFFFE & ((1ULL << size * 8) - 1));
    }
    EXPECT_EQ(ConfConfigD2VByType(&value, "hello", 1, CONF_VALUE_STR), 0);
    EXPECT_EQ(value.payload.str.length, 6u);
    EXPECT_EQ(ConfConfigD2VByType(&value, storage, 3, CONF_VALUE_DATA), 0);
    char copy[3] = "xx";
    EXPECT_EQ(ConfConfigV2DByType(&value, copy, sizeof(copy), CONF_VALUE_DATA), 0);
    EXPECT_EQ(memcmp(copy, storage, 3), 0);
    EXPECT_GT(ConfConfigV2Data(&value, copy, 2), 0);
    for (const auto &[type, size] : {std::pair(0, 4u), {7, 4}, {1, 3}, {2, 0}, {3, 2}, {4, 16}}) {
        EXPECT_EQ(ConfConfigD2VByType(&value, storage, size, type), -1) << type;
        EXPECT_EQ(ConfConfigV2DByType(nullptr, copy, 1, type), -1);
    }
    EXPECT_EQ(value.type, CONF_VALUE_DATA);
    EXPECT_EQ(ConfConfigStr2V(&value, nullptr), -1);
    EXPECT_TRUE(ConfConfigStrEqual(nullptr, ""));
    EXPECT_FALSE(ConfConfigStrEqual("a", "ab"));
}

TEST_F(ConfigValue, LongTextsAlwaysCountAsChanged) {
    char storage[1025] = "";
    for (const auto &[length, second] : {std::pair(1023u, 1), {1024u, 0}}) {
        const string text(length, 'a');
        const ConfConfigValue value = ofText(text.c_str());
        EXPECT_EQ(ConfConfigV2DByType(&value, storage, sizeof(storage), CONF_VALUE_STR), 0);
        EXPECT_EQ(ConfConfigV2DByType(&value, storage, sizeof(storage), CONF_VALUE_STR), second);
    }
}

/* A locale with a comma in its numbers, as the C library keeps it in files; it needs no package. */
class CommaLocale {
  public:
    CommaLocale() {
        const std::filesystem::path folder =
            std::filesystem::path(support::scratchRoot()) / "comma";
        std::filesystem::create_directories(folder);
        const uint32_t head[] = {0x20031114, 6, 32, 34, 36, 40, 44, 48};
        std::ofstream(folder / "LC_NUMERIC", std::ios::binary)
            .write(reinterpret_cast<const char *>(head), sizeof(head))
            .write(",\0.\0\3\3\0\0,\0\0\0.\0\0\0C", 18);
        setenv("LOCPATH", support::scratchRoot().c_str(), 1);
        EXPECT_NE(setlocale(LC_NUMERIC, "comma"), nullptr);
        EXPECT_STREQ(localeconv()->decimal_point, ",");
    }
    ~CommaLocale() {
        setlocale(LC_NUMERIC, "C");
        unsetenv("LOCPATH");
    }
};

TEST_F(ConfigValue, FloatingPointTextsDoNotFollowTheLocale) {
    const CommaLocale locale;
    const ConfConfigValue text = ofText("1.5");
    EXPECT_EQ(ConfConfigV2Float(&text), 1.5);
    EXPECT_EQ(rendered(ofFloat(1.5)), "1.500000");
    double stored = 0;
    EXPECT_EQ(ConfConfigV2DByType(&text, &stored, sizeof(stored), CONF_VALUE_FLOAT), 0);
    EXPECT_EQ(stored, 1.5);

    ConfXmlNode *root = ConfXmlCreateRootNode("r");
    const double number = 2.5;
    const float narrow = 0.5F;
    EXPECT_EQ(ConfXmlAddAttr(root, "a", CONF_XML_DOUBLE, &number), 0u);
    EXPECT_EQ(ConfXmlSetNodeText(root, CONF_XML_FLOAT, &narrow), 0u);
    EXPECT_STREQ(ConfXmlTransformStr(root), "<r a=\"2.5\">0.5</r>");
    ConfXmlFreeRootNode(root);

    string printed;
    EXPECT_EQ(ConfJsonCreateAndPrintSingleNumber(printed, "rate", number), 0);
    EXPECT_NE(printed.find("2.5"), string::npos) << printed;
    cJSON *tree = ConfJsonParse("{\"n\": 3.5e9}");
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(ConfJsonFindItem(tree, "n")->valuedouble, 3.5e9);
    EXPECT_EQ(ConfJsonGetInt(tree, "n", 7), 7);
    EXPECT_TRUE(testkit::hasRecord(1, "conf_json", "number[3500000000.000000] is out"));
    cJSON_Delete(tree);
    EXPECT_STREQ(localeconv()->decimal_point, ",") << "the process keeps its own";
}

}  // namespace
