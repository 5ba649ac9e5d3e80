/* Attacks ConfJsonParse and every function that reads a tree, and what puts values back into text, on
 * a stack of 256 KiB.
 *
 * An input is a key, a NUL and a JSON text. What the getters say must be what cJSON holds. */
#include <cjson/cJSON.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/scratch.h"
#include "include/conf_json.h"
#include "include/conf_log_adapter.h"

namespace {

using fuzz::require;

/* Twice with different defaults: a value that was read is the same, a default is the own one. */
void readNumbers(cJSON *root, const char *key, const cJSON *member) {
    const bool isNumber = member != nullptr && cJSON_IsNumber(member);
    const double number = isNumber ? member->valuedouble : -1e300;
    const bool fits = number >= 0 && number < 0x1p64;
    const bool fits32 = number >= 0 && number <= 4294967295.0;
    const bool fitsInt = number >= -2147483648.0 && number <= 2147483647.0;
    require((ConfJsonGetUInt64(root, key, 1) == ConfJsonGetUInt64(root, key, 2)) == fits);
    require((ConfJsonGetUInt32(root, key, 1) == ConfJsonGetUInt32(root, key, 2)) == fits32);
    require((ConfJsonGetInt(root, key, 1) == ConfJsonGetInt(root, key, 2)) == fitsInt);
}

/* A text that was read is one that comes back when it is printed and parsed again. */
void readText(cJSON *root, const char *key, const cJSON *member) {
    const std::string text = ConfJsonGetString(root, key, "default");
    if (!cJSON_IsString(member)) {
        require(text == "default");
        return;
    }
    std::string printed;
    require(ConfJsonCreateAndPrintSingleString(printed, "k", text.c_str()) == 0);
    cJSON *again = ConfJsonParse(printed.c_str());
    require(ConfJsonGetString(again, "k", "") == text);
    cJSON_Delete(again);

    ConfJsonReplaceStr(printed, text.c_str(), key);
    ConfJsonClearStr(printed);
    require(printed.find_first_not_of('*') == std::string::npos);
}

void readMember(cJSON *root, const char *key) {
    cJSON *member = ConfJsonFindItem(root, key);
    require(member == nullptr || ConfJsonIsMember(root, key));
    require(ConfJsonGetObject(root, key) == (cJSON_IsObject(member) ? member : nullptr));
    require(ConfJsonGetArray(root, key) == (cJSON_IsArray(member) ? member : nullptr));
    const bool isBool = ConfJsonGetBool(root, key, true) == ConfJsonGetBool(root, key, false);
    require(isBool == (cJSON_IsBool(member) != 0));
    readNumbers(root, key, member);
    readText(root, key, member);
    const int size = ConfJsonGetArraySize(member);
    require(ConfJsonGetArrayItem(member, static_cast<unsigned int>(size)) == nullptr);
    require(size == 0 || ConfJsonGetArrayItem(member, static_cast<unsigned int>(size) - 1));
}

void *readInput(void *context) {
    const std::string &input = *static_cast<const std::string *>(context);
    const std::string key = input.c_str();
    cJSON *tree = ConfJsonParse(input.c_str() + std::min(key.size() + 1, input.size()));
    readMember(tree, key.c_str());
    if (cJSON_IsObject(tree)) {
        const ConfJsonItem item = {CONF_JSON_ITEM_STRING, key.c_str(), {.string = key.c_str()}};
        ConfJsonAddMultipleItemsToSubObject(tree, key.c_str(), &item, 1);
    }
    cJSON_Delete(tree);
    return nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string root = fuzz::scratchRoot();
    SetLogLevel(0);
    std::string input(reinterpret_cast<const char *>(data), size);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 << 10);
    pthread_t thread;
    require(pthread_create(&thread, &attributes, readInput, &input) == 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    return 0;
}
