/* The store's log file: how it is written and kept short. */
#pragma once
#include <sqlite3.h>

namespace tamo::configuration {

/* How long a store that is held by another process is waited for. */
constexpr int kBusyMs = 10000;

/* Opens a database whose log file is written in one piece for each transaction, and carried over into the
 * database once it is long enough. One that is held by another process is waited for. */
int openDatabase(const char *name, int flags, sqlite3 **database);

}  // namespace tamo::configuration
