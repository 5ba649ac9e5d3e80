/* The table of timers. Beside it lie the positions of its entries in the order of their ids, so that a
 * hundred thousand timers are found without a walk for each. */
#include "msg/conf_timer_table.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

namespace {

constinit std::mutex tableMutex; /* nothing is called under it */
constinit TimerTable kept = {};
constinit int32_t *positions = nullptr; /* null: there was no memory for them */

using TableLock = std::lock_guard<std::mutex>;

/* The positions of the entries, by id and then by position; null without memory. */
int32_t *sortPositions(TimerTable table) {
    if (table.count <= 0) {
        return nullptr;
    }
    auto *sorted = new (std::nothrow) int32_t[static_cast<size_t>(table.count)];
    if (sorted != nullptr) {
        for (int32_t i = 0; i < table.count; i++) {
            sorted[i] = i;
        }
        std::sort(sorted, sorted + table.count, [&](int32_t a, int32_t b) {
            return std::pair(table.entries[a].timerId, a) < std::pair(table.entries[b].timerId, b);
        });
    }
    return sorted;
}

}  // namespace

void keepTimerTable(TimerTable table) {
    int32_t *replaced = sortPositions(table);
    {
        const TableLock lock(tableMutex);
        kept = table;
        std::swap(positions, replaced);
    }
    delete[] replaced;
}

TimerTable timerTable() {
    const TableLock lock(tableMutex);
    return kept;
}

ConfCommTimerEntry *findTimerEntry(uint32_t timerId) {
    const TableLock lock(tableMutex);
    if (positions != nullptr) {
        const int32_t *const end = positions + kept.count;
        const int32_t *const at = std::partition_point(
            static_cast<const int32_t *>(positions), end,
            [timerId](int32_t position) { return kept.entries[position].timerId < timerId; });
        if (at != end && kept.entries[*at].timerId == timerId) {
            return kept.entries + *at;
        }
    }
    /* Without positions, or with ids that the application has changed since. */
    for (int32_t i = 0; i < kept.count; i++) {
        if (kept.entries[i].timerId == timerId) {
            return kept.entries + i;
        }
    }
    return nullptr;
}
