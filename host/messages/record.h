/* Messages between the processes of one device root.
 *
 * How it works. A sending thread connects to the receiver's socket (run/NAME.sock) once and passes a
 * memory file along. That file holds two rings: one for the thread's messages, one for the responses
 * to it. Bytes travel in two ways:
 *
 *  - A record in a ring: a head, the body, and a response's result list. A ring that is full goes on
 *    in another, larger memory file, which the writer passes through the socket; so a queue holds
 *    what conf_msg_api.h promises while an idle connection costs 52 KiB. A large record is published in
 *    parts, which the reader copies out while the writer copies the next ones in.
 *  - A body of more than kRingLimit bytes lies in a sealed memory file of its own, passed through the
 *    socket; its record has only the head. The receiver maps it without a copy.
 *
 * Nothing is received before its whole record is published, by a last store to the ring's `written`,
 * and whatever the record needs from the socket is sent before. So a sender may be killed at any
 * instruction: what it published arrives, since the memory belongs to the receiver as well, and of
 * the rest nothing is seen.
 *
 * Waking. A reader that finds a ring empty sets the ring's `asleep` and looks once more. A writer
 * publishes and then looks at `asleep`: only when it is set it clears it and sends a wake-up packet
 * of one byte. A receiver polls all its connections through one edge-triggered epoll descriptor and
 * keeps a list of those that may have records, which it serves in turn. Where the program polls the
 * queue's descriptor, an event object in the same epoll set is readable while that list has anybody.
 * A response always comes with a packet, as its sender waits in the socket; one that is published in
 * parts has two, at its first part and at its end.
 *
 * Ends. A socket closes with its process: a receiver reads the ring of an ended sender to its end and
 * drops it; a sender looks at its socket with each message that needed no packet. A sender that
 * gives up a response clears `awaited`: a later answer fails at the answering side.
 *
 * Limits. Sender and receiver count in a slot of the queue's status (status.h), one for each
 * connection. The receiver clears it with the connection, and frees one whose sender was killed before it
 * told of it, so killed senders use nothing up.
 *
 * Trust. Both sides are of one user or root, checked when they connect. What the other side can
 * write is copied before it is looked at, positions and lengths are checked against the mapping, and
 * mapped files cannot shrink. A side that does not keep to the format loses its connection.
 *
 * Threads. A connection belongs to one sending thread at a time. One thread at a time receives from
 * a queue; answers may come from any thread and take the connection's lock. No lock is ever shared
 * between processes.
 *
 * Read on in ring.h, status.h, sender.cpp and tamo_os_msg.cpp (sending), queue.h, queue.cpp and
 * queue_open.cpp (receiving), answer.cpp, handler_address.h. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "host/messages/handler_address.h"

namespace tamo::messages {

constexpr uint32_t kWireMagic = 0x47534D54; /* "TMSG" */
constexpr uint8_t kWireVersion = 3;
constexpr uint8_t kPointerWidth = sizeof(void *);

enum RecordKind : uint8_t {
    kMessage = 1,
    kResponse = 2,
    kRefusal = 3, /* `reason` says why a message has no response */
    kPadding = 4, /* nothing until the ring's end */
    kSegment = 5  /* the ring goes on in the next memory file from the socket */
};

enum RecordFlag : uint8_t {
    kSenderWaits = 1, /* a message that wants a response */
    kHasList = 2,     /* a response with a result list, which may be empty */
    kInFile = 4,      /* body and list are in the next memory file from the socket */
    kInParts = 8      /* the record may be looked at before all of it is published */
};

/* What each record begins with; padding and segment records have no more. */
struct RecordPrefix {
    uint32_t size; /* of the whole record in the ring, a multiple of 8 */
    uint8_t kind;
    uint8_t flags;
    uint8_t reason;        /* a TAMO_HOST_ code */
    uint8_t buildIdLength; /* 0: the handler is null, or the body has none */
};

struct RecordHead {
    RecordPrefix prefix;
    uint32_t serial; /* a response or refusal has that of its message */
    uint32_t msgId;
    uint32_t bodyLength;
    uint32_t listLength;
    uint64_t handlerOffset;
    char sender[16];
    uint8_t buildId[kMaxBuildId];
    uint32_t unused;
};
static_assert(sizeof(RecordPrefix) == 8 && sizeof(RecordHead) == 72);
static_assert(offsetof(RecordHead, handlerOffset) == 24);

/* Says what is wrong with a copied head, null when nothing is. */
const char *faultOfHead(const RecordHead &head);

/* The first packet of a connection; its memory file comes with it. Later packets have one byte, and
 * bring a memory file or wake the reader up. */
struct Hello {
    uint32_t magic;
    uint8_t version;
    uint8_t pointerWidth;
    uint8_t unused[2];
    uint32_t slot; /* the sender's, in the status file */
};

}  // namespace tamo::messages
