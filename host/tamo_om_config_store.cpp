/* The configuration store: its operations.
 *
 * A process has a connection for reading and one for writing, opened when they are first needed: a
 * reader does not wait for the flush of a writer, not even of the same process. After each
 * transaction a connection looks whether its file is still the one in place (it is not once another
 * process has moved a damaged one aside) and, if not, opens the new one and starts over: what was
 * acknowledged is in the file in place.
 *
 * SQLite's account of locks must not cross a fork, so that the connections are closed around it. */
#include "tamo_om_config_store.h"

#include <fnmatch.h>
#include <pthread.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "host_record.h"
#include "tamo_host.h"
#include "tamo_om_config_file.h"

namespace tamo {
namespace {

constexpr const char *kUnit = "tamo_om_config_store";
/* One for a file that was replaced, one for a file found damaged, one for the fresh one. */
constexpr int kAttempts = 3;

constexpr const char *kReadOne = "SELECT 0, value FROM setting WHERE key = ?1";
/* Several keys by one statement: running a statement costs as much as finding a key. */
constexpr size_t kGroup = 8;
constexpr const char *kReadGroup =
    "SELECT 0, value FROM setting WHERE key = ?1 UNION ALL "
    "SELECT 1, value FROM setting WHERE key = ?2 UNION ALL "
    "SELECT 2, value FROM setting WHERE key = ?3 UNION ALL "
    "SELECT 3, value FROM setting WHERE key = ?4 UNION ALL "
    "SELECT 4, value FROM setting WHERE key = ?5 UNION ALL "
    "SELECT 5, value FROM setting WHERE key = ?6 UNION ALL "
    "SELECT 6, value FROM setting WHERE key = ?7 UNION ALL "
    "SELECT 7, value FROM setting WHERE key = ?8";
/* A value that is stored already is not written, and costs no flush when it comes alone. */
constexpr const char *kWriteOne =
    "INSERT INTO setting (key, value) VALUES (?1, ?2) "
    "ON CONFLICT (key) DO UPDATE SET value = excluded.value WHERE value <> excluded.value";

struct Connection {
    const bool forWriting;
    std::mutex lock;
    ConfigFile file;
    sqlite3_stmt *begin;
    sqlite3_stmt *commit;
    sqlite3_stmt *rollback;
    sqlite3_stmt *one;
    sqlite3_stmt *group; /* the reader's */
};

/* Not closed at exit, where other threads may still use them. */
Connection reader = {false, {}, {}, nullptr, nullptr, nullptr, nullptr, nullptr};
Connection writer = {true, {}, {}, nullptr, nullptr, nullptr, nullptr, nullptr};

void disconnect(Connection *connection) {
    for (sqlite3_stmt **statement : {&connection->begin, &connection->commit, &connection->rollback,
                                     &connection->one, &connection->group}) {
        sqlite3_finalize(*statement);
        *statement = nullptr;
    }
    closeConfigFile(&connection->file);
}

void beforeFork() {
    writer.lock.lock();
    reader.lock.lock();
    disconnect(&writer);
    disconnect(&reader);
}

void afterFork() {
    reader.lock.unlock();
    writer.lock.unlock();
}

int prepareAll(Connection *connection) {
    const struct {
        const char *text;
        sqlite3_stmt **statement;
    } all[] = {{connection->forWriting ? "BEGIN IMMEDIATE" : "BEGIN", &connection->begin},
               {"COMMIT", &connection->commit},
               {"ROLLBACK", &connection->rollback},
               {connection->forWriting ? kWriteOne : kReadOne, &connection->one},
               {connection->forWriting ? "" : kReadGroup, &connection->group}};
    int result = SQLITE_OK;
    for (const auto &[text, statement] : all) {
        if (result == SQLITE_OK) {
            result = sqlite3_prepare_v3(connection->file.database, text, -1,
                                        SQLITE_PREPARE_PERSISTENT, statement, nullptr);
        }
    }
    return result;
}

uint32_t connect(Connection *connection, bool suspect) {
    static std::once_flag forkSafe;
    std::call_once(forkSafe, [] { pthread_atfork(beforeFork, afterFork, afterFork); });
    uint32_t code = openConfigFile({connection->forWriting, suspect}, &connection->file);
    if (code != TAMO_HOST_OK) {
        return code;
    }
    int result = prepareAll(connection);
    if (result != SQLITE_OK) {
        code = configFileFailure(connection->file.database, result,
                                 "preparing the configuration store", __LINE__);
        disconnect(connection);
    }
    return code;
}

/* Runs a statement that yields no row. */
int run(sqlite3_stmt *statement) {
    int result = sqlite3_step(statement);
    sqlite3_reset(statement);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

/* Ends a transaction of which `result` came out. */
int finish(Connection *connection, int result) {
    if (result == SQLITE_OK) {
        result = run(connection->commit);
    }
    if (result != SQLITE_OK && sqlite3_get_autocommit(connection->file.database) == 0) {
        (void)run(connection->rollback);
    }
    return result;
}

/* Runs a transaction, which returns a result of SQLite, until it ran on the file in place. */
template <typename Transaction>
uint32_t transact(Connection *connection, const char *what, Transaction transaction) {
    std::lock_guard guard(connection->lock);
    bool suspect = false;
    for (int attempt = 1;; attempt++) {
        if (connection->file.database == nullptr) {
            uint32_t code = connect(connection, suspect);
            if (code != TAMO_HOST_OK) {
                return code;
            }
        }
        int result = transaction(connection);
        suspect = isDamage(result);
        bool moved = configFileMoved(connection->file);
        if (attempt < kAttempts && (suspect || moved)) {
            disconnect(connection);
            continue;
        }
        uint32_t code = TAMO_HOST_OK;
        if (result != SQLITE_OK || moved) {
            result = result == SQLITE_OK ? SQLITE_READONLY_DBMOVED : result;
            code = configFileFailure(connection->file.database, result, what, __LINE__);
        }
        if (suspect || connection->file.ownIndex) {
            disconnect(connection);
        }
        return code;
    }
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
    uint32_t lacks[kGroup];
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
    int result = run(connection->begin);
    size_t at = 0;
    for (; at + kGroup <= count && result == SQLITE_OK; at += kGroup) {
        result = readGroup(connection->group, records + at, kGroup, missing);
    }
    for (; at < count && result == SQLITE_OK; at++) {
        result = readGroup(connection->one, records + at, 1, missing);
    }
    return finish(connection, result);
}

int writeRecords(Connection *connection, const ConfConfigOmRecord *records, size_t count) {
    int result = run(connection->begin);
    for (size_t at = 0; at < count && result == SQLITE_OK; at++) {
        const ConfConfigOmVal &value = records[at].value;
        size_t length = strnlen(value.text, sizeof(value.text));
        (void)bindKey(connection->one, 1, records[at]);
        sqlite3_bind_text(connection->one, 2, value.text, static_cast<int>(length), SQLITE_STATIC);
        result = run(connection->one);
    }
    return finish(connection, result);
}

/* A growing block of texts, each with its terminator. */
struct Texts {
    char *data = nullptr;
    size_t size = 0;
    size_t capacity = 0;

    ~Texts() { free(data); }
    bool append(const void *text, size_t length) {
        if (capacity - size < length + 1) {
            size_t larger = 2 * capacity + length + 1;
            char *moved = static_cast<char *>(realloc(data, larger));
            if (moved == nullptr) {
                return false;
            }
            data = moved;
            capacity = larger;
        }
        memcpy(data + size, text, length);
        data[size + length] = '\0';
        size += length + 1;
        return true;
    }
};

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
    return transact(&reader, "opening the configuration store",
                    [](Connection *) { return SQLITE_OK; });
}

uint32_t configStoreRead(ConfConfigOmRecord *records, size_t count) {
    uint32_t missing = TAMO_HOST_OK;
    uint32_t code = transact(&reader, "reading the configuration", [&](Connection *connection) {
        return readRecords(connection, records, count, &missing);
    });
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
    return transact(&writer, "storing the configuration", [&](Connection *connection) {
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
        found.size = 0;
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
    uint32_t code = tamo::transact(&tamo::reader, "listing the configuration", list);
    for (size_t at = 0; code == TAMO_HOST_OK && at < found.size;) {
        const char *key = found.data + at;
        const char *value = key + strlen(key) + 1;
        at += strlen(key) + strlen(value) + 2;
        code = visit(key, value, context);
    }
    return code;
}
