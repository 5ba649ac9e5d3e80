/* Taking, completing and giving back messages. */
#include "message_buffer.h"

#include <stdlib.h>
#include <sys/mman.h>

#include <new>

#include "message_tls.h"

namespace tamo {

namespace {

/* Two, since a handler may send a message of its own while the received one is in hand. */
constexpr unsigned kSpares = 2;

struct Spares {
    Message *messages[kSpares];
    bool ended; /* the thread ends: nothing is kept any more */
};

/* Without a destructor of its own, for those who give a message back after SparesEnd has run. */
thread_local constinit Spares spares TAMO_FAST_TLS = {};

struct SparesEnd {
    ~SparesEnd() {
        for (Message *&spare : spares.messages) {
            free(spare);
            spare = nullptr;
        }
        spares.ended = true;
    }
    void arm() {}
};
thread_local SparesEnd sparesEnd;

}  // namespace

Message *takeMessage() {
    void *block = nullptr;
    for (Message *&spare : spares.messages) {
        if (spare != nullptr) {
            block = spare;
            spare = nullptr;
            break;
        }
    }
    if (block == nullptr) {
        block = aligned_alloc(alignof(Message), sizeof(Message));
        if (block == nullptr) {
            return nullptr;
        }
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
    if (!spares.ended) {
        for (Message *&spare : spares.messages) {
            if (spare == nullptr) {
                sparesEnd.arm();
                spare = message;
                return;
            }
        }
    }
    free(message);
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
