/* The timers of the manager: found by handle, and ordered by the time when they are due.
 *
 * A timer lives in a numbered slot. Two arrays lead to slots:
 *
 * - `homes`, for handles. Handles are numbers drawn in turn. The lower bits of a number are its home; a
 *   number whose home is taken is passed over, and half of the homes are free. So a look-up is one
 *   look, and a stale handle meets no other timer until all numbers were drawn. When the array doubles,
 *   a home becomes two, so that no two timers meet.
 * - `queue`, a binary heap by due time. `places` says where in it a slot is, so that any timer can be
 *   taken out of the middle.
 *
 * The sorting keys lie in the heap and the places in an array of their own: a timer moves in the heap
 * without the memory of the timers on its way being touched. Nothing here locks. */
#pragma once
#include <stdint.h>

#include "platform/tamo_os_timer.h"

namespace tamo::timers {

constexpr uint32_t kNoSlot = UINT32_MAX;

struct TimerSlot {
    OsTmrCreateParam param;
    uint32_t handle; /* 0: the slot is free */
    uint32_t nextFree;
};

struct DueTimer {
    uint64_t due; /* nanoseconds */
    uint32_t slot;
};

struct TimerTable {
    TimerSlot *slots = nullptr;
    uint32_t *places = nullptr; /* by slot; kNoSlot: not queued */
    DueTimer *queue = nullptr;
    uint32_t *homes = nullptr; /* by home; kNoSlot: free */
    uint32_t capacity = 0;     /* of slots; there are twice as many homes */
    uint32_t count = 0;
    uint32_t queued = 0;
    uint32_t firstFree = kNoSlot;
    uint32_t lastHandle = 0;
};

/* Takes a slot for a timer and draws its handle; kNoSlot without memory. */
uint32_t addTimer(TimerTable *table, const OsTmrCreateParam &param);

/* The slot of a timer, or kNoSlot. */
uint32_t findTimer(const TimerTable &table, uint32_t handle);

/* Takes a timer out of the queue and gives its slot back. */
void removeTimer(TimerTable *table, uint32_t slot);

/* Queues a timer that is not queued, or queues it anew. */
void queueTimer(TimerTable *table, uint32_t slot, uint64_t due);

/* Takes a timer out of the queue, in which it need not be. */
void unqueueTimer(TimerTable *table, uint32_t slot);

/* When the first timer is due; UINT64_MAX when none is queued. */
inline uint64_t firstDue(const TimerTable &table) {
    return table.queued == 0 ? UINT64_MAX : table.queue[0].due;
}

/* Forgets all timers; their handles are not drawn again soon. */
void clearTimers(TimerTable *table);

}  // namespace tamo::timers
