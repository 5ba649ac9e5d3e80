/* The process's connections to the configuration store, and how a transaction runs on them. */
#pragma once
#include <sqlite3.h>
#include <stdint.h>

#include <mutex>

#include "host/configuration/store_file.h"

namespace tamo {

struct Connection {
    const bool forWriting;
    std::mutex lock = {};
    ConfigFile file = {};
    uint32_t replacements = 0; /* so often its file was not in place any more */
    sqlite3_stmt *begin = nullptr;
    sqlite3_stmt *commit = nullptr;
    sqlite3_stmt *rollback = nullptr;
    sqlite3_stmt *one = nullptr;
    sqlite3_stmt *group = nullptr; /* the reader's */
    /* The journal's, prepared when they are first needed. */
    sqlite3_stmt *append = nullptr;
    sqlite3_stmt *trim = nullptr;
    sqlite3_stmt *fetch = nullptr;
};

extern Connection configReader;
extern Connection configWriter;

/* Several keys by one statement: running a statement costs as much as finding a key. */
constexpr size_t kConfigGroup = 8;

/* Runs a statement that yields no row. */
int runStatement(sqlite3_stmt *statement);

/* Prepares a statement unless it is. */
int prepareOnce(Connection *connection, const char *text, sqlite3_stmt **statement);

/* Ends a transaction of which `result` came out. */
int finishTransaction(Connection *connection, int result);

using ConfigTransaction = int (*)(Connection *connection, void *context);

uint32_t transactWith(Connection *connection, const char *what, ConfigTransaction transaction,
                      void *context);

/* Runs a transaction, a function of the connection that returns a result of SQLite, until it ran on
 * the file in place: it may run several times. The result is a TAMO_HOST_ code; that `what` failed is
 * recorded. */
template <typename Function>
uint32_t transact(Connection *connection, const char *what, Function transaction) {
    auto call = [](Connection *on, void *context) {
        return (*static_cast<Function *>(context))(on);
    };
    return transactWith(connection, what, call, &transaction);
}

}  // namespace tamo
