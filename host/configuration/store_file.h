/* The configuration store's file, config/config.db below the device root. */
#pragma once
#include <sqlite3.h>
#include <stdint.h>

#include "host/configuration/store_directory.h"
#include "host/configuration/store_log.h"

namespace tamo::configuration {

struct StoreFile {
    sqlite3 *database = nullptr;
    /* Read through an index of this connection's own: the disk had no room for the shared one. Each
     * transaction then reads the whole log, so the file is better opened anew for the next. */
    bool ownIndex = false;
    WalFiles walFiles;
};

struct OpenWish {
    bool forWriting;
    bool suspect; /* damage was met: check all of the file */
};

/* Opens the store, beginning a fresh one where there is none. A file that is not a store of ours, or
 * is a damaged one, is moved aside first. The result is a TAMO_HOST_ code, a failure is recorded. */
uint32_t openStoreFile(const OpenWish &wish, StoreFile *file);

/* Closes the database, whose statements must be finalized. Unless the log is to be kept, the last
 * connection of all processes carries it over into the database and removes it. */
void closeStoreFile(StoreFile *file, bool keepLog);

/* Removes what was changed from a store that no process has open: old values do not outlive those who
 * could still read them. Nothing happens while a process has it open; the caller holds the open lock. */
void forgetHistory();

/* Whether another file, or none, has taken the place of the open one, of its log or of its index. */
bool storeFileMoved(const StoreFile &file);

/* Records that `what` failed with a result of SQLite, and why; returns the TAMO_HOST_ code. */
uint32_t storeFailure(sqlite3 *database, int result, const char *what, int line);

bool isDamage(int result);

}  // namespace tamo::configuration
