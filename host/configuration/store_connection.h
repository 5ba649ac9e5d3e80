/* How it works: the configuration service of a workstation.
 *
 * One text per key in an SQLite database, config/config.db below the device root, which every process
 * opens for itself. A write is one transaction that also notes in the change log what it changed;
 * then it opens and closes the log file beside the database, and the kernel wakes whoever waits for
 * changes.
 * Nothing but the database is shared: no process depends on another that is stopped or killed.
 *
 * Files, in reading order:
 * - tamo_om_config_client.cpp  records, read and stored: the platform's operations
 * - store_connection           this: the process's two connections, and transactions on them
 * - change_log                 what a write changed: noted, trimmed, waited for and read
 * - change_reports.cpp         modules, their handlers, and the thread that reports to them
 * - host_operations.cpp        list, import, reset and watch, for tools
 * - store_file                 the database: opened, judged, begun, taken over from an older version
 * - store_log                  its log file: written in one piece, and carried over
 * - store_directory            its files' names, and how a damaged store is moved aside
 *
 * Threads and locks: a process has a connection for reading and one for writing, each with its lock,
 * opened when they are first needed: a reader does not wait for the flush of a writer. The reports'
 * lock is taken before a connection's. Between processes SQLite's own locks hold; the directory's lock
 * is held while a store is opened, moved aside or left by the last process; run/config.turn is the
 * lock of the writer whose turn is next.
 *
 * After each transaction a connection looks whether its file is still the one in place (it is not once
 * another process has moved a damaged one aside) and, if not, opens the new one and starts over: what
 * was acknowledged is in the file in place. A reader in a hot loop notices some milliseconds later. SQLite's account of locks must not cross a fork, so that
 * the connections are closed around it. */
#pragma once
#include <sqlite3.h>
#include <stddef.h>
#include <stdint.h>

#include <mutex>

#include "host/configuration/store_file.h"

namespace tamo::configuration {

constexpr uint32_t kNotesInRow = 64;

/* A key that the write under way has stored or removed. */
struct Note {
    char head[130]; /* the key, its end, and a mark */
    size_t headLength;
    const char *value; /* where the writer has it until the write ends */
    size_t valueLength;
};

/* What the write under way notes in the change log. */
struct Notes {
    bool any = false;
    uint32_t count = 0; /* of the keys for the next row */
    size_t bytes = 0;   /* in it */
    Note keys[kNotesInRow];
};

struct Connection {
    const bool forWriting;
    std::mutex lock = {};
    StoreFile file = {};
    uint32_t replacements = 0; /* how many times the store was found replaced */
    int64_t settledSince =
        -1;           /* the directory's last change that the files in it were checked after */
    int64_t tick = 0; /* of the clock, at the last look at the files */
    uint32_t looksInTick = 0;
    int64_t notedSinceTrim =
        4096; /* bytes in the change log; a process trims with its first write */
    Notes notes = {};
    sqlite3_stmt *begin = nullptr;
    sqlite3_stmt *commit = nullptr;
    sqlite3_stmt *rollback = nullptr;
    sqlite3_stmt *one = nullptr;
    /* Prepared when they are first needed. */
    sqlite3_stmt *group = nullptr;
    sqlite3_stmt *remove = nullptr;
    sqlite3_stmt *append = nullptr;
    sqlite3_stmt *trim = nullptr;
    sqlite3_stmt *fetch = nullptr;
    sqlite3_stmt *spelling = nullptr;
};

extern Connection storeReader;
extern Connection storeWriter;

/* Runs a transaction until it ran on the file in place, which may take several attempts.
 *
 *     Attempts attempts(&storeReader, "reading the configuration");
 *     while (attempts.next()) {
 *         attempts.result = ... a result of SQLite ...;
 *     }
 *     return attempts.code(); */
class Attempts {
  public:
    /* `what` stands in the record of a failure. */
    Attempts(Connection *of, const char *what);
    Attempts(const Attempts &) = delete;
    Attempts &operator=(const Attempts &) = delete;

    bool next();
    uint32_t code() const { return code_; }

    int result = 0;

  private:
    bool needsAnother();

    Connection *connection_;
    const char *what_;
    std::unique_lock<std::mutex> guard_;
    int count_ = 0;
    bool suspect_ = false;
    bool emptied_ = false;
    uint32_t code_ = 0;
};

/* Runs a statement that yields no row. */
int runStatement(sqlite3_stmt *statement);

/* Prepares a statement unless it is. */
int prepareOnce(Connection *connection, const char *text, sqlite3_stmt **statement);

/* Commits a transaction of which `result` came out, or rolls it back. */
int finishTransaction(Connection *connection, int result);

/* Begins a write, after those that waited before. */
int beginWrite(Connection *connection);

/* Ends a write of which `result` came out: commits it and what it has noted in the change log, and wakes
 * whoever waits for changes. */
int finishWrite(Connection *connection, int result);

/* A key as the store finds it: ASCII letters as lower-case ones, as the index of bound items has it. */
class FoldedKey {
  public:
    /* False for what is no key, which then equals none. */
    bool fold(const char *key, size_t keyLength);
    /* The bound text is this object's. */
    void bind(sqlite3_stmt *statement, int parameter) const;
    const char *text() const { return folded; }
    size_t size() const { return length; }

  private:
    char folded[128];
    size_t length = 0;
};

}  // namespace tamo::configuration
