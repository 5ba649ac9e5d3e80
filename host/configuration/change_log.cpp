/* See tamo_om_config_journal.h. */
#include "host/configuration/change_log.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "host/configuration/subscribers.h"

namespace tamo {

/* Numbers of two stores hardly meet: a watcher notices that another store has come in place. */
const char *const kConfigJournalSchema =
    "CREATE TABLE change (number INTEGER PRIMARY KEY, time INTEGER NOT NULL,"
    " origin INTEGER NOT NULL, pid INTEGER NOT NULL, writer TEXT NOT NULL,"
    " records BLOB NOT NULL);"
    "INSERT INTO change VALUES ((random() & 0xFFFFFFFFFFFFF) + 1, 0, 0, 0, '', x'');";

namespace {

constexpr const char *kAppend =
    "INSERT INTO change SELECT max(number) + ?1, ?2, ?3, ?4, ?5, ?6 FROM change";
/* Now and then, since it costs more than a write's share. What is kept for a watcher that does not
 * read has a bound (64 MiB); it is told all keys then. One who has read further than the last change
 * has read another store, and nothing of this one. */
constexpr const char *kTrim =
    "WITH span (first, last) AS (SELECT (SELECT min(number) FROM change),"
    " (SELECT max(number) FROM change)),"
    " kept (first) AS (SELECT max(iif(?1 > last, 0, ?1), last - 67108864) FROM span) "
    "DELETE FROM change WHERE number < (SELECT first FROM kept) AND "
    "(SELECT first FROM span) + 262144 < (SELECT first FROM kept)";
constexpr const char *kFetch =
    "SELECT number, time, origin, pid, writer, records FROM change WHERE number >= ?1 "
    "ORDER BY number LIMIT 2";

sqlite3_int64 asStored(uint64_t number) {
    return static_cast<sqlite3_int64>(number > INT64_MAX ? INT64_MAX : number);
}

int64_t microsecondsNow() {
    struct timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

int takeChange(sqlite3_stmt *row, ConfigChange *change) {
    const unsigned char *writer = sqlite3_column_text(row, 4);
    const void *records = sqlite3_column_blob(row, 5);
    change->number = static_cast<uint64_t>(sqlite3_column_int64(row, 0));
    change->time = sqlite3_column_int64(row, 1);
    change->origin = static_cast<uint64_t>(sqlite3_column_int64(row, 2));
    change->pid = static_cast<uint32_t>(sqlite3_column_int64(row, 3));
    change->isAll = false;
    (void)snprintf(change->writer, sizeof(change->writer), "%s",
                   writer == nullptr ? "" : reinterpret_cast<const char *>(writer));
    bool taken = change->records.assign(records, static_cast<size_t>(sqlite3_column_bytes(row, 5)));
    return taken ? SQLITE_OK : SQLITE_NOMEM;
}

/* Collects all keys with their values. */
int takeAll(sqlite3 *database, Texts *records) {
    sqlite3_stmt *rows = nullptr;
    int result = sqlite3_prepare_v2(database, "SELECT key, value FROM setting ORDER BY key", -1,
                                    &rows, nullptr);
    records->clear();
    while (result == SQLITE_OK && (result = sqlite3_step(rows)) == SQLITE_ROW) {
        result = SQLITE_OK;
        for (int column = 0; column < 2; column++) {
            const void *text = sqlite3_column_blob(rows, column);
            size_t length = static_cast<size_t>(sqlite3_column_bytes(rows, column));
            length = length == 0 ? 0 : strnlen(static_cast<const char *>(text), length);
            if (!records->append(text == nullptr ? "" : text, length)) {
                result = SQLITE_NOMEM;
            }
        }
    }
    sqlite3_finalize(rows);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

/* All keys in place of what was missed. */
int fetchAll(Connection *connection, ConfigChange *change) {
    int result = runStatement(connection->begin);
    if (result == SQLITE_OK) {
        result = lastConfigChange(connection, &change->number);
    }
    if (result == SQLITE_OK) {
        result = takeAll(connection->file.database, &change->records);
    }
    change->time = microsecondsNow();
    change->origin = kNoOrigin;
    change->pid = 0;
    change->writer[0] = '\0';
    change->isAll = true;
    result = finishTransaction(connection, result);
    return result == SQLITE_OK && change->number == 0 ? SQLITE_DONE : result;
}

/* Notes what was changed, and trims what `slowest` has read. */
int appendConfigChange(Connection *connection, const Texts &records, uint64_t slowest) {
    int result = prepareOnce(connection, kAppend, &connection->append);
    if (result == SQLITE_OK) {
        result = prepareOnce(connection, kTrim, &connection->trim);
    }
    if (result != SQLITE_OK) {
        return result;
    }
    sqlite3_stmt *append = connection->append;
    sqlite3_bind_int64(append, 1, static_cast<sqlite3_int64>(records.size()));
    sqlite3_bind_int64(append, 2, microsecondsNow());
    sqlite3_bind_int64(append, 3, asStored(configOrigin()));
    sqlite3_bind_int64(append, 4, getpid());
    sqlite3_bind_text(append, 5, program_invocation_short_name, -1, SQLITE_STATIC);
    sqlite3_bind_blob64(append, 6, records.data(), records.size(), SQLITE_STATIC);
    result = runStatement(append);
    if (result == SQLITE_OK) {
        sqlite3_bind_int64(connection->trim, 1, asStored(slowest));
        result = runStatement(connection->trim);
    }
    return result;
}

}  // namespace

int finishConfigWrite(Connection *connection, int result, const Texts &changed, uint64_t slowest) {
    if (changed.size() != 0 && result == SQLITE_OK) {
        result = appendConfigChange(connection, changed, slowest);
    }
    result = finishTransaction(connection, result);
    if (changed.size() != 0 && result == SQLITE_OK) {
        wakeConfigWatchers();
    }
    return result;
}

int lastConfigChange(Connection *connection, uint64_t *number) {
    sqlite3_stmt *row = nullptr;
    *number = 0;
    int result = sqlite3_prepare_v2(connection->file.database, "SELECT max(number) FROM change", -1,
                                    &row, nullptr);
    if (result == SQLITE_OK && (result = sqlite3_step(row)) == SQLITE_ROW) {
        *number = static_cast<uint64_t>(sqlite3_column_int64(row, 0));
        result = SQLITE_OK;
    }
    sqlite3_finalize(row);
    return result;
}

int fetchConfigChange(Connection *connection, uint64_t seen, ConfigChange *change) {
    int result = prepareOnce(connection, kFetch, &connection->fetch);
    if (result != SQLITE_OK) {
        return result;
    }
    sqlite3_stmt *row = connection->fetch;
    sqlite3_bind_int64(row, 1, asStored(seen));
    result = sqlite3_step(row);
    bool missed =
        result == SQLITE_DONE ||
        (result == SQLITE_ROW && static_cast<uint64_t>(sqlite3_column_int64(row, 0)) != seen);
    if (result == SQLITE_ROW && !missed && (result = sqlite3_step(row)) == SQLITE_ROW) {
        result = takeChange(row, change);
    }
    sqlite3_reset(row);
    return missed ? fetchAll(connection, change) : result;
}

}  // namespace tamo
