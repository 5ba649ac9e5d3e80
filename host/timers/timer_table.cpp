/* The timers of the manager: see timer_table.h. */
#include "host/timers/timer_table.h"

#include <stdlib.h>
#include <string.h>

namespace tamo::timers {
namespace {

constexpr uint32_t kFirstCapacity = 64;
constexpr uint32_t kLargestCapacity = 1U << 26;

/* `capacity` is a power of two. */
uint32_t homeOf(uint32_t handle, uint32_t capacity) {
    return handle & (2 * capacity - 1);
}

bool isBefore(const DueTimer &a, const DueTimer &b) {
    return a.due < b.due;
}

/* ---- memory ---- */

template <typename Item>
bool growArray(Item **array, size_t count) {
    void *grown = reallocarray(*array, count, sizeof(Item));
    if (grown == nullptr) {
        return false;
    }
    *array = static_cast<Item *>(grown);
    return true;
}

void freeSlot(TimerTable *table, uint32_t slot) {
    table->slots[slot].handle = 0;
    table->slots[slot].nextFree = table->firstFree;
    table->firstFree = slot;
}

void fillHomes(TimerTable *table) {
    memset(table->homes, 0xFF, 2 * sizeof(uint32_t) * table->capacity);
    for (uint32_t slot = 0; slot < table->capacity; slot++) {
        const uint32_t handle = table->slots[slot].handle;
        if (handle != 0) {
            table->homes[homeOf(handle, table->capacity)] = slot;
        }
    }
}

/* Doubles the table. Without memory for one of the arrays the others stay larger than needed. */
bool growTable(TimerTable *table) {
    const uint32_t capacity = table->capacity == 0 ? kFirstCapacity : 2 * table->capacity;
    if (capacity > kLargestCapacity || !growArray(&table->slots, capacity) ||
        !growArray(&table->places, capacity) || !growArray(&table->queue, capacity) ||
        !growArray(&table->homes, size_t{2} * capacity)) {
        return false;
    }
    const uint32_t before = table->capacity;
    table->capacity = capacity;
    for (uint32_t slot = capacity; slot-- > before;) {
        table->places[slot] = kNoSlot;
        freeSlot(table, slot);
    }
    fillHomes(table);
    return true;
}

uint32_t drawHandle(TimerTable *table) {
    do {
        table->lastHandle++;
    } while (table->lastHandle == 0 ||
             table->homes[homeOf(table->lastHandle, table->capacity)] != kNoSlot);
    return table->lastHandle;
}

/* ---- the heap ---- */

void place(TimerTable *table, const DueTimer &timer, uint32_t at) {
    table->queue[at] = timer;
    table->places[timer.slot] = at;
}

/* Puts a timer at a place or, past later ones, nearer to the top. */
void siftUp(TimerTable *table, const DueTimer &timer, uint32_t at) {
    while (at > 0) {
        const uint32_t parent = (at - 1) / 2;
        if (!isBefore(timer, table->queue[parent])) {
            break;
        }
        place(table, table->queue[parent], at);
        at = parent;
    }
    place(table, timer, at);
}

/* Puts a timer at a place or, past earlier ones, farther from the top. */
void siftDown(TimerTable *table, const DueTimer &timer, uint32_t at) {
    for (;;) {
        uint32_t child = 2 * at + 1;
        if (child >= table->queued) {
            break;
        }
        if (child + 1 < table->queued && isBefore(table->queue[child + 1], table->queue[child])) {
            child++;
        }
        if (!isBefore(table->queue[child], timer)) {
            break;
        }
        place(table, table->queue[child], at);
        at = child;
    }
    place(table, timer, at);
}

/* Puts a timer at a free place, above and below which the order holds. */
void sift(TimerTable *table, const DueTimer &timer, uint32_t at) {
    if (at > 0 && isBefore(timer, table->queue[(at - 1) / 2])) {
        siftUp(table, timer, at);
    } else {
        siftDown(table, timer, at);
    }
}

}  // namespace

uint32_t addTimer(TimerTable *table, const OsTmrCreateParam &param) {
    if (table->firstFree == kNoSlot && !growTable(table)) {
        return kNoSlot;
    }
    const uint32_t slot = table->firstFree;
    TimerSlot &timer = table->slots[slot];
    table->firstFree = timer.nextFree;
    timer.param = param;
    timer.handle = drawHandle(table);
    table->homes[homeOf(timer.handle, table->capacity)] = slot;
    table->count++;
    return slot;
}

uint32_t findTimer(const TimerTable &table, uint32_t handle) {
    if (table.capacity == 0 || handle == 0) {
        return kNoSlot;
    }
    const uint32_t slot = table.homes[homeOf(handle, table.capacity)];
    return slot != kNoSlot && table.slots[slot].handle == handle ? slot : kNoSlot;
}

void removeTimer(TimerTable *table, uint32_t slot) {
    unqueueTimer(table, slot);
    table->homes[homeOf(table->slots[slot].handle, table->capacity)] = kNoSlot;
    freeSlot(table, slot);
    table->count--;
}

void queueTimer(TimerTable *table, uint32_t slot, uint64_t due) {
    const DueTimer timer = {due, slot};
    const uint32_t at = table->places[slot];
    if (at == kNoSlot) {
        siftUp(table, timer, table->queued++);
    } else {
        sift(table, timer, at);
    }
}

void unqueueTimer(TimerTable *table, uint32_t slot) {
    const uint32_t at = table->places[slot];
    if (at == kNoSlot) {
        return;
    }
    table->places[slot] = kNoSlot;
    const DueTimer last = table->queue[--table->queued];
    if (at != table->queued) {
        sift(table, last, at);
    }
}

void clearTimers(TimerTable *table) {
    for (uint32_t slot = 0; slot < table->capacity; slot++) {
        if (table->slots[slot].handle != 0) {
            removeTimer(table, slot);
        }
    }
}

}  // namespace tamo::timers
