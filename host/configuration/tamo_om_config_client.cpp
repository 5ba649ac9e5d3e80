/* libtamo_om_config_client: records, read and stored.
 *
 * Texts come from callers' own buffers and need not be terminated: every look is bounded by the
 * buffer's size. The lengths beside the texts are written here and never believed. */
#include "tamo_om_config_client.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "host/base/log.h"
#include "host/configuration/store.h"
#include "tamo_host.h"

namespace {

constexpr const char *kUnit = "tamo_om_config_client";
/* Far above any list, far below what a negative count looks like. */
constexpr uint32_t kMaxRecords = 65536;

int32_t refuse(int line, const char *why) {
    tamo::hostRecord(tamo::kError, kUnit, line, "%s", why);
    return TAMO_HOST_INVALID;
}

/* The length of a text that fits a buffer of `size` with its terminator, else `size`. */
size_t fittingLength(const char *text, size_t size) {
    return text == nullptr ? size : strnlen(text, size);
}

bool isStorable(const ConfConfigOmRecord &record) {
    size_t key = strnlen(record.key.text, sizeof(record.key.text));
    return key != 0 && key != sizeof(record.key.text) &&
           strnlen(record.value.text, sizeof(record.value.text)) != sizeof(record.value.text);
}

int32_t setPrinted(ConfConfigOmVal *value, int length) {
    value->length = static_cast<uint32_t>(length);
    return TAMO_HOST_OK;
}

int32_t read(ConfConfigOmRecord *records, uint32_t count) {
    if (count == 0) {
        return TAMO_HOST_OK;
    }
    if (records == nullptr || count > kMaxRecords) {
        return refuse(__LINE__, "reading without records, or more than can be: nothing is read");
    }
    return static_cast<int32_t>(tamo::configStoreRead(records, count));
}

int32_t write(const ConfConfigOmRecord *records, uint32_t count) {
    if (count == 0) {
        return TAMO_HOST_OK;
    }
    if (records == nullptr || count > kMaxRecords) {
        return refuse(__LINE__, "storing without records, or more than can be: nothing is stored");
    }
    for (uint32_t at = 0; at < count; at++) {
        if (!isStorable(records[at])) {
            tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                             "record %" PRIu32 " of %" PRIu32
                             " has an empty key or a text without an end: nothing is stored",
                             at + 1, count);
            return TAMO_HOST_INVALID;
        }
    }
    return static_cast<int32_t>(tamo::configStoreWrite(records, count));
}

}  // namespace

int32_t TamoOmConfigcopyStr2Key(ConfConfigOmRecord *record, const char *key) {
    if (record == nullptr) {
        return TAMO_HOST_INVALID;
    }
    size_t length = fittingLength(key, sizeof(record->key.text));
    if (length == 0 || length == sizeof(record->key.text)) {
        memset(&record->key, 0, sizeof(record->key));
        return TAMO_HOST_INVALID;
    }
    memmove(record->key.text, key, length + 1);
    record->key.length = static_cast<uint8_t>(length);
    return TAMO_HOST_OK;
}

int32_t TamoOmConfigcopyStr2Val(ConfConfigOmVal *value, const char *text) {
    if (value == nullptr) {
        return TAMO_HOST_INVALID;
    }
    size_t length = fittingLength(text, sizeof(value->text));
    if (length == sizeof(value->text)) {
        memset(value, 0, sizeof(*value));
        return TAMO_HOST_INVALID;
    }
    memmove(value->text, text, length + 1);
    value->length = static_cast<uint32_t>(length);
    return TAMO_HOST_OK;
}

int32_t TamoOmConfigsetIntValue(ConfConfigOmVal *value, int64_t number) {
    return value == nullptr
               ? int32_t{TAMO_HOST_INVALID}
               : setPrinted(value, snprintf(value->text, sizeof(value->text), "%" PRId64, number));
}

int32_t TamoOmConfigsetUintValue(ConfConfigOmVal *value, uint64_t number) {
    return value == nullptr
               ? int32_t{TAMO_HOST_INVALID}
               : setPrinted(value, snprintf(value->text, sizeof(value->text), "%" PRIu64, number));
}

int32_t TamoOmConfigStringGet(ConfConfigOmRecord *record) {
    return read(record, 1);
}

int32_t TamoOmConfigStringMget(ConfConfigOmRecord *records, uint32_t count) {
    return read(records, count);
}

int32_t TamoOmConfigStringMset(const ConfConfigOmRecord *records, uint32_t count) {
    return write(records, count);
}

int32_t TamoOmConfigStringSet(ConfConfigOmRecord record) {
    return write(&record, 1);
}
