/* Typed values out of parsed trees.
 *
 * A lookup checks its arguments, finds the member and judges it; each step that fails leaves the
 * record of its function. The functions differ in texts and types only: each has its texts in one
 * place, and a template makes its steps, so that none costs more than the cJSON calls that it stands
 * for. */
#include <cjson/cJSON.h>

#include <limits>

#include "common/classic_locale.h"
#include "common/log.h"
#include "include/conf_json.h"

namespace {

constexpr char kUnit[] = "conf_json";

/* What a function writes under its own name. */
struct Texts {
    const char *function;
    const char *nullPointer;
    const char *notAnObject;
    const char *wrongType = nullptr;
    const char *outOfRange = nullptr;
};

constexpr Texts kGetObject = {"ConfJsonGetObject", "ConfJsonGetObject null pointer",
                              "ConfJsonGetObject input root is not a valid json object"};
constexpr Texts kGetArray = {"ConfJsonGetArray", "ConfJsonGetArray null pointer",
                             "ConfJsonGetArray input root is not a valid json object"};
constexpr Texts kFindItem = {"ConfJsonFindItem", "ConfJsonFindItem null pointer",
                             "ConfJsonFindItem input root is not a valid json object"};
constexpr Texts kIsMember = {"ConfJsonIsMember", "ConfJsonIsMember null pointer",
                             "ConfJsonIsMember root is not a valid json object"};
constexpr Texts kGetBool = {"ConfJsonGetBool", "ConfJsonGetBool null pointer",
                            "ConfJsonGetBool root is not a valid json object",
                            "ConfJsonGetBool item is not a valid json bool"};
constexpr Texts kGetInt = {"ConfJsonGetInt", "ConfJsonGetInt null pointer",
                           "ConfJsonGetInt root is not a valid json object",
                           "ConfJsonGetInt item is not a valid json number",
                           "ConfJsonGetInt retrieved number[%lf] is out of int ranger"};
constexpr Texts kGetUInt32 = {"ConfJsonGetUInt32", "ConfJsonGetUInt32 null pointer",
                              "ConfJsonGetUInt32 root is not a valid json object",
                              "ConfJsonGetUInt32 item is not a valid json number",
                              "ConfJsonGetUInt32 retrieved number[%lf] is out of uint32_t ranger"};
constexpr Texts kGetUInt64 = {"ConfJsonGetUInt64", "ConfJsonGetUInt64 null pointer",
                              "ConfJsonGetUInt64 root is not a valid json object",
                              "ConfJsonGetUInt64 item is not a valid json number",
                              "ConfJsonGetUInt64 retrieved number[%lf] is out of uint64_t ranger"};
constexpr Texts kGetString = {"ConfJsonGetString", "null pointer", "not a valid json object",
                              "not a valid json string"};

/* Kept out of the callers, who rarely fail. */
__attribute__((noinline, cold)) void report(const Texts &texts, const char *text,
                                            int line = __builtin_LINE()) {
    ConfLogPrintf(CONF_LOG_ERROR, texts.function, kUnit, line, "%s", text);
}

__attribute__((noinline, cold)) void reportRange(const Texts &texts, double number,
                                                 int line = __builtin_LINE()) {
    const ClassicLocale locale;
    ConfLogPrintf(CONF_LOG_ERROR, texts.function, kUnit, line, texts.outOfRange, number);
}

/* Is `root` an object? `complete`: no argument is missing. */
template <const Texts &texts>
bool canSearch(const cJSON *root, bool complete) {
    if (!complete) {
        report(texts, texts.nullPointer);
        return false;
    }
    if (!cJSON_IsObject(root)) {
        report(texts, texts.notAnObject);
        return false;
    }
    return true;
}

/* The member of the wanted type, or null with a record. */
template <const Texts &texts, cJSON_bool (*isWanted)(const cJSON *)>
const cJSON *memberOfType(const cJSON *root, const char *key) {
    if (!canSearch<texts>(root, root != nullptr)) {
        return nullptr;
    }
    const cJSON *item = key == nullptr ? root : cJSON_GetObjectItemCaseSensitive(root, key);
    if (!isWanted(item)) {
        report(texts, texts.wrongType);
        return nullptr;
    }
    return item;
}

/* The number, cut to an integer, from the lowest that the type holds to `highest`, both included. */
template <const Texts &texts, typename Number>
Number numberOf(const cJSON *root, const char *key, Number defaultValue, double highest) {
    const cJSON *item = memberOfType<texts, cJSON_IsNumber>(root, key);
    if (item == nullptr) {
        return defaultValue;
    }
    const double number = item->valuedouble;
    /* What is not a number is in no range. */
    if (!(number >= static_cast<double>(std::numeric_limits<Number>::min()) && number <= highest)) {
        reportRange(texts, number);
        return defaultValue;
    }
    return static_cast<Number>(number);
}

}  // namespace

