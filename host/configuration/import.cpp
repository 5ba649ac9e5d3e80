/* TamoHostConfigImport: any number of values in one transaction.
 *
 * The values go in by order of key: the store's pages are then filled one after the other, a key that
 * comes twice meets itself, and what a replaced store loses is found by walking both side by side. */
#include <inttypes.h>
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

constexpr const char *kUnit = "tamo_om_config_import";
/* A call of the progress function costs nothing beside so many values. */
constexpr uint32_t kProgressStep = 256;

struct FreeBlock {
    void operator()(void *block) const { free(block); }
};

struct Import {
    const TamoHostConfigPair *pairs;
    std::unique_ptr<uint32_t[], FreeBlock> order; /* the pairs' places, by key, each key once */
    uint32_t count = 0;                           /* of those */
    bool replace = false;
    void (*progress)(uint32_t done, void *context) = nullptr;
    void *context = nullptr;

    const TamoHostConfigPair &at(uint32_t place) const { return pairs[order[place]]; }
};

bool fits(const char *text, size_t size) {
    return text != nullptr && strnlen(text, size) != size;
}

bool isStorable(const TamoHostConfigPair &pair) {
    return fits(pair.key, sizeof(ConfConfigOmKey::text)) && pair.key[0] != '\0' &&
           fits(pair.value, sizeof(ConfConfigOmVal::text));
}

/* Sorts, and leaves out what a later value of the same key replaces; false without memory. */
bool putInOrder(Import *import, uint32_t count) {
    import->order.reset(static_cast<uint32_t *>(calloc(count + size_t{1}, sizeof(uint32_t))));
    uint32_t *order = import->order.get();
    if (order == nullptr) {
        return false;
    }
    const auto compare = [import](uint32_t one, uint32_t other) {
        return strcmp(import->pairs[one].key, import->pairs[other].key);
    };
    for (uint32_t at = 0; at < count; at++) {
        order[at] = at;
    }
    std::sort(order, order + count, [&](uint32_t one, uint32_t other) {
        int compared = compare(one, other);
        return compared != 0 ? compared < 0 : one < other;
    });
    for (uint32_t at = 0; at < count; at++) {
        if (at + 1 == count || compare(order[at], order[at + 1]) != 0) {
            order[import->count++] = order[at];
        }
    }
    return true;
}

bool note(const char *key, const char *value, Texts *changed) {
    return changed->append(key, strlen(key)) && changed->append(value, strlen(value));
}

/* Stores all values and notes in `changed`, unless it is null, what that changes. */
int storeAll(Connection *connection, const Import &import, Texts *changed) {
    int result = SQLITE_OK;
    for (uint32_t at = 0; at < import.count && result == SQLITE_OK; at++) {
        const TamoHostConfigPair &pair = import.at(at);
        sqlite3_bind_text(connection->one, 1, pair.key, -1, SQLITE_STATIC);
        sqlite3_bind_text(connection->one, 2, pair.value, -1, SQLITE_STATIC);
        result = runStatement(connection->one);
        if (result == SQLITE_OK && changed != nullptr &&
            sqlite3_changes(connection->file.database) != 0 &&
            !note(pair.key, pair.value, changed)) {
            result = SQLITE_NOMEM;
        }
        if (import.progress != nullptr && (at + 1) % kProgressStep == 0) {
            import.progress(at + 1, import.context);
        }
    }
    return result;
}

/* Finds the keys that the import does not have. Both sides are in the order of their bytes. */
int findOthers(Connection *connection, const Import &import, Texts *others) {
    sqlite3_stmt *rows = nullptr;
    int result = sqlite3_prepare_v2(connection->file.database,
                                    "SELECT key FROM setting ORDER BY key", -1, &rows, nullptr);
    uint32_t at = 0;
    while (result == SQLITE_OK && (result = sqlite3_step(rows)) == SQLITE_ROW) {
        const char *key = reinterpret_cast<const char *>(sqlite3_column_text(rows, 0));
        int compared = -1;
        while (key != nullptr && at < import.count &&
               (compared = strcmp(key, import.at(at).key)) > 0) {
            at++;
        }
        bool isOther = at == import.count || compared != 0;
        result = key == nullptr || (isOther && !note(key, "", others)) ? SQLITE_NOMEM : SQLITE_OK;
    }
    sqlite3_finalize(rows);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

int removeOthers(Connection *connection, const Import &import, Texts *changed) {
    Texts others;
    sqlite3_stmt *remove = nullptr;
    int result = findOthers(connection, import, &others);
    if (result == SQLITE_OK) {
        result = sqlite3_prepare_v2(connection->file.database, "DELETE FROM setting WHERE key = ?1",
                                    -1, &remove, nullptr);
    }
    for (TextPairs pair(others); result == SQLITE_OK && pair.next();) {
        sqlite3_bind_text(remove, 1, pair.key, -1, SQLITE_STATIC);
        result = runStatement(remove);
        if (result == SQLITE_OK && changed != nullptr && !note(pair.key, pair.value, changed)) {
            result = SQLITE_NOMEM;
        }
    }
    sqlite3_finalize(remove);
    return result;
}

int importAll(Connection *connection, const Import &import) {
    Texts changed;
    ConfigAudience audience = {false, 0};
    int result = runStatement(connection->begin);
    if (result == SQLITE_OK) {
        audience = configAudience(configOrigin());
        result = storeAll(connection, import, audience.others ? &changed : nullptr);
    }
    if (result == SQLITE_OK && import.replace) {
        result = removeOthers(connection, import, audience.others ? &changed : nullptr);
    }
    return finishConfigWrite(connection, result, changed, audience.slowest);
}

}  // namespace

}  // namespace tamo

uint32_t TamoHostConfigImport(const TamoHostConfigPair *pairs, uint32_t count, uint8_t replace,
                              void (*progress)(uint32_t done, void *context), void *context) {
    if (pairs == nullptr && count != 0) {
        tamo::hostRecord(tamo::kError, tamo::kUnit, __LINE__,
                         "nothing is imported: no values were given");
        return TAMO_HOST_INVALID;
    }
    for (uint32_t at = 0; at < count; at++) {
        if (!tamo::isStorable(pairs[at])) {
            tamo::hostRecord(
                tamo::kError, tamo::kUnit, __LINE__,
                "nothing is imported: entry %" PRIu32 " of %" PRIu32
                " has no key of 1 to 127 bytes with a value of at most 1023, correct it",
                at + 1, count);
            return TAMO_HOST_INVALID;
        }
    }
    tamo::Import import = {.pairs = pairs,
                           .order = nullptr,
                           .replace = replace != 0,
                           .progress = progress,
                           .context = context};
    if (!tamo::putInOrder(&import, count)) {
        tamo::hostRecord(tamo::kError, tamo::kUnit, __LINE__,
                         "nothing is imported: no memory to sort %" PRIu32 " values, import fewer",
                         count);
        return TAMO_HOST_NO_MEMORY;
    }
    return tamo::transact(
        &tamo::configWriter, "importing the configuration",
        [&import](tamo::Connection *connection) { return tamo::importAll(connection, import); });
}
