/* Values out of parsed trees, and trees into text; garbage, and memory that runs out. */
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <new>
#include <string>

#include <conference_testkit_gtest.h>
#include "include/conf_json.h"

static thread_local int64_t untilFailure = -1; /* allocations that succeed; -1: all */

static void *take(size_t size) {
    return untilFailure >= 0 && untilFailure-- == 0 ? nullptr : malloc(size);
}
void *operator new(size_t size) {
    void *block = take(size);
    return block == nullptr ? throw std::bad_alloc() : block;
}
__attribute__((noinline)) void operator delete(void *block) noexcept {
    free(block);
}
void operator delete(void *block, size_t) noexcept {
    ::operator delete(block);
}

namespace {
using std::string;

constexpr ConfJsonItem kItems[] = {{CONF_JSON_ITEM_NUMBER, "n", {.number = 2.5}},
                                   {CONF_JSON_ITEM_STRING, "s", {.string = "a\"\xFF"}},
                                   {CONF_JSON_ITEM_BOOL, "b", {.boolean = true}}};

class Json : public testkit::PlatformTest {
  protected:
    ~Json() override { cJSON_Delete(root_); }

    /* What was logged since the last call, each record "[function without ConfJson]text;". */
    static string logged() {
        string text;
        for (const auto &each : testkit::records()) {
            EXPECT_TRUE(each.level == 1 && each.unit == "conf_json") << each;
            text += '[' + each.whole().substr(9) + ';';
        }
        testkit::clearRecords();
        return text;
    }

