/* The process's connections to the configuration store. */
#include "host/configuration/store_connection.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "host/base/clock.h"
#include "host/base/descriptor.h"
#include "host/base/device_root.h"
#include "host/base/fork.h"
#include "host/configuration/change_log.h"
#include "tamo_host.h"

namespace tamo::configuration {

Connection storeReader = {.forWriting = false};
Connection storeWriter = {.forWriting = true};

namespace {

/* One for a file that was replaced, one for a file found damaged, one for the fresh one. */
constexpr int kAttempts = 3;
/* Time stamps of the file system are this coarse at most. */
constexpr int64_t kStampNs = 50 * 1000000;
constexpr uint32_t kLooksInTick = 8;
constexpr int64_t kNapNs = 1000000;
constexpr int kExitNaps = 1000;

constexpr const char *kReadOne = "SELECT 0, value FROM setting WHERE folded = ?1";
/* A value that is stored already is not written, and costs no flush when it comes alone. The first
 * spelling of a key stays. */
constexpr const char *kWriteOne =
    "INSERT INTO setting (folded, value, key) VALUES (?1, ?2, ?3) "
    "ON CONFLICT (folded) DO UPDATE SET value = excluded.value WHERE value <> excluded.value";

/* Set when the program ends: the store is left for good. */
std::atomic<bool> isLeft = false;

Descriptor writersTurn; /* the writer's, under its lock */

void nap() {
    struct timespec time = {.tv_sec = 0, .tv_nsec = kNapNs};
    (void)nanosleep(&time, nullptr);
}

int64_t nanoseconds(const struct timespec &time) {
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

/* Whether another file, or none, is in place of one that the connection has open. All of them lie in
 * one directory, whose time of change tells with one look that nothing was renamed or removed. */
bool isMoved(Connection *connection) {
    if (connection->file.database == nullptr) {
        return false;
    }
    struct stat directory;
    const bool isKnown = fstat(rootDirectory("config"), &directory) == 0;
    const int64_t changed = isKnown ? nanoseconds(directory.st_mtim) : -1;
    if (isKnown && changed == connection->settledSince) {
        return false;
    }
    const auto now = static_cast<int64_t>(readClock(CLOCK_REALTIME_COARSE));
    const bool moved = storeFileMoved(connection->file);
    if (isKnown && !moved && now - changed > kStampNs) {
        connection->settledSince = changed;
    }
    return moved;
}

/* isMoved for a transaction that just ended. A look costs a third of a read: in a hot loop of reads only
 * the first ones of each tick of the clock, which lasts some milliseconds, look. */
bool wasMoved(Connection *connection) {
    if (!connection->forWriting) {
        const auto tick = static_cast<int64_t>(readClock(CLOCK_MONOTONIC_COARSE));
        connection->looksInTick = tick == connection->tick ? connection->looksInTick + 1 : 0;
        connection->tick = tick;
        if (connection->looksInTick > kLooksInTick) {
            return false;
        }
    }
    return isMoved(connection);
}

/* A kept log is there for a later connection; else the last one to leave the store empties it. */
void disconnect(Connection *connection, bool keepLog = true) {
    if (isMoved(connection)) {
        connection->replacements++;
    }
    for (sqlite3_stmt **statement :
         {&connection->begin, &connection->commit, &connection->rollback, &connection->one,
          &connection->group, &connection->remove, &connection->append, &connection->trim,
          &connection->fetch, &connection->spelling}) {
        sqlite3_finalize(*statement);
        *statement = nullptr;
    }
    closeStoreFile(&connection->file, keepLog);
    connection->settledSince = -1;
}

void beforeFork() {
    storeWriter.lock.lock();
    storeReader.lock.lock();
    disconnect(&storeWriter);
    disconnect(&storeReader);
    writersTurn = Descriptor();
}

void afterFork() {
    storeReader.lock.unlock();
    storeWriter.lock.unlock();
}

int prepareAll(Connection *connection) {
    const struct {
        const char *text;
        sqlite3_stmt **statement;
    } all[] = {{connection->forWriting ? "BEGIN IMMEDIATE" : "BEGIN", &connection->begin},
               {"COMMIT", &connection->commit},
               {"ROLLBACK", &connection->rollback},
               {connection->forWriting ? kWriteOne : kReadOne, &connection->one}};
    int result = SQLITE_OK;
    for (const auto &[text, statement] : all) {
        if (result == SQLITE_OK) {
            result = prepareOnce(connection, text, statement);
        }
    }
    return result;
}

uint32_t connect(Connection *connection, bool suspect) {
    static std::once_flag forkSafe;
    std::call_once(forkSafe, [] {
        guardForks(ForkStage::kConfigStore, {beforeFork, afterFork, afterFork});
    });
    if (isLeft) {
        return TAMO_HOST_SYSTEM;
    }
    uint32_t code = openStoreFile({connection->forWriting, suspect}, &connection->file);
    if (code != TAMO_HOST_OK) {
        return code;
    }
    int result = prepareAll(connection);
    if (result != SQLITE_OK) {
        code = storeFailure(connection->file.database, result, "preparing the configuration store",
                            __LINE__);
        disconnect(connection);
    }
    return code;
}

/* Leaves what is not in place any more, by both connections at once: SQLite keeps one index of a file
 * for all that a process has, so that a new connection would share a removed one. */
void leaveMoved(std::unique_lock<std::mutex> *guard) {
    guard->unlock();
    {
        std::scoped_lock both(storeWriter.lock, storeReader.lock);
        for (Connection *each : {&storeWriter, &storeReader}) {
            if (isMoved(each)) {
                disconnect(each);
            }
        }
    }
    guard->lock();
}

/* Where the disk has no room for a longer log, the room of its own entries serves again once they are
 * in the database. */
bool emptyLog(sqlite3 *database) {
    return sqlite3_wal_checkpoint_v2(database, nullptr, SQLITE_CHECKPOINT_RESTART, nullptr,
                                     nullptr) == SQLITE_OK;
}

/* Takes the lock of the writer whose turn is next, so that those who wait for the store get it one
 * after the other; whoever has just written waits behind them. Without the file nobody waits here. */
int takeTurn() {
    if (!writersTurn.isOpen()) {
        const int directory = rootDirectory("run");
        writersTurn = Descriptor(
            directory < 0 ? -1
                          : openat(directory, "config.turn",
                                   O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    }
    const uint64_t begin = monotonicMs();
    while (writersTurn.isOpen() && flock(writersTurn.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            break;
        }
        if (monotonicMs() - begin > kBusyMs) {
            return SQLITE_BUSY;
        }
        nap();
    }
    return SQLITE_OK;
}

bool lockSoon(std::mutex *mutex) {
    int naps = 0;
    while (!mutex->try_lock() && naps++ < kExitNaps) {
        nap();
    }
    return naps <= kExitNaps;
}

/* Leaves the store when the program ends; the last one to leave it takes the old values with it: those
 * in the log file and those in the change log. */
__attribute__((destructor)) void leaveStore() {
    isLeft = true;
    if (!lockSoon(&storeWriter.lock)) {
        return;
    }
    if (lockSoon(&storeReader.lock)) {
        if (storeWriter.file.database != nullptr || storeReader.file.database != nullptr) {
            OpenLock lock(rootDirectory("config"), kExitNaps);
            /* What is not in place any more must not take the log of what is. */
            const bool keepLog = !lock.taken() || isMoved(&storeWriter) || isMoved(&storeReader);
            disconnect(&storeReader, keepLog);
            disconnect(&storeWriter, keepLog);
            if (lock.taken()) {
                forgetHistory();
            }
        }
        storeReader.lock.unlock();
    }
    storeWriter.lock.unlock();
}

}  // namespace

Attempts::Attempts(Connection *of, const char *what)
    : connection_(of), what_(what), guard_(of->lock) {}

bool Attempts::next() {
    if (count_ > 0 && !needsAnother()) {
        guard_.unlock();
        return false;
    }
    /* Before a write too: who writes by a removed index spoils the log that others go on with. */
    if (connection_->forWriting && isMoved(connection_)) {
        leaveMoved(&guard_);
    }
    if (connection_->file.database == nullptr) {
        code_ = connect(connection_, suspect_);
    }
    count_++;
    result = SQLITE_OK;
    if (code_ != TAMO_HOST_OK) {
        guard_.unlock();
    }
    return code_ == TAMO_HOST_OK;
}

bool Attempts::needsAnother() {
    sqlite3 *database = connection_->file.database;
    const bool moved = wasMoved(connection_);
    suspect_ = isDamage(result);
    if (count_ < kAttempts) {
        if (moved) {
            leaveMoved(&guard_);
            return true;
        }
        if (suspect_) {
            disconnect(connection_);
            return true;
        }
        if (connection_->forWriting && (result & 0xFF) == SQLITE_FULL && !emptied_) {
            emptied_ = emptyLog(database);
            if (emptied_) {
                return true;
            }
        }
    }
    if (result != SQLITE_OK || moved) {
        result = result == SQLITE_OK ? SQLITE_READONLY_DBMOVED : result;
        code_ = storeFailure(database, result, what_, __LINE__);
    }
    if (suspect_ || connection_->file.ownIndex) {
        disconnect(connection_);
    }
    return false;
}

int runStatement(sqlite3_stmt *statement) {
    int result = sqlite3_step(statement);
    sqlite3_reset(statement);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

int prepareOnce(Connection *connection, const char *text, sqlite3_stmt **statement) {
    if (*statement != nullptr) {
        return SQLITE_OK;
    }
    return sqlite3_prepare_v3(connection->file.database, text, -1, SQLITE_PREPARE_PERSISTENT,
                              statement, nullptr);
}

int finishTransaction(Connection *connection, int result) {
    if (result == SQLITE_OK) {
        result = runStatement(connection->commit);
    }
    if (result != SQLITE_OK && sqlite3_get_autocommit(connection->file.database) == 0) {
        (void)runStatement(connection->rollback);
    }
    return result;
}

int beginWrite(Connection *connection) {
    int result = takeTurn();
    connection->notes = {};
    if (result == SQLITE_OK) {
        result = runStatement(connection->begin);
        if (writersTurn.isOpen()) {
            (void)flock(writersTurn.get(), LOCK_UN);
        }
    }
    return result;
}

/* The end of a look at the log file is what watchers wait for. Setting its times would tell them too, but
 * has the next flush write the file's inode, which costs as much as the write of a few records. */
static void wakeWatchers() {
    (void)Descriptor(openat(rootDirectory("config"), kStoreLogFile,
                            O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
}

int finishWrite(Connection *connection, int result) {
    if (result == SQLITE_OK && connection->notes.any) {
        result = endNotes(connection);
    }
    result = finishTransaction(connection, result);
    if (result == SQLITE_OK && connection->notes.any) {
        wakeWatchers();
    }
    return result;
}

bool FoldedKey::fold(const char *key, size_t keyLength) {
    length = keyLength < sizeof(folded) ? keyLength : 0;
    for (size_t at = 0; at < length; at++) {
        const char c = key[at];
        folded[at] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return length != 0;
}

void FoldedKey::bind(sqlite3_stmt *statement, int parameter) const {
    if (length == 0) {
        sqlite3_bind_null(statement, parameter);
    } else {
        sqlite3_bind_text(statement, parameter, folded, static_cast<int>(length), SQLITE_STATIC);
    }
}

}  // namespace tamo::configuration
