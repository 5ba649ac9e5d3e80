/* Change reports of the configuration service, handed to the callbacks of the bound items.
 *
 * A report is copied into list items, the items are grouped by the callback of their index entry,
 * and each callback gets its group. All memory is had before the first callback runs, so that a
 * report is delivered whole or not at all. Groups are found through a small hash table of callbacks
 * and kept as chains through the report: the work grows with the report, not with report times
 * callbacks. */
#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

#include "common/log.h"
#include "common/platform_block.h"
#include "config/config_index.h"
#include "config/sensitive_keys.h"
#include "include/conf_config.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_om_config_client.h"

namespace {

constexpr char kUnit[] = "conf_config";

constexpr uint32_t kChangeMessage = 0x10000;
constexpr uint32_t kMostCallbacks = 200;
constexpr uint32_t kMostItemsPerCall = 255;
constexpr uint32_t kHashSlots = 512; /* a power of two, well above kMostCallbacks */
constexpr uint32_t kNone = 0xFFFFFFFF;

using Items = PlatformBlock<ConfConfigListItem>;

/* A changed key with what the index knows of it, chained to the next one of the same callback. */
struct FoundItem {
    ConfConfigItemCallback callback; /* null: nobody is to be told */
    uint32_t next;
};
using FoundItems = PlatformBlock<FoundItem>;

/* One callback with its items. */
struct Group {
    ConfConfigItemCallback callback;
    uint32_t count;
    ConfConfigListItem *items; /* owned */
    uint32_t first, last;      /* its chain through the found items */
};

/* The groups of one report, in the order in which their callbacks first appear. */
struct CallbackTable {
    uint32_t count;
    Group groups[kMostCallbacks];
    uint16_t slots[kHashSlots]; /* position in `groups` plus one; 0 is free */
};

/* A report's copy, whose sensitive values are wiped when it is released. */
struct ReportOwner {
    Items items;
    uint32_t count;

    ~ReportOwner() {
        if (items != nullptr) {
            wipeSensitive(items.get(), count);
        }
    }
};

/* A change callback table with its items, released together. */
struct TableOwner {
    PlatformBlock<CallbackTable> table;

    ~TableOwner() {
        for (uint32_t i = 0; table != nullptr && i < table->count; i++) {
            releaseItems(&table->groups[i]);
        }
    }
    static void releaseItems(Group *group) {
        if (group->items != nullptr) {
            wipeSensitive(group->items, group->count);
            OSMemTypeFreeMon(group->items, 0, 0, __LINE__, kUnit);
            group->items = nullptr;
        }
    }
};

/* Takes an array of records; null also where the count is beyond any memory. */
template <typename Record>
PlatformBlock<Record> takeArray(uint32_t count, uint32_t line = __builtin_LINE()) {
    if (count > SIZE_MAX / sizeof(Record)) {
        return PlatformBlock<Record>(nullptr, BlockRelease{kUnit, line});
    }
    return takeBlock<Record>(count * sizeof(Record), kUnit, line);
}

/* The group of a callback, a new one where there is none; null when the table is full. */
Group *groupOf(CallbackTable *table, ConfConfigItemCallback callback) {
    const auto address = reinterpret_cast<uintptr_t>(callback);
    uint32_t slot = static_cast<uint32_t>((address >> 2) ^ (address >> 11)) % kHashSlots;
    for (; table->slots[slot] != 0; slot = (slot + 1) % kHashSlots) {
        Group *group = &table->groups[table->slots[slot] - 1];
        if (group->callback == callback) {
            return group;
        }
    }
    if (table->count == kMostCallbacks) {
        return nullptr;
    }
    Group *group = &table->groups[table->count++];
    group->callback = callback;
    table->slots[slot] = static_cast<uint16_t>(table->count);
    return group;
}

/* Looks up every key of a report; null without memory. */
FoundItems findItems(const ConfConfigListItem *items, uint32_t count) {
    FoundItems found = takeArray<FoundItem>(count);
    for (uint32_t i = 0; found != nullptr && i < count; i++) {
        const ConfConfigIndexEntry *entry = findBoundItem(items[i].key);
        const bool told = entry != nullptr && entry->localOnly == 0;
        found.get()[i] = {told ? entry->callback : nullptr, kNone};
    }
    return found;
}

void ConfConfigAddCallBackCount(const CallbackTable *table) {
    for (uint32_t i = 0; i < table->count; i++) {
        CONF_LOG(CONF_LOG_DEBUG, "ConfConfigAddCallBackCount CfgItemCount = %d\n",
                 table->groups[i].count);
    }
}

/* Fills the table with the callbacks of a report and the number of their items. */
void ConfConfigAddCountByitemlist(CallbackTable *table, const ConfConfigListItem *items,
                                  uint32_t count) {
    const FoundItems found = findItems(items, count);
    if (found == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, " ConfConfigGetCountByitemlist malloc fail\n");
        return;
    }
    for (uint32_t i = 0; i < count; i++) {
        const ConfConfigItemCallback callback = found.get()[i].callback;
        Group *group = callback == nullptr ? nullptr : groupOf(table, callback);
        if (group != nullptr) {
            group->count++;
        }
    }
    ConfConfigAddCallBackCount(table);
}

