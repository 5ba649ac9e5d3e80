/* Values between the configuration service and the bound items: pulled at start, applied from
 * lists, written back by key, in batches of records. */
#include <atomic>
#include <cstring>

#include "common/log.h"
#include "common/platform_block.h"
#include "config/config_index.h"
#include "config/sensitive_keys.h"
#include "include/conf_config.h"
#include "include/conf_config_value.h"
#include "include/conf_mask_keyword.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_config_client.h"

namespace {

constexpr char kUnit[] = "conf_config";

/* The most records that are written to the service in one operation. */
constexpr int32_t kBatchCapacity = 50;

/* The write-back batch of lists; empty between two lists. */
ConfConfigOmRecord listRecords[kBatchCapacity];
constinit ConfConfigOmBatch listBatch = {0, kBatchCapacity, listRecords};

template <size_t Size>
bool isTerminated(const char (&text)[Size]) {
    return memchr(text, '\0', Size) != nullptr;
}

void logAdded(const char *function, const ConfConfigOmRecord &record) {
    if (isSensitiveKey(record.key.text, sizeof(record.key.text))) {
        ConfLogPrintf(CONF_LOG_INFO, function, kUnit, __LINE__, "key = %s", record.key.text);
    } else {
        ConfLogPrintf(CONF_LOG_INFO, function, kUnit, __LINE__, "key = %s, val = %s",
                      record.key.text, record.value.text);
    }
}

/* Adds a value under a key to a batch; one that is full is written to the service first. 0, or -1
 * when an argument is missing, the value has no text of at most 1023 characters, or a sensitive key
 * is refused. */
int32_t ConfConfigAddOmCfg(const char *key, const ConfConfigValue *value,
                           ConfConfigOmBatch *batch) {
    if (key == nullptr || value == nullptr || batch == nullptr || batch->records == nullptr ||
        batch->capacity <= 0) {
        return -1;
    }
    /* Read once: threads that share a batch against the rules mix up its records, but write none
     * beyond them. */
    const std::atomic_ref<int32_t> used(batch->used);
    int32_t place = used.load(std::memory_order_relaxed);
    if (place >= batch->capacity) {
        if (ConfConfigSyncOmCfg(batch) != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfConfigAddOmCfg ConfConfigSyncOmCfg fail");
        }
        place = 0;
    }
    ConfConfigOmRecord *record = batch->records + place;
    const int error = memset_s(record, sizeof(*record), 0, sizeof(*record));
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
        return -1;
    }
    ConfConfigOmVal *text = &record->value;
    if (ConfConfigV2Str(value, text->text, sizeof(text->text)) != 0) {
        CONF_LOG(CONF_LOG_INFO, "ConfConfigAddOmCfg ConfConfigV2Str fail %s\n", key);
        return -1;
    }
    if (TamoOmConfigcopyStr2Key(record, key) != 0 &&
        isSensitiveKey(key, sizeof(record->key.text))) {
        memset_s(record, sizeof(*record), 0, sizeof(*record));
        CONF_LOG(CONF_LOG_ERROR, "TamoOmConfigcopyStr2Key fail %s\n", key);
        return -1;
    }
    TamoOmConfigcopyStr2Val(text, text->text);
    logAdded(__func__, *record);
    used.store(place + 1, std::memory_order_relaxed);
    return 0;
}

/* Applies one list item to the item bound to its key; false when there is none or the value does
 * not convert. A key without an end is nobody's, and a value without one is no value. */
bool ConfConfigSetValue(const ConfConfigListItem &item, const ConfConfigValue &value,
                        bool writeBack) {
    const ConfConfigIndexEntry *entry =
        isTerminated(item.key) ? ConfConfigAddIndex(item.key, false) : nullptr;
    if (entry == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigSetValue CALLCONFIG_NOTFIND\n");
        return false;
    }
    const int32_t result = isTerminated(item.value)
                               ? ConfConfigV2DByType(&value, entry->value, entry->size, entry->type)
                               : -1;
    if (entry->localOnly == 0 && result == 0 && writeBack) {
        ConfConfigAddOmCfg(item.key, &value, &listBatch);
    }
    CONF_LOG(CONF_LOG_INFO, "key = %s, ret = %d", item.key, result);
    return result != -1;
}

/* Is the item a text that fills its variable without an end? One of size 0 tells no bound. */
bool isUnterminated(const ConfConfigIndexEntry &entry) {
    return entry.type == CONF_VALUE_STR && entry.value != nullptr && entry.size != 0 &&
           memchr(entry.value, '\0', entry.size) == nullptr;
}

/* Adds what a variable holds. A text without an end must not be read beyond the variable: it goes on
 * as a record without a text, which is refused as one that cannot be rendered. */
void addItem(const ConfConfigIndexEntry &entry, ConfConfigOmBatch *batch) {
    ConfConfigValue value = {CONF_VALUE_STR, {}};
    if (isUnterminated(entry) ||
        ConfConfigD2VByType(&value, entry.value, entry.size, entry.type) == 0) {
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
        if (hasRoom && isTerminated(record.value.text) &&
            ConfConfigStr2V(&value, record.value.text) == 0) {
            ConfConfigV2DByType(&value, entry.value, entry.size, entry.type);
        }
        wipeSensitive(&record, 1);
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
        if (isTerminated(item.value)) {
            ConfConfigStr2V(&value, item.value);
        }
        applied += ConfConfigSetValue(item, value, writeBack != 0) ? 1 : 0;
    }
    if (writeBack == 0) {
        return applied;
    }
    const int32_t result = ConfConfigSyncOmCfg(&listBatch);
    wipeSensitive(listRecords, kBatchCapacity);
    if (result != 0) {
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
    wipeSensitive(records.get(), kBatchCapacity);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigSyncOmCfg fail\n");
    }
    return result;
}

int32_t ConfConfigSyncByKeyToOM(const char *key) {
    return ConfConfigSyncToOM(&key, 1);
}

int32_t ConfConfigSyncOmCfg(ConfConfigOmBatch *batch) {
    if (batch == nullptr || batch->records == nullptr || batch->used <= 0) {
        return -1;
    }
    const int32_t used = batch->used;
    const int32_t refused = TamoOmConfigStringMset(batch->records, static_cast<uint32_t>(used));
    CONF_LOG(CONF_LOG_DEBUG, "ConfConfigSyncOmCfg %d %d\n", refused, used);
    for (int32_t i = 0; i < used; i++) {
        const ConfConfigOmRecord &record = batch->records[i];
        if (!isSensitiveKey(record.key.text, sizeof(record.key.text))) {
            CONF_LOG(CONF_LOG_DEBUG, "ConfConfigSyncOmCfg %.127s %.1023s \n", record.key.text,
                     record.value.text);
        }
    }
    batch->used = 0;
    if (refused != 0) {
        CONF_LOG(CONF_LOG_ERROR, "[ConfConfigSyncOmCfg]:TamoOmConfigStringMset fail, ret = %d \n",
                 refused);
        return -1;
    }
    return 0;
}
