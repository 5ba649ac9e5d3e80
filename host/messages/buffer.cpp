/* Taking, completing and giving back messages. */
#include "host/messages/buffer.h"

#include <stdlib.h>
#include <sys/mman.h>

#include <new>

#include "host/base/fast_tls.h"

namespace tamo {

namespace {

/* Those of one call that receives several, the one that is in hand, and one for a message that its
 * handler sends. */
constexpr unsigned kSpares = kReceivedAtOnce + 2;

struct Spares {
    Message *messages[kSpares];
    unsigned count;
    bool ended; /* the thread ends: nothing is kept any more */
};

/* Without a destructor of its own, for those who give a message back after SparesEnd has run. */
thread_local constinit Spares spares TAMO_FAST_TLS = {};

struct SparesEnd {
    ~SparesEnd() {
        while (spares.count > 0) {
            free(spares.messages[--spares.count]);
        }
        spares.ended = true;
    }
    void arm() {}
};
thread_local SparesEnd sparesEnd;

}  // namespace

Message *takeMessage() {
    void *block = spares.count > 0 ? spares.messages[--spares.count]
                                   : aligned_alloc(alignof(Message), sizeof(Message));
    if (block == nullptr) {
        return nullptr;
    }
    auto *message = ::new (block) Message; /* leaves the bytes as they are */
    message->header = {};
    message->peer = nullptr;
    message->waiting.store(false, std::memory_order_relaxed);
    message->apart = nullptr;
    message->mappedSize = 0;
    message->size = 0;
    return message;
}

void forgetBody(Message *message) {
    if (message->mappedSize > 0) {
        (void)munmap(message->apart, message->mappedSize);
    } else {
        free(message->apart);
    }
    message->apart = nullptr;
    message->mappedSize = 0;
}

void giveMessageBack(Message *message) {
    if (message == nullptr) {
        return;
    }
    forgetBody(message);
    if (spares.ended || spares.count == kSpares) {
        free(message);
        return;
    }
    sparesEnd.arm();
    spares.messages[spares.count++] = message;
}

void completeHeader(Message *message) {
    const PacketHead &packet = message->packet;
    OsMsgHeader &header = message->header;
    header.syncFlag = packet.kind == kMessage && (packet.flags & kSenderWaits) != 0 ? 1 : 0;
    header.msgId = packet.msgId;
    memcpy(header.sender, packet.sender, sizeof(header.sender));
    memcpy(header.receiver, packet.receiver, sizeof(header.receiver));
    header.bodyLength = packet.bodyLength;
    header.body = packet.bodyLength > 0 ? bodyOf(message) : nullptr;
}

}  // namespace tamo
