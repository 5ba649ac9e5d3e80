/* The configuration store: its operations. */
#include "host/configuration/store.h"

#include <fnmatch.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "host/base/log.h"
#include "host/configuration/change_log.h"
#include "host/configuration/key_values.h"
#include "host/configuration/store_connection.h"
#include "host/configuration/subscribers.h"
#include "tamo_host.h"

namespace tamo {
namespace {

constexpr const char *kUnit = "tamo_om_config_store";

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

/* Binds a record's key; false for a text that is no key, and binds what no key equals. */
bool bindKey(sqlite3_stmt *statement, int place, const ConfConfigOmRecord &record) {
    size_t length = strnlen(record.key.text, sizeof(record.key.text));
    if (length == 0 || length == sizeof(record.key.text)) {
        sqlite3_bind_null(statement, place);
        return false;
    }
    sqlite3_bind_text(statement, place, record.key.text, static_cast<int>(length), SQLITE_STATIC);
    return true;
}

/* Reads `count` records by a statement with as many places; a first reason why a value part could
 * not be filled goes to `missing`. */
int readGroup(sqlite3_stmt *statement, ConfConfigOmRecord *records, size_t count,
              uint32_t *missing) {
    uint32_t lacks[kConfigGroup];
    for (size_t at = 0; at < count; at++) {
        bool isKey = bindKey(statement, static_cast<int>(at) + 1, records[at]);
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

int readRecords(Connection *connection, ConfConfigOmRecord *records, size_t count,
                uint32_t *missing) {
    *missing = TAMO_HOST_OK;
    if (count == 1) {
        return readGroup(connection->one, records, 1, missing);
    }
    int result = runStatement(connection->begin);
    size_t at = 0;
    for (; at + kConfigGroup <= count && result == SQLITE_OK; at += kConfigGroup) {
        result = readGroup(connection->group, records + at, kConfigGroup, missing);
    }
    for (; at < count && result == SQLITE_OK; at++) {
        result = readGroup(connection->one, records + at, 1, missing);
    }
    return finishTransaction(connection, result);
}

int writeRecord(Connection *connection, const ConfConfigOmRecord &record) {
    size_t length = strnlen(record.value.text, sizeof(record.value.text));
    (void)bindKey(connection->one, 1, record);
    sqlite3_bind_text(connection->one, 2, record.value.text, static_cast<int>(length),
                      SQLITE_STATIC);
    return runStatement(connection->one);
}

/* Marks the records that a later one of the same key replaces; null without memory. */
std::unique_ptr<bool[], decltype(&free)> findReplaced(const ConfConfigOmRecord *records,
                                                      size_t count) {
    std::unique_ptr<bool[], decltype(&free)> replaced(
        static_cast<bool *>(calloc(count, sizeof(bool))), free);
    std::unique_ptr<uint32_t[], decltype(&free)> order(
        static_cast<uint32_t *>(calloc(count, sizeof(uint32_t))), free);
    if (replaced == nullptr || order == nullptr) {
        replaced.reset();
        return replaced;
    }
    auto compare = [records](uint32_t one, uint32_t other) {
        return strncmp(records[one].key.text, records[other].key.text, sizeof(records->key.text));
    };
    for (size_t at = 0; at < count; at++) {
        order[at] = static_cast<uint32_t>(at);
    }
    std::sort(order.get(), order.get() + count, [compare](uint32_t one, uint32_t other) {
        int compared = compare(one, other);
        return compared != 0 ? compared < 0 : one < other;
    });
    for (size_t at = 0; at + 1 < count; at++) {
        replaced[order[at]] = compare(order[at], order[at + 1]) == 0;
    }
    return replaced;
}

/* Writes for an audience: once per key, so that what is noted has changed by this write. */
int writeAndNote(Connection *connection, const ConfConfigOmRecord *records, size_t count,
                 Texts *changed) {
    auto replaced = findReplaced(records, count);
    int result = replaced == nullptr ? SQLITE_NOMEM : SQLITE_OK;
    for (size_t at = 0; at < count && result == SQLITE_OK; at++) {
        if (replaced[at]) {
            continue;
        }
        const ConfConfigOmRecord &record = records[at];
        result = writeRecord(connection, record);
        if (result == SQLITE_OK && sqlite3_changes(connection->file.database) != 0 &&
            !(changed->append(record.key.text, strlen(record.key.text)) &&
              changed->append(record.value.text, strlen(record.value.text)))) {
            result = SQLITE_NOMEM;
        }
    }
    return result;
}

/* Nothing is noted while nobody watches. */
int writeRecords(Connection *connection, const ConfConfigOmRecord *records, size_t count) {
    Texts changed;
    int result = runStatement(connection->begin);
    ConfigAudience audience = {false, 0};
    if (result == SQLITE_OK) {
        audience = configAudience(configOrigin());
    }
    if (audience.others) {
        result = writeAndNote(connection, records, count, &changed);
    } else {
        for (size_t at = 0; at < count && result == SQLITE_OK; at++) {
            result = writeRecord(connection, records[at]);
        }
    }
    return finishConfigWrite(connection, result, changed, audience.slowest);
}

/* Collects the matching keys with their values: whoever visits them may use the store. */
int collect(sqlite3_stmt *rows, const char *glob, Texts *found) {
    int result = SQLITE_OK;
    while ((result = sqlite3_step(rows)) == SQLITE_ROW) {
        const unsigned char *key = sqlite3_column_text(rows, 0);
        const unsigned char *value = sqlite3_column_text(rows, 1);
        if (key == nullptr || value == nullptr) {
            return SQLITE_NOMEM;
        }
        const char *keyText = reinterpret_cast<const char *>(key);
        if (glob != nullptr && fnmatch(glob, keyText, 0) != 0) {
            continue;
        }
        if (!found->append(key, strlen(keyText)) ||
            !found->append(value, strlen(reinterpret_cast<const char *>(value)))) {
            return SQLITE_NOMEM;
        }
    }
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

}  // namespace

uint32_t configStoreOpen() {
    return transact(&configReader, "opening the configuration store",
                    [](Connection *) { return SQLITE_OK; });
}

uint32_t configStoreRead(ConfConfigOmRecord *records, size_t count) {
    uint32_t missing = TAMO_HOST_OK;
    uint32_t code = transact(
        &configReader, "reading the configuration",
        [&](Connection *connection) { return readRecords(connection, records, count, &missing); });
    if (code != TAMO_HOST_OK) {
        for (size_t at = 0; at < count; at++) {
            clearValue(&records[at].value);
        }
        return code;
    }
    if (missing == TAMO_HOST_TOO_LARGE) {
        hostRecord(kError, kUnit, __LINE__,
                   "a stored configuration value has more than %zu characters: set it anew",
                   sizeof(records->value.text) - 1);
    }
    return missing;
}

uint32_t configStoreWrite(const ConfConfigOmRecord *records, size_t count) {
    return transact(&configWriter, "storing the configuration", [&](Connection *connection) {
        return writeRecords(connection, records, count);
    });
}

}  // namespace tamo

uint32_t TamoHostConfigList(const char *glob,
                            uint32_t (*visit)(const char *key, const char *value, void *context),
                            void *context) {
    if (visit == nullptr) {
        tamo::hostRecord(tamo::kError, tamo::kUnit, __LINE__,
                         "the configuration is not listed: no visitor was given");
        return TAMO_HOST_INVALID;
    }
    tamo::Texts found;
    auto list = [&](tamo::Connection *connection) {
        found.clear();
        sqlite3_stmt *rows = nullptr;
        int result =
            sqlite3_prepare_v2(connection->file.database,
                               "SELECT key, value FROM setting ORDER BY key", -1, &rows, nullptr);
        if (result == SQLITE_OK) {
            result = tamo::collect(rows, glob, &found);
        }
        sqlite3_finalize(rows);
        return result;
    };
    uint32_t code = tamo::transact(&tamo::configReader, "listing the configuration", list);
    for (tamo::TextPairs pair(found); code == TAMO_HOST_OK && pair.next();) {
        code = visit(pair.key, pair.value, context);
    }
    return code;
}
