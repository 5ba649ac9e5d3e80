/* Waiting for changes of the configuration store, and the watch that tools have.
 *
 * A writer opens and closes the log file when its write can be read, which the kernel tells to all who
 * watch the directory. One who was killed before, a kernel that has no more watches to give, a store that another
 * one replaces: for these there is a look at the change log ten times a second, which takes some
 * microseconds. */
#include "host/configuration/change_watch.h"

#include <poll.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "host/base/clock.h"
#include "host/base/device_root.h"
#include "host/base/log.h"
#include "tamo_host.h"

namespace tamo::configuration {

namespace {

constexpr const char *kUnit = "tamo_om_config_client";

constexpr uint32_t kTold = IN_CLOSE_NOWRITE;
/* Another store comes in place. */
constexpr uint32_t kReplaced = IN_CREATE | IN_MOVED_TO;

Descriptor watchDirectory() {
    Descriptor events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const int directory = rootDirectory("config");
    char path[32];
    (void)snprintf(path, sizeof(path), "/proc/self/fd/%d", directory);
    if (events.isOpen() && inotify_add_watch(events.get(), path, kTold | kReplaced) < 0) {
        events = Descriptor();
    }
    return events;
}

}  // namespace

uint32_t beginWatch(Watch *watch) {
    watch->events = watchDirectory();
    Attempts attempts(&storeReader, "beginning to watch the configuration");
    while (attempts.next()) {
        attempts.result = findLastChange(&storeReader, &watch->seen);
        watch->replacements = storeReader.replacements;
    }
    return attempts.code();
}

uint32_t nextChange(Watch *watch, Change *change) {
    bool found = false;
    uint32_t replacements = watch->replacements;
    Attempts attempts(&storeReader, "reading changes of the configuration");
    while (attempts.next()) {
        replacements = storeReader.replacements;
        const bool isReplaced = watch->replacements != replacements;
        attempts.result = fetchChange(&storeReader, isReplaced ? 0 : watch->seen, change);
        found = attempts.result == SQLITE_OK;
        attempts.result = attempts.result == SQLITE_DONE ? SQLITE_OK : attempts.result;
    }
    if (attempts.code() != TAMO_HOST_OK || !found) {
        return attempts.code() == TAMO_HOST_OK ? uint32_t{TAMO_HOST_NOT_FOUND} : attempts.code();
    }
    watch->seen = change->number;
    watch->replacements = replacements;
    return TAMO_HOST_OK;
}

void awaitChange(const Watch &watch, int timeoutMs) {
    struct pollfd polled = {watch.events.get(), POLLIN, 0};
    if (poll(&polled, 1, timeoutMs) == 1) {
        alignas(struct inotify_event) char events[4096];
        while (read(watch.events.get(), events, sizeof(events)) > 0) {
        }
    }
}

uint32_t findLastChangeNow(uint64_t *number) {
    Attempts attempts(&storeReader, "reading changes of the configuration");
    while (attempts.next()) {
        attempts.result = findLastChange(&storeReader, number);
    }
    return attempts.code();
}

}  // namespace tamo::configuration

using namespace tamo::configuration;

struct TamoHostConfigWatch {
    Watch watch;
    Change change;
};

namespace {

uint32_t showChange(const Change &change,
                    uint32_t (*visit)(const TamoHostConfigChange *change, void *context),
                    void *context) {
    TamoHostConfigChange shown = {};
    shown.timeUs = change.time;
    shown.writerPid = change.pid;
    shown.writer = change.writer;
    shown.isAll = change.isAll ? 1 : 0;
    const ConfConfigChangeList list = change.items.list();
    uint32_t code = TAMO_HOST_OK;
    for (uint32_t at = 0; code == TAMO_HOST_OK && at < list.count; at++) {
        shown.key = list.items[at].key.text;
        shown.value = list.items[at].value->text;
        shown.isRemoved = ChangeItems::isRemoved(list.items[at]) ? 1 : 0;
        code = visit(&shown, context);
    }
    return code;
}

}  // namespace

uint32_t TamoHostConfigWatchOpen(TamoHostConfigWatch **watch) {
    if (watch == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "the configuration is not watched: no place for the watch was given");
        return TAMO_HOST_INVALID;
    }
    *watch = new (std::nothrow) TamoHostConfigWatch;
    if (*watch == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "the configuration is not watched: there is no memory for the watch");
        return TAMO_HOST_NO_MEMORY;
    }
    uint32_t code = beginWatch(&(*watch)->watch);
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
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "no change is shown: no watch or no visitor was given");
        return TAMO_HOST_INVALID;
    }
    const auto end = static_cast<int64_t>(tamo::monotonicMs()) + timeoutMs;
    for (;;) {
        uint32_t code = nextChange(&watch->watch, &watch->change);
        if (code == TAMO_HOST_OK) {
            return showChange(watch->change, visit, context);
        }
        if (code != TAMO_HOST_NOT_FOUND) {
            return code;
        }
        const int64_t left =
            timeoutMs < 0 ? kLookMs : end - static_cast<int64_t>(tamo::monotonicMs());
        if (left <= 0) {
            return TAMO_HOST_TIMEOUT;
        }
        awaitChange(watch->watch, static_cast<int>(std::min<int64_t>(left, kLookMs)));
    }
}

void TamoHostConfigWatchClose(TamoHostConfigWatch *watch) {
    delete watch;
}
