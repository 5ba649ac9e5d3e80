/* The index of bound configuration items, as the other files of the unit see it. */
#pragma once

#include <cstddef>
#include <cstdint>

#include "include/conf_config.h"

/* One bound item. */
struct ConfConfigIndexEntry {
    char name[128];
    int32_t type;
    void *value; /* the application's storage */
    uint32_t size;
    uint8_t localOnly; /* never exchanged with the configuration service */
    ConfConfigItemCallback callback;
};

/* The entry of a name in any letter case; where there is none, a new empty one when `create` is
 * set, else null. Valid until the next insertion. */
ConfConfigIndexEntry *ConfConfigAddIndex(const char *name, bool create);

/* The entry of a name once all items are bound, null before; for the service client's thread. */
const ConfConfigIndexEntry *findBoundItem(const char *name);

/* Is there an index that items can be bound to and found in? */
bool hasIndex();

/* The number of bound items, and each of them by its position in the order of names. */
int32_t boundItemCount();
const ConfConfigIndexEntry &boundItem(int32_t position);

/* The position of the first item whose name is not less than `name`. */
int32_t lowerBoundItem(const char *name);

/* Does a name begin with a prefix, in any letter case? */
bool nameBeginsWith(const char *name, const char *prefix);

static_assert(offsetof(ConfConfigIndexEntry, type) == 128);
static_assert(offsetof(ConfConfigIndexEntry, value) == (sizeof(void *) == 4 ? 132 : 136));
static_assert(offsetof(ConfConfigIndexEntry, size) == (sizeof(void *) == 4 ? 136 : 144));
static_assert(offsetof(ConfConfigIndexEntry, localOnly) == (sizeof(void *) == 4 ? 140 : 148));
static_assert(offsetof(ConfConfigIndexEntry, callback) == (sizeof(void *) == 4 ? 144 : 152));
static_assert(sizeof(ConfConfigIndexEntry) == (sizeof(void *) == 4 ? 148 : 160));