cJSON *ConfJsonParse(char const *text) {
    if (text == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonParse null pointer");
        return nullptr;
    }
    const ClassicLocale locale;
    cJSON *tree = cJSON_Parse(text);
    if (tree == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonParse input is not a valid json string");
    }
    return tree;
}

cJSON *ConfJsonGetObject(cJSON *root, char const *key) {
    if (!canSearch<kGetObject>(root, root != nullptr && key != nullptr)) {
        return nullptr;
    }
    cJSON *member = cJSON_GetObjectItemCaseSensitive(root, key);
    return cJSON_IsObject(member) ? member : nullptr;
}

cJSON *ConfJsonGetArray(cJSON *root, char const *key) {
    if (!canSearch<kGetArray>(root, root != nullptr && key != nullptr)) {
        return nullptr;
    }
    cJSON *member = cJSON_GetObjectItemCaseSensitive(root, key);
    if (!cJSON_IsArray(member)) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonGetArray input root[%s] is not a valid json array", key);
        return nullptr;
    }
    return member;
}

cJSON *ConfJsonFindItem(cJSON *root, char const *key) {
    if (!canSearch<kFindItem>(root, root != nullptr && key != nullptr)) {
        return nullptr;
    }
    cJSON *member = cJSON_GetObjectItemCaseSensitive(root, key);
    if (member == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonFindItem root[%s] is null", key);
    }
    return member;
}

int ConfJsonGetArraySize(cJSON *array) {
    return cJSON_IsArray(array) ? cJSON_GetArraySize(array) : 0;
}

cJSON *ConfJsonGetArrayItem(cJSON *array, unsigned int index) {
    if (array == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonGetArrayItem null pointer");
        return nullptr;
    }
    if (!cJSON_IsArray(array)) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonGetArrayItem input root is not a valid json array");
        return nullptr;
    }
    cJSON *item = cJSON_GetArrayItem(array, static_cast<int>(index));
    if (item == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonGetArrayItem retrieve root[index] failed");
    }
    return item;
}

bool ConfJsonIsMember(cJSON *root, char const *key) {
    return canSearch<kIsMember>(root, root != nullptr && key != nullptr) &&
           cJSON_HasObjectItem(root, key) != 0;
}

bool ConfJsonGetBool(cJSON *root, char const *key, bool defaultValue) {
    const cJSON *item = memberOfType<kGetBool, cJSON_IsBool>(root, key);
    return item == nullptr ? defaultValue : cJSON_IsTrue(item) != 0;
}

int ConfJsonGetInt(cJSON *root, char const *key, int defaultValue) {
    return numberOf<kGetInt>(root, key, defaultValue, 2147483647.0);
}

unsigned int ConfJsonGetUInt32(cJSON *root, char const *key, unsigned int defaultValue) {
    return numberOf<kGetUInt32>(root, key, defaultValue, 4294967295.0);
}

unsigned long long ConfJsonGetUInt64(cJSON *root, char const *key,
                                     unsigned long long defaultValue) {
    return numberOf<kGetUInt64>(root, key, defaultValue, 0x1.fffffffffffffp63);
}

std::string ConfJsonGetString(cJSON *root, char const *key, std::string defaultValue) {
    const cJSON *item = memberOfType<kGetString, cJSON_IsString>(root, key);
    if (item == nullptr) {
        return defaultValue;
    }
    if (item->valuestring == nullptr) { /* a node made by hand */
        report(kGetString, kGetString.wrongType);
        return defaultValue;
    }
    try {
        return item->valuestring;
    } catch (...) {
        report(kGetString, "no memory for the string");
        return defaultValue;
    }
}
