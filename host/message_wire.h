/* Packets between a sender and a receiver of messages: the format, and sending and receiving one.
 *
 *     packet  = head body list      both inline, or
 *     packet  = head                and one descriptor: a sealed memory file that holds body list
 *
 * A packet is one record of a SOCK_SEQPACKET socket, so it arrives whole or not at all. A message
 * or a refused handler needs no list; a response may have one, also an empty one. The first eight
 * bytes are the same in every version, so that two that differ can refuse each other. Senders wait
 * for the response to one message before they send the next on that connection. */
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "message_buffer.h"
#include "message_descriptor.h"
#include "message_handler.h"

namespace tamo {

/* A body of one packet, as it is sent. */
struct Packet {
    PacketHead head = {};
    const void *body = nullptr;
    const void *list = nullptr;
    Descriptor file; /* body and list, when they are too large to go inline */
};

/* Fills the part of a head that every packet has. */
void beginHead(PacketHead *head, PacketKind kind, uint32_t serial);

/* Copies body and list to a memory file when they do not go inline; once, however often sending is
 * tried. 0, or an error number. */
int packBody(Packet *packet);

/* Sends one packet; it went as a whole, or not at all. 0, or an error number: EAGAIN when there is
 * no room, EPIPE or ECONNRESET when the other side is gone. Never raises a signal. */
int sendPacket(int socket, const Packet &packet, int flags);

/* Tells a waiting sender, without waiting, that message `serial` has no response. */
void sendRefusal(int socket, uint32_t serial, uint32_t reason);

/* Sends the connection that follows this one. 0, or an error number. */
int sendSuccessor(int socket, int successor, int flags);

/* What came of receiving. */
enum class Arrival {
    kPacket,
    kNothing, /* none is there, or none came in time */
    kInterrupted,
    kEnd,    /* the other side is gone */
    kLost,   /* a packet without its descriptor: this process has no more descriptors */
    kForeign /* not a packet */
};

/* Receives one packet into `message` and the descriptor that came with it into `file`. The
 * packet's claims are not checked yet. */
Arrival receivePacket(int socket, Message *message, Descriptor *file, int flags);

/* Says what is wrong with a received packet, null when nothing is. */
const char *faultOfPacket(const Message &message, bool hasFile);

/* Maps or finds the body of a checked packet: sets the message's body and body length. Null, or
 * what is wrong with the file. */
const char *takeBody(Message *message, const Descriptor &file);

/* Copies the list of a checked response to `list`. */
bool takeList(const Message &message, const Descriptor &file, void *list);

}  // namespace tamo
