/* How the store's log file is written and kept short.
 *
 * Writes to it are gathered until it is flushed.
 * SQLite writes a log of small pieces: two for each page that a transaction has changed. One write of all
 * of them saves more than half of what a transaction costs beside its flush. Nobody reads the pieces before
 * the flush: they count from the commit on, which follows it. SQLite must not begin to write a transaction
 * that it may still roll back ("cache_spill" off): what is gathered would outlive the writer's lock. */
#include "host/configuration/store_log.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <mutex>

namespace tamo::configuration {
namespace {

/* SQLite's layer writes less than 128 KiB at a time. */
constexpr size_t kGathered = 120 << 10;

constexpr int kBusyPollMs = 1;

/* An open log file, in the room that SQLite gives; the file of the system's layer lies behind it. */
struct LogFile {
    sqlite3_file base;
    char *gathered; /* null without memory: each piece is written alone */
    size_t used;
    sqlite3_int64 begin; /* where the gathered bytes belong */
};

sqlite3_file *fileBehind(sqlite3_file *file) {
    return reinterpret_cast<sqlite3_file *>(reinterpret_cast<LogFile *>(file) + 1);
}

/* What cannot be written fails the transaction, whose pieces are written anew. */
int writeGathered(sqlite3_file *file) {
    auto *log = reinterpret_cast<LogFile *>(file);
    if (log->used == 0) {
        return SQLITE_OK;
    }
    const auto size = static_cast<int>(log->used);
    log->used = 0;
    sqlite3_file *behind = fileBehind(file);
    return behind->pMethods->xWrite(behind, log->gathered, size, log->begin);
}

int writePiece(sqlite3_file *file, const void *bytes, int size, sqlite3_int64 offset) {
    auto *log = reinterpret_cast<LogFile *>(file);
    const auto length = static_cast<size_t>(size);
    const bool follows = offset == log->begin + static_cast<sqlite3_int64>(log->used);
    if (!follows || length > kGathered - log->used) {
        const int result = writeGathered(file);
        if (result != SQLITE_OK) {
            return result;
        }
    }
    if (log->gathered == nullptr || length > kGathered) {
        sqlite3_file *behind = fileBehind(file);
        return behind->pMethods->xWrite(behind, bytes, size, offset);
    }
    if (log->used == 0) {
        log->begin = offset;
    }
    memcpy(log->gathered + log->used, bytes, length);
    log->used += length;
    return SQLITE_OK;
}

/* Calls a method of the file behind once nothing is gathered any more. */
template <auto Method, typename... Arguments>
int afterWriting(sqlite3_file *file, Arguments... arguments) {
    const int result = writeGathered(file);
    sqlite3_file *behind = fileBehind(file);
    return result == SQLITE_OK ? (behind->pMethods->*Method)(behind, arguments...) : result;
}

int closeLog(sqlite3_file *file) {
    auto *log = reinterpret_cast<LogFile *>(file);
    const int written = writeGathered(file);
    if (log->gathered != nullptr) {
        explicit_bzero(log->gathered, kGathered); /* values */
        free(log->gathered);
    }
    sqlite3_file *behind = fileBehind(file);
    const int closed = behind->pMethods->xClose(behind);
    return written == SQLITE_OK ? closed : written;
}

using Methods = sqlite3_io_methods;

/* Version 1: a log file has none of the methods that share an index. */
constexpr Methods methodsOfLog() {
    Methods methods = {};
    methods.iVersion = 1;
    methods.xClose = closeLog;
    methods.xRead = afterWriting<&Methods::xRead>;
    methods.xWrite = writePiece;
    methods.xTruncate = afterWriting<&Methods::xTruncate>;
    methods.xSync = afterWriting<&Methods::xSync>;
    methods.xFileSize = afterWriting<&Methods::xFileSize>;
    methods.xLock = afterWriting<&Methods::xLock>;
    methods.xUnlock = afterWriting<&Methods::xUnlock>;
    methods.xCheckReservedLock = afterWriting<&Methods::xCheckReservedLock>;
    methods.xFileControl = afterWriting<&Methods::xFileControl>;
    methods.xSectorSize = afterWriting<&Methods::xSectorSize>;
    methods.xDeviceCharacteristics = afterWriting<&Methods::xDeviceCharacteristics>;
    return methods;
}

constexpr Methods kLogMethods = methodsOfLog();
sqlite3_vfs *systemLayer; /* SQLite's own */

int openFile(sqlite3_vfs *, const char *name, sqlite3_file *file, int flags, int *opened) {
    if ((flags & SQLITE_OPEN_WAL) == 0) {
        return systemLayer->xOpen(systemLayer, name, file, flags, opened);
    }
    const int result = systemLayer->xOpen(systemLayer, name, fileBehind(file), flags, opened);
    if (result == SQLITE_OK) {
        auto *log = reinterpret_cast<LogFile *>(file);
        *log = {.base = {.pMethods = &kLogMethods},
                .gathered = static_cast<char *>(malloc(kGathered)),
                .used = 0,
                .begin = 0};
    } else {
        file->pMethods = nullptr;
    }
    return result;
}

/* The name of SQLite's system layer with a log file that is written in one piece; registered once. */
const char *gatheringLayer() {
    static sqlite3_vfs layer;
    static std::once_flag registered;
    std::call_once(registered, [] {
        systemLayer = sqlite3_vfs_find(nullptr);
        layer = *systemLayer;
        layer.zName = "tamo_configuration";
        layer.szOsFile += static_cast<int>(sizeof(LogFile));
        layer.xOpen = openFile;
        layer.pNext = nullptr;
        (void)sqlite3_vfs_register(&layer, 0);
    });
    return layer.zName;
}

/* By short naps: SQLite's own grow so long that one writer among busy ones meets no gap between them. */
int waitWhileBusy(void *, int waits) {
    struct timespec nap = {.tv_sec = 0, .tv_nsec = kBusyPollMs * 1000000L};
    return waits < kBusyMs / kBusyPollMs && (nanosleep(&nap, nullptr) == 0 || errno == EINTR) ? 1
                                                                                              : 0;
}

/* Pages in the log before they are carried over into the database. */
constexpr int kLogPages = 1000;
constexpr int kReaderNaps = 20;

/* A reader is through in well under a millisecond, unless somebody has stopped its process. */
int waitForReader(void *, int waits) {
    const struct timespec nap = {.tv_sec = 0, .tv_nsec = 100000};
    return waits < kReaderNaps && (nanosleep(&nap, nullptr) == 0 || errno == EINTR) ? 1 : 0;
}

/* Carries the log over into the database once it is long enough, and has it begin anew where that is soon
 * possible. SQLite by itself waits for no reader: where one reads each write, the log then grows on, and
 * each flush of a growing file costs more. */
int carryOver(void *, sqlite3 *database, const char *, int pages) {
    if (pages >= kLogPages) {
        const bool isDue = pages % kLogPages < kLogPages / 10;
        sqlite3_busy_handler(database, waitForReader, nullptr);
        (void)sqlite3_wal_checkpoint_v2(
            database, nullptr, isDue ? SQLITE_CHECKPOINT_RESTART : SQLITE_CHECKPOINT_PASSIVE,
            nullptr, nullptr);
        sqlite3_busy_handler(database, waitWhileBusy, nullptr);
    }
    return SQLITE_OK;
}

}  // namespace

int openDatabase(const char *name, int flags, sqlite3 **database) {
    int result = sqlite3_open_v2(name, database, flags | SQLITE_OPEN_NOMUTEX, gatheringLayer());
    if (result != SQLITE_OK) {
        return result;
    }
    sqlite3_extended_result_codes(*database, 1);
    sqlite3_busy_handler(*database, waitWhileBusy, nullptr);
    sqlite3_wal_hook(*database, carryOver, nullptr);
    return result;
}

}  // namespace tamo::configuration
