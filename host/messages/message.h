/* Received messages and responses.
 *
 * A message is one block: the header that the program sees, what the layer remembers of it, and a
 * small body. Each thread keeps the last ones that it released, so that a loop of receiving and
 * freeing allocates nothing. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "host/messages/ring.h"
#include "tamo_os_msg.h"

namespace tamo::messages {

struct Peer;

struct Message {
    OsMsgHeader header; /* first: a header that comes back is the message's address */
    Peer *peer; /* the connection that it came through; null unless an answer is wanted or it
                         * is measured */
    std::atomic<bool> waiting;
    uint64_t takenNs; /* when it was taken out, by the monotonic clock; 0: it is not measured */
    void *allocated;  /* a body that does not fit below, or null */
    uint32_t arrived; /* bytes of the body, from the ring */
    Mapping mapped;   /* a body that came in a file */
    RecordHead record;
    alignas(16) uint8_t smallBody[2048];
};

/* An unused message; null when there is no memory. */
Message *allocateMessage();

/* Null is allowed. */
void releaseMessage(Message *message);

inline Message *messageOf(OsMsgHeader *header) {
    return reinterpret_cast<Message *>(header);
}

/* Where a message's own body is, whatever the program makes of the header. */
void *bodyOf(Message *message);

/* Copies more of a message's body, of which `available` bytes are in the ring by now; false when there
 * were no more, or there is no memory. */
bool takePart(Message *message, const uint8_t *content, uint32_t available);

/* Gives a message, whose record is checked and copied, its body: from the ring, or from the record's
 * file. `*list` is where the result list is then: in the ring or the file. Null, or what is wrong. */
const char *takeContent(Message *message, const uint8_t *content, const Descriptor &file,
                        const uint8_t **list);

}  // namespace tamo::messages
