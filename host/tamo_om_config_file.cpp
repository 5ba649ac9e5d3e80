/* The configuration store's file: how it is opened, judged, begun and kept aside.
 *
 * - A fresh store is made under another name and renamed: a config.db that anybody sees is whole, so
 *   that an empty one is a truncated one.
 * - Openers take turns by a lock file, and whoever moves a file aside holds it. Those who have the
 *   file open meanwhile find out by configFileMoved, which they ask after each transaction.
 * - The file is opened by SQLite alone: closing any other descriptor of it would drop the locks that
 *   this process's connections hold.
 * - Closing leaves the write-ahead log as it is. Otherwise the last one out would delete it, and a
 *   later start would need room on the disk to read. */
#include "tamo_om_config_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "device_root.h"
#include "host_record.h"
#include "tamo_host.h"
#include "tamo_om_config_directory.h"

namespace tamo {
namespace {

constexpr const char *kUnit = "tamo_om_config_file";
/* SQLite's own limit, less the longest companion's name. */
constexpr size_t kLongestPath = 500;
constexpr int kBusyMs = 10000;
/* Up to this size (256 KiB) every opening checks the structure of the whole file, which takes less
 * than a millisecond; damage to a larger one is found when it is met. */
constexpr int kCheckedPages = 64;

constexpr int kApplicationId = 0x54434F4E;
/* Raised with every change of the tables. */
constexpr int kVersion = 1;
constexpr const char *kSchema =
    "BEGIN IMMEDIATE;"
    "PRAGMA application_id = 0x54434F4E;"
    "PRAGMA user_version = 1;"
    "CREATE TABLE setting (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
    "COMMIT;"
    "PRAGMA journal_mode = WAL;";

enum class Verdict { good, damaged, foreign, newer, failed };

bool isDiskFull(sqlite3 *database, int result) {
    int primary = result & 0xFF;
    int system = database == nullptr ? 0 : sqlite3_system_errno(database);
    return primary == SQLITE_FULL || result == SQLITE_IOERR_SHMSIZE ||
           ((primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN) &&
            (system == ENOSPC || system == EDQUOT));
}

/* A name that SQLite takes as a URI, for the sake of its parameter. */
bool indexlessName(const char *path, char *uri, size_t size) {
    size_t length = static_cast<size_t>(snprintf(uri, size, "file:"));
    for (const char *at = path; *at != '\0'; at++) {
        if (length + 4 > size) {
            return false;
        }
        unsigned char c = static_cast<unsigned char>(*at);
        bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                     c == '/' || c == '.' || c == '-' || c == '_';
        length +=
            static_cast<size_t>(snprintf(uri + length, size - length, plain ? "%c" : "%%%02X", c));
    }
    const char *parameter = "?readonly_shm=1";
    return static_cast<size_t>(snprintf(uri + length, size - length, "%s", parameter)) <
           size - length;
}

int openDatabase(const char *name, int flags, sqlite3 **database) {
    int result = sqlite3_open_v2(name, database, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    if (result != SQLITE_OK) {
        return result;
    }
    sqlite3_extended_result_codes(*database, 1);
    sqlite3_busy_timeout(*database, kBusyMs);
    return sqlite3_exec(*database, "PRAGMA synchronous = FULL", nullptr, nullptr, nullptr);
}

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

Verdict examine(sqlite3 *database, bool suspect, int *result) {
    int application = 0;
    int version = 0;
    int pages = 0;
    char mode[16] = "";
    if ((*result = askNumber(database, "PRAGMA application_id", &application)) != SQLITE_OK ||
        (*result = askNumber(database, "PRAGMA user_version", &version)) != SQLITE_OK ||
        (*result = askNumber(database, "PRAGMA page_count", &pages)) != SQLITE_OK) {
        return judge(*result);
    }
    if (application != kApplicationId || version < 1) {
        return Verdict::foreign;
    }
    if (version > kVersion) {
        return Verdict::newer;
    }
    const char *check = suspect                  ? "PRAGMA integrity_check(1)"
                        : pages <= kCheckedPages ? "PRAGMA quick_check(1)"
                                                 : "SELECT 'ok' FROM sqlite_schema";
    Verdict verdict = checkStructure(database, check, result);
    if (verdict == Verdict::good &&
        (*result = ask(database, "PRAGMA journal_mode = WAL", mode, sizeof(mode))) != SQLITE_OK) {
        return judge(*result);
    }
    return verdict;
}

uint32_t beginStore(int directory, const char *path) {
    char fresh[kLongestPath + 8];
    (void)snprintf(fresh, sizeof(fresh), "%s.new", path);
    removeUnfinishedConfig(directory);
    ConfigFile file;
    int result = openDatabase(fresh, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &file.database);
    if (result == SQLITE_OK) {
        result = sqlite3_exec(file.database, kSchema, nullptr, nullptr, nullptr);
    }
    if (result != SQLITE_OK) {
        uint32_t code =
            configFileFailure(file.database, result, "beginning the configuration store", __LINE__);
        closeConfigFile(&file);
        removeUnfinishedConfig(directory);
        return code;
    }
    closeConfigFile(&file);
    return nameFreshConfig(directory);
}

/* Makes sure that a file is there that may be a store; SQLite takes an empty one for a new one. */
uint32_t prepareFile(int directory, const char *path) {
    struct stat status;
    int result = fstatat(directory, kConfigFile, &status, AT_SYMLINK_NOFOLLOW);
    if (result != 0 && errno != ENOENT) {
        return configDirectoryFailure("looking for the configuration store", __LINE__);
    }
    uint32_t code = TAMO_HOST_OK;
    if (result == 0 && (!S_ISREG(status.st_mode) || status.st_size == 0)) {
        code = moveConfigAside(directory, S_ISREG(status.st_mode) ? "empty" : "not a regular file");
        result = -1;
    } else if (result != 0 && configDirectoryHas(directory, "config.db-wal")) {
        code = moveConfigAside(directory, "gone and has left its log");
    }
    return code != TAMO_HOST_OK || result == 0 ? code : beginStore(directory, path);
}

Verdict openAndExamine(const char *name, bool suspect, ConfigFile *file, int *result) {
    *result = openDatabase(name, SQLITE_OPEN_READWRITE | SQLITE_OPEN_URI, &file->database);
    if (*result != SQLITE_OK) {
        return judge(*result);
    }
    sqlite3_db_config(file->database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    return examine(file->database, suspect, result);
}

uint32_t openPrepared(const char *path, bool forWriting, bool suspect, ConfigFile *file,
                      Verdict *verdict) {
    int result = SQLITE_OK;
    *verdict = openAndExamine(path, suspect, file, &result);
    if (*verdict == Verdict::failed && !forWriting && isDiskFull(file->database, result)) {
        char uri[3 * kLongestPath + 32];
        closeConfigFile(file);
        if (indexlessName(path, uri, sizeof(uri))) {
            *verdict = openAndExamine(uri, suspect, file, &result);
            file->ownIndex = true;
        }
    }
    uint32_t code = TAMO_HOST_OK;
    if (*verdict == Verdict::failed) {
        code =
            configFileFailure(file->database, result, "opening the configuration store", __LINE__);
    } else if (*verdict == Verdict::newer) {
        hostRecord(kError, kUnit, __LINE__,
                   "the configuration store %s is of a newer version than this program knows: "
                   "install the newer libtamo_host or use another TAMO_DEVICE_ROOT",
                   path);
        code = TAMO_HOST_REFUSED;
    }
    if (*verdict != Verdict::good) {
        closeConfigFile(file);
    }
    return code;
}

}  // namespace

bool isDamage(int result) {
    return (result & 0xFF) == SQLITE_CORRUPT || (result & 0xFF) == SQLITE_NOTADB;
}

void closeConfigFile(ConfigFile *file) {
    sqlite3_close(file->database);
    *file = {};
}

bool configFileMoved(const ConfigFile &file) {
    int moved = 0;
    return sqlite3_file_control(file.database, "main", SQLITE_FCNTL_HAS_MOVED, &moved) ==
               SQLITE_OK &&
           moved != 0;
}

uint32_t configFileFailure(sqlite3 *database, int result, const char *what, int line) {
    if (isDiskFull(database, result)) {
        hostRecord(kError, kUnit, line, "%s failed, disk full: free space below %s", what,
                   deviceRoot());
        return TAMO_HOST_SYSTEM;
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

uint32_t openConfigFile(bool forWriting, bool suspect, ConfigFile *file) {
    int directory = rootDirectory("config");
    if (directory < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    char path[kLongestPath];
    if (snprintf(path, sizeof(path), "%s/config/%s", deviceRoot(), kConfigFile) >=
        int{sizeof(path)}) {
        hostRecord(kError, kUnit, __LINE__,
                   "the path of the configuration store in %s/config is too long for SQLite: set "
                   "TAMO_DEVICE_ROOT to a path of at most %zu characters",
                   deviceRoot(), kLongestPath - sizeof("/config/config.db"));
        return TAMO_HOST_NO_ROOT;
    }
    OpenersTurn turn(directory);
    if (!turn.taken()) {
        return configDirectoryFailure("locking config.lock", __LINE__);
    }
    /* The second round meets a fresh store. */
    for (int round = 0; round < 2; round++) {
        Verdict verdict = Verdict::failed;
        uint32_t code = prepareFile(directory, path);
        if (code == TAMO_HOST_OK) {
            code = openPrepared(path, forWriting, suspect, file, &verdict);
        }
        if (code != TAMO_HOST_OK || verdict == Verdict::good) {
            return code;
        }
        code =
            moveConfigAside(directory, verdict == Verdict::foreign ? "not one of ours" : "damaged");
        if (code != TAMO_HOST_OK) {
            return code;
        }
    }
    hostRecord(kError, kUnit, __LINE__, "a fresh configuration store in %s/config does not open",
               deviceRoot());
    return TAMO_HOST_SYSTEM;
}

}  // namespace tamo
