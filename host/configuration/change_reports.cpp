/* libtamo_om_config_client: the connections of a process's modules, and the reports to their handlers.
 *
 * - The first handler starts a thread that watches the store for all modules of the process; it ends
 *   when it finds no handler any more.
 * - No lock is held while a handler runs. Whoever takes a handler away waits until it has returned,
 *   unless that is the thread of the reports itself, which only a handler can be; whoever makes the
 *   same handler the receiver again does not.
 * - A child of fork keeps its modules but has no handlers, and no thread. */
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <mutex>

#include "host/base/fork.h"
#include "host/base/log.h"
#include "host/base/thread.h"
#include "host/configuration/change_log.h"
#include "tamo_host.h"

namespace tamo::configuration {
namespace {

constexpr const char *kUnit = "tamo_om_config_client";
constexpr size_t kMaxModules = 32;
constexpr size_t kModuleNameSize = 64;
constexpr uint32_t kChangeMessage = 65536;
/* Between looks at a store that cannot be read: each leaves a record. */
constexpr int kLongestPauseMs = 10000;

struct Module {
    char name[kModuleNameSize];
    ConfConfigChangeHandler handler;
    uint64_t since; /* changes up to this number came before the handler */
};

std::mutex modulesLock;
pthread_cond_t reportEnded = PTHREAD_COND_INITIALIZER;
Module modules[kMaxModules];
/* Whose handler runs, and how many have. */
const Module *reporting;
uint64_t reports;
bool isRunning;
pthread_t reporter;
uint32_t forks;
/* The thread's, once it runs. Never destroyed: the thread may outlive the program's statics. */
Watch &watch = *new Watch;

int32_t refuse(int line, const char *why) {
    hostRecord(kError, kUnit, line, "%s", why);
    return TAMO_HOST_INVALID;
}

bool isModuleName(const char *name) {
    size_t length = name == nullptr ? 0 : strnlen(name, kModuleNameSize);
    return length != 0 && length != kModuleNameSize;
}

/* The module of that name, or of an empty name: a free place. Null when there is none. */
Module *findModule(const char *name) {
    for (Module &module : modules) {
        if (strcmp(module.name, name) == 0) {
            return &module;
        }
    }
    return nullptr;
}

bool hasHandlers() {
    for (const Module &module : modules) {
        if (module.handler != nullptr) {
            return true;
        }
    }
    return false;
}

/* Calls the handlers that were there before the change; false in a child that a handler forked. */
bool deliver(const Change &change) {
    const ConfConfigChangeList list = change.items.list();
    std::unique_lock lock(modulesLock);
    const uint32_t forksBefore = forks;
    for (Module &module : modules) {
        if (change.isAll) {
            module.since = 0; /* another store may count anew */
        }
        if (module.handler == nullptr || module.since >= change.number || list.count == 0) {
            continue;
        }
        ConfConfigChangeHandler handler = module.handler;
        reporting = &module;
        lock.unlock();
        handler(kChangeMessage, 0, 0, &list);
        lock.lock();
        if (forks != forksBefore) {
            return false;
        }
        reporting = nullptr;
        reports++;
        pthread_cond_broadcast(&reportEnded);
    }
    return true;
}

/* True when nobody is left to report to; the thread then ends. */
bool isOver() {
    std::lock_guard guard(modulesLock);
    if (hasHandlers()) {
        return false;
    }
    watch.events = Descriptor();
    isRunning = false;
    return true;
}

void *reportChanges(void *) {
    {
        std::lock_guard guard(modulesLock);
        reporter = pthread_self();
    }
    Change change;
    int pause = kLookMs;
    while (!isOver()) {
        const uint32_t code = nextChange(&watch, &change);
        if (code == TAMO_HOST_OK) {
            pause = kLookMs;
            if (!deliver(change)) {
                break;
            }
            continue;
        }
        pause = code == TAMO_HOST_NOT_FOUND ? kLookMs : std::min(2 * pause, kLongestPauseMs);
        awaitChange(watch, pause);
    }
    return nullptr;
}

void inChild() {
    for (Module &module : modules) {
        module.handler = nullptr;
    }
    watch.events = Descriptor();
    reporting = nullptr;
    reportEnded = PTHREAD_COND_INITIALIZER;
    isRunning = false;
    forks++;
    modulesLock.unlock();
}

/* Makes sure that changes are watched; `since` gets the last one before. Under the lock. */
uint32_t startReports(uint64_t *since) {
    if (isRunning) {
        return findLastChangeNow(since);
    }
    uint32_t code = beginWatch(&watch);
    if (code != TAMO_HOST_OK) {
        return code;
    }
    *since = watch.seen;
    int error = startThread("tamo_config", reportChanges, nullptr);
    if (error != 0) {
        watch.events = Descriptor();
        hostRecord(kError, kUnit, __LINE__, "changes are not reported, there is no thread: %s",
                   strerror(error));
        return TAMO_HOST_SYSTEM;
    }
    isRunning = true;
    return TAMO_HOST_OK;
}

/* Waits until the handler that the module had does not run; the thread ends soon if it was the last. */
void awaitHandler(const Module *module, std::unique_lock<std::mutex> *lock) {
    if (!isRunning) {
        return;
    }
    const uint64_t ended = reports;
    while (reporting == module && reports == ended &&
           pthread_equal(pthread_self(), reporter) == 0) {
        pthread_cond_wait(&reportEnded, lock->mutex()->native_handle());
    }
}

/* Opens the store, so that one that cannot be used is told of now. */
uint32_t openStore() {
    Attempts attempts(&storeReader, "opening the configuration store");
    while (attempts.next()) {
    }
    return attempts.code();
}

}  // namespace
}  // namespace tamo::configuration

