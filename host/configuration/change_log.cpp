/* The change log: how writes are noted, trimmed and read. */
#include "host/configuration/change_log.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "host/base/clock.h"

namespace tamo::configuration {

/* Numbers of two stores hardly meet: a reader notices that another store has come in place. A write
 * of many keys has several rows, of which all but the last say that more follows: rows of a bounded
 * size can be removed in bounded steps. */
const char *const kChangeLogSchema =
    "CREATE TABLE change (number INTEGER PRIMARY KEY, more INTEGER NOT NULL, time INTEGER NOT NULL,"
    " pid INTEGER NOT NULL, writer TEXT NOT NULL, records BLOB NOT NULL);"
    "INSERT INTO change VALUES ((random() & 0xFFFFFFFFFFFFF) + 1, 0, 0, 0, '', x'');";

const char *const kForgetChanges =
    "DELETE FROM change WHERE number < (SELECT max(number) FROM change);"
    "UPDATE change SET records = x'', writer = '' WHERE records <> x'' OR writer <> ''";

namespace {

/* What the log holds, and a row of it, at most. */
constexpr int64_t kLogSize = 4 << 20;
constexpr size_t kRowSize = 16 << 10;
/* A process trims again when it has noted as much. */
constexpr int64_t kTrimStep = 64 << 10;

constexpr const char *kAppend =
    "INSERT INTO change SELECT max(number) + ?1, ?2, ?3, ?4, ?5, ?6 FROM change";
constexpr const char *kTrim =
    "DELETE FROM change WHERE number < min((SELECT min(number) FROM change) + ?1,"
    " (SELECT max(number) FROM change) - ?2)";
constexpr const char *kFetch =
    "SELECT number, more, time, pid, writer, records FROM change WHERE number >= ?1 "
    "ORDER BY number";
constexpr const char *kSpelling = "SELECT key FROM setting WHERE folded = ?1";

/* Between a key and its value. */
constexpr char kStored = '=';
constexpr char kRemoved = '-';

int64_t microsecondsNow() {
    return static_cast<int64_t>(wallClockNs() / 1000);
}

/* Memory for values, which is wiped before it is released. */
template <typename Element>
Element *moveToLarger(Element *old, size_t used, size_t capacity) {
    auto *larger = static_cast<Element *>(calloc(capacity, sizeof(Element)));
    if (larger != nullptr && old != nullptr) {
        memcpy(larger, old, used * sizeof(Element));
        explicit_bzero(old, used * sizeof(Element));
        free(old);
    }
    return larger;
}

/* The end of a row of records that begins at `first`: as many whole records as it may hold. */
const char *endOfRow(const char *first, const char *end) {
    const char *at = first;
    while (at < end) {
        const char *value = at + strlen(at) + 1;
        const char *next = value + strlen(value) + 1;
        if (at != first && static_cast<size_t>(next - first) > kRowSize) {
            break;
        }
        at = next;
    }
    return at;
}

/* Removes what is older than the log keeps, twice as much as this process has added since. */
int trimLog(Connection *connection, size_t added) {
    connection->notedSinceTrim += static_cast<int64_t>(added);
    if (connection->notedSinceTrim < kTrimStep) {
        return SQLITE_OK;
    }
    int result = prepareOnce(connection, kTrim, &connection->trim);
    if (result == SQLITE_OK) {
        sqlite3_bind_int64(connection->trim, 1, 2 * connection->notedSinceTrim);
        sqlite3_bind_int64(connection->trim, 2, kLogSize);
        result = runStatement(connection->trim);
        connection->notedSinceTrim = 0;
    }
    return result;
}

/* The key as it was spelled first. */
int addSpelled(Connection *connection, const char *key, size_t keyLength, const char *value,
               size_t valueLength, bool removed, ChangeItems *items) {
    int result = prepareOnce(connection, kSpelling, &connection->spelling);
    FoldedKey folded;
    if (result != SQLITE_OK || !folded.fold(key, keyLength)) {
        return result;
    }
    sqlite3_stmt *row = connection->spelling;
    folded.bind(row, 1);
    result = sqlite3_step(row);
    const void *spelled = result == SQLITE_ROW ? sqlite3_column_blob(row, 0) : nullptr;
    const bool isKnown = spelled != nullptr;
    if (result == SQLITE_ROW || result == SQLITE_DONE) {
        result = items->add(isKnown ? static_cast<const char *>(spelled) : key,
                            isKnown ? static_cast<size_t>(sqlite3_column_bytes(row, 0)) : keyLength,
                            value, valueLength, removed);
    }
    sqlite3_reset(row);
    return result;
}

/* Adds the records of a row; bytes that are none, which a foreign hand has put there, end it. */
int takeRecords(Connection *connection, sqlite3_stmt *row, ChangeItems *items) {
    const char *at = static_cast<const char *>(sqlite3_column_blob(row, 5));
    size_t left = static_cast<size_t>(sqlite3_column_bytes(row, 5));
    int result = SQLITE_OK;
    while (left != 0 && result == SQLITE_OK) {
        const size_t key = strnlen(at, left);
        const size_t value = left - key < 2 ? left : strnlen(at + key + 1, left - key - 1);
        if (key + value + 2 > left || value == 0) {
            break;
        }
        result = addSpelled(connection, at, key, at + key + 2, value - 1, at[key + 1] == kRemoved,
                            items);
        at += key + value + 2;
        left -= key + value + 2;
    }
    return result;
}

/* Takes the rows of one write, of which the first is at hand. */
int takeChange(Connection *connection, sqlite3_stmt *row, Change *change) {
    const unsigned char *writer = sqlite3_column_text(row, 4);
    change->items.clear();
    change->time = sqlite3_column_int64(row, 2);
    change->pid = static_cast<uint32_t>(sqlite3_column_int64(row, 3));
    change->isAll = false;
    (void)snprintf(change->writer, sizeof(change->writer), "%s",
                   writer == nullptr ? "" : reinterpret_cast<const char *>(writer));
    int result = SQLITE_ROW;
    bool more = true;
    while (result == SQLITE_ROW && more) {
        change->number = static_cast<uint64_t>(sqlite3_column_int64(row, 0));
        more = sqlite3_column_int(row, 1) != 0;
        result = takeRecords(connection, row, &change->items);
        if (result == SQLITE_OK && more) {
            result = sqlite3_step(row);
        }
    }
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

/* Takes all keys with their values. */
int takeAll(sqlite3 *database, ChangeItems *items) {
    sqlite3_stmt *row = nullptr;
    int result = sqlite3_prepare_v2(database, "SELECT key, value FROM setting ORDER BY folded", -1,
                                    &row, nullptr);
    items->clear();
    while (result == SQLITE_OK && (result = sqlite3_step(row)) == SQLITE_ROW) {
        const char *texts[2];
        size_t lengths[2];
        for (int column = 0; column < 2; column++) {
            texts[column] = static_cast<const char *>(sqlite3_column_blob(row, column));
            texts[column] = texts[column] == nullptr ? "" : texts[column];
            lengths[column] =
                strnlen(texts[column], static_cast<size_t>(sqlite3_column_bytes(row, column)));
        }
        result = items->add(texts[0], lengths[0], texts[1], lengths[1], false);
    }
    sqlite3_finalize(row);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

/* All keys in place of what was missed. */
int fetchAll(Connection *connection, Change *change) {
    int result = runStatement(connection->begin);
    if (result == SQLITE_OK) {
        result = findLastChange(connection, &change->number);
    }
    if (result == SQLITE_OK) {
        result = takeAll(connection->file.database, &change->items);
    }
    change->time = microsecondsNow();
    change->pid = 0;
    change->writer[0] = '\0';
    change->isAll = true;
    return finishTransaction(connection, result);
}

}  // namespace

ChangedKeys::~ChangedKeys() {
    if (bytes != nullptr) {
        explicit_bzero(bytes, used);
        free(bytes);
    }
}

int ChangedKeys::add(const char *key, size_t keyLength, const char *value, size_t valueLength) {
    return append(key, keyLength, kStored, value, valueLength);
}

int ChangedKeys::addRemoved(const char *key, size_t keyLength) {
    return append(key, keyLength, kRemoved, "", 0);
}

int ChangedKeys::append(const char *key, size_t keyLength, char kind, const char *value,
                        size_t valueLength) {
    const size_t more = keyLength + valueLength + 3;
    if (capacity - used < more) {
        const size_t larger = std::max<size_t>(2 * capacity + more, 4096);
        char *moved = moveToLarger(bytes, used, larger);
        if (moved == nullptr) {
            return SQLITE_NOMEM;
        }
        bytes = moved;
        capacity = larger;
    }
    char *at = bytes + used;
    memcpy(at, key, keyLength);
    at[keyLength] = '\0';
    at[keyLength + 1] = kind;
    memcpy(at + keyLength + 2, value, valueLength);
    at[keyLength + 2 + valueLength] = '\0';
    used += more;
    return SQLITE_OK;
}

int ChangeItems::add(const char *key, size_t keyLength, const char *value, size_t valueLength,
                     bool removed) {
    if (keyLength == 0 || keyLength >= sizeof(ConfConfigOmKey::text) ||
        valueLength >= sizeof(ConfConfigOmVal::text)) {
        return SQLITE_OK;
    }
    if (count == capacity && !grow()) {
        return SQLITE_NOMEM;
    }
    ConfConfigChangeItem &item = items[count];
    item.value = &values[count];
    count++;
    memcpy(item.key.text, key, keyLength);
    item.key.text[keyLength] = '\0';
    item.key.length = static_cast<uint8_t>(keyLength);
    item.key.spare[0] = removed ? 1 : 0;
    memcpy(item.value->text, value, valueLength);
    item.value->text[valueLength] = '\0';
    item.value->length = static_cast<uint32_t>(valueLength);
    return SQLITE_OK;
}

bool ChangeItems::grow() {
    const uint32_t larger = 2 * capacity + 4;
    auto *moved = moveToLarger(items, count, larger);
    if (moved == nullptr) {
        return false;
    }
    items = moved;
    auto *movedValues = moveToLarger(values, count, larger);
    if (movedValues == nullptr) {
        return false;
    }
    values = movedValues;
    capacity = larger;
    for (uint32_t at = 0; at < count; at++) {
        items[at].value = &values[at];
    }
    return true;
}

void ChangeItems::release() {
    if (values != nullptr) {
        explicit_bzero(values, capacity * sizeof(*values));
    }
    free(values);
    free(items);
}

int noteChange(Connection *connection, const ChangedKeys &changed) {
    /* First, so that what is added takes the room of what goes. */
    int result = trimLog(connection, changed.size());
    if (result == SQLITE_OK) {
        result = prepareOnce(connection, kAppend, &connection->append);
    }
    const char *const end = changed.data() + changed.size();
    const int64_t time = microsecondsNow();
    for (const char *first = changed.data(); first < end && result == SQLITE_OK;) {
        const char *const next = endOfRow(first, end);
        sqlite3_stmt *append = connection->append;
        sqlite3_bind_int64(append, 1, next - first);
        sqlite3_bind_int(append, 2, next == end ? 0 : 1);
        sqlite3_bind_int64(append, 3, time);
        sqlite3_bind_int64(append, 4, getpid());
        sqlite3_bind_text(append, 5, program_invocation_short_name, -1, SQLITE_STATIC);
        sqlite3_bind_blob64(append, 6, first, static_cast<sqlite3_uint64>(next - first),
                            SQLITE_STATIC);
        result = runStatement(append);
        first = next;
    }
    return result;
}

int findLastChange(Connection *connection, uint64_t *number) {
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

int fetchChange(Connection *connection, uint64_t seen, Change *change) {
    int result = prepareOnce(connection, kFetch, &connection->fetch);
    if (result != SQLITE_OK) {
        return result;
    }
    sqlite3_stmt *row = connection->fetch;
    sqlite3_bind_int64(row, 1, static_cast<sqlite3_int64>(seen));
    result = sqlite3_step(row);
    const bool missed =
        result == SQLITE_DONE ||
        (result == SQLITE_ROW && static_cast<uint64_t>(sqlite3_column_int64(row, 0)) != seen);
    if (result == SQLITE_ROW && !missed && (result = sqlite3_step(row)) == SQLITE_ROW) {
        result = takeChange(connection, row, change);
    }
    sqlite3_reset(row);
    return missed ? fetchAll(connection, change) : result;
}

}  // namespace tamo::configuration
