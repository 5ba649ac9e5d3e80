/* Received packets, and the messages that are handed out from them.
 *
 * A message is one block: the header that the program sees, what the layer itself remembers of it,
 * and the packet as it came. Each thread keeps the last ones it gave back, so that a loop of
 * receiving and freeing takes no memory. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "message_block.h"
#include "message_handler.h"
#include "tamo_os_msg.h"

namespace tamo {

constexpr uint32_t kPacketMagic = 0x47534D54; /* "TMSG" */
constexpr uint8_t kWireVersion = 1;
constexpr uint8_t kPointerWidth = sizeof(void *);

enum PacketKind : uint8_t {
    kMessage = 1,
    kResponse = 2,
    kRefusal = 3,  /* `reason` says why a message has no response */
    kSuccessor = 4 /* its descriptor is the connection that the sender goes on with */
};

enum PacketFlag : uint8_t {
    kSenderWaits = 1, /* a message that wants a response */
    kInFile = 2,      /* body and list are in the file */
    kHasList = 4      /* a response with a result list */
};

struct PacketHead {
    uint32_t magic;
    uint8_t version;
    uint8_t pointerWidth;
    uint8_t kind;
    uint8_t reason; /* a TAMO_HOST_ code */
    /* The rest belongs to this version. */
    uint32_t serial; /* a response or refusal has that of its message */
    uint32_t msgId;
    char sender[16];
    char receiver[16];
    uint32_t bodyLength;
    uint32_t listLength;
    uint8_t flags;
    uint8_t buildIdLength; /* 0: the handler is null, or the body has none */
    uint8_t buildId[kMaxBuildId];
    uint8_t unused1[2];
    uint64_t handlerOffset;
    uint8_t unused2[8];
};
static_assert(sizeof(PacketHead) == 96 && offsetof(PacketHead, handlerOffset) == 80);
static_assert(sizeof(PacketHead) % 16 == 0, "an inline body is aligned for any type");

/* Above this, writing a memory file and mapping it costs less than copying through the socket. */
constexpr uint32_t kInlineLimit = 32U << 10;

struct Peer;

struct Message {
    OsMsgHeader header; /* first: a header that comes back is the message's address */
    Peer *peer;         /* the connection that an answer takes; null when none is wanted */
    std::atomic<bool> waiting;
    void *mapping; /* the body, when it came in a file */
    uint32_t mappingSize;
    uint32_t size; /* bytes of the packet */
    alignas(16) PacketHead packet;
    uint8_t inlineBody[kInlineLimit];
};
static_assert(offsetof(Message, inlineBody) == offsetof(Message, packet) + sizeof(PacketHead));

/* An unused message; null when there is no memory. Only what lies before the packet is set. */
Message *takeMessage();

/* Unmaps a body that came in a file; the message may be used for another packet. */
void forgetBody(Message *message);

/* Forgets the body and gives the block back. Null is allowed. */
void giveMessageBack(Message *message);

inline Message *messageOf(OsMsgHeader *header) {
    return reinterpret_cast<Message *>(header);
}

/* Fills the header from the packet and the body. */
void completeHeader(Message *message, void *body);

}  // namespace tamo
