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

#include <atomic>
#include <mutex>

#include "host_record.h"
#include "tamo_host.h"
#include "tamo_om_config_file.h"

namespace tamo {
namespace {

constexpr const char *kUnit = "tamo_om_config_store";
/* One for a file that was replaced, one for a file found damaged, one for the fresh one. */
constexpr int kAttempts = 3;

struct Connection {
    const bool forWriting;
    std::mutex lock;
    ConfigFile file;
    sqlite3_stmt *begin;
    sqlite3_stmt *access;
    sqlite3_stmt *commit;
    sqlite3_stmt *rollback;
};

/* Not closed at exit, where other threads may still use them. */
Connection reader = {false, {}, {}, nullptr, nullptr, nullptr, nullptr};
Connection writer = {true, {}, {}, nullptr, nullptr, nullptr, nullptr};

void disconnect(Connection *connection) {
    for (sqlite3_stmt **statement :
         {&connection->begin, &connection->access, &connection->commit, &connection->rollback}) {
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

int prepare(sqlite3 *database, const char *text, sqlite3_stmt **statement) {
    return sqlite3_prepare_v3(database, text, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr);
}

uint32_t connect(Connection *connection, bool suspect) {
    static std::once_flag forkSafe;
    std::call_once(forkSafe, [] { pthread_atfork(beforeFork, afterFork, afterFork); });
    uint32_t code = openConfigFile(connection->forWriting, suspect, &connection->file);
    if (code != TAMO_HOST_OK) {
        return code;
    }
    const char *access = connection->forWriting
                             ? "INSERT INTO setting (key, value) VALUES (?1, ?2) "
                               "ON CONFLICT (key) DO UPDATE SET value = excluded.value "
                               "WHERE value <> excluded.value"
                             : "SELECT value FROM setting WHERE key = ?1";
    sqlite3 *database = connection->file.database;
    int result =
        prepare(database, connection->forWriting ? "BEGIN IMMEDIATE" : "BEGIN", &connection->begin);
    result = result == SQLITE_OK ? prepare(database, access, &connection->access) : result;
    result = result == SQLITE_OK ? prepare(database, "COMMIT", &connection->commit) : result;
    result = result == SQLITE_OK ? prepare(database, "ROLLBACK", &connection->rollback) : result;
    if (result != SQLITE_OK) {
        code = configFileFailure(database, result, "preparing the configuration store", __LINE__);
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
        if (attempt < kAttempts && (suspect || configFileMoved(connection->file))) {
            disconnect(connection);
            continue;
        }
        uint32_t code = TAMO_HOST_OK;
        if (result != SQLITE_OK) {
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

/* Copies the found text; only a foreign hand can have stored one that does not fit. */
bool takeValue(sqlite3_stmt *row, ConfConfigOmVal *value) {
    const unsigned char *text = sqlite3_column_text(row, 0);
    size_t length = static_cast<size_t>(sqlite3_column_bytes(row, 0));
    if (text == nullptr || length >= sizeof(value->text)) {
        clearValue(value);
        return false;
    }
    memcpy(value->text, text, length + 1);
    value->length = static_cast<uint32_t>(length);
    return true;
}

/* Reads one record; `missing` is what it lacks, else stays as it is. */
int readRecord(sqlite3_stmt *access, ConfConfigOmRecord *record, uint32_t *missing) {
    size_t length = strnlen(record->key.text, sizeof(record->key.text));
    if (length == 0 || length == sizeof(record->key.text)) {
        clearValue(&record->value);
        *missing = TAMO_HOST_INVALID;
        return SQLITE_OK;
    }
    sqlite3_bind_text(access, 1, record->key.text, static_cast<int>(length), SQLITE_STATIC);
    int result = sqlite3_step(access);
    if (result == SQLITE_ROW) {
        if (!takeValue(access, &record->value)) {
            *missing = TAMO_HOST_TOO_LARGE;
        }
    } else {
        clearValue(&record->value);
        if (result == SQLITE_DONE && *missing == TAMO_HOST_OK) {
            *missing = TAMO_HOST_NOT_FOUND;
        }
    }
    sqlite3_reset(access);
    return result == SQLITE_ROW || result == SQLITE_DONE ? SQLITE_OK : result;
}

int readRecords(Connection *connection, ConfConfigOmRecord *records, size_t count,
                uint32_t *missing) {
    *missing = TAMO_HOST_OK;
    if (count == 1) {
        return readRecord(connection->access, records, missing);
    }
    int result = run(connection->begin);
    for (size_t at = 0; at < count && result == SQLITE_OK; at++) {
        result = readRecord(connection->access, &records[at], missing);
    }
    return finish(connection, result);
}

int writeRecords(Connection *connection, const ConfConfigOmRecord *records, size_t count) {
    sqlite3_stmt *access = connection->access;
    int result = run(connection->begin);
    for (size_t at = 0; at < count && result == SQLITE_OK; at++) {
        const ConfConfigOmRecord &record = records[at];
        sqlite3_bind_text(access, 1, record.key.text,
                          static_cast<int>(strnlen(record.key.text, sizeof(record.key.text))),
                          SQLITE_STATIC);
        sqlite3_bind_text(access, 2, record.value.text,
                          static_cast<int>(strnlen(record.value.text, sizeof(record.value.text))),
                          SQLITE_STATIC);
        result = run(access);
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
