/* Keys whose values show in no record and are wiped from memory that is released. */
#pragma once

#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "include/conf_config.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_config_client.h"

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

/* Letter case counts. The key may lack an end in its `size` bytes. */
inline bool isSensitiveKey(const char *key, size_t size) {
    return std::any_of(std::begin(kSensitiveKeys), std::end(kSensitiveKeys),
                       [&](const char *each) { return strncmp(key, each, size) == 0; });
}

inline void wipeIfSensitive(const char (&key)[128], void *value, size_t size) {
    if (std::any_of(std::begin(kSensitiveKeys), std::end(kSensitiveKeys),
                    [&](const char *each) { return strncasecmp(key, each, sizeof(key)) == 0; })) {
        memset_s(value, size, 0, size);
    }
}

/* Wipes the values of sensitive keys, in any letter case, from records or list items that are used no
 * more. */
inline void wipeSensitive(ConfConfigOmRecord *records, size_t count) {
    for (size_t i = 0; i < count; i++) {
        wipeIfSensitive(records[i].key.text, &records[i].value, sizeof(records[i].value));
    }
}
inline void wipeSensitive(ConfConfigListItem *items, size_t count) {
    for (size_t i = 0; i < count; i++) {
        wipeIfSensitive(items[i].key, items[i].value, sizeof(items[i].value));
    }
}
