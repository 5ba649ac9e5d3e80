/* The index of bound items, sorted by name, and the life cycle of the configuration subsystem. */
#include <algorithm>
#include <atomic>
#include <cstring>
#include <numeric>

#include "common/log.h"
#include "common/platform_block.h"
#include "config/config_index.h"
#include "include/conf_config.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_config_client.h"

namespace {

constexpr char kUnit[] = "conf_config";

constexpr int32_t kFirstCapacity = 300;
constexpr int32_t kGrowth = 200;

/* Entries 0 to g_itemNum - 1 are in use. `order` lists them in ascending order of name, no two of
 * them equal: so an insertion moves four bytes per entry instead of the entries. It lies behind the
 * entries, in their block. A capacity of 0 means that there is no index. */
ConfConfigIndexEntry *entries = nullptr;
int32_t *order = nullptr;
int32_t g_itemCache = 0;
int32_t g_itemNum = 0;

/* The service may report changes as soon as it knows the handler, which is before the items are bound:
 * until then a report finds none. */
std::atomic<bool> itemsAreBound{false};

using Entries = PlatformBlock<ConfConfigIndexEntry>;

size_t entryBytes(int32_t count) {
    return static_cast<size_t>(count) * sizeof(ConfConfigIndexEntry);
}

size_t orderBytes(int32_t count) {
    return static_cast<size_t>(count) * sizeof(int32_t);
}

Entries takeEntries(int32_t capacity, uint32_t line = __builtin_LINE()) {
    return takeBlock<ConfConfigIndexEntry>(entryBytes(capacity) + orderBytes(capacity), kUnit,
                                           line);
}

int32_t *orderOf(const Entries &block, int32_t capacity) {
    return reinterpret_cast<int32_t *>(block.get() + capacity);
}

unsigned char lower(char c) {
    const bool isUpper = c >= 'A' && c <= 'Z';
    return static_cast<unsigned char>(isUpper ? c - 'A' + 'a' : c);
}

/* Orders names with ASCII letters taken as lower case, whatever the process's locale. */
int compareNames(const char *a, const char *b) {
    while (*a != '\0' && lower(*a) == lower(*b)) {
        a++;
        b++;
    }
    return lower(*a) - lower(*b);
}

/* The position of the first entry whose name is not less than `name`. */
int32_t lowerBound(const char *name) {
    int32_t low = 0;
    int32_t high = g_itemNum - 1;
    while (low <= high) {
        const int32_t middle = low + (high - low) / 2;
        if (compareNames(name, entries[order[middle]].name) <= 0) {
            high = middle - 1;
        } else {
            low = middle + 1;
        }
    }
    return low;
}

void releaseEntries(uint32_t line = __builtin_LINE()) {
    OSMemTypeFreeMon(entries, 0, 0, line, kUnit);
    entries = nullptr;
}

/* Moves the index into a larger array; on failure it stays where it is. */
void growIndex(const char *function) {
    const int32_t capacity = g_itemCache + kGrowth;
    Entries grown = takeEntries(capacity);
    if (grown == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "ConfConfigAddIndex malloc error \n");
        return;
    }
    int32_t *grownOrder = orderOf(grown, capacity);
    int error = memcpy_s(grown.get(), entryBytes(capacity), entries, entryBytes(g_itemNum));
    if (error == 0) {
        error = memcpy_s(grownOrder, orderBytes(capacity), order, orderBytes(g_itemNum));
    }
    if (error != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "memcpy error = %d", error);
        return;
    }
    releaseEntries();
    entries = grown.release();
    order = grownOrder;
    g_itemCache = capacity;
}

/* Makes the order anew from the entries' names. */
void restoreOrder() {
    std::iota(order, order + g_itemNum, 0);
    std::sort(order, order + g_itemNum, [](int32_t a, int32_t b) {
        return compareNames(entries[a].name, entries[b].name) < 0;
    });
}

/* Makes room at a position of the order; null, with the index as it was, when the bounded functions
 * refuse. The free entry is cleared first, and a refused move clears what it should have moved. */
ConfConfigIndexEntry *ConfConfigInsertIndex(int32_t position) {
    ConfConfigIndexEntry *place = entries + g_itemNum;
    int error = memset_s(place, sizeof(*place), 0, sizeof(*place));
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
        return nullptr;
    }
    const size_t behind = orderBytes(g_itemNum - position);
    if (behind != 0) {
        error = memmove_s(order + position + 1, behind, order + position, behind);
    }
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
        restoreOrder();
        return nullptr;
    }
    order[position] = g_itemNum++;
    return place;
}

