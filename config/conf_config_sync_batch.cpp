/* Batches of records, written to the configuration service in one operation, and what of them may
 * show in the log. */
#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

#include "common/log.h"
#include "config/config_batch.h"
#include "include/conf_config.h"
#include "include/conf_config_value.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_config_client.h"

namespace {

constexpr char kUnit[] = "conf_config";

/* Keys whose values show in no record. */
constexpr const char *kSensitiveKeys[] = {
    "Conf.SIPCallParam.sipPwd",
    "Conf.H323CallParam.gkPwd",
    "Conf.SIPCallParam.sipServerAddr",
    "Conf.H323CallParam.gkAddr",
    "Conf.H323CallParam.vgAddr",
    "Conf.FireWallParam.NatAddr",
    "Conf.ServerParam.addr",
    "Conf.ConfParam.DataConfZRBAddr",
    "Conf.ServerParam.pwd",
};

/* Letter case counts. The bound is for a caller's own batch, whose keys may lack an end. */
bool isSensitive(const ConfConfigOmKey &key) {
    return std::any_of(std::begin(kSensitiveKeys), std::end(kSensitiveKeys), [&](const char *each) {
        return strncmp(key.text, each, sizeof(key.text)) == 0;
    });
}

void logAdded(const char *function, const ConfConfigOmRecord &record) {
    if (isSensitive(record.key)) {
        ConfLogPrintf(CONF_LOG_INFO, function, kUnit, __LINE__, "key = %s", record.key.text);
    } else {
        ConfLogPrintf(CONF_LOG_INFO, function, kUnit, __LINE__, "key = %s, val = %s",
                      record.key.text, record.value.text);
    }
}

}  // namespace

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
    TamoOmConfigcopyStr2Key(record, key);
    TamoOmConfigcopyStr2Val(text, text->text);
    logAdded(__func__, *record);
    used.store(place + 1, std::memory_order_relaxed);
    return 0;
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
        if (!isSensitive(record.key)) {
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
