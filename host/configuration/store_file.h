/* The configuration store's file, config/config.db below the device root. */
#pragma once
#include <sqlite3.h>
#include <stdint.h>

#include "host/configuration/store_directory.h"

namespace tamo {

struct ConfigFile {
    sqlite3 *database = nullptr;
    /* Read through an index of this connection's own: the disk had no room for the shared one. Each
     * transaction then reads the whole log, so the file is better opened anew for the next. */
    bool ownIndex = false;
    ConfigCompanions companions;
};

struct OpenWish {
    bool forWriting;
    bool suspect; /* damage was met: check all of the file */
};

/* Opens the store, beginning a fresh one where there is none. A file that is not a store of ours, or
 * is a damaged one, is moved aside first. The result is a TAMO_HOST_ code, a failure is recorded. */
uint32_t openConfigFile(const OpenWish &wish, ConfigFile *file);

/* Closes the database, whose statements must be finalized. */
void closeConfigFile(ConfigFile *file);

/* Whether another file, or none, has taken the place of the open one, of its log or of its index. */
bool configFileMoved(const ConfigFile &file);

/* Records that `what` failed with a result of SQLite, and why; returns the TAMO_HOST_ code. */
uint32_t configFileFailure(sqlite3 *database, int result, const char *what, int line);

bool isDamage(int result);

}  // namespace tamo