/* Chains the found items of each group, in the order of the report. */
void chainItems(CallbackTable *table, FoundItem *found, uint32_t count) {
    std::for_each_n(table->groups, table->count,
                    [](Group &group) { group.first = group.last = kNone; });
    for (uint32_t i = 0; i < count; i++) {
        Group *group = found[i].callback == nullptr ? nullptr : groupOf(table, found[i].callback);
        if (group == nullptr) {
            continue;
        }
        if (group->first == kNone) {
            group->first = i;
        } else {
            found[group->last].next = i;
        }
        group->last = i;
    }
}

/* Copies a group's items out of the report; false when the bounded copy refuses or the index has
 * changed meanwhile. */
bool copyGroup(const Group &group, const FoundItem *found, const ConfConfigListItem *items) {
    uint32_t copied = 0;
    for (uint32_t i = group.first; i != kNone; i = found[i].next) {
        if (copied == group.count) {
            return false;
        }
        if (memcpy_s(group.items + copied, sizeof(*items), items + i, sizeof(*items)) != 0) {
            return false;
        }
        copied++;
    }
    return copied == group.count;
}

/* Copies the items of every group into its array; false, with a record, when that fails. */
bool ConfConfigAdditemlist(CallbackTable *table, const ConfConfigListItem *items, uint32_t count) {
    const FoundItems found = findItems(items, count);
    if (found == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, " ConfConfigAdditemlist malloc fail\n");
        return false;
    }
    chainItems(table, found.get(), count);
    for (uint32_t i = 0; i < table->count; i++) {
        if (!copyGroup(table->groups[i], found.get(), items)) {
            CONF_LOG(CONF_LOG_ERROR, " ConfConfigAdditemlist memcpy_s fail\n");
            return false;
        }
    }
    return true;
}

void deliverGroup(Group *group) {
    for (uint32_t told = 0; told < group->count; told += kMostItemsPerCall) {
        group->callback(group->items + told, std::min(kMostItemsPerCall, group->count - told));
    }
    TableOwner::releaseItems(group);
}

/* Groups a report by callback and delivers it. */
void ConfConfigDealCallBackList(const ConfConfigListItem *report, uint32_t count) {
    TableOwner owner = {takeBlock<CallbackTable>(sizeof(CallbackTable), kUnit)};
    CallbackTable *table = owner.table.get();
    if (table == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, " ConfConfigDealCallBackList malloc fail\n");
        return;
    }
    ConfConfigAddCountByitemlist(table, report, count);
    CONF_LOG(CONF_LOG_DEBUG, "ConfConfigDealCallBackList count = %d", table->count);
    for (uint32_t i = 0; i < table->count; i++) {
        table->groups[i].items = takeArray<ConfConfigListItem>(table->groups[i].count).release();
        if (table->groups[i].items == nullptr) {
            CONF_LOG(CONF_LOG_ERROR, " ConfConfigDealCallBackList malloc fail\n");
            return;
        }
    }
    if (table->count == 0) {
        return;
    }
    if (!ConfConfigAdditemlist(table, report, count)) {
        CONF_LOG(CONF_LOG_ERROR, " ConfConfigDealCallBackList fail\n");
        return;
    }
    std::for_each_n(table->groups, table->count, [](Group &group) { deliverGroup(&group); });
}

/* Copies one changed key with its value; 0, or the bounded copy's error code. */
int copyChange(ConfConfigListItem *item, const ConfConfigChangeItem &change) {
    const int error = strncpy_s(item->key, sizeof(item->key), change.key.text, change.key.length);
    if (error != 0) {
        return error;
    }
    return strncpy_s(item->value, sizeof(item->value), change.value->text, change.value->length);
}

}  // namespace

void ConfConfigClientCallBack(uint32_t msgId, uint32_t, uint32_t,
                              const ConfConfigChangeList *changes) {
    CONF_LOG(CONF_LOG_DEBUG, "ConfConfigClientCallBack msgid :%#x", msgId);
    if (changes == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    if (msgId != kChangeMessage) {
        return;
    }
    if (changes->items == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    const ReportOwner report = {takeArray<ConfConfigListItem>(changes->count), changes->count};
    if (report.items == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "malloc fail\n");
        return;
    }
    CONF_LOG(CONF_LOG_DEBUG, "ConfConfigClientCallBack arraySize = %d", changes->count);
    for (uint32_t i = 0; i < changes->count; i++) {
        if (changes->items[i].value == nullptr) {
            CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
            return;
        }
        const int error = copyChange(report.items.get() + i, changes->items[i]);
        if (error != 0) {
            CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
            return;
        }
    }
    ConfConfigDealCallBackList(report.items.get(), changes->count);
}
