/* Sending, receiving and checking packets.
 *
 *     packet  = head body list     inline
 *             | head               body and list are in the connection's window
 *             | head               and one descriptor: a sealed file that holds body and list
 *
 * A packet is one record of a SOCK_SEQPACKET socket, so it arrives whole or not at all. One that
 * brings a descriptor follows an announcement: only then the receiver makes the costlier call that
 * can take it. An announcement that nothing follows does no harm. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "host/base/descriptor.h"
#include "host/messages/buffer.h"

namespace tamo {

/* Up to here, copying a packet together costs less than having the kernel gather it. */
constexpr size_t kGathered = 4096;

/* A packet to be sent. */
struct Packet {
    PacketHead head; /* see beginHead */
    uint8_t gathered[kGathered];
    const void *body = nullptr; /* inline, when the head's flags do not say otherwise */
    const void *list = nullptr;
    int passed = -1; /* a descriptor that goes with it */
    Descriptor file; /* see packFile */
};

/* Fills the part of a head that every packet has, and zeroes the rest. */
void beginHead(PacketHead *head, PacketKind kind, uint32_t serial);

/* Sends one packet; it went as a whole, or not at all. 0, or an error number: EAGAIN when there is
 * no room, EPIPE or ECONNRESET when the other side is gone. Never raises a signal. */
int sendPacket(int socket, Packet *packet, int flags);

/* Tells a waiting sender, without waiting, that message `serial` has no response. */
void sendRefusal(int socket, uint32_t serial, uint32_t reason);

/* What came of receiving. */
enum class Arrival {
    kPacket,
    kAnnouncement, /* the next one brings a descriptor */
    kNothing,      /* none is there, or none came in time */
    kInterrupted,
    kEnd,    /* the other side is gone */
    kLost,   /* a packet without its descriptor: this process has no more descriptors */
    kForeign /* not a packet */
};

/* Receives one packet into `message`, and the descriptor that came with it into `file` when one was
 * announced: `*announced` begins false and is kept for each connection. The packet's claims are not
 * checked yet. */
Arrival receivePacket(int socket, bool *announced, int flags, Message *message, Descriptor *file);

/* Packets that one call received, in their order. */
struct Batch {
    unsigned count = 0;
    unsigned next = 0; /* the first that was not looked at yet */
    Message *messages[kReceivedAtOnce] = {};
    Descriptor files[kReceivedAtOnce];
    Arrival arrivals[kReceivedAtOnce];
};

/* Receives up to `most` packets that are there, without waiting, into an empty batch: at the least
 * one arrival, unless there is no memory. What a packet claims is not checked yet. */
void receivePackets(int socket, bool *announced, unsigned most, Batch *batch);

/* Says what is wrong with a received packet, null when nothing is. */
const char *faultOfPacket(const Message &message, bool hasFile);

}  // namespace tamo
