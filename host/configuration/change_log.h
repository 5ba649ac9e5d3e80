/* The change log of the configuration store: a table with what each write changed.
 *
 * A change's number is where it ends in the sequence of all changes, in bytes. What lies further back
 * than a fixed size is removed by later writes, each of them a little more than it adds; the last row
 * always stays, so that numbering goes on from it. A reader that does not find the row that it has
 * read last has missed something, and reads all keys once. */
#pragma once
#include <sqlite3.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "host/configuration/store_connection.h"
#include "tamo_om_config_client.h"

namespace tamo::configuration {

/* What a write has changed, as the log keeps it: each key, then its new value. */
class ChangedKeys {
  public:
    ChangedKeys() = default;
    ~ChangedKeys();
    ChangedKeys(const ChangedKeys &) = delete;
    ChangedKeys &operator=(const ChangedKeys &) = delete;

    /* Adds a key with its new value, or without one when it was removed; SQLITE_OK or SQLITE_NOMEM. */
    int add(const char *key, size_t keyLength, const char *value, size_t valueLength);
    int addRemoved(const char *key, size_t keyLength);

    const char *data() const { return bytes; }
    size_t size() const { return used; }

  private:
    int append(const char *key, size_t keyLength, char kind, const char *value, size_t valueLength);

    char *bytes = nullptr;
    size_t used = 0;
    size_t capacity = 0;
};

/* Walks changed keys, all of whose texts are terminated.
 *
 *     for (KeyWalk at(changed); at.next();) show(at.key, at.value); */
class KeyWalk {
  public:
    explicit KeyWalk(const ChangedKeys &keys) : at_(keys.data()), end_(at_ + keys.size()) {}

    bool next() {
        if (at_ == end_) {
            return false;
        }
        key = at_;
        value = key + strlen(key) + 2;
        at_ = value + strlen(value) + 1;
        return true;
    }

    const char *key = nullptr;
    const char *value = nullptr;

  private:
    const char *at_;
    const char *end_;
};

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

/* Notes a write in its transaction. */
int noteChange(Connection *connection, const ChangedKeys &changed);

/* The number of the last change. */
int findLastChange(Connection *connection, uint64_t *number);

/* Fetches the change after number `seen`, or all keys where that is not in the log any more;
 * SQLITE_DONE when there is none. */
int fetchChange(Connection *connection, uint64_t seen, Change *change);

}  // namespace tamo::configuration
