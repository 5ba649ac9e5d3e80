/* The workstation's own operations on the configuration: a list of all keys, an import of any number of
 * values in one transaction, their removal, and a watch.
 *
 * The values of an import go in by order of key: the store's pages are then filled one after the other,
 * a key that comes twice meets itself, and what a replaced store loses is found by walking both side by
 * side. */
#include <fnmatch.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <new>
#include <optional>

#include "host/base/clock.h"
#include "host/base/log.h"
#include "host/configuration/change_log.h"
#include "host/configuration/store_connection.h"
#include "tamo_host.h"

namespace tamo::configuration {

namespace {

constexpr const char *kUnit = "tamo_om_config_client";
/* A call of the progress function costs nothing beside so many values. */
constexpr uint32_t kProgressStep = 256;
constexpr const char *kRemove = "DELETE FROM setting WHERE folded = ?1 RETURNING key";

struct FreeBlock {
    void operator()(void *block) const { free(block); }
};

const char *columnText(sqlite3_stmt *row, int column) {
    return reinterpret_cast<const char *>(sqlite3_column_text(row, column));
}

/* Keys, each with its value, that are kept while the store goes on. */
class KeyList {
  public:
    KeyList() = default;
    ~KeyList() { release(); }
    KeyList(const KeyList &) = delete;
    KeyList &operator=(const KeyList &) = delete;

    /* SQLITE_OK or SQLITE_NOMEM. */
    int add(const char *key, const char *value) {
        const size_t keySize = strlen(key) + 1;
        const size_t valueSize = strlen(value) + 1;
        if (capacity - used < keySize + valueSize && !grow(keySize + valueSize)) {
            return SQLITE_NOMEM;
        }
        memcpy(bytes + used, key, keySize);
        memcpy(bytes + used + keySize, value, valueSize);
        used += keySize + valueSize;
        return SQLITE_OK;
    }

    /* Calls `visit` with each key and its value until it returns something else than 0, and returns
     * that. */
    template <typename Visit>
    auto visitAll(Visit visit) const -> decltype(visit("", "")) {
        decltype(visit("", "")) result = 0;
        for (size_t at = 0; at < used && result == 0;) {
            const char *key = bytes + at;
            const char *value = key + strlen(key) + 1;
            at += strlen(key) + strlen(value) + 2;
            result = visit(key, value);
        }
        return result;
    }

  private:
    bool grow(size_t more) {
        const size_t larger = std::max<size_t>(2 * capacity + more, 4096);
        auto *moved = static_cast<char *>(malloc(larger));
        if (moved == nullptr) {
            return false;
        }
        if (used != 0) {
            memcpy(moved, bytes, used);
        }
        release();
        bytes = moved;
        capacity = larger;
        return true;
    }

    /* What is released held values. */
    void release() {
        if (bytes != nullptr) {
            explicit_bzero(bytes, used);
        }
        free(bytes);
    }

