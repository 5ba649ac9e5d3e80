/* The examination of the configuration store for those who only look: it makes, moves and mends
 * nothing. Openers of the store judge it by the same signs, and set a bad one aside. */
#include <limits.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>

#include "host/base/device_root.h"
#include "tamo_host.h"

namespace {

constexpr int kBusyMs = 10000;
constexpr int kApplicationId = 0x54434F4E;
constexpr const char *kOldestVersion = "2"; /* as a text: versions have one digit */

using Database = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

constexpr size_t kTextSize = 256;

/* A text of limited length, which takes no memory that could be lacking. */
struct Text {
    char bytes[kTextSize];

    explicit Text(const void *text) {
        (void)snprintf(bytes, sizeof(bytes), "%s",
                       text == nullptr ? "" : static_cast<const char *>(text));
    }
    bool is(const char *other) const { return strcmp(bytes, other) == 0; }
};

/* The first column of the first row as a text; empty, with the error kept by the database, when there
 * is none. */
Text ask(sqlite3 *database, const char *question) {
    sqlite3_stmt *statement = nullptr;
    const bool isThere =
        sqlite3_prepare_v2(database, question, -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW;
    const Text answer(isThere ? sqlite3_column_text(statement, 0) : nullptr);
    sqlite3_finalize(statement);
    return answer;
}

/* Why the file is not a whole store; empty when it is. */
Text findFault(const char *path) {
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(path, &opened, SQLITE_OPEN_READONLY, nullptr);
    const Database database(opened, sqlite3_close);
    if (result != SQLITE_OK) {
        return Text(sqlite3_errstr(result));
    }
    sqlite3_busy_timeout(opened, kBusyMs);
    sqlite3_db_config(opened, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    const Text application = ask(opened, "PRAGMA application_id");
    if (application.is("")) {
        return Text(sqlite3_errmsg(opened));
    }
    if (strtol(application.bytes, nullptr, 10) != kApplicationId) {
        return Text("the file is not a configuration store");
    }
    if (strcmp(ask(opened, "PRAGMA user_version").bytes, kOldestVersion) < 0) {
        return Text("the store is of a version that was never released");
    }
    const Text verdict = ask(opened, "PRAGMA quick_check(1)");
    if (!verdict.is("ok")) {
        return verdict.is("") ? Text(sqlite3_errmsg(opened)) : verdict;
    }
    return Text(ask(opened, "SELECT count(key || value) >= 0 FROM setting").is("1")
                    ? ""
                    : sqlite3_errmsg(opened));
}

/* Tells the store's path and what is wrong with it, when something is. */
uint32_t finish(uint32_t code, char *fault, uint32_t size, const char *path, const char *why) {
    if (fault != nullptr && size != 0) {
        const char *separator = path[0] != '\0' && why[0] != '\0' ? ": " : "";
        (void)snprintf(fault, size, "%s%s%s", path, separator, why);
    }
    return code;
}

}  // namespace

uint32_t TamoHostConfigCheck(char *fault, uint32_t size) {
    const char *root = tamo::deviceRoot();
    if (root == nullptr) {
        return finish(TAMO_HOST_NO_ROOT, fault, size, "", "the device root cannot be used");
    }
    char path[PATH_MAX];
    const int length = snprintf(path, sizeof(path), "%s/config/config.db-wal", root);
    if (length >= static_cast<int>(sizeof(path))) {
        return finish(TAMO_HOST_NO_ROOT, fault, size, root, "the path of its store is too long");
    }
    struct stat status = {};
    const bool hasLog = lstat(path, &status) == 0;
    path[length - static_cast<int>(strlen("-wal"))] = '\0';
    if (lstat(path, &status) != 0) {
        return hasLog ? finish(TAMO_HOST_REFUSED, fault, size, path,
                               "the file is missing, and its log is there")
                      : finish(TAMO_HOST_NOT_FOUND, fault, size, "", "");
    }
    const Text why = !S_ISREG(status.st_mode) ? Text("it is not a regular file")
                     : status.st_size == 0    ? Text("the file is empty")
                                              : findFault(path);
    return why.is("") ? finish(TAMO_HOST_OK, fault, size, "", "")
                      : finish(TAMO_HOST_REFUSED, fault, size, path, why.bytes);
}
