/* Key/value lists in message blocks: read from, and written to, the configuration service in one
 * operation. */
#include <alloca.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/platform_block.h"
#include "config/sensitive_keys.h"
#include "include/conf_config.h"
#include "include/conf_msg_api.h"
#include "msg/message_format.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_config_client.h"
#include "platform/tamo_om_keym_client.h"

namespace {

constexpr char kUnit[] = "conf_config";

constexpr uint32_t kMostItems = 500;
constexpr uint32_t kFailed = 0xFFFFFFFF;
constexpr uint32_t kNotEncrypted = 1;
constexpr size_t kEncryptedSize = 312;
constexpr char kOwnerName[] = "TamoUIConf";

ConfConfigListItem *blockItems(MeetingServerMsgBlock *block) {
    return reinterpret_cast<ConfConfigListItem *>(block->body);
}

/* The items to handle: no more than asked for, no more than the body holds. */
uint32_t itemsHandled(const MeetingServerMsgBlock *block) {
    const auto inBody = static_cast<uint32_t>(block->bodyLength / sizeof(ConfConfigListItem));
    return std::min(block->itemCount, inBody);
}

/* Ends both texts within their fields, whatever the requester sent. */
void terminateTexts(ConfConfigListItem *item) {
    item->key[sizeof(item->key) - 1] = '\0';
    item->value[sizeof(item->value) - 1] = '\0';
}

bool isPasswordKey(const char *key) {
    return strcmp(key, "Conf.SIPCallParam.sipPwd") == 0 ||
           strcmp(key, "Conf.H323CallParam.gkPwd") == 0;
}

/* Copies the service's records into list items; the platform's error codes added up. */
int copyRecords(ConfConfigListItem *items, const ConfConfigOmRecord *records, uint32_t count) {
    int errors = 0;
    for (uint32_t i = 0; i < count; i++) {
        const ConfConfigOmKey &key = records[i].key;
        const ConfConfigOmVal &value = records[i].value;
        errors += memcpy_s(items[i].key, sizeof(items[i].key), key.text, key.length);
        errors += memcpy_s(items[i].value, sizeof(items[i].value), value.text, value.length);
    }
    return errors;
}

/* Puts a key with its value into a record; a sensitive value does not go without its key. */
void putRecord(ConfConfigOmRecord *record, const char *key, const char *value) {
    if (TamoOmConfigcopyStr2Key(record, key) == 0 ||
        !isSensitiveKey(key, sizeof(record->key.text))) {
        TamoOmConfigcopyStr2Val(&record->value, value);
    }
}

/* Wipes sensitive values from the records of a list when it is done with. */
struct RecordsWipe {
    ConfConfigOmRecord *records;
    uint32_t count;

    ~RecordsWipe() { wipeSensitive(records, count); }
};

/* Puts a password into a record, encrypted, and wipes it from the item; false when it cannot be
 * encrypted. */
bool putPassword(ConfConfigListItem *item, ConfConfigOmRecord *record) {
    char encrypted[kEncryptedSize] = {};
    uint32_t encryptedLength = 0;
    const auto length = static_cast<uint32_t>(strlen(item->value));
    if (TamoOmKeymEncrypt(kOwnerName, item->value, length, encrypted, &encryptedLength) != 0) {
        return false;
    }
    memset_s(item->value, sizeof(item->value), 0, sizeof(item->value));
    putRecord(record, item->key, encrypted);
    return true;
}

}  // namespace

