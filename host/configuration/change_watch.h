/* A watch of the configuration store: hands out each change once, in order. */
#pragma once
#include <stdint.h>

#include "host/base/descriptor.h"
#include "host/configuration/change_log.h"

namespace tamo::configuration {

/* The longest time that a change waits for whoever watches, whatever became of its writer. */
constexpr int kLookMs = 100;

/* Used by one thread at a time. */
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

/* The number of the last change so far. */
uint32_t findLastChangeNow(uint64_t *number);

}  // namespace tamo::configuration