void connectService(const char *ownerName, const char *moduleName, const char *function,
                    const char *failure) {
    if (TamoOmConfigInit(0, ownerName, moduleName) != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "%s", failure);
    }
    TamoOmConfigNotifyCallback(ConfConfigClientCallBack, moduleName);
}

}  // namespace

ConfConfigIndexEntry *ConfConfigAddIndex(const char *name, bool create) {
    if (name == nullptr || g_itemCache == 0) {
        return nullptr;
    }
    const int32_t position = lowerBound(name);
    if (position < g_itemNum && compareNames(name, entries[order[position]].name) == 0) {
        return entries + order[position];
    }
    if (!create) {
        return nullptr;
    }
    if (g_itemNum >= g_itemCache) {
        growIndex(__func__);
    }
    if (g_itemNum == g_itemCache) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigAddIndex fail g_itemNum == g_itemCache %s %d\n", name,
                 position);
        return nullptr;
    }
    /* The name is copied first: a refused one leaves the index untouched. */
    ConfConfigIndexEntry entry = {};
    const int error = strcpy_s(entry.name, sizeof(entry.name), name);
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
        return nullptr;
    }
    ConfConfigIndexEntry *place = ConfConfigInsertIndex(position);
    if (place != nullptr) {
        *place = entry;
    }
    return place;
}

const ConfConfigIndexEntry *findBoundItem(const char *name) {
    return itemsAreBound.load(std::memory_order_acquire) ? ConfConfigAddIndex(name, false)
                                                         : nullptr;
}

bool hasIndex() {
    return g_itemCache != 0;
}

int32_t boundItemCount() {
    return g_itemNum;
}

const ConfConfigIndexEntry &boundItem(int32_t position) {
    return entries[order[position]];
}

int32_t lowerBoundItem(const char *name) {
    return lowerBound(name);
}

bool nameBeginsWith(const char *name, const char *prefix) {
    while (*prefix != '\0' && lower(*name) == lower(*prefix)) {
        name++;
        prefix++;
    }
    return *prefix == '\0';
}

void ConfConfigBind(const char *name, int32_t type, void *value, uint32_t size,
                    ConfConfigItemCallback callback) {
    ConfConfigIndexEntry *entry = ConfConfigAddIndex(name, true);
    if (entry == nullptr) {
        return;
    }
    entry->type = type;
    entry->localOnly = type == CONF_VALUE_DATA ? 1 : 0;
    entry->value = value;
    entry->size = size;
    entry->callback = callback;
}

int32_t ConfConfigInit(ConfConfigRegisterFn registerFn, const char *ownerName,
                       const char *moduleName) {
    if (registerFn == nullptr || ownerName == nullptr || moduleName == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigInit invalue param, null pointer!");
        return -1;
    }
    itemsAreBound.store(false, std::memory_order_release);
    connectService(ownerName, moduleName, __func__, "TamoOmConfigInit failed");
    Entries first = takeEntries(kFirstCapacity);
    if (first == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfConfigInit Malloc fail");
        itemsAreBound.store(entries != nullptr, std::memory_order_release);
        return -1;
    }
    if (entries != nullptr) {
        releaseEntries();
    }
    order = orderOf(first, kFirstCapacity);
    entries = first.release();
    g_itemNum = 0;
    g_itemCache = kFirstCapacity;
    registerFn();
    itemsAreBound.store(true, std::memory_order_release);
    return 0;
}

int32_t ConfConfigReInit(void) {
    CONF_LOG(CONF_LOG_INFO, "ConfConfigReInit.");
    connectService("TamoUIConf", "Conf", __func__, "ConfInitOmConfig failed");
    return 0;
}

int32_t ConfConfigUnInit(void) {
    CONF_LOG(CONF_LOG_INFO, "ConfConfigUnInit.");
    TamoOmConfigUnInit("Conf");
    return 0;
}

int32_t ConfConfigDeInit(void) {
    CONF_LOG(CONF_LOG_INFO, "ConfConfigDeInit");
    itemsAreBound.store(false, std::memory_order_release);
    g_itemCache = 0;
    g_itemNum = 0;
    if (entries == nullptr) {
        return 0;
    }
    ConfConfigIndexEntry *released = entries;
    entries = nullptr;
    return static_cast<int32_t>(OSMemTypeFreeMon(released, 0, 0, __LINE__, kUnit));
}