uint32_t ConfConfigGetConfConfig(uint32_t, void *block, uint32_t blockSize) {
    auto *request = static_cast<MeetingServerMsgBlock *>(block);
    if (request == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return kFailed;
    }
    if (blockSize < kBlockHead || request->bodyLength == 0 ||
        GetMeetingServerMsgBlockSize(request) > blockSize) {
        CONF_LOG(CONF_LOG_ERROR, "condition false.");
        return kFailed;
    }
    if (request->itemCount > kMostItems) {
        CONF_LOG(CONF_LOG_ERROR, "Input listLen = %d is out of range!", request->itemCount);
        return kFailed;
    }

    /* On the stack, of the size asked for: nothing to release, and a short list needs little. */
    auto *records =
        static_cast<ConfConfigOmRecord *>(alloca(request->itemCount * sizeof(ConfConfigOmRecord)));
    std::uninitialized_value_construct_n(records, request->itemCount);
    const uint32_t count = itemsHandled(request);
    for (uint32_t i = 0; i < count; i++) {
        ConfConfigListItem *item = blockItems(request) + i;
        terminateTexts(item);
        CONF_LOG(CONF_LOG_DEBUG, "key= %s.", item->key);
        TamoOmConfigcopyStr2Key(records + i, item->key);
    }
    const int32_t refused = TamoOmConfigStringMget(records, count);
    if (refused != 0) {
        CONF_LOG(CONF_LOG_ERROR, "[CONFIG_DEVM]Get iconCfg: failed ret = %d.\n", refused);
        return static_cast<uint32_t>(refused);
    }

    const size_t listSize = count * sizeof(ConfConfigListItem);
    auto list = takeBlock<ConfConfigListItem>(listSize, kUnit);
    if (list == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return kFailed;
    }
    if (listSize != 0 && memset_s(list.get(), listSize, 0, listSize) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigGetConfConfig memset_s fail\n");
    }
    const int errors = copyRecords(list.get(), records, count);
    request->resultList = list.release();
    request->resultSize = static_cast<uint32_t>(listSize);
    if (errors != 0) {
        CONF_LOG(CONF_LOG_ERROR, "memcpy_s fail\n");
        return kFailed;
    }
    return 0;
}

uint32_t ConfConfigSetConfConfig(uint32_t, void *block, uint32_t size) {
    auto *request = static_cast<MeetingServerMsgBlock *>(block);
    if (request == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return kFailed;
    }
    /* A message always tells its size; a direct caller may pass 0 for a block that it built itself.
     */
    if (size != 0 && size < kBlockHead) {
        CONF_LOG(CONF_LOG_ERROR, "condition false.");
        return kFailed;
    }
    if (request->itemCount > kMostItems) {
        CONF_LOG(CONF_LOG_ERROR, "Input listLen = %d is out of range!", request->itemCount);
        return kFailed;
    }
    if (size != 0 && GetMeetingServerMsgBlockSize(request) > size) {
        CONF_LOG(CONF_LOG_ERROR, "condition false.");
        return kFailed;
    }

    const size_t recordsSize = request->itemCount * sizeof(ConfConfigOmRecord);
    auto *records = static_cast<ConfConfigOmRecord *>(alloca(recordsSize));
    CONF_LOG(CONF_LOG_INFO, "ConfConfigGetConfConfigset listLen = %d.\n", request->itemCount);
    if (recordsSize != 0 && memset_s(records, recordsSize, 0, recordsSize) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigSetConfConfig memset_s fail\n");
        return kFailed;
    }
    const uint32_t count = itemsHandled(request);
    const RecordsWipe wipe = {records, count};
    for (uint32_t i = 0; i < count; i++) {
        ConfConfigListItem *item = blockItems(request) + i;
        terminateTexts(item);
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigSetConfConfig key= %s.\n", item->key);
        if (isPasswordKey(item->key)) {
            if (!putPassword(item, records + i)) {
                CONF_LOG(CONF_LOG_ERROR, "condition false.");
                return kNotEncrypted;
            }
            continue;
        }
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigSetConfConfig val= %s.\n", item->value);
        putRecord(records + i, item->key, item->value);
    }
    const int32_t refused = TamoOmConfigStringMset(records, count);
    if (refused != 0) {
        CONF_LOG(CONF_LOG_ERROR, "[CONFIG_DEVM]Set Cfg: failed ret = %d.\n", refused);
        return CONF_COMM_ERR_MSG_INVALID;
    }
    return 0;
}
