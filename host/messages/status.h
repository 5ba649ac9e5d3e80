/* What is known of a queue without asking its owner.
 *
 * Each queue has a small file, mapped by its owner and by every sender, in which both count. The
 * counts tell how many messages wait; they limit what asynchronous senders may heap up, and people
 * can look at them. Nothing else depends on them: any process of this user may write there. A sender
 * that is killed between counting and sending leaves the depth too high by one message until the
 * queue is opened again.
 *
 *     run/NAME.lock    locked by the owner for as long as it lives
 *     run/NAME.queue   the counts
 *     run/NAME.sock    the socket, there only while somebody listens or has died */
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <atomic>

#include "host/base/descriptor.h"

namespace tamo {

constexpr size_t kQueueNameSize = 16;

struct QueueStatus {
    uint32_t magic;
    uint8_t version; /* of the wire */
    uint8_t pointerWidth;
    uint8_t unused[2];
    uint32_t ownerPid;
    /* On cache lines of their own: senders write the first, the receiver the second. */
    alignas(64) std::atomic<uint64_t> sent;
    std::atomic<uint64_t> sentBytes;
    alignas(64) std::atomic<uint64_t> received;
    std::atomic<uint64_t> receivedBytes;
};
static_assert(sizeof(QueueStatus) == 192 && offsetof(QueueStatus, received) == 128);
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

/* A mapped status file. */
class StatusMapping {
  public:
    StatusMapping() = default;
    ~StatusMapping();
    StatusMapping(const StatusMapping &) = delete;
    StatusMapping &operator=(const StatusMapping &) = delete;

    /* Creates the file anew, for its owner. 0, or an error number. */
    int create(int directory, const char *queue);

    /* Maps the file as it is, for a sender. 0, or an error number; EINVAL when it is not a status
     * file. */
    int open(int directory, const char *queue);

    QueueStatus *get() const { return status_; }

  private:
    int map(const Descriptor &file);
    QueueStatus *status_ = nullptr;
};

/* Bytes and messages that wait; 0 when the counts make no sense. */
uint64_t waitingMessages(const QueueStatus &status);
uint64_t waitingBytes(const QueueStatus &status);

}  // namespace tamo
