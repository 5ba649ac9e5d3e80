/* Received packets, and the messages that are handed out from them.
 *
 * A message is one block: the header that the program sees, what the layer itself remembers of it,
 * and the packet as it came. Each thread keeps the last ones it gave back, so that a loop of
 * receiving and freeing takes no memory. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "host/messages/block.h"
#include "host/messages/handler_address.h"
#include "tamo_os_msg.h"

namespace tamo {

constexpr uint32_t kPacketMagic = 0x47534D54; /* "TMSG" */
constexpr uint8_t kWireVersion = 1;
constexpr uint8_t kPointerWidth = sizeof(void *);

enum PacketKind : uint8_t {
    kMessage = 1,
    kResponse = 2,
    kRefusal = 3,     /* `reason` says why a message has no response */
    kSuccessor = 4,   /* its descriptor is the connection that the sender goes on with */
    kAnnouncement = 5 /* the next packet brings a descriptor */
};

enum PacketFlag : uint8_t {
    kSenderWaits = 1, /* a message that wants a response */
    kHasList = 2,     /* a response with a result list, which may be empty */
    kInFile = 4,      /* body and list are in the file that comes with it */
    kInWindow = 8     /* ... in the window, which comes with the first such message */
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

/* Packets that one call may receive. */
constexpr unsigned kReceivedAtOnce = 16;

/* As much as two packets of a stock kernel's socket buffer hold. */
constexpr uint32_t kInlineLimit = 64U << 10;

struct Peer;

struct Message {
    OsMsgHeader header; /* first: a header that comes back is the message's address */
    Peer *peer;         /* the connection that an answer takes; null when none is wanted */
    std::atomic<bool> waiting;
    void *apart;         /* a body that was not inline: allocated, or ... */
    uint32_t mappedSize; /* ... mapped, with this many bytes */
    uint32_t size;       /* bytes of the packet */
    alignas(16) PacketHead packet;
    uint8_t inlineBody[kInlineLimit];
};
static_assert(offsetof(Message, inlineBody) == offsetof(Message, packet) + sizeof(PacketHead));

/* An unused message; null when there is no memory. Only what lies before the packet is set. */
Message *takeMessage();

/* Releases a body that was not inline; the message may be used for another packet. */
void forgetBody(Message *message);

/* Forgets the body and gives the block back. Null is allowed. */
void giveMessageBack(Message *message);

inline Message *messageOf(OsMsgHeader *header) {
    return reinterpret_cast<Message *>(header);
}

/* Where a message's own body is, whatever the program makes of the header. */
inline void *bodyOf(Message *message) {
    return message->apart != nullptr ? message->apart : message->inlineBody;
}

/* Fills the header from the packet. */
void completeHeader(Message *message);

}  // namespace tamo
