/* The change log of the configuration store: a table with what each write changed, and how it is waited
 * for and read.
 *
 * A row's number is where it ends in the sequence of all changes, in bytes. What lies further back
 * than a fixed size is removed by later writes, each of them a little more than it adds; the last row
 * always stays, so that numbering goes on from it. A reader that does not find the row that it has
 * read last has missed something, and reads all keys once. */
#pragma once
#include <sqlite3.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "host/base/descriptor.h"
#include "host/configuration/store_connection.h"
#include "tamo_om_config_client.h"

namespace tamo::configuration {

/* Changed keys as handlers get them. */
class ChangeItems {
  public:
    ChangeItems() = default;
    ~ChangeItems() { release(); }
    ChangeItems(const ChangeItems &) = delete;
    ChangeItems &operator=(const ChangeItems &) = delete;

    /* A key or value that fits no record, which only a foreign hand can have stored, is left out.
     * SQLITE_OK or SQLITE_NOMEM. */
    int add(const char *key, size_t keyLength, const char *value, size_t valueLength, bool removed);
    void clear() { count = 0; }

    /* Valid until the next change. */
    ConfConfigChangeList list() const { return {count, items}; }
    static bool isRemoved(const ConfConfigChangeItem &item) { return item.key.spare[0] != 0; }

  private:
    bool grow();
    void release();

    ConfConfigChangeItem *items = nullptr;
    ConfConfigOmVal *values = nullptr;
    uint32_t count = 0;
    uint32_t capacity = 0;
};

/* One write, as its readers hear of it. */
struct Change {
    uint64_t number = 0;
    int64_t time = 0; /* microseconds since 1970 */
    uint32_t pid = 0;
    char writer[64] = ""; /* the name of its process */
    bool isAll = false;   /* all keys as they stand: what changed was missed */
    ChangeItems items;
};

/* Makes the table in a store that has none. */
extern const char *const kChangeLogSchema;

/* Leaves of the log nothing but the last number. */
extern const char *const kForgetChanges;

/* Notes in a write's transaction a key that it has changed: with its new value, which must stay until the
 * transaction ends, or without one (null) when it was removed. */
int noteKey(Connection *connection, const char *key, size_t keyLength, const char *value,
            size_t valueLength);

/* Ends the notes of a write that has noted something. */
int endNotes(Connection *connection);

/* The longest time that a change waits for whoever watches, whatever became of its writer. */
constexpr int kLookMs = 100;

/* A watch hands out each change once, in order. Used by one thread at a time. */
struct Watch {
    Descriptor events; /* of the kernel: the store's directory */
    uint64_t seen = 0;
    uint32_t replacements = 0; /* of the store, as far as it has been read */
};

/* Begins to watch: what is written after this has returned will be handed out. Results are TAMO_HOST_
 * codes, failures are recorded. */
uint32_t beginWatch(Watch *watch);

/* Hands out the next change, TAMO_HOST_NOT_FOUND when there is none yet. */
uint32_t nextChange(Watch *watch, Change *change);

/* Sleeps until there may be a change, at most for the given time. A change that was written since
 * nextChange has looked ends it at once. */
void awaitChange(const Watch &watch, int timeoutMs);

/* The number of the last change. */
uint32_t findLastChangeNow(uint64_t *number);

}  // namespace tamo::configuration
