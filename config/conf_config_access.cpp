/* Single values of the configuration service, read and written by key. */
#include <cstdlib>

#include "common/log.h"
#include "include/conf_config.h"
#include "include/param_check.h"
#include "platform/tamo_om_config_client.h"

namespace {

constexpr char kUnit[] = "conf_config";

constexpr char kEnableEofb[] = "Conf.SecurityParam.enableEofb";
constexpr char kSipPreventAttack[] = "Conf.SIPCallParam.PreventAttack";

/* Fills a record with the service's value of a key; false, with a record under the caller's name.
 */
bool readValue(const char *function, const char *key, ConfConfigOmRecord *record) {
    if (TamoOmConfigcopyStr2Key(record, key) != 0) {
        ConfLogPrintf(CONF_LOG_INFO, function, kUnit, __LINE__,
                      "Call TamoOmConfigcopyStr2Key failed! key:%s.\n", key);
        return false;
    }
    if (TamoOmConfigStringMget(record, 1) != 0) {
        ConfLogPrintf(CONF_LOG_INFO, function, kUnit, __LINE__,
                      "Call TamoOmConfigStringMget failed! key:%s.\n", key);
        return false;
    }
    return true;
}

/* Stores a number under a key; `put` writes it into the value part. 0, or 1 with a record. */
template <typename Number>
uint32_t storeNumber(const char *function, const char *key, Number number,
                     int32_t (*put)(ConfConfigOmVal *, Number), const char *putFailure) {
    if (key == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "key is null.");
        return 1;
    }
    ConfConfigOmRecord record = {};
    if (TamoOmConfigcopyStr2Key(&record, key) != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "TamoOmConfigcopyStr2Key fail");
        return 1;
    }
    if (put(&record.value, number) != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "%s", putFailure);
        return 1;
    }
    if (TamoOmConfigStringMset(&record, 1) != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "TamoOmConfigStringMset fail");
        return 1;
    }
    return 0;
}

int32_t ConfConfigSetIntValue(const char *key, int32_t value) {
    return static_cast<int32_t>(storeNumber<int64_t>(__func__, key, value, TamoOmConfigsetIntValue,
                                                     "TamoOmConfigsetIntValue fail"));
}

}  // namespace

int32_t ConfConfigGetIntValue(const char *key) {
    if (key == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    ConfConfigOmRecord record = {};
    return readValue(__func__, key, &record) ? ConfGetAtoi(record.value.text, 1) : 1;
}

int32_t ConfConfigGetUint64Value(const char *key, uint64_t *out) {
    if (key == nullptr || out == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    ConfConfigOmRecord record = {};
    if (!readValue(__func__, key, &record)) {
        return 1;
    }
    *out = strtoull(record.value.text, nullptr, 0);
    return 0;
}

int32_t ConfConfigSetUint64Value(const char *key, uint64_t value) {
    return static_cast<int32_t>(storeNumber<uint64_t>(
        __func__, key, value, TamoOmConfigsetUintValue, "TamoOmConfigsetUintValue fail"));
}

int32_t GetEnableEofb(void) {
    return ConfConfigGetIntValue(kEnableEofb);
}

int32_t GetSipPreventAttack(void) {
    return ConfConfigGetIntValue(kSipPreventAttack);
}

int32_t SetEnableEofb(uint8_t flag) {
    return ConfConfigSetIntValue(kEnableEofb, flag);
}

int32_t SetSipPreventAttack(uint8_t flag) {
    return ConfConfigSetIntValue(kSipPreventAttack, flag);
}
