/* The configuration store's file: how it is opened, judged, begun and kept aside.
 *
 * - A fresh store is made under another name and renamed: a config.db that anybody sees is whole, so
 *   that an empty one is a truncated one.
 * - Openers take turns, and whoever moves a file aside has the turn. Those who have the file open
 *   meanwhile find out by storeFileMoved, which they ask after each transaction. So they do when
 *   somebody removes the log or its index alone: who opens the file then begins others, and neither
 *   would see the other's writes.
 * - The file is opened by SQLite alone: closing any other descriptor of it would drop the locks that
 *   this process's connections hold.
 * - The last process to leave the store empties the log, and the change log with it. A start on a disk
 *   without room then reads through an index of its own. */
#include "host/configuration/store_file.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <initializer_list>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/configuration/change_log.h"
#include "host/configuration/store_directory.h"
#include "host/configuration/store_log.h"
#include "tamo_host.h"

namespace tamo::configuration {
namespace {

constexpr const char *kUnit = "tamo_om_config_file";
/* SQLite's own limit, less the longest companion's name. */
constexpr size_t kLongestPath = 500;
/* Up to this size (256 KiB) every opening checks the structure of the whole file, which takes less
 * than a millisecond; damage to a larger one is found when it is met. */
constexpr int kCheckedPages = 64;

constexpr int kApplicationId = 0x54434F4E;
/* Raised with every change of the tables. */
constexpr int kVersion = 3;
constexpr int kCaseVersion = 2; /* keys in different letter case were different ones */
constexpr const char *kMark = "PRAGMA application_id = 0x54434F4E; PRAGMA user_version = 3;";
/* Found by the folded key, which compares as bytes; the key is as it was spelled first. */
constexpr const char *kSettings =
    "CREATE TABLE setting (folded TEXT PRIMARY KEY, value TEXT NOT NULL, key TEXT NOT NULL)"
    " WITHOUT ROWID;";
/* Where two spellings of a key meet, the first in order of bytes stays. */
constexpr const char *kTakeOver =
    "ALTER TABLE setting RENAME TO former; DROP TABLE IF EXISTS change;"
    "CREATE TABLE setting (folded TEXT PRIMARY KEY, value TEXT NOT NULL, key TEXT NOT NULL)"
    " WITHOUT ROWID;"
    "INSERT OR IGNORE INTO setting SELECT lower(key), value, key FROM former ORDER BY key;";
constexpr const char *kMeetings =
    "SELECT former.key, setting.key FROM former JOIN setting ON setting.folded = lower(former.key) "
    "WHERE former.key <> setting.key ORDER BY former.key";
/* Pages that are free beside those in use before a store is made anew in less room. */
constexpr int kManyFreePages = 64;

enum class Verdict { good, damaged, foreign, newer, failed };

bool isDiskFull(sqlite3 *database, int result) {
    int primary = result & 0xFF;
    int system = database == nullptr ? 0 : sqlite3_system_errno(database);
    return primary == SQLITE_FULL || result == SQLITE_IOERR_SHMSIZE ||
           ((primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN) &&
            (system == ENOSPC || system == EDQUOT));
}

/* False for a path that is too long for SQLite. */
bool nameStore(char (&path)[kLongestPath]) {
    return snprintf(path, sizeof(path), "%s/config/%s", deviceRoot(), kStoreFile) <
           int{sizeof(path)};
}

/* The path as SQLite takes it with a parameter; `size` has room for all of it being escaped. */
void nameWithOwnIndex(const char *path, char *uri, size_t size) {
    size_t length = static_cast<size_t>(snprintf(uri, size, "file:"));
    for (const char *at = path; *at != '\0'; at++) {
        unsigned char c = static_cast<unsigned char>(*at);
        bool plain = isalnum(c) != 0 || strchr("/.-_", c) != nullptr;
        length +=
            static_cast<size_t>(snprintf(uri + length, size - length, plain ? "%c" : "%%%02X", c));
    }
    (void)snprintf(uri + length, size - length, "?readonly_shm=1");
}

/* The log shrinks again to what it usually has between two checkpoints. Freed room is overwritten.
 * Nothing is written before the commit. */
constexpr const char *kConnectionSettings =
    "PRAGMA synchronous = FULL; PRAGMA secure_delete = ON; PRAGMA journal_size_limit = 4194304;"
    "PRAGMA cache_spill = OFF";

/* The first column of the first row, as a text; what SQLite answers otherwise is its result. */
int ask(sqlite3 *database, const char *question, char *answer, int size) {
    sqlite3_stmt *statement = nullptr;
    int result = sqlite3_prepare_v2(database, question, -1, &statement, nullptr);
    if (result == SQLITE_OK) {
        result = sqlite3_step(statement);
    }
    if (result == SQLITE_ROW) {
        const unsigned char *text = sqlite3_column_text(statement, 0);
        (void)snprintf(answer, static_cast<size_t>(size), "%s",
                       text == nullptr ? "" : reinterpret_cast<const char *>(text));
    }
    sqlite3_finalize(statement);
    return result == SQLITE_ROW ? SQLITE_OK : result;
}

int askNumber(sqlite3 *database, const char *question, int *number) {
    char answer[32] = "";
    int result = ask(database, question, answer, sizeof(answer));
    *number = atoi(answer);
    return result;
}

Verdict judge(int result) {
    return result == SQLITE_NOTADB ? Verdict::foreign
           : isDamage(result)      ? Verdict::damaged
                                   : Verdict::failed;
}

Verdict checkStructure(sqlite3 *database, const char *check, int *result) {
    char answer[64] = "";
    *result = ask(database, check, answer, sizeof(answer));
    if (*result != SQLITE_OK) {
        return judge(*result);
    }
    bool hasTable = sqlite3_table_column_metadata(database, "main", "setting", "value", nullptr,
                                                  nullptr, nullptr, nullptr, nullptr) == SQLITE_OK;
    return hasTable && strcmp(answer, "ok") == 0 ? Verdict::good : Verdict::damaged;
}

int runAll(sqlite3 *database, std::initializer_list<const char *> steps) {
    int result = SQLITE_OK;
    for (const char *step : steps) {
        if (result == SQLITE_OK) {
            result = sqlite3_exec(database, step, nullptr, nullptr, nullptr);
        }
    }
    if (result != SQLITE_OK && sqlite3_get_autocommit(database) == 0) {
        (void)sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    return result;
}

/* Records each key that another spelling of it has displaced. */
int recordMeetings(sqlite3 *database) {
    sqlite3_stmt *row = nullptr;
    int result = sqlite3_prepare_v2(database, kMeetings, -1, &row, nullptr);
    while (result == SQLITE_OK && (result = sqlite3_step(row)) == SQLITE_ROW) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "the configuration keys '%s' and '%s' are one key now: the value of '%s' stays, "
                   "store it anew if it is the wrong one",
                   sqlite3_column_text(row, 1), sqlite3_column_text(row, 0),
                   sqlite3_column_text(row, 1));
        result = SQLITE_OK;
    }
    sqlite3_finalize(row);
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

/* Takes over a store of the version before, once. */
int takeOver(sqlite3 *database) {
    int result = runAll(database, {"BEGIN IMMEDIATE", kTakeOver, kChangeLogSchema});
    if (result == SQLITE_OK) {
        result = recordMeetings(database);
    }
    if (result == SQLITE_OK) {
        return runAll(database, {"DROP TABLE former", kMark, "COMMIT"});
    }
    (void)runAll(database, {"ROLLBACK"});
    return result;
}

Verdict examine(sqlite3 *database, const OpenWish &wish, int *result) {
    int application = 0;
    int version = 0;
    int pages = 0;
    char mode[16] = "";
    if ((*result = askNumber(database, "PRAGMA application_id", &application)) != SQLITE_OK ||
        (*result = askNumber(database, "PRAGMA user_version", &version)) != SQLITE_OK ||
        (*result = askNumber(database, "PRAGMA page_count", &pages)) != SQLITE_OK) {
        return judge(*result);
    }
    if (application != kApplicationId || version < kCaseVersion) {
        return Verdict::foreign;
    }
    if (version > kVersion) {
        return Verdict::newer;
    }
    const char *check = wish.suspect             ? "PRAGMA integrity_check(1)"
                        : pages <= kCheckedPages ? "PRAGMA quick_check(1)"
                                                 : "SELECT 'ok' FROM sqlite_schema";
    Verdict verdict = checkStructure(database, check, result);
    if (verdict == Verdict::good &&
        (*result = ask(database, "PRAGMA journal_mode = WAL", mode, sizeof(mode))) != SQLITE_OK) {
        return judge(*result);
    }
    if (verdict == Verdict::good && version == kCaseVersion &&
        (*result = takeOver(database)) != SQLITE_OK) {
        return judge(*result);
    }
    return verdict;
}

uint32_t beginStore(int directory, const char *path) {
    char fresh[kLongestPath + 8];
    (void)snprintf(fresh, sizeof(fresh), "%s.new", path);
    removeUnfinishedStore(directory);
    StoreFile file;
    int result = openDatabase(fresh, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &file.database);
    if (result == SQLITE_OK) {
        result =
            runAll(file.database,
                   {"PRAGMA synchronous = FULL; PRAGMA cache_spill = OFF; BEGIN IMMEDIATE", kMark,
                    kSettings, kChangeLogSchema, "COMMIT", "PRAGMA journal_mode = WAL"});
    }
    if (result != SQLITE_OK) {
        uint32_t code =
            storeFailure(file.database, result, "beginning the configuration store", __LINE__);
        closeStoreFile(&file, true);
        removeUnfinishedStore(directory);
        return code;
    }
    closeStoreFile(&file, false);
    return nameFreshStore(directory);
}

uint32_t diskFull(const char *what, int line) {
    hostRecord(kError, kUnit, line, "%s failed, disk full: free space below %s", what,
               deviceRoot());
    return TAMO_HOST_SYSTEM;
}

/* Makes sure that a file is there that may be a store; SQLite takes an empty one for a new one. */
uint32_t prepareFile(int directory, const char *path, bool tight) {
    struct stat status;
    bool there = fstatat(directory, kStoreFile, &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!there && errno != ENOENT) {
        return directoryFailure("looking for the configuration store", __LINE__);
    }
    if (there && S_ISREG(status.st_mode) && status.st_size != 0) {
        return TAMO_HOST_OK;
    }
    if (tight) {
        return diskFull("beginning the configuration store", __LINE__);
    }
    uint32_t code = TAMO_HOST_OK;
    if (there) {
        code = moveStoreAside(directory, S_ISREG(status.st_mode) ? "empty" : "not a regular file");
    } else if (directoryHas(directory, kStoreLogFile)) {
        code = moveStoreAside(directory, "gone and has left its log");
    }
    return code == TAMO_HOST_OK ? beginStore(directory, path) : code;
}

Verdict openAndExamine(const char *name, const OpenWish &wish, StoreFile *file, int *result) {
    *result = openDatabase(name, SQLITE_OPEN_READWRITE | SQLITE_OPEN_URI, &file->database);
    if (*result == SQLITE_OK) {
        *result = runAll(file->database, {kConnectionSettings});
    }
    return *result == SQLITE_OK ? examine(file->database, wish, result) : judge(*result);
}

/* Carries the log of a store that no process has open over into the database, and removes it: the room
 * that the disk lacks may be the log's. Alone with the store, SQLite needs no shared index. */
bool emptyLeftLog(const char *path) {
    sqlite3 *database = nullptr;
    bool isEmptied = openDatabase(path, SQLITE_OPEN_READWRITE, &database) == SQLITE_OK;
    if (isEmptied) {
        sqlite3_busy_handler(database, nullptr, nullptr);
        isEmptied = runAll(database, {"PRAGMA locking_mode = EXCLUSIVE", kConnectionSettings,
                                      "PRAGMA wal_checkpoint(TRUNCATE)"}) == SQLITE_OK;
    }
    sqlite3_close(database);
    return isEmptied;
}

/* Making room for the shared index on a full disk may end a process rather than fail: SQLite writes
 * to the index as to memory. So a reader then builds an index of its own, and a writer is refused. */
uint32_t openPrepared(int directory, const char *path, const OpenWish &wish, bool tight,
                      StoreFile *file, Verdict *verdict) {
    int result = SQLITE_OK;
    if (!tight) {
        *verdict = openAndExamine(path, wish, file, &result);
        tight = *verdict == Verdict::failed && isDiskFull(file->database, result);
    }
    if (tight && wish.forWriting) {
        closeStoreFile(file, true);
        tight = !emptyLeftLog(path) || diskIsTight(directory);
        if (!tight) {
            *verdict = openAndExamine(path, wish, file, &result);
            tight = *verdict == Verdict::failed && isDiskFull(file->database, result);
        }
    }
    if (tight && wish.forWriting) {
        closeStoreFile(file, true);
        return diskFull("opening the configuration store for writing", __LINE__);
    }
    if (tight) {
        char uri[3 * kLongestPath + 32];
        closeStoreFile(file, true);
        keepIndex(directory);
        nameWithOwnIndex(path, uri, sizeof(uri));
        *verdict = openAndExamine(uri, wish, file, &result);
        file->ownIndex = true;
    }
    if (*verdict == Verdict::failed) {
        return storeFailure(file->database, result, "opening the configuration store", __LINE__);
    }
    if (*verdict == Verdict::newer) {
        hostRecord(kError, kUnit, __LINE__,
                   "the configuration store %s is of a newer version than this program knows: "
                   "install the newer libtamo_host or use another TAMO_DEVICE_ROOT",
                   path);
        return TAMO_HOST_REFUSED;
    }
    return TAMO_HOST_OK;
}

/* Opens the file in place, whatever it takes; what is no good store is moved aside but on a full
 * disk, where none could be begun. */
uint32_t openInTurn(int directory, const char *path, const OpenWish &wish, StoreFile *file) {
    bool tight = diskIsTight(directory);
    /* The second round meets a fresh store. */
    for (int round = 0; round < 2; round++) {
        Verdict verdict = Verdict::failed;
        uint32_t code = prepareFile(directory, path, tight);
        if (code == TAMO_HOST_OK) {
            code = openPrepared(directory, path, wish, tight, file, &verdict);
        }
        if (code == TAMO_HOST_OK && verdict == Verdict::good) {
            file->walFiles = findWalFiles();
            return code;
        }
        closeStoreFile(file, true);
        if (code == TAMO_HOST_OK) {
            code = tight ? diskFull("replacing the damaged configuration store", __LINE__)
                         : moveStoreAside(directory, verdict == Verdict::foreign ? "not one of ours"
                                                                                 : "damaged");
        }
        if (code != TAMO_HOST_OK) {
            return code;
        }
    }
    hostRecord(kError, kUnit, __LINE__, "a fresh configuration store in %s/config does not open",
               deviceRoot());
    return TAMO_HOST_SYSTEM;
}

}  // namespace

bool isDamage(int result) {
    return (result & 0xFF) == SQLITE_CORRUPT || (result & 0xFF) == SQLITE_NOTADB;
}

void closeStoreFile(StoreFile *file, bool keepLog) {
    if (file->database != nullptr) {
        sqlite3_db_config(file->database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, keepLog ? 1 : 0,
                          nullptr);
        sqlite3_close(file->database);
    }
    *file = {};
}

void forgetHistory() {
    char path[kLongestPath];
    const int directory = rootDirectory("config");
    if (directoryHas(directory, kStoreLogFile) || !directoryHas(directory, kStoreFile) ||
        !nameStore(path)) {
        return;
    }
    int freePages = 0;
    sqlite3 *database = nullptr;
    if (openDatabase(path, SQLITE_OPEN_READWRITE, &database) == SQLITE_OK &&
        runAll(database, {kConnectionSettings, "BEGIN IMMEDIATE", kForgetChanges, "COMMIT"}) ==
            SQLITE_OK &&
        askNumber(database, "PRAGMA freelist_count", &freePages) == SQLITE_OK &&
        freePages > kManyFreePages) {
        (void)runAll(database, {"VACUUM"});
    }
    sqlite3_close(database);
}

bool storeFileMoved(const StoreFile &file) {
    int moved = 0;
    (void)sqlite3_file_control(file.database, "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    return moved != 0 || (!file.ownIndex && file.walFiles != findWalFiles());
}

uint32_t storeFailure(sqlite3 *database, int result, const char *what, int line) {
    if (isDiskFull(database, result)) {
        return diskFull(what, line);
    }
    int primary = result & 0xFF;
    if (primary == SQLITE_BUSY) {
        hostRecord(kError, kUnit, line,
                   "%s failed: another process has held the store for %d s, end it if it hangs",
                   what, kBusyMs / 1000);
        return TAMO_HOST_TIMEOUT;
    }
    int system =
        primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN ? sqlite3_system_errno(database) : 0;
    hostRecord(kError, kUnit, line, "%s failed: %s (%d)%s%s, look at %s/config", what,
               sqlite3_errstr(result), result, system == 0 ? "" : ": ",
               system == 0 ? "" : strerror(system), deviceRoot());
    return primary == SQLITE_NOMEM ? TAMO_HOST_NO_MEMORY : TAMO_HOST_SYSTEM;
}

uint32_t openStoreFile(const OpenWish &wish, StoreFile *file) {
    int directory = rootDirectory("config");
    if (directory < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    char path[kLongestPath];
    if (!nameStore(path)) {
        hostRecord(kError, kUnit, __LINE__,
                   "the path of the configuration store in %s/config is too long for SQLite: set "
                   "TAMO_DEVICE_ROOT to a path of at most %zu characters",
                   deviceRoot(), kLongestPath - sizeof("/config/config.db"));
        return TAMO_HOST_NO_ROOT;
    }
    OpenLock turn(directory);
    if (!turn.taken()) {
        return directoryFailure("taking the turn", __LINE__);
    }
    return openInTurn(directory, path, wish, file);
}

}  // namespace tamo::configuration
