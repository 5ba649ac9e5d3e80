/* The journal of the configuration store: the table of changes, one row for each write that somebody
 * watched.
 *
 * A change's number is where it ends in the sequence of all changes, in bytes. The last row always
 * stays, so that numbering goes on from it, and so does what the slowest watcher has read last: a
 * watcher that does not find that row has missed something. */
#pragma once
#include <sqlite3.h>
#include <stdint.h>

#include "host/configuration/key_values.h"
#include "host/configuration/store_connection.h"

namespace tamo {

/* One write, as its watchers hear of it. */
struct ConfigChange {
    uint64_t number = 0;
    int64_t time = 0; /* microseconds since 1970 */
    uint64_t origin = 0;
    uint32_t pid = 0;
    char writer[64] = ""; /* the name of its process */
    bool isAll = false;   /* all keys as they stand: what changed was missed */
    Texts records;        /* keys and their new values */
};

/* For stores that have no journal. */
extern const char *const kConfigJournalSchema;

/* Ends a write transaction of which `result` came out: notes what was changed for those who watch,
 * trims what the slowest of them has read, commits, wakes them. */
int finishConfigWrite(Connection *connection, int result, const Texts &changed, uint64_t slowest);

/* The number of the last change; 0 where there is none. */
int lastConfigChange(Connection *connection, uint64_t *number);

/* Fetches the change after number `seen`; SQLITE_DONE when there is none. */
int fetchConfigChange(Connection *connection, uint64_t seen, ConfigChange *change);

}  // namespace tamo
