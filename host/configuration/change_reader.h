/* A watch of the configuration store: hands out each change once, in order. */
#pragma once
#include <stdint.h>

#include "host/configuration/change_log.h"
#include "host/configuration/subscribers.h"

namespace tamo {

/* Used by one thread at a time. */
struct ConfigWatch {
    WatcherSeat seat;
    uint64_t origin = kNoOrigin; /* whose writes are not wanted */
    uint64_t seen = 0;
    uint32_t replacements = 0; /* of the store, as far as it has been read */
};

/* Begins to watch: what is written after this has returned will be handed out, but for the writes of
 * `origin` (kNoOrigin: none). Results are TAMO_HOST_ codes, failures are recorded. */
uint32_t beginConfigWatch(ConfigWatch *watch, uint64_t origin);

/* Hands out the next change, TAMO_HOST_NOT_FOUND when there is none yet. */
uint32_t nextConfigChange(ConfigWatch *watch, ConfigChange *change);

/* The number of the last change so far. */
uint32_t findLastConfigChange(uint64_t *number);

}  // namespace tamo
