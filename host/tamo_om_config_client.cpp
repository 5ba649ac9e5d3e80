/* libtamo_om_config_client: records, and the connections of a process's modules.
 *
 * Texts come from callers' own buffers and need not be terminated: every look is bounded by the
 * buffer's size. The lengths beside the texts are written here and never believed. */
#include "tamo_om_config_client.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <mutex>

#include "host_record.h"
#include "tamo_host.h"
#include "tamo_om_config_store.h"

namespace {

constexpr const char *kUnit = "tamo_om_config_client";
constexpr size_t kMaxModules = 32;
constexpr size_t kModuleNameSize = 64;
/* Far above any list, far below what a negative count looks like. */
constexpr uint32_t kMaxRecords = 65536;

struct Module {
    char name[kModuleNameSize];
    ConfConfigChangeHandler handler;
};

std::mutex modulesLock;
Module modules[kMaxModules];

int32_t refuse(int line, const char *why) {
    tamo::hostRecord(tamo::kError, kUnit, line, "%s", why);
    return TAMO_HOST_INVALID;
}

/* The length of a text that fits a buffer of `size` with its terminator, else `size`. */
size_t fittingLength(const char *text, size_t size) {
    return text == nullptr ? size : strnlen(text, size);
}

bool isModuleName(const char *name) {
    size_t length = fittingLength(name, kModuleNameSize);
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

bool isStorable(const ConfConfigOmRecord &record) {
    size_t key = strnlen(record.key.text, sizeof(record.key.text));
    return key != 0 && key != sizeof(record.key.text) &&
           strnlen(record.value.text, sizeof(record.value.text)) != sizeof(record.value.text);
}

int32_t setPrinted(ConfConfigOmVal *value, int length) {
    value->length = static_cast<uint32_t>(length);
    return TAMO_HOST_OK;
}

int32_t read(ConfConfigOmRecord *records, uint32_t count) {
    if (count == 0) {
        return TAMO_HOST_OK;
    }
    if (records == nullptr || count > kMaxRecords) {
        return refuse(__LINE__, "reading without records, or more than can be: nothing is read");
    }
    return static_cast<int32_t>(tamo::configStoreRead(records, count));
}

int32_t write(const ConfConfigOmRecord *records, uint32_t count) {
    if (count == 0) {
        return TAMO_HOST_OK;
    }
    if (records == nullptr || count > kMaxRecords) {
        return refuse(__LINE__, "storing without records, or more than can be: nothing is stored");
    }
    for (uint32_t at = 0; at < count; at++) {
        if (!isStorable(records[at])) {
            tamo::hostRecord(tamo::kError, kUnit, __LINE__,
                             "record %" PRIu32 " of %" PRIu32
                             " has an empty key or a text without an end: nothing is stored",
                             at + 1, count);
            return TAMO_HOST_INVALID;
        }
    }
    return static_cast<int32_t>(tamo::configStoreWrite(records, count));
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
    std::lock_guard guard(modulesLock);
    Module *module = isModuleName(moduleName) ? findModule(moduleName) : nullptr;
    if (module == nullptr) {
        return refuse(__LINE__, "a handler of changes is refused: its module is not connected");
    }
    module->handler = handler;
    return TAMO_HOST_OK;
}

int32_t TamoOmConfigUnInit(const char *moduleName) {
    std::lock_guard guard(modulesLock);
    Module *module = isModuleName(moduleName) ? findModule(moduleName) : nullptr;
    if (module == nullptr) {
        return refuse(__LINE__, "a module that is not connected cannot be disconnected");
    }
    *module = {};
    return TAMO_HOST_OK;
}

int32_t TamoOmConfigcopyStr2Key(ConfConfigOmRecord *record, const char *key) {
    if (record == nullptr) {
        return TAMO_HOST_INVALID;
    }
    size_t length = fittingLength(key, sizeof(record->key.text));
    if (length == 0 || length == sizeof(record->key.text)) {
        memset(&record->key, 0, sizeof(record->key));
        return TAMO_HOST_INVALID;
    }
    memmove(record->key.text, key, length + 1);
    record->key.length = static_cast<uint8_t>(length);
    return TAMO_HOST_OK;
}

int32_t TamoOmConfigcopyStr2Val(ConfConfigOmVal *value, const char *text) {
    if (value == nullptr) {
        return TAMO_HOST_INVALID;
    }
    size_t length = fittingLength(text, sizeof(value->text));
    if (length == sizeof(value->text)) {
        memset(value, 0, sizeof(*value));
        return TAMO_HOST_INVALID;
    }
    memmove(value->text, text, length + 1);
    value->length = static_cast<uint32_t>(length);
    return TAMO_HOST_OK;
}

int32_t TamoOmConfigsetIntValue(ConfConfigOmVal *value, int64_t number) {
    return value == nullptr
               ? int32_t{TAMO_HOST_INVALID}
               : setPrinted(value, snprintf(value->text, sizeof(value->text), "%" PRId64, number));
}

int32_t TamoOmConfigsetUintValue(ConfConfigOmVal *value, uint64_t number) {
    return value == nullptr
               ? int32_t{TAMO_HOST_INVALID}
               : setPrinted(value, snprintf(value->text, sizeof(value->text), "%" PRIu64, number));
}

int32_t TamoOmConfigStringGet(ConfConfigOmRecord *record) {
    return read(record, 1);
}

int32_t TamoOmConfigStringMget(ConfConfigOmRecord *records, uint32_t count) {
    return read(records, count);
}

int32_t TamoOmConfigStringMset(const ConfConfigOmRecord *records, uint32_t count) {
    return write(records, count);
}

int32_t TamoOmConfigStringSet(ConfConfigOmRecord record) {
    return write(&record, 1);
}
