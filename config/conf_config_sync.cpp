/* Values between the configuration service and the bound items: pulled at start, applied from
 * lists, written back by key. */
#include <cstring>

#include "common/log.h"
#include "common/platform_block.h"
#include "config/config_batch.h"
#include "config/config_index.h"
#include "include/conf_config.h"
#include "include/conf_config_value.h"
#include "include/conf_mask_keyword.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_config_client.h"

namespace {

constexpr char kUnit[] = "conf_config";

/* The write-back batch of lists; empty between two lists. */
ConfConfigOmRecord listRecords[kBatchCapacity];
constinit ConfConfigOmBatch listBatch = {0, kBatchCapacity, listRecords};

template <size_t Size>
bool hasEnd(const char (&text)[Size]) {
    return memchr(text, '\0', Size) != nullptr;
}

/* Applies one list item to the item bound to its key; false when there is none or the value does
 * not convert. A key without an end is nobody's, and a value without one is no value. */
bool ConfConfigSetValue(const ConfConfigListItem &item, const ConfConfigValue &value,
                        bool writeBack) {
    const ConfConfigIndexEntry *entry =
        hasEnd(item.key) ? ConfConfigAddIndex(item.key, false) : nullptr;
    if (entry == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigSetValue CALLCONFIG_NOTFIND\n");
        return false;
    }
    const int32_t result = hasEnd(item.value)
                               ? ConfConfigV2DByType(&value, entry->value, entry->size, entry->type)
                               : -1;
    if (entry->localOnly == 0 && result == 0 && writeBack) {
        ConfConfigAddOmCfg(item.key, &value, &listBatch);
    }
    CONF_LOG(CONF_LOG_INFO, "key = %s, ret = %d", item.key, result);
    return result != -1;
}

/* Is the item a text that fills its variable without an end? */
bool lacksEnd(const ConfConfigIndexEntry &entry) {
    return entry.type == CONF_VALUE_STR && entry.value != nullptr &&
           memchr(entry.value, '\0', entry.size) == nullptr;
}

/* Adds what a variable holds. A text without an end must not be read beyond the variable: it goes on
 * as a record without a text, which is refused as one that cannot be rendered. */
void addItem(const ConfConfigIndexEntry &entry, ConfConfigOmBatch *batch) {
    ConfConfigValue value = {CONF_VALUE_STR, {}};
    if (lacksEnd(entry) || ConfConfigD2VByType(&value, entry.value, entry.size, entry.type) == 0) {
        ConfConfigAddOmCfg(entry.name, &value, batch);
    }
}

/* Adds the items whose names begin with `prefix`; they lie side by side in the index. */
void addItemsBelow(const char *prefix, ConfConfigOmBatch *batch) {
    for (int32_t i = lowerBoundItem(prefix); i < boundItemCount(); i++) {
        const ConfConfigIndexEntry &entry = boundItem(i);
        if (entry.localOnly != 0) {
            continue;
        }
        if (!nameBeginsWith(entry.name, prefix)) {
            return;
        }
        addItem(entry, batch);
    }
}

/* Adds the items that a key selects: all, those below a prefix that ends with a dot, or one. */
void ConfConfigAddOmCfgByKey(const char *key, ConfConfigOmBatch *batch) {
    const size_t length = strlen(key);
    char masked[CONF_MASK_SIZE] = {};
    ConfFilterStr(key, masked, sizeof(masked));
    CONF_LOG(CONF_LOG_INFO, "key strlen: %zu  key: %s", length, masked);
    if (length == 0 || key[length - 1] == '.') {
        addItemsBelow(key, batch);
        return;
    }
    const ConfConfigIndexEntry *entry = ConfConfigAddIndex(key, false);
    if (entry != nullptr && entry->localOnly == 0) {
        addItem(*entry, batch);
    }
}

}  // namespace

void ConfConfigInitOmCfg(void) {
    for (int32_t i = 0; i < boundItemCount(); i++) {
        const ConfConfigIndexEntry &entry = boundItem(i);
        if (entry.localOnly != 0) {
            continue;
        }
        ConfConfigOmRecord record = {};
        TamoOmConfigcopyStr2Key(&record, entry.name);
        if (TamoOmConfigStringGet(&record) != 0) {
            CONF_LOG(CONF_LOG_DEBUG, "TamoOmConfigStringGet %s failed!!!\n", entry.name);
            continue;
        }
        const bool hasRoom = entry.type != CONF_VALUE_STR || entry.size >= 2;
        ConfConfigValue value = {};
        if (hasRoom && hasEnd(record.value.text) &&
            ConfConfigStr2V(&value, record.value.text) == 0) {
            ConfConfigV2DByType(&value, entry.value, entry.size, entry.type);
        }
    }
}

int32_t ConfConfigSetList(const ConfConfigListItem *list, int32_t count, uint8_t writeBack) {
    if (list == nullptr || count < 1 || !hasIndex()) {
        CONF_LOG(CONF_LOG_ERROR, "[ConfConfigSetList]: invalue input. \n");
        return 0;
    }
    int32_t applied = 0;
    for (int32_t i = 0; i < count; i++) {
        const ConfConfigListItem &item = list[i];
        if (item.key[0] == '\0') {
            continue;
        }
        ConfConfigValue value;
        const int error = memset_s(&value, sizeof(value), 0, sizeof(value));
        if (error != 0) {
            CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
        }
        if (hasEnd(item.value)) {
            ConfConfigStr2V(&value, item.value);
        }
        applied += ConfConfigSetValue(item, value, writeBack != 0) ? 1 : 0;
    }
    if (writeBack != 0 && ConfConfigSyncOmCfg(&listBatch) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "[ConfConfigSetList]:ConfConfigSyncOmCfg fail.\n");
        return -applied;
    }
    return applied;
}

int32_t ConfConfigSyncToOM(const char *const *keys, int32_t count) {
    if (keys == nullptr || count == 0 || !hasIndex()) {
        return -1;
    }
    const auto records =
        takeBlock<ConfConfigOmRecord>(kBatchCapacity * sizeof(ConfConfigOmRecord), kUnit);
    if (records == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return -1;
    }
    ConfConfigOmBatch batch = {0, kBatchCapacity, records.get()};
    for (int32_t i = 0; i < count; i++) {
        if (keys[i] != nullptr) {
            ConfConfigAddOmCfgByKey(keys[i], &batch);
        }
    }
    const int32_t result = ConfConfigSyncOmCfg(&batch);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigSyncOmCfg fail\n");
    }
    return result;
}

int32_t ConfConfigSyncByKeyToOM(const char *key) {
    return ConfConfigSyncToOM(&key, 1);
}
