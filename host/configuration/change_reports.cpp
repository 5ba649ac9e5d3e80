/* libtamo_om_config_client: the connections of a process's modules, and the reports to their handlers.
 *
 * - The first handler starts a thread that watches the store for all modules of the process; it ends
 *   when it finds no handler any more. Writes of this process are not reported to it.
 * - No lock is held while a handler runs. Whoever takes a handler away waits until it has returned,
 *   unless that is the thread of the reports itself, which only a handler can be.
 * - A child of fork keeps its modules but has no handlers, and no thread. */
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "host/base/log.h"
#include "host/configuration/change_reader.h"
#include "host/configuration/store.h"
#include "tamo_host.h"

namespace {

constexpr const char *kUnit = "tamo_om_config_modules";
constexpr size_t kMaxModules = 32;
constexpr size_t kModuleNameSize = 64;
constexpr uint32_t kChangeMessage = 65536;
/* A writer may be killed before it wakes anybody. */
constexpr int64_t kCheckMs = 10000;

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
tamo::ConfigWatch &watch = *new tamo::ConfigWatch;

int32_t refuse(int line, const char *why) {
    tamo::hostRecord(tamo::kError, kUnit, line, "%s", why);
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

/* False for what a foreign hand has put into the store's file. */
bool fits(const tamo::TextPairs &pair) {
    return pair.key[0] != '\0' && strlen(pair.key) < sizeof(ConfConfigOmKey::text) &&
           strlen(pair.value) < sizeof(ConfConfigOmVal::text);
}

/* A change as a handler gets it: entries and, behind them, their values. */
class Report {
  public:
    explicit Report(const tamo::ConfigChange &change) {
        for (tamo::TextPairs pair(change.records); pair.next();) {
            list.count += fits(pair) ? 1 : 0;
        }
        list.items = static_cast<ConfConfigChangeItem *>(
            calloc(list.count + 1, sizeof(ConfConfigChangeItem) + sizeof(ConfConfigOmVal)));
        if (list.items == nullptr) {
            return;
        }
        auto *value = reinterpret_cast<ConfConfigOmVal *>(list.items + list.count);
        ConfConfigChangeItem *item = list.items;
        for (tamo::TextPairs pair(change.records); pair.next();) {
            if (!fits(pair)) {
                continue;
            }
            item->key.length = static_cast<uint8_t>(
                snprintf(item->key.text, sizeof(item->key.text), "%s", pair.key));
            value->length =
                static_cast<uint32_t>(snprintf(value->text, sizeof(value->text), "%s", pair.value));
            item->value = value;
            item++;
            value++;
        }
    }
    ~Report() { free(list.items); }
    Report(const Report &) = delete;
    Report &operator=(const Report &) = delete;

    ConfConfigChangeList list = {};
};

/* Calls the handlers that were there before the change; false in a child that a handler forked. */
bool deliver(const tamo::ConfigChange &change) {
    Report report(change);
    if (report.list.items == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "no memory for a report of %u changed keys: it is lost",
                         report.list.count);
        return true;
    }
    std::unique_lock lock(modulesLock);
    const uint32_t forksBefore = forks;
    for (Module &module : modules) {
        if (change.isAll) {
            module.since = 0; /* another store may count anew */
        }
        if (module.handler == nullptr || module.since >= change.number || report.list.count == 0) {
            continue;
        }
        ConfConfigChangeHandler handler = module.handler;
        reporting = &module;
        lock.unlock();
        handler(kChangeMessage, 0, 0, &report.list);
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
    watch.seat.leave();
    isRunning = false;
    return true;
}

void *reportChanges(void *) {
    tamo::ConfigChange change;
    while (!isOver()) {
        const uint32_t wakes = watch.seat.wakes();
        uint32_t code = tamo::nextConfigChange(&watch, &change);
        if (code != TAMO_HOST_OK) {
            watch.seat.wait(wakes, kCheckMs);
        } else if (!deliver(change)) {
            break;
        }
    }
    return nullptr;
}

void inChild() {
    for (Module &module : modules) {
        module.handler = nullptr;
    }
    reporting = nullptr;
    reportEnded = PTHREAD_COND_INITIALIZER;
    isRunning = false;
    forks++;
    modulesLock.unlock();
}

/* After the store's own, whose locks are taken while this one is held. */
void watchForks() {
    static std::once_flag once;
    std::call_once(once, [] {
        pthread_atfork([] { modulesLock.lock(); }, [] { modulesLock.unlock(); }, inChild);
    });
}

/* The thread takes no signals: they are for the program's own threads. */
int startThread() {
    sigset_t all;
    sigset_t before;
    pthread_attr_t attributes;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    int error = pthread_create(&reporter, &attributes, reportChanges, nullptr);
    if (error == 0) {
        pthread_setname_np(reporter, "tamo_config");
    }
    pthread_attr_destroy(&attributes);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

/* Makes sure that changes are watched; `since` gets the last one before. Under the lock. */
uint32_t startReports(uint64_t *since) {
    if (isRunning) {
        return tamo::findLastConfigChange(since);
    }
    uint32_t code = tamo::beginConfigWatch(&watch, tamo::configOrigin());
    if (code != TAMO_HOST_OK) {
        return code;
    }
    *since = watch.seen;
    int error = startThread();
    if (error != 0) {
        watch.seat.leave();
        tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                         "changes are not reported, there is no thread: %s", strerror(error));
        return TAMO_HOST_SYSTEM;
    }
    isRunning = true;
    return TAMO_HOST_OK;
}

/* Waits until the handler that the module had does not run; the thread ends if it was the last. */
void awaitHandler(const Module *module, std::unique_lock<std::mutex> *lock) {
    if (!isRunning) {
        return;
    }
    if (!hasHandlers()) {
        tamo::wakeConfigWatchers();
    }
    const uint64_t ended = reports;
    while (reporting == module && reports == ended &&
           pthread_equal(pthread_self(), reporter) == 0) {
        pthread_cond_wait(&reportEnded, lock->mutex()->native_handle());
    }
}

}  // namespace

int32_t TamoOmConfigInit(uint32_t zero, const char *ownerName, const char *moduleName) {
    if (zero != 0 || !isModuleName(ownerName) || !isModuleName(moduleName)) {
        return refuse(__LINE__,
                      "a connection takes 0, an owner's and a module's name of 1 to 63 "
                      "characters");
    }
    uint32_t code = tamo::configStoreOpen();
    if (code != TAMO_HOST_OK) {
        return static_cast<int32_t>(code);
    }
    watchForks();
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
