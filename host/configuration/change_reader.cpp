/* See tamo_om_config_watch.h; and the watch that tools have. */
#include "host/configuration/change_reader.h"

#include <time.h>

#include <new>

#include "host/base/log.h"
#include "tamo_host.h"

namespace tamo {

namespace {

constexpr const char *kUnit = "tamo_om_config_watch";

}  // namespace

uint32_t beginConfigWatch(ConfigWatch *watch, uint64_t origin) {
    bool taken = false;
    watch->origin = origin;
    watch->seen = 0;
    /* No write is under way while the place is taken: an earlier one is stored, a later one finds the
     * watcher. */
    auto begin = [&](Connection *connection) {
        int result = runStatement(connection->begin);
        if (result != SQLITE_OK) {
            return result;
        }
        taken = taken || watch->seat.take(origin);
        result = lastConfigChange(connection, &watch->seen);
        watch->seat.setSeen(watch->seen);
        return finishTransaction(connection, result);
    };
    uint32_t code = transact(&configWriter, "beginning to watch the configuration", begin);
    (void)transact(&configReader, "beginning to watch the configuration",
                   [watch](Connection *connection) {
                       watch->replacements = connection->replacements;
                       return SQLITE_OK;
                   });
    if (code == TAMO_HOST_OK) {
        return taken ? code : uint32_t{TAMO_HOST_SYSTEM};
    }
    if (code != TAMO_HOST_SYSTEM && code != TAMO_HOST_TIMEOUT) {
        return code;
    }
    /* On a full disk, for one. Nothing is known of before, so that all keys are handed out first. */
    watch->seen = 0;
    return taken || watch->seat.take(origin) ? uint32_t{TAMO_HOST_OK} : code;
}

uint32_t nextConfigChange(ConfigWatch *watch, ConfigChange *change) {
    if (!watch->seat.isHeld()) {
        /* The board was removed: nobody knew of this watcher since. */
        uint32_t code = beginConfigWatch(watch, watch->origin);
        watch->seen = 0;
        if (code != TAMO_HOST_OK) {
            return code;
        }
    }
    for (;;) {
        bool found = false;
        uint32_t replacements = 0;
        auto fetch = [&](Connection *connection) {
            const bool replaced = watch->replacements != connection->replacements;
            int result = fetchConfigChange(connection, replaced ? 0 : watch->seen, change);
            replacements = connection->replacements;
            found = result == SQLITE_OK;
            return result == SQLITE_DONE ? SQLITE_OK : result;
        };
        uint32_t code = transact(&configReader, "reading changes of the configuration", fetch);
        if (code != TAMO_HOST_OK || !found) {
            return code == TAMO_HOST_OK ? uint32_t{TAMO_HOST_NOT_FOUND} : code;
        }
        watch->seen = change->number;
        watch->replacements = replacements;
        watch->seat.setSeen(change->number);
        if (change->origin != watch->origin) {
            return TAMO_HOST_OK;
        }
    }
}

uint32_t findLastConfigChange(uint64_t *number) {
    return transact(
        &configReader, "reading changes of the configuration",
        [number](Connection *connection) { return lastConfigChange(connection, number); });
}

}  // namespace tamo

struct TamoHostConfigWatch {
    tamo::ConfigWatch watch;
    tamo::ConfigChange change;
};

namespace {

int64_t millisecondsNow() {
    struct timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* A writer may be killed before it wakes anybody. */
constexpr int64_t kCheckMs = 10000;

uint32_t showChange(const tamo::ConfigChange &change,
                    uint32_t (*visit)(const TamoHostConfigChange *change, void *context),
                    void *context) {
    TamoHostConfigChange shown = {};
    shown.timeUs = change.time;
    shown.writerPid = change.pid;
    shown.writer = change.writer;
    shown.isAll = change.isAll;
    uint32_t code = TAMO_HOST_OK;
    for (tamo::TextPairs pair(change.records); code == TAMO_HOST_OK && pair.next();) {
        shown.key = pair.key;
        shown.value = pair.value;
        code = visit(&shown, context);
    }
    return code;
}

}  // namespace

uint32_t TamoHostConfigWatchOpen(TamoHostConfigWatch **watch) {
    if (watch == nullptr) {
        tamo::hostRecord(tamo::kError, tamo::kUnit, __LINE__,
                         "the configuration is not watched: no place for the watch was given");
        return TAMO_HOST_INVALID;
    }
    *watch = new (std::nothrow) TamoHostConfigWatch;
    if (*watch == nullptr) {
        return TAMO_HOST_NO_MEMORY;
    }
    uint32_t code = tamo::beginConfigWatch(&(*watch)->watch, tamo::kNoOrigin);
    if (code != TAMO_HOST_OK) {
        TamoHostConfigWatchClose(*watch);
        *watch = nullptr;
    }
    return code;
}

uint32_t TamoHostConfigWatchNext(TamoHostConfigWatch *watch, int32_t timeoutMs,
                                 uint32_t (*visit)(const TamoHostConfigChange *change,
                                                   void *context),
                                 void *context) {
    if (watch == nullptr || visit == nullptr) {
        tamo::hostRecord(tamo::kError, tamo::kUnit, __LINE__,
                         "no change is shown: no watch or no visitor was given");
        return TAMO_HOST_INVALID;
    }
    const int64_t end = millisecondsNow() + timeoutMs;
    for (;;) {
        const uint32_t wakes = watch->watch.seat.wakes();
        uint32_t code = tamo::nextConfigChange(&watch->watch, &watch->change);
        if (code == TAMO_HOST_OK) {
            return showChange(watch->change, visit, context);
        }
        if (code != TAMO_HOST_NOT_FOUND) {
            return code;
        }
        const int64_t left = timeoutMs < 0 ? kCheckMs : end - millisecondsNow();
        if (left <= 0) {
            return TAMO_HOST_TIMEOUT;
        }
        watch->watch.seat.wait(wakes, left < kCheckMs ? left : kCheckMs);
    }
}

void TamoHostConfigWatchClose(TamoHostConfigWatch *watch) {
    delete watch;
}