    char *bytes = nullptr;
    size_t used = 0;
    size_t capacity = 0;
};

/* Collects the matching keys with their values: whoever visits them may use the store. */
int collect(Connection *connection, const char *glob, KeyList *found) {
    sqlite3_stmt *row = nullptr;
    int result =
        sqlite3_prepare_v2(connection->file.database,
                           "SELECT key, value FROM setting ORDER BY folded", -1, &row, nullptr);
    while (result == SQLITE_OK && (result = sqlite3_step(row)) == SQLITE_ROW) {
        const char *key = columnText(row, 0);
        const char *value = columnText(row, 1);
        result = key == nullptr || value == nullptr ? SQLITE_NOMEM : SQLITE_OK;
        if (result == SQLITE_OK && (glob == nullptr || fnmatch(glob, key, 0) == 0)) {
            result = found->add(key, value);
        }
    }
    sqlite3_finalize(row);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

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

bool isKey(const char *text) {
    return fits(text, sizeof(ConfConfigOmKey::text)) && text[0] != '\0';
}

unsigned char folded(char c) {
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
}

/* Compares keys in any letter case, in the store's order. */
int compareKeys(const char *one, const char *other) {
    while (*one != '\0' && folded(*one) == folded(*other)) {
        one++;
        other++;
    }
    return folded(*one) - folded(*other);
}

/* Sorts, and leaves out what a later value of the same key replaces; false without memory. */
bool putInOrder(Import *import, uint32_t count) {
    import->order.reset(static_cast<uint32_t *>(calloc(count + size_t{1}, sizeof(uint32_t))));
    uint32_t *order = import->order.get();
    if (order == nullptr) {
        return false;
    }
    const auto compare = [import](uint32_t one, uint32_t other) {
        return compareKeys(import->pairs[one].key, import->pairs[other].key);
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

/* Stores all values and notes what that changes. */
int storeAll(Connection *connection, const Import &import) {
    int result = SQLITE_OK;
    for (uint32_t at = 0; at < import.count && result == SQLITE_OK; at++) {
        const TamoHostConfigPair &pair = import.at(at);
        const size_t keyLength = strlen(pair.key);
        const size_t valueLength = strlen(pair.value);
        FoldedKey key;
        (void)key.fold(pair.key, keyLength);
        key.bind(connection->one, 1);
        sqlite3_bind_text(connection->one, 2, pair.value, static_cast<int>(valueLength),
                          SQLITE_STATIC);
        sqlite3_bind_text(connection->one, 3, pair.key, static_cast<int>(keyLength), SQLITE_STATIC);
        result = runStatement(connection->one);
        if (result == SQLITE_OK && sqlite3_changes(connection->file.database) != 0) {
            result = noteKey(connection, pair.key, keyLength, pair.value, valueLength);
        }
        if (import.progress != nullptr && (at + 1) % kProgressStep == 0) {
            import.progress(at + 1, import.context);
        }
    }
    return result;
}

/* Removes a key and notes it under its first spelling; `isThere` tells whether it had a value. */
int removeKey(Connection *connection, const char *key, bool *isThere) {
    FoldedKey asked;
    (void)asked.fold(key, strlen(key));
    int result = prepareOnce(connection, kRemove, &connection->remove);
    if (result != SQLITE_OK) {
        return result;
    }
    asked.bind(connection->remove, 1);
    result = sqlite3_step(connection->remove);
    *isThere = result == SQLITE_ROW;
    if (*isThere) {
        const char *spelled = columnText(connection->remove, 0);
        result = spelled == nullptr ? SQLITE_NOMEM
                                    : noteKey(connection, spelled, strlen(spelled), nullptr, 0);
    }
    sqlite3_reset(connection->remove);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

/* Finds the keys that the import does not have. Both sides are in the store's order. */
int findOthers(Connection *connection, const Import &import, KeyList *others) {
    sqlite3_stmt *row = nullptr;
    int result = sqlite3_prepare_v2(connection->file.database,
                                    "SELECT key FROM setting ORDER BY folded", -1, &row, nullptr);
    uint32_t at = 0;
    while (result == SQLITE_OK && (result = sqlite3_step(row)) == SQLITE_ROW) {
        const char *key = columnText(row, 0);
        int compared = -1;
        while (key != nullptr && at < import.count &&
               (compared = compareKeys(key, import.at(at).key)) > 0) {
            at++;
        }
        const bool isOther = at == import.count || compared != 0;
        result = key == nullptr ? SQLITE_NOMEM : isOther ? others->add(key, "") : SQLITE_OK;
    }
    sqlite3_finalize(row);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

int removeOthers(Connection *connection, const Import &import) {
    KeyList others;
    const int result = findOthers(connection, import, &others);
    return result != SQLITE_OK ? result : others.visitAll([&](const char *key, const char *) {
        bool isThere = false;
        return removeKey(connection, key, &isThere);
    });
}

uint32_t showChange(const Change &change,
                    uint32_t (*visit)(const TamoHostConfigChange *change, void *context),
                    void *context) {
    TamoHostConfigChange shown = {};
    shown.timeUs = change.time;
    shown.writerPid = change.pid;
    shown.writer = change.writer;
    shown.isAll = change.isAll ? 1 : 0;
    const ConfConfigChangeList list = change.items.list();
    uint32_t code = TAMO_HOST_OK;
    for (uint32_t at = 0; code == TAMO_HOST_OK && at < list.count; at++) {
        shown.key = list.items[at].key.text;
        shown.value = list.items[at].value->text;
        shown.isRemoved = ChangeItems::isRemoved(list.items[at]) ? 1 : 0;
        code = visit(&shown, context);
    }
    return code;
}

uint32_t refuse(int line, const char *why) {
    hostRecord(kError, kUnit, line, "%s", why);
    return TAMO_HOST_INVALID;
}

}  // namespace

}  // namespace tamo::configuration

using namespace tamo::configuration;

struct TamoHostConfigWatch {
    Watch watch;
    Change change;
};

uint32_t TamoHostConfigList(const char *glob,
                            uint32_t (*visit)(const char *key, const char *value, void *context),
                            void *context) {
    if (visit == nullptr) {
        return refuse(__LINE__, "the configuration is not listed: no visitor was given");
    }
    std::optional<KeyList> found;
    Attempts attempts(&storeReader, "listing the configuration");
    while (attempts.next()) {
        found.emplace();
        attempts.result = collect(&storeReader, glob, &*found);
    }
    return attempts.code() != TAMO_HOST_OK
               ? attempts.code()
               : found->visitAll([&](const char *key, const char *value) {
                     return visit(key, value, context);
                 });
}

uint32_t TamoHostConfigImport(const TamoHostConfigPair *pairs, uint32_t count, uint8_t replace,
                              void (*progress)(uint32_t done, void *context), void *context) {
    if (pairs == nullptr && count != 0) {
        return refuse(__LINE__, "nothing is imported: no values were given");
    }
    for (uint32_t at = 0; at < count; at++) {
        if (!isKey(pairs[at].key) || !fits(pairs[at].value, sizeof(ConfConfigOmVal::text))) {
            tamo::hostRecord(
                tamo::kError, kUnit, __LINE__,
                "nothing is imported: entry %" PRIu32 " of %" PRIu32
                " has no key of 1 to 127 bytes with a value of at most 1023, correct it",
                at + 1, count);
            return TAMO_HOST_INVALID;
        }
    }
    Import import = {.pairs = pairs,
                     .order = nullptr,
                     .replace = replace != 0,
                     .progress = progress,
                     .context = context};
    if (!putInOrder(&import, count)) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "nothing is imported: no memory to sort %" PRIu32 " values, import fewer",
                         count);
        return TAMO_HOST_NO_MEMORY;
    }
    Attempts attempts(&storeWriter, "importing the configuration");
    while (attempts.next()) {
        int result = beginWrite(&storeWriter);
        if (result == SQLITE_OK) {
            result = storeAll(&storeWriter, import);
        }
        if (result == SQLITE_OK && import.replace) {
            result = removeOthers(&storeWriter, import);
        }
        attempts.result = finishWrite(&storeWriter, result);
    }
    return attempts.code();
}

uint32_t TamoHostConfigReset(const char *const *keys, uint32_t count) {
    if (keys == nullptr && count != 0) {
        return refuse(__LINE__, "no value is removed: no keys were given");
    }
    for (uint32_t at = 0; at < count; at++) {
        if (!isKey(keys[at])) {
            return refuse(__LINE__, "no value is removed: a key has 1 to 127 bytes");
        }
    }
    uint32_t missing = 0;
    Attempts attempts(&storeWriter, "removing values of the configuration");
    while (attempts.next()) {
        missing = 0;
        int result = beginWrite(&storeWriter);
        for (uint32_t at = 0; at < count && result == SQLITE_OK; at++) {
            bool isThere = false;
            result = removeKey(&storeWriter, keys[at], &isThere);
            missing += isThere ? 0 : 1;
        }
        attempts.result = finishWrite(&storeWriter, result);
    }
    const uint32_t code = attempts.code();
    return code == TAMO_HOST_OK && missing != 0 ? uint32_t{TAMO_HOST_NOT_FOUND} : code;
}

uint32_t TamoHostConfigWatchOpen(TamoHostConfigWatch **watch) {
    if (watch == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "the configuration is not watched: no place for the watch was given");
        return TAMO_HOST_INVALID;
    }
    *watch = new (std::nothrow) TamoHostConfigWatch;
    if (*watch == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "the configuration is not watched: there is no memory for the watch");
        return TAMO_HOST_NO_MEMORY;
    }
    uint32_t code = beginWatch(&(*watch)->watch);
    if (code != TAMO_HOST_OK) {
        TamoHostConfigWatchClose(*watch);
        *watch = nullptr;
    }
    return code;
}

uint32_t TamoHostConfigWatchNext(TamoHostConfigWatch *watch, int32_t timeoutMs,
                                 uint32_t (*visit)(const TamoHostConfigChange *change,
                                                   void *context),
                                 void *context) {
    if (watch == nullptr || visit == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "no change is shown: no watch or no visitor was given");
        return TAMO_HOST_INVALID;
    }
    const auto end = static_cast<int64_t>(tamo::monotonicMs()) + timeoutMs;
    for (;;) {
        uint32_t code = nextChange(&watch->watch, &watch->change);
        if (code == TAMO_HOST_OK) {
            return showChange(watch->change, visit, context);
        }
        if (code != TAMO_HOST_NOT_FOUND) {
            return code;
        }
        const int64_t left =
            timeoutMs < 0 ? kLookMs : end - static_cast<int64_t>(tamo::monotonicMs());
        if (left <= 0) {
            return TAMO_HOST_TIMEOUT;
        }
        awaitChange(watch->watch, static_cast<int>(std::min<int64_t>(left, kLookMs)));
    }
}

void TamoHostConfigWatchClose(TamoHostConfigWatch *watch) {
    delete watch;
}
