/* The change log: how writes are noted and trimmed, waited for and read.
 *
 * A writer opens and closes the store's log file when its write can be read, which the kernel tells to all
 * who watch the directory. One who was killed before, a kernel that has no more watches to give, a store
 * that another one replaces: for these there is a look at the change log ten times a second, which takes
 * some microseconds. */
#include "host/configuration/change_log.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "host/base/clock.h"
#include "host/base/device_root.h"
#include "tamo_host.h"

namespace tamo::configuration {

/* Numbers of two stores hardly meet: a reader notices that another store has come in place. A write of
 * many keys has several rows, of which all but the last say that more follows: rows of a bounded size
 * can be removed in bounded steps. */
const char *const kChangeLogSchema =
    "CREATE TABLE change (number INTEGER PRIMARY KEY, more INTEGER NOT NULL, time INTEGER NOT NULL,"
    " pid INTEGER NOT NULL, writer TEXT NOT NULL, records BLOB NOT NULL);"
    "INSERT INTO change VALUES ((random() & 0xFFFFFFFFFFFFF) + 1, 0, 0, 0, '', x'');";

const char *const kForgetChanges =
    "DELETE FROM change WHERE number < (SELECT max(number) FROM change);"
    "UPDATE change SET records = x'', writer = '' WHERE records <> x'' OR writer <> ''";

namespace {

/* What the log holds at most. */
constexpr int64_t kLogSize = 4 << 20;
/* A process trims again when it has noted as much. */
constexpr int64_t kTrimStep = 64 << 10;

/* Several keys go into a row, whose room is made first. */
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

constexpr uint32_t kTold = IN_CLOSE_NOWRITE;
/* Another store comes in place. */
constexpr uint32_t kReplaced = IN_CREATE | IN_MOVED_TO;

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

/* Removes what is older than the log keeps, twice as much as this process has added since. */
int trimLog(Connection *connection) {
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

/* Writes what is noted into its row, from where the writer has it: only SQLite copies it. */
int fillRow(Connection *connection) {
    Notes *notes = &connection->notes;
    sqlite3 *database = connection->file.database;
    sqlite3_blob *records = nullptr;
    int result = sqlite3_blob_open(database, "main", "change", "records",
                                   sqlite3_last_insert_rowid(database), 1, &records);
    int offset = 0;
    const auto write = [&](const void *bytes, size_t size) {
        if (result == SQLITE_OK && size != 0) {
            result = sqlite3_blob_write(records, bytes, static_cast<int>(size), offset);
            offset += static_cast<int>(size);
        }
    };
    for (uint32_t at = 0; at < notes->count; at++) {
        const Note &note = notes->keys[at];
        write(note.head, note.headLength);
        write(note.value, note.valueLength);
        write("", 1);
    }
    const int closed = sqlite3_blob_close(records);
    return result == SQLITE_OK ? closed : result;
}

/* Appends the row of the keys that are noted. */
int appendRow(Connection *connection, bool more) {
    Notes *notes = &connection->notes;
    sqlite3_stmt *append = connection->append;
    sqlite3_bind_int64(append, 1, static_cast<sqlite3_int64>(notes->bytes));
    sqlite3_bind_int(append, 2, more ? 1 : 0);
    sqlite3_bind_int64(append, 3, microsecondsNow());
    sqlite3_bind_int64(append, 4, getpid());
    sqlite3_bind_text(append, 5, program_invocation_short_name, -1, SQLITE_STATIC);
    sqlite3_bind_zeroblob(append, 6, static_cast<int>(notes->bytes));
    int result = runStatement(append);
    if (result == SQLITE_OK) {
        result = fillRow(connection);
    }
    connection->notedSinceTrim += static_cast<int64_t>(notes->bytes);
    notes->count = 0;
    notes->bytes = 0;
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

void takeWriter(sqlite3_stmt *row, Change *change) {
    const unsigned char *writer = sqlite3_column_text(row, 4);
    change->time = sqlite3_column_int64(row, 2);
    change->pid = static_cast<uint32_t>(sqlite3_column_int64(row, 3));
    (void)snprintf(change->writer, sizeof(change->writer), "%s",
                   writer == nullptr ? "" : reinterpret_cast<const char *>(writer));
}

/* Takes the rows of one write, of which the first is at hand. */
int takeChange(Connection *connection, sqlite3_stmt *row, Change *change) {
    change->items.clear();
    change->isAll = false;
    int result = SQLITE_ROW;
    bool more = true;
    while (result == SQLITE_ROW && more) {
        change->number = static_cast<uint64_t>(sqlite3_column_int64(row, 0));
        more = sqlite3_column_int(row, 1) != 0;
        takeWriter(row, change);
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

/* The number of the last change. */
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

/* Fetches the change after number `seen`, or all keys where that is not in the log any more; SQLITE_DONE
 * when there is none. */
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

Descriptor watchDirectory() {
    Descriptor events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const int directory = rootDirectory("config");
    char path[32];
    (void)snprintf(path, sizeof(path), "/proc/self/fd/%d", directory);
    if (events.isOpen() && inotify_add_watch(events.get(), path, kTold | kReplaced) < 0) {
        events = Descriptor();
    }
    return events;
}

}  // namespace

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

int noteKey(Connection *connection, const char *key, size_t keyLength, const char *value,
            size_t valueLength) {
    Notes *notes = &connection->notes;
    int result = notes->count < kNotesInRow ? SQLITE_OK : appendRow(connection, true);
    if (result == SQLITE_OK && !notes->any) {
        /* First, so that what is added takes the room of what goes. */
        result = trimLog(connection);
    }
    if (result == SQLITE_OK) {
        result = prepareOnce(connection, kAppend, &connection->append);
    }
    Note &note = notes->keys[notes->count % kNotesInRow];
    note.headLength = keyLength + 2;
    if (result != SQLITE_OK || note.headLength > sizeof(note.head)) {
        return result != SQLITE_OK ? result : SQLITE_TOOBIG;
    }
    memcpy(note.head, key, keyLength);
    note.head[keyLength] = '\0';
    note.head[keyLength + 1] = value == nullptr ? kRemoved : kStored;
    note.value = value;
    note.valueLength = valueLength;
    notes->bytes += note.headLength + valueLength + 1;
    notes->count++;
    notes->any = true;
    return SQLITE_OK;
}

int endNotes(Connection *connection) {
    return appendRow(connection, false);
}

uint32_t beginWatch(Watch *watch) {
    watch->events = watchDirectory();
    Attempts attempts(&storeReader, "beginning to watch the configuration");
    while (attempts.next()) {
        attempts.result = findLastChange(&storeReader, &watch->seen);
        watch->replacements = storeReader.replacements;
    }
    return attempts.code();
}

uint32_t nextChange(Watch *watch, Change *change) {
    bool found = false;
    uint32_t replacements = watch->replacements;
    Attempts attempts(&storeReader, "reading changes of the configuration");
    while (attempts.next()) {
        replacements = storeReader.replacements;
        const bool isReplaced = watch->replacements != replacements;
        attempts.result = fetchChange(&storeReader, isReplaced ? 0 : watch->seen, change);
        found = attempts.result == SQLITE_OK;
        attempts.result = attempts.result == SQLITE_DONE ? SQLITE_OK : attempts.result;
    }
    if (attempts.code() != TAMO_HOST_OK || !found) {
        return attempts.code() == TAMO_HOST_OK ? uint32_t{TAMO_HOST_NOT_FOUND} : attempts.code();
    }
    watch->seen = change->number;
    watch->replacements = replacements;
    return TAMO_HOST_OK;
}

void awaitChange(const Watch &watch, int timeoutMs) {
    struct pollfd polled = {watch.events.get(), POLLIN, 0};
    if (poll(&polled, 1, timeoutMs) == 1) {
        alignas(struct inotify_event) char events[4096];
        while (read(watch.events.get(), events, sizeof(events)) > 0) {
        }
    }
}

uint32_t findLastChangeNow(uint64_t *number) {
    Attempts attempts(&storeReader, "reading changes of the configuration");
    while (attempts.next()) {
        attempts.result = findLastChange(&storeReader, number);
    }
    return attempts.code();
}

}  // namespace tamo::configuration