using namespace tamo::configuration;

int32_t TamoOmConfigInit(uint32_t zero, const char *ownerName, const char *moduleName) {
    if (zero != 0 || !isModuleName(ownerName) || !isModuleName(moduleName)) {
        return refuse(__LINE__,
                      "a connection takes 0, an owner's and a module's name of 1 to 63 "
                      "characters");
    }
    uint32_t code = openStore();
    if (code != TAMO_HOST_OK) {
        return static_cast<int32_t>(code);
    }
    tamo::guardForks(tamo::ForkStage::kConfigReports,
                     {[] { modulesLock.lock(); }, [] { modulesLock.unlock(); }, inChild});
    std::lock_guard guard(modulesLock);
    if (findModule(moduleName) != nullptr) {
        return TAMO_HOST_OK;
    }
    Module *place = findModule("");
    if (place == nullptr) {
        return refuse(__LINE__, "too many modules are connected: disconnect one");
    }
    (void)snprintf(place->name, sizeof(place->name), "%s", moduleName);
    return TAMO_HOST_OK;
}

int32_t TamoOmConfigNotifyCallback(ConfConfigChangeHandler handler, const char *moduleName) {
    std::unique_lock lock(modulesLock);
    Module *module = isModuleName(moduleName) ? findModule(moduleName) : nullptr;
    if (module == nullptr) {
        return refuse(__LINE__, "a handler of changes is refused: its module is not connected");
    }
    if (handler == module->handler) {
        return TAMO_HOST_OK;
    }
    if (handler != nullptr && module->handler == nullptr) {
        uint32_t code = startReports(&module->since);
        if (code != TAMO_HOST_OK) {
            return static_cast<int32_t>(code);
        }
    }
    module->handler = handler;
    awaitHandler(module, &lock);
    return TAMO_HOST_OK;
}

int32_t TamoOmConfigUnInit(const char *moduleName) {
    std::unique_lock lock(modulesLock);
    Module *module = isModuleName(moduleName) ? findModule(moduleName) : nullptr;
    if (module == nullptr) {
        return refuse(__LINE__, "a module that is not connected cannot be disconnected");
    }
    *module = {};
    awaitHandler(module, &lock);
    return TAMO_HOST_OK;
}
