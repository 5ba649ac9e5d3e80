/* The examination of the configuration store for those who only look: it makes, moves and mends
 * nothing. Openers of the store judge it by the same signs, and set a bad one aside. */
#include <sqlite3.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "host/base/device_root.h"
#include "tamo_host.h"

namespace {

constexpr int kBusyMs = 10000;
constexpr int kApplicationId = 0x54434F4E;
constexpr const char *kOldestVersion = "2"; /* as a text: versions have one digit */

using Database = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

/* The first column of the first row as a text; empty, with the error kept by the database, when there
 * is none. */
std::string ask(sqlite3 *database, const char *question) {
    sqlite3_stmt *statement = nullptr;
    std::string answer;
    if (sqlite3_prepare_v2(database, question, -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_text(statement, 0) != nullptr) {
        answer = reinterpret_cast<const char *>(sqlite3_column_text(statement, 0));
    }
    sqlite3_finalize(statement);
    return answer;
}

/* Why the file is not a whole store; empty when it is. */
std::string findFault(const char *path) {
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(path, &opened, SQLITE_OPEN_READONLY, nullptr);
    const Database database(opened, sqlite3_close);
    if (result != SQLITE_OK) {
        return sqlite3_errstr(result);
    }
    sqlite3_busy_timeout(opened, kBusyMs);
    sqlite3_db_config(opened, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    const std::string application = ask(opened, "PRAGMA application_id");
    if (application.empty()) {
        return sqlite3_errmsg(opened);
    }
    if (application != std::to_string(kApplicationId)) {
        return "the file is not a configuration store";
    }
    if (ask(opened, "PRAGMA user_version") < kOldestVersion) {
        return "the store is of a version that was never released";
    }
    const std::string verdict = ask(opened, "PRAGMA quick_check(1)");
    if (verdict != "ok") {
        return verdict.empty() ? sqlite3_errmsg(opened) : verdict;
    }
    return ask(opened, "SELECT count(key || value) >= 0 FROM setting") == "1"
               ? ""
               : sqlite3_errmsg(opened);
}

uint32_t finish(uint32_t code, char *fault, uint32_t size, const std::string &text) {
    if (fault != nullptr && size != 0) {
        (void)snprintf(fault, size, "%s", text.c_str());
    }
    return code;
}

}  // namespace

uint32_t TamoHostConfigCheck(char *fault, uint32_t size) {
    const char *root = tamo::deviceRoot();
    if (root == nullptr) {
        return finish(TAMO_HOST_NO_ROOT, fault, size, "the device root cannot be used");
    }
    const std::string path = std::string(root) + "/config/config.db";
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        const bool leftLog = lstat((path + "-wal").c_str(), &status) == 0;
        return leftLog ? finish(TAMO_HOST_REFUSED, fault, size,
                                path + ": the file is missing, and its log is there")
                       : finish(TAMO_HOST_NOT_FOUND, fault, size, "");
    }
    const std::string why = !S_ISREG(status.st_mode) ? "it is not a regular file"
                            : status.st_size == 0    ? "the file is empty"
                                                     : findFault(path.c_str());
    return why.empty() ? finish(TAMO_HOST_OK, fault, size, "")
                       : finish(TAMO_HOST_REFUSED, fault, size, path + ": " + why);
}
