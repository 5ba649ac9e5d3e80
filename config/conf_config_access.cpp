/* Single values of the configuration service, read and written by key, and the local address. */
#include <cstdlib>

#include "common/log.h"
#include "config/config_switches.h"
#include "include/conf_config.h"
#include "include/param_check.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_config_client.h"
#include "platform/tamo_om_devm_client.h"

namespace {

constexpr char kUnit[] = "conf_config";

constexpr char kEnableEofb[] = "Conf.SecurityParam.enableEofb";
constexpr char kSipPreventAttack[] = "Conf.SIPCallParam.PreventAttack";
constexpr char kLocalIpv4[] = "DEVM.NET.LAN1.IPV4ADDR";
constexpr char kLocalIpv6[] = "DEVM.NET.LAN1.IPV6ADDR";
constexpr size_t kAddressSize = 42;

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

/* The device's own address: device management knows it where the kit capability is forbidden, else
 * the service does. Without a stored value the buffer stays as it was. */
int32_t readLocalIp(const char *function, const char *key, uint32_t selector, char *buffer,
                    int32_t (*askDevice)(uint32_t, char *)) {
    if (buffer == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "ipInfo is NULL!");
        return 1;
    }
    if (CallServiceIsForbiddenKitCap() != 0) {
        return askDevice(selector, buffer);
    }
    ConfConfigOmRecord record = {};
    (void)TamoOmConfigcopyStr2Key(&record, key);
    (void)TamoOmConfigStringGet(&record);
    const int error = memcpy_s(buffer, kAddressSize, record.value.text, record.value.length);
    if (error != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "conf secure func failed, err = %d!\n", error);
    }
    return error;
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

int32_t ConfConfigGetLocalIpv4(uint32_t selector, char *buffer) {
    return readLocalIp(__func__, kLocalIpv4, selector, buffer, TamoOmDevmNetGetIpv4Block);
}

int32_t ConfConfigGetLocalIpv6(uint32_t selector, char *buffer) {
    return readLocalIp(__func__, kLocalIpv6, selector, buffer, TamoOmDevmNetGetIpv6Block);
}

int32_t ConfConfigSetLocalIp(uint32_t family, const char *address) {
    if (address == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "param is NULL!");
        return 1;
    }
    if (family > 1) {
        CONF_LOG(CONF_LOG_ERROR, "family %u is neither 0 nor 1!", family);
        return 1;
    }
    ConfConfigOmRecord record = {};
    if (TamoOmConfigcopyStr2Key(&record, family == 0 ? kLocalIpv4 : kLocalIpv6) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "TamoOmConfigcopyStr2Key fail");
        return 1;
    }
    (void)TamoOmConfigcopyStr2Val(&record.value, address);
    return TamoOmConfigStringSet(record);
}