    cJSON *root_ = ConfJsonParse(
        "{\"a\": [4, {\"e\": 5}], \"o\": {}, \"s\": \"5\", \"t\": true, \"f\": false, \"i\": -1e10,"
        "\"Name\": 0, \"s\": \"6\", \"z\": \"\xff\\u0000y\"}");
    cJSON *array_ = ConfJsonGetArray(root_, "a");
    string out_ = "as it was";
};

TEST_F(Json, NumbersInRangeAreCutAndOthersGiveTheDefault) {
    const double cases[][4] = {{2147483647, 2147483647, 2147483647, 2147483647},
                               {2147483647.5, 7, 2147483647, 2147483647},
                               {-2147483648.0, -2147483648.0, 7, 7},
                               {-3.99, -3, 7, 7},
                               {-0.5, 0, 7, 7},
                               {4294967295, 7, 4294967295, 4294967295},
                               {4294967295.5, 7, 7, 4294967295},
                               {0x1.fffffffffffffp63, 7, 7, 0x1.fffffffffffffp63},
                               {0x1p64, 7, 7, 7},
                               {__builtin_nan(""), 7, 7, 7}};
    for (const auto &[number, asInt, asUInt32, asUInt64] : cases) {
        ConfJsonFindItem(root_, "i")->valuedouble = number;
        EXPECT_EQ(ConfJsonGetInt(root_, "i", 7), asInt) << number;
        EXPECT_EQ(ConfJsonGetUInt32(root_, "i", 7), asUInt32) << number;
        EXPECT_EQ(static_cast<double>(ConfJsonGetUInt64(root_, "i", 7)), asUInt64) << number;
    }
}

TEST_F(Json, MembersAreFoundByTypeAndLetterCase) {
    EXPECT_EQ(ConfJsonGetArraySize(array_) + ConfJsonGetArraySize(root_), 2);
    EXPECT_EQ(ConfJsonGetInt(ConfJsonGetArrayItem(array_, 1), "e", 0), 5);
    EXPECT_TRUE(ConfJsonGetBool(root_, "t", false) && !ConfJsonGetBool(root_, "f", true));
    EXPECT_EQ(ConfJsonGetString(root_, "s", "d") + ConfJsonGetString(root_, "z", "d"), "5\xff");
    EXPECT_TRUE(ConfJsonGetObject(root_, "o") && ConfJsonIsMember(root_, "name"));
    EXPECT_FALSE(ConfJsonGetObject(root_, "a"));
    EXPECT_EQ(logged(), "");
}

template <auto lookup, auto... otherwise>
bool refuses(cJSON *root, const char *key) {
    using Result = decltype(lookup(root, key, otherwise...));
    return lookup(root, key, otherwise...) == Result(otherwise...);
}

TEST_F(Json, WhatIsMissingOrWrongIsRefusedUnderTheNameOfTheFunction) {
    const char *const noNumber = " item is not a valid json number";
    const struct {
        string function, root;
        const char *missing; /* what the record says of the item; null: there is no record */
        bool (*refuses)(cJSON *root, const char *key);
    } cases[] = {
        {"GetObject", " input root", nullptr, refuses<ConfJsonGetObject>},
        {"GetArray", " input root", " input root[N] is not a valid json array",
         refuses<ConfJsonGetArray>},
        {"FindItem", " input root", " root[N] is null", refuses<ConfJsonFindItem>},
        {"IsMember", " root", nullptr, refuses<ConfJsonIsMember>},
        {"GetBool", " root", " item is not a valid json bool", refuses<ConfJsonGetBool, true>},
        {"GetInt", " root", noNumber, refuses<ConfJsonGetInt, -7>},
        {"GetUInt32", " root", noNumber, refuses<ConfJsonGetUInt32, 7U>},
        {"GetUInt64", " root", noNumber, refuses<ConfJsonGetUInt64, 7ULL>}};
    for (const auto &c : cases) {
        const string record = "[" + c.function + "]ConfJson" + c.function;
        EXPECT_TRUE(c.refuses(nullptr, "i") && c.refuses(array_, "i") && c.refuses(root_, "N"));
        EXPECT_EQ(logged(), record + " null pointer;" + record + c.root +
                                " is not a valid json object;" +
                                (c.missing == nullptr ? "" : record + c.missing + ';'));
    }
}

TEST_F(Json, RefusalsOfTheirOwn) {
    cJSON_AddItemToObject(root_, "null", cJSON_CreateStringReference(nullptr));
    EXPECT_EQ(ConfJsonGetString(nullptr, "s", "d"), "d");
    EXPECT_FALSE(!ConfJsonGetString(array_, "s", "").empty() ||
                 !ConfJsonGetString(root_, "null", "").empty() || ConfJsonGetInt(root_, "i", 0) ||
                 ConfJsonGetUInt32(root_, "i", 0) || ConfJsonGetUInt64(root_, "i", 0) ||
                 ConfJsonGetBool(root_, nullptr, false) || ConfJsonParse(nullptr) ||
                 ConfJsonParse("") || ConfJsonFindItem(root_, nullptr) ||
                 ConfJsonGetArrayItem(nullptr, 0) || ConfJsonGetArrayItem(root_, 0) ||
                 ConfJsonGetArrayItem(array_, 0x80000000U));
    EXPECT_TRUE(ConfJsonAddMultipleItems(root_, nullptr, 0) &&
                ConfJsonAddMultipleItemsToSubObject(root_, nullptr, kItems, 1) &&
                ConfJsonAddMultipleItemsToSubObject(root_, "name", kItems, 1) &&
                ConfJsonCreateAndPrintMultipleItems(out_, nullptr, 0) &&
                ConfJsonCreateAndPrintSingleNumber(out_, nullptr, 1) &&
                ConfJsonCreateAndPrintSingleString(out_, "k", nullptr));
    ConfJsonReplaceStr(out_, "as", nullptr);
    EXPECT_EQ(
        logged(),
        "[GetString]null pointer;[GetString]not a valid json object;"
        "[GetString]not a valid json string;"
        "[GetInt]ConfJsonGetInt retrieved number[-10000000000.000000] is out of int ranger;"
        "[GetUInt32]ConfJsonGetUInt32 retrieved number[-10000000000.000000] is out of uint32_t "
        "ranger;[GetUInt64]ConfJsonGetUInt64 retrieved number[-10000000000.000000] is out of "
        "uint64_t ranger;[GetBool]ConfJsonGetBool item is not a valid json bool;"
        "[Parse]ConfJsonParse null pointer;[Parse]ConfJsonParse input is not a valid json string;"
        "[FindItem]ConfJsonFindItem null pointer;[GetArrayItem]ConfJsonGetArrayItem null pointer;"
        "[GetArrayItem]ConfJsonGetArrayItem input root is not a valid json array;"
        "[GetArrayItem]ConfJsonGetArrayItem retrieve root[index] failed;"
        "[AddMultipleItems]ConfJsonAddMultipleItems input null pointer;"
        "[AddMultipleItemsToSubObject]ConfJsonAddTwoLayerMultipleItems input null pointer;"
        "[AddMultipleItemsToSubObject]Can't get or create subObject name;"
        "[CreateAndPrintMultipleItems]ConfJsonCreateAndPrintMultipleItems input null pointer;"
        "[CreateAndPrintSingleNumber]Add number item key:(null) failed;"
        "[CreateAndPrintSingleString]Add string item key:k failed;"
        "[ReplaceStr]CallJson::ReplaceStr null point;");
}

TEST_F(Json, ItemsAreAddedInTheirOrderUpToOneThatCannotBe) {
    ConfJsonCreateAndPrintMultipleItems(out_, kItems, 3);
    EXPECT_EQ(out_, "{\n\t\"n\":\t2.5,\n\t\"s\":\t\"a\\\"\xFF\",\n\t\"b\":\ttrue\n}");
    EXPECT_EQ(ConfJsonCreateAndPrintSingleString(out_, "site", ""), 0);
    EXPECT_EQ(ConfJsonAddMultipleItemsToSubObject(root_, "new", kItems, 0), 0);
    const string records[] = {
        "Unsupported type:-1 at array index:1", "Add number item key:(null) failed",
        "Add string item key:(null) failed", "Add bool item key:(null) failed"};
    for (int type = -1; type <= CONF_JSON_ITEM_BOOL; type++) {
        EXPECT_EQ(logged(), "");
        const ConfJsonItem items[] = {kItems[0], {type, nullptr, {.string = "x"}}, kItems[1]};
        EXPECT_EQ(ConfJsonCreateAndPrintMultipleItems(out_, items, 3), 1);
        EXPECT_EQ(ConfJsonAddMultipleItemsToSubObject(root_, "new", items, 3), 1);
        const string added = "[AddMultipleItems]" + records[type + 1] + ';';
        EXPECT_EQ(logged(),
                  added + "[CreateAndPrintMultipleItems]Add multiple items to json failed;" +
                      added +
                      "[AddMultipleItemsToSubObject]Add multiple items to subObject failed;");
    }
    EXPECT_EQ(cJSON_GetArraySize(ConfJsonGetObject(root_, "new")), 4) << "those before stay";
    EXPECT_EQ(out_, "{\n\t\"site\":\t\"\"\n}");
    ConfJsonReplaceStr(out_, "\t", "+");
    ConfJsonReplaceStr(out_, "", "was ");
    EXPECT_EQ(out_, "was {\n+\"site\":\t\"\"\n}");
    ConfJsonClearStr(out_);
    EXPECT_EQ(out_, string(19, '*'));
}

char lastReleased; /* the first byte of a block */

void release(void *block) {
    lastReleased = block == nullptr ? lastReleased : *static_cast<char *>(block);
    free(block);
}

TEST_F(Json, ThePrintedTextIsReleasedAfterTheObject) {
    cJSON_Hooks hooks = {malloc, release};
    cJSON_InitHooks(&hooks);
    EXPECT_EQ(ConfJsonCreateAndPrintMultipleItems(out_, kItems, 3), 0);
    EXPECT_EQ(lastReleased, '{');
    cJSON_InitHooks(nullptr);
}

TEST_F(Json, MemoryThatRunsOutIsAFailureAndLeavesEverythingAsItWas) {
    cJSON_Hooks hooks = {take, free};
    cJSON_InitHooks(&hooks);
    const string text(100, 'x');
    cJSON_AddStringToObject(root_, "long", text.c_str());
    bool good = false;
    int64_t failures = 0;
    for (; !good; failures++) {
        string out, otherwise = "default";
        untilFailure = failures;
        const bool printed = ConfJsonCreateAndPrintMultipleItems(out, kItems, 3) == 0 &&
                             ConfJsonCreateAndPrintSingleNumber(out, "number", 1) == 0 &&
                             ConfJsonCreateAndPrintSingleString(out, "text", text.c_str()) == 0;
        ConfJsonReplaceStr(out, "", text.c_str());
        const string copy = ConfJsonGetString(root_, "long", std::move(otherwise));
        good = untilFailure >= 0;
        untilFailure = -1;
        EXPECT_EQ(printed && out.size() > 200 && copy == text, good) << failures;
        EXPECT_TRUE(logged().empty() == good && (copy == text || copy == "default"));
    }
    EXPECT_GT(failures, 15);
    cJSON_InitHooks(nullptr);
}

}  // namespace
