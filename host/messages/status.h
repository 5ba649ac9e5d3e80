/* A queue's status: who serves the queue, and what waits in it.
 *
 * Each queue has memory that its owner and every sender share (base/shared_page.h): nobody can take it
 * away from them. Each connection has a slot there, in
 * which its sender counts what it sends, before it publishes it, and the receiver what it takes. The
 * sums limit what waits in the queue, and people can look at them. The receiver clears the slot of a
 * connection that it drops, so a sender that was killed between counting and publishing leaves
 * nothing behind. Nothing else depends on the counts: any process of this user may write there.
 *
 *     run/NAME.lock    locked by the owner for as long as it lives
 *     run/NAME.queue   the number of the shared memory
 *     run/NAME.sock    the socket, there only while somebody listens or has died */
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <atomic>

#include "tamo_host.h"

namespace tamo::messages {

constexpr size_t kQueueNameSize = 16;

struct SenderSlot {
    alignas(64) std::atomic<uint32_t> owner; /* the sender's process, 0: the slot is free */
    std::atomic<uint64_t> sent;
    std::atomic<uint64_t> sentBytes;
    alignas(64) std::atomic<uint64_t> taken; /* on a line of its own: the receiver's */
    std::atomic<uint64_t> takenBytes;
};

constexpr uint32_t kSlots = 2048;
constexpr unsigned kServiceBuckets = TAMO_HOST_SERVICE_BUCKETS;

struct QueueStatus {
    uint32_t magic;
    uint8_t version; /* of the wire */
    uint8_t pointerWidth;
    uint8_t unused[2];
    uint32_t ownerPid;
    std::atomic<uint32_t> slotsUsed; /* no slot behind so many was ever used */
    char name[kQueueNameSize];       /* the queue's, and its directory: */
    uint64_t device;
    uint64_t directory;
    alignas(64) std::atomic<uint64_t> received;
    alignas(64) std::atomic<uint64_t> served[kServiceBuckets]; /* see TamoHostQueueInfo */
    SenderSlot slots[kSlots];
};
static_assert(sizeof(SenderSlot) == 128 &&
              sizeof(QueueStatus) == 128 * (kSlots + 1) + 8 * kServiceBuckets);
/* Shared by processes, so they must need no lock; with 32-bit pointers aligned words of this size do
 * not, though is_always_lock_free speaks of unaligned ones and says otherwise there. */
static_assert(alignof(std::atomic<uint64_t>) == sizeof(uint64_t));

/* Compares two names that are zero-filled behind their ends. */
inline bool sameQueueName(const char (&a)[kQueueNameSize], const char (&b)[kQueueNameSize]) {
    uint64_t x[2];
    uint64_t y[2];
    memcpy(x, a, sizeof(x));
    memcpy(y, b, sizeof(y));
    return ((x[0] ^ y[0]) | (x[1] ^ y[1])) == 0;
}

/* The names of a queue's files below run/. */
struct QueueFileName {
    char text[32];
};
QueueFileName queueFileName(const char *queue, const char *suffix);

/* Copies a queue's name, zero bytes behind it; false when it is none: 1 to 15 letters, digits, '.',
 * '_' and '-'. */
bool copyQueueName(const char *name, char (&copy)[kQueueNameSize]);

/* A queue's status, as one process has it. */
class StatusMapping {
  public:
    StatusMapping() = default;
    ~StatusMapping();
    StatusMapping(const StatusMapping &) = delete;
    StatusMapping &operator=(const StatusMapping &) = delete;

    /* Makes the status and its file anew, for the owner. 0, or an error number. */
    int create(int directory, const char *queue);

    /* Joins the status that the file tells, for a sender. 0, or an error number; EINVAL when it tells
     * none. */
    int open(int directory, const char *queue);

    QueueStatus *get() const { return status_; }

  private:
    QueueStatus *status_ = nullptr;
};

/* What a queue holds at the most; conf_msg_api.h and tamo_os_msg.h promise it. */
constexpr uint64_t kQueueMessages = 2097152;
constexpr uint64_t kQueueBytes = 134217728;

/* What waits in a queue. */
struct QueueDepth {
    uint64_t messages;
    uint64_t bytes; /* of bodies */
};
QueueDepth depthOf(const QueueStatus &status);

/* Counts a message that was taken out `takenNs` by the monotonic clock, and is answered now. */
void countService(QueueStatus *status, uint64_t takenNs);

/* Takes a free slot; kSlots when all are in use. */
uint32_t claimSlot(QueueStatus *status);

/* Clears a slot and makes it free; an index that is none is ignored. */
void freeSlot(QueueStatus *status, uint32_t slot);

}  // namespace tamo::messages
