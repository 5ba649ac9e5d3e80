/* The trace: what becomes of messages, for those who look on.
 *
 * How it works. The processes of one device root share a page (base/shared_page.h) with a ring of
 * events. It says until when somebody looks: a reader moves that time on as it reads, so that one that
 * was killed or stopped is forgotten by itself, and there may be any number of them. While nobody
 * looks, a message costs one load. While somebody does, its process takes the next number and writes
 * an event into that number's slot, over an older one, without waiting; a slot that another thread
 * is still writing is left alone, and the event is lost. Readers have their own places. A slot's sequence
 * tells a reader that it was overtaken, and how many events it missed.
 *
 * Any thread may call. */
#pragma once
#include <stdint.h>

#include <atomic>

#include "host/messages/record.h"
#include "tamo_host.h"

namespace tamo::messages {

constexpr uint32_t kTraceSlots = 4096;
constexpr unsigned kTraceWords = sizeof(TamoHostTraceEvent) / sizeof(uint64_t);
static_assert(sizeof(TamoHostTraceEvent) == 128);

struct TraceSlot {
    std::atomic<uint64_t> sequence; /* the event's number and 1; kTraceBusy while it is written */
    std::atomic<uint64_t> words[kTraceWords];
};
constexpr uint64_t kTraceBusy = uint64_t{1} << 63;

/* The same in both pointer widths. */
struct TracePage {
    std::atomic<uint32_t> magic; /* stored last */
    uint32_t unused;
    alignas(8) uint64_t device; /* of the directory run/ ... */
    uint64_t directory;
    std::atomic<uint64_t> watchedUntilMs; /* by the monotonic clock; 0: nobody looks */
    std::atomic<uint64_t> next;           /* event's number */
    TraceSlot slots[kTraceSlots];
};

/* This process's page; null before its first message. */
extern std::atomic<TracePage *> tracePage;

/* Finds or makes the page; never null. */
TracePage *joinTrace();

inline bool isTraced() {
    const TracePage *page = tracePage.load(std::memory_order_acquire);
    page = page != nullptr ? page : joinTrace();
    return page->watchedUntilMs.load(std::memory_order_relaxed) != 0;
}

/* The monotonic time where somebody looks, else 0. */
uint64_t beginOfTrace();

/* What an event is about: a message's head, and its body where that is at hand. */
struct TraceSubject {
    const char *queue;
    const RecordHead *head;
    const void *body;
    uint32_t peerPid;
};

/* Writes an event, if somebody looks. `result` is the handler's or a TAMO_HOST_ code. */
void trace(TamoHostTraceKind kind, const TraceSubject &subject, uint32_t result, uint64_t beganNs);

}  // namespace tamo::messages
