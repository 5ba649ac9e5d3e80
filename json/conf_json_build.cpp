/* Objects built from tables of items and printed, and two changes of texts. */
#include <cjson/cJSON.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "common/classic_locale.h"
#include "common/log.h"
#include "include/conf_json.h"

namespace {

constexpr char kUnit[] = "conf_json";

constexpr int kSuccess = 0;
constexpr int kFailure = 1;

struct TreeDelete {
    void operator()(cJSON *tree) const { cJSON_Delete(tree); }
};
using JsonTree = std::unique_ptr<cJSON, TreeDelete>;

/* With cJSON's own function: the process may have given it another allocator. */
struct TextDelete {
    void operator()(char *text) const { cJSON_free(text); }
};
using JsonText = std::unique_ptr<char, TextDelete>;

/* A key as a record shows it. */
const char *shown(const char *key) {
    return key == nullptr ? "(null)" : key;
}

/* By its byte: one that is neither 0 nor 1 is no bool that may be read. */
bool isTrue(const ConfJsonItem &item) {
    return *reinterpret_cast<const unsigned char *>(&item.value.boolean) != 0;
}

/* Puts the print in place of `out`; false, with `out` as it was, when there is no memory. The text is
 * the caller's to keep: it is released after the object. */
bool printInto(std::string &out, const cJSON *object, JsonText *printed) {
    const ClassicLocale locale;
    printed->reset(cJSON_Print(object));
    if (*printed == nullptr) {
        return false;
    }
    try {
        out = printed->get();
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace

int ConfJsonAddMultipleItems(cJSON *object, ConfJsonItem const *items, unsigned int count) {
    if (object == nullptr || items == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonAddMultipleItems input null pointer");
        return kFailure;
    }
    for (unsigned int index = 0; index < count; index++) {
        const ConfJsonItem &item = items[index];
        switch (item.type) {
            case CONF_JSON_ITEM_NUMBER:
                if (cJSON_AddNumberToObject(object, item.key, item.value.number) == nullptr) {
                    CONF_LOG(CONF_LOG_ERROR, "Add number item key:%s failed", shown(item.key));
                    return kFailure;
                }
                break;
            case CONF_JSON_ITEM_STRING:
                if (cJSON_AddStringToObject(object, item.key, item.value.string) == nullptr) {
                    CONF_LOG(CONF_LOG_ERROR, "Add string item key:%s failed", shown(item.key));
                    return kFailure;
                }
                break;
            case CONF_JSON_ITEM_BOOL:
                if (cJSON_AddBoolToObject(object, item.key, isTrue(item)) == nullptr) {
                    CONF_LOG(CONF_LOG_ERROR, "Add bool item key:%s failed", shown(item.key));
                    return kFailure;
                }
                break;
            default:
                CONF_LOG(CONF_LOG_ERROR, "Unsupported type:%d at array index:%u", item.type, index);
                return kFailure;
        }
    }
    return kSuccess;
}

int ConfJsonAddMultipleItemsToSubObject(cJSON *root, char const *name, ConfJsonItem const *items,
                                        unsigned int count) {
    if (root == nullptr || name == nullptr || items == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonAddTwoLayerMultipleItems input null pointer");
        return kFailure;
    }
    cJSON *object = cJSON_HasObjectItem(root, name) ? cJSON_GetObjectItemCaseSensitive(root, name)
                                                    : cJSON_AddObjectToObject(root, name);
    if (object == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Can't get or create subObject %s", name);
        return kFailure;
    }
    if (ConfJsonAddMultipleItems(object, items, count) != kSuccess) {
        CONF_LOG(CONF_LOG_ERROR, "Add multiple items to subObject failed");
        return kFailure;
    }
    return kSuccess;
}

int ConfJsonCreateAndPrintSingleNumber(std::string &out, char const *key, double value) {
    JsonText printed;
    const JsonTree object(cJSON_CreateObject());
    if (object == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Create json object failed");
        return kFailure;
    }
    if (cJSON_AddNumberToObject(object.get(), key, value) == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Add number item key:%s failed", shown(key));
        return kFailure;
    }
    if (!printInto(out, object.get(), &printed)) {
        CONF_LOG(CONF_LOG_ERROR, "Print to string failed");
        return kFailure;
    }
    return kSuccess;
}

int ConfJsonCreateAndPrintSingleString(std::string &out, char const *key, char const *value) {
    JsonText printed;
    const JsonTree object(cJSON_CreateObject());
    if (object == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Create json object failed");
        return kFailure;
    }
    if (cJSON_AddStringToObject(object.get(), key, value) == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Add string item key:%s failed", shown(key));
        return kFailure;
    }
    if (!printInto(out, object.get(), &printed)) {
        CONF_LOG(CONF_LOG_ERROR, "Print to string failed");
        return kFailure;
    }
    return kSuccess;
}

int ConfJsonCreateAndPrintMultipleItems(std::string &out, ConfJsonItem const *items,
                                        unsigned int count) {
    if (items == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfJsonCreateAndPrintMultipleItems input null pointer");
        return kFailure;
    }
    JsonText printed;
    const JsonTree object(cJSON_CreateObject());
    if (object == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Create json object failed");
        return kFailure;
    }
    if (ConfJsonAddMultipleItems(object.get(), items, count) != kSuccess) {
        CONF_LOG(CONF_LOG_ERROR, "Add multiple items to json failed");
        return kFailure;
    }
    if (!printInto(out, object.get(), &printed)) {
        CONF_LOG(CONF_LOG_ERROR, "Print to string failed");
        return kFailure;
    }
    return kSuccess;
}

void ConfJsonReplaceStr(std::string &text, char const *search, char const *replacement) {
    if (search == nullptr || replacement == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "CallJson::ReplaceStr null point");
        return;
    }
    /* Unlike the string's own search, linear whatever both hold. */
    const size_t length = strlen(search);
    const void *found = memmem(text.data(), text.size(), search, length);
    if (found == nullptr) {
        return;
    }
    const auto at = static_cast<size_t>(static_cast<const char *>(found) - text.data());
    try {
        text.replace(at, length, replacement);
    } catch (...) {
        CONF_LOG(CONF_LOG_ERROR, "no memory for the replacement");
    }
}

void ConfJsonClearStr(std::string &text) {
    std::fill(text.begin(), text.end(), '*');
}
