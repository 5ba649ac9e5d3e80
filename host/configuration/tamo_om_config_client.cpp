/* libtamo_om_config_client: records, read and stored. How the service works stands in
 * store_connection.h.
 *
 * Texts come from callers' own buffers and need not be terminated: every look is bounded by the
 * buffer's size. The lengths beside the texts are written here and never believed. */
#include "tamo_om_config_client.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <bit>
#include <functional>
#include <memory>
#include <string_view>

#include "host/base/log.h"
#include "host/configuration/change_log.h"
#include "host/configuration/store_connection.h"
#include "tamo_host.h"

namespace tamo::configuration {
namespace {

constexpr const char *kUnit = "tamo_om_config_client";
/* Far above any list, far below what a negative count looks like. */
constexpr uint32_t kMaxRecords = 65536;

int32_t refuse(int line, const char *why) {
    hostRecord(kError, kUnit, line, "%s", why);
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

void clearValue(ConfConfigOmVal *value) {
    memset(value, 0, sizeof(*value));
}

/* Copies the found text; only a foreign hand can have stored one that does not fit. Asked for as a
 * blob, the text is not copied once more to be terminated. */
bool takeValue(sqlite3_stmt *row, ConfConfigOmVal *value) {
    const void *text = sqlite3_column_blob(row, 1);
    size_t length = static_cast<size_t>(sqlite3_column_bytes(row, 1));
    if (length >= sizeof(value->text)) {
        return false;
    }
    if (length != 0) {
        memcpy(value->text, text, length);
    }
    value->text[length] = '\0';
    value->length = static_cast<uint32_t>(length);
    return true;
}

/* Several keys by one statement: running a statement costs as much as finding a key. */
constexpr size_t kGroup = 8;
constexpr const char *kReadGroup =
    "SELECT 0, value FROM setting WHERE folded = ?1 UNION ALL "
    "SELECT 1, value FROM setting WHERE folded = ?2 UNION ALL "
    "SELECT 2, value FROM setting WHERE folded = ?3 UNION ALL "
    "SELECT 3, value FROM setting WHERE folded = ?4 UNION ALL "
    "SELECT 4, value FROM setting WHERE folded = ?5 UNION ALL "
    "SELECT 5, value FROM setting WHERE folded = ?6 UNION ALL "
    "SELECT 6, value FROM setting WHERE folded = ?7 UNION ALL "
    "SELECT 7, value FROM setting WHERE folded = ?8";

/* Reads `count` records by a statement with as many parameters; a first reason why a value part could
 * not be filled goes to `missing`. */
int readGroup(sqlite3_stmt *statement, ConfConfigOmRecord *records, size_t count,
              uint32_t *missing) {
    FoldedKey keys[kGroup];
    uint32_t lacks[kGroup];
    for (size_t at = 0; at < count; at++) {
        const char *key = records[at].key.text;
        const bool isKey = keys[at].fold(key, strnlen(key, sizeof(records[at].key.text)));
        keys[at].bind(statement, static_cast<int>(at) + 1);
        lacks[at] = isKey ? TAMO_HOST_NOT_FOUND : TAMO_HOST_INVALID;
    }
    int result = SQLITE_OK;
    while ((result = sqlite3_step(statement)) == SQLITE_ROW) {
        size_t at = static_cast<size_t>(sqlite3_column_int(statement, 0));
        bool taken = takeValue(statement, &records[at].value);
        lacks[at] = taken ? TAMO_HOST_OK : TAMO_HOST_TOO_LARGE;
    }
    sqlite3_reset(statement);
    for (size_t at = 0; at < count; at++) {
        if (lacks[at] != TAMO_HOST_OK) {
            clearValue(&records[at].value);
            *missing = *missing == TAMO_HOST_OK ? lacks[at] : *missing;
        }
    }
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

/* A single statement is its own transaction. */
int readRecords(Connection *connection, ConfConfigOmRecord *records, size_t count,
                uint32_t *missing) {
    *missing = TAMO_HOST_OK;
    if (count == 1) {
        return readGroup(connection->one, records, 1, missing);
    }
    int result = prepareOnce(connection, kReadGroup, &connection->group);
    if (result == SQLITE_OK) {
        result = runStatement(connection->begin);
    }
    size_t at = 0;
    for (; at + kGroup <= count && result == SQLITE_OK; at += kGroup) {
        result = readGroup(connection->group, records + at, kGroup, missing);
    }
    for (; at < count && result == SQLITE_OK; at++) {
        result = readGroup(connection->one, records + at, 1, missing);
    }
    return finishTransaction(connection, result);
}

int32_t read(ConfConfigOmRecord *records, uint32_t count) {
    if (count == 0) {
        return TAMO_HOST_OK;
    }
    if (records == nullptr || count > kMaxRecords) {
        return refuse(__LINE__, "reading without records, or more than can be: nothing is read");
    }
    uint32_t missing = TAMO_HOST_OK;
    Attempts attempts(&storeReader, "reading the configuration");
    while (attempts.next()) {
        attempts.result = readRecords(&storeReader, records, count, &missing);
    }
    if (attempts.code() != TAMO_HOST_OK) {
        for (uint32_t at = 0; at < count; at++) {
            clearValue(&records[at].value);
        }
        return static_cast<int32_t>(attempts.code());
    }
    if (missing == TAMO_HOST_TOO_LARGE) {
        hostRecord(kError, kUnit, __LINE__,
                   "a stored configuration value has more than %zu characters: set it anew",
                   sizeof(records->value.text) - 1);
    }
    return static_cast<int32_t>(missing);
}

/* A record's key as the store finds it. */
struct WrittenKey {
    FoldedKey folded;
    uint32_t length;
    bool isReplaced; /* by a later record of the same key */
};
using WrittenKeys = std::unique_ptr<WrittenKey[], decltype(&free)>;

/* Folds the keys, and finds by a table of hashed keys which of them come again; null without memory. */
WrittenKeys foldKeys(const ConfConfigOmRecord *records, size_t count) {
    WrittenKeys keys(static_cast<WrittenKey *>(malloc(count * sizeof(WrittenKey))), free);
    const size_t slots = std::bit_ceil(2 * count);
    std::unique_ptr<uint32_t[], decltype(&free)> table(
        static_cast<uint32_t *>(calloc(slots, sizeof(uint32_t))), free);
    if (keys == nullptr || table == nullptr) {
        keys.reset();
        return keys;
    }
    for (size_t at = count; at-- > 0;) {
        WrittenKey &key = keys[at];
        key.length = static_cast<uint32_t>(strlen(records[at].key.text));
        (void)key.folded.fold(records[at].key.text, key.length);
        const std::string_view text(key.folded.text(), key.length);
        size_t slot = std::hash<std::string_view>()(text) & (slots - 1);
        auto holdsOther = [&](uint32_t entry) {
            const WrittenKey &other = keys[entry - 1];
            return std::string_view(other.folded.text(), other.length) != text;
        };
        while (table[slot] != 0 && holdsOther(table[slot])) {
            slot = (slot + 1) & (slots - 1);
        }
        key.isReplaced = table[slot] != 0;
        table[slot] = key.isReplaced ? table[slot] : static_cast<uint32_t>(at + 1);
    }
    return keys;
}

/* Writes each key once, so that what is noted has changed by this write. Key and value are bound where
 * the caller has them. */
int writeRecords(Connection *connection, const ConfConfigOmRecord *records, const WrittenKeys &keys,
                 size_t count) {
    int result = SQLITE_OK;
    for (size_t at = 0; at < count && result == SQLITE_OK; at++) {
        const WrittenKey &key = keys[at];
        if (key.isReplaced) {
            continue;
        }
        const char *value = records[at].value.text;
        const size_t length = strlen(value);
        key.folded.bind(connection->one, 1);
        sqlite3_bind_text(connection->one, 2, value, static_cast<int>(length), SQLITE_STATIC);
        sqlite3_bind_text(connection->one, 3, records[at].key.text, static_cast<int>(key.length),
                          SQLITE_STATIC);
        result = runStatement(connection->one);
        if (result == SQLITE_OK && sqlite3_changes(connection->file.database) != 0) {
            result = noteKey(connection, records[at].key.text, key.length, value, length);
        }
    }
    return result;
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
            hostRecord(kError, kUnit, __LINE__,
                       "record %" PRIu32 " of %" PRIu32
                       " has an empty key or a text without an end: nothing is stored",
                       at + 1, count);
            return TAMO_HOST_INVALID;
        }
    }
    const WrittenKeys keys = foldKeys(records, count);
    Attempts attempts(&storeWriter, "storing the configuration");
    while (attempts.next()) {
        int result = keys == nullptr ? SQLITE_NOMEM : beginWrite(&storeWriter);
        if (result == SQLITE_OK) {
            result = writeRecords(&storeWriter, records, keys, count);
        }
        attempts.result = finishWrite(&storeWriter, result);
    }
    return static_cast<int32_t>(attempts.code());
}

}  // namespace
}  // namespace tamo::configuration

using namespace tamo::configuration;

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
    if (text != value->text) {
        memmove(value->text, text, length + 1);
    }
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
    return tamo::configuration::read(record, 1);
}

int32_t TamoOmConfigStringMget(ConfConfigOmRecord *records, uint32_t count) {
    return tamo::configuration::read(records, count);
}

int32_t TamoOmConfigStringMset(const ConfConfigOmRecord *records, uint32_t count) {
    return tamo::configuration::write(records, count);
}

int32_t TamoOmConfigStringSet(ConfConfigOmRecord record) {
    return tamo::configuration::write(&record, 1);
}
