/* See tamo_om_config_connection.h.
 *
 * A process has a connection for reading and one for writing, opened when they are first needed: a
 * reader does not wait for the flush of a writer, not even of the same process. After each
 * transaction a connection looks whether its file is still the one in place (it is not once another
 * process has moved a damaged one aside) and, if not, opens the new one and starts over: what was
 * acknowledged is in the file in place. Who followed the journal of the file before must begin anew:
 * the new one may give the same numbers to other changes.
 *
 * SQLite's account of locks must not cross a fork, so that the connections are closed around it. */
#include "host/configuration/store_connection.h"

#include <pthread.h>

#include "tamo_host.h"

namespace tamo {

/* Not closed at exit, where other threads may still use them. */
Connection configReader = {.forWriting = false};
Connection configWriter = {.forWriting = true};

namespace {

/* One for a file that was replaced, one for a file found damaged, one for the fresh one. */
constexpr int kAttempts = 3;

constexpr const char *kReadOne = "SELECT 0, value FROM setting WHERE key = ?1";
constexpr const char *kReadGroup =
    "SELECT 0, value FROM setting WHERE key = ?1 UNION ALL "
    "SELECT 1, value FROM setting WHERE key = ?2 UNION ALL "
    "SELECT 2, value FROM setting WHERE key = ?3 UNION ALL "
    "SELECT 3, value FROM setting WHERE key = ?4 UNION ALL "
    "SELECT 4, value FROM setting WHERE key = ?5 UNION ALL "
    "SELECT 5, value FROM setting WHERE key = ?6 UNION ALL "
    "SELECT 6, value FROM setting WHERE key = ?7 UNION ALL "
    "SELECT 7, value FROM setting WHERE key = ?8";
/* A value that is stored already is not written, and costs no flush when it comes alone. */
constexpr const char *kWriteOne =
    "INSERT INTO setting (key, value) VALUES (?1, ?2) "
    "ON CONFLICT (key) DO UPDATE SET value = excluded.value WHERE value <> excluded.value";

bool isMoved(const Connection &connection) {
    return connection.file.database != nullptr && configFileMoved(connection.file);
}

void disconnect(Connection *connection) {
    if (isMoved(*connection)) {
        connection->replacements++;
    }
    for (sqlite3_stmt **statement :
         {&connection->begin, &connection->commit, &connection->rollback, &connection->one,
          &connection->group, &connection->append, &connection->trim, &connection->fetch}) {
        sqlite3_finalize(*statement);
        *statement = nullptr;
    }
    closeConfigFile(&connection->file);
}

void beforeFork() {
    configWriter.lock.lock();
    configReader.lock.lock();
    disconnect(&configWriter);
    disconnect(&configReader);
}

void afterFork() {
    configReader.lock.unlock();
    configWriter.lock.unlock();
}

int prepareAll(Connection *connection) {
    const struct {
        const char *text;
        sqlite3_stmt **statement;
    } all[] = {{connection->forWriting ? "BEGIN IMMEDIATE" : "BEGIN", &connection->begin},
               {"COMMIT", &connection->commit},
               {"ROLLBACK", &connection->rollback},
               {connection->forWriting ? kWriteOne : kReadOne, &connection->one},
               {connection->forWriting ? "" : kReadGroup, &connection->group}};
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
    std::call_once(forkSafe, [] { pthread_atfork(beforeFork, afterFork, afterFork); });
    uint32_t code = openConfigFile({connection->forWriting, suspect}, &connection->file);
    if (code != TAMO_HOST_OK) {
        return code;
    }
    int result = prepareAll(connection);
    if (result != SQLITE_OK) {
        code = configFileFailure(connection->file.database, result,
                                 "preparing the configuration store", __LINE__);
        disconnect(connection);
    }
    return code;
}

/* Leaves what is not in place any more, by both connections at once: SQLite keeps one index of a file
 * for all that a process has, so that a new connection would share a removed one. */
void leaveMoved(std::unique_lock<std::mutex> *guard) {
    guard->unlock();
    {
        std::scoped_lock both(configWriter.lock, configReader.lock);
        for (Connection *each : {&configWriter, &configReader}) {
            if (isMoved(*each)) {
                disconnect(each);
            }
        }
    }
    guard->lock();
}

}  // namespace

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

uint32_t transactWith(Connection *connection, const char *what, ConfigTransaction transaction,
                      void *context) {
    std::unique_lock guard(connection->lock);
    bool suspect = false;
    for (int attempt = 1;; attempt++) {
        /* Before a write too: who writes by a removed index spoils the log that others go on with. */
        if (connection->forWriting && isMoved(*connection)) {
            leaveMoved(&guard);
        }
        if (connection->file.database == nullptr) {
            uint32_t code = connect(connection, suspect);
            if (code != TAMO_HOST_OK) {
                return code;
            }
        }
        int result = transaction(connection, context);
        suspect = isDamage(result);
        bool moved = configFileMoved(connection->file);
        if (attempt < kAttempts && moved) {
            leaveMoved(&guard);
            continue;
        }
        if (attempt < kAttempts && suspect) {
            disconnect(connection);
            continue;
        }
        uint32_t code = TAMO_HOST_OK;
        if (result != SQLITE_OK || moved) {
            result = result == SQLITE_OK ? SQLITE_READONLY_DBMOVED : result;
            code = configFileFailure(connection->file.database, result, what, __LINE__);
        }
        if (suspect || connection->file.ownIndex) {
            disconnect(connection);
        }
        return code;
    }
}

}  // namespace tamo
