/* A sender's connections to queues.
 *
 * A connection belongs to one thread at a time: so one thread's messages to one queue stay in order,
 * and sending takes no lock. A thread keeps its connections until it ends, and then leaves them to
 * threads that come after it. */
#pragma once
#include <stdint.h>

#include "host/messages/buffer.h"
#include "host/messages/deadline.h"
#include "host/messages/status.h"
#include "host/messages/window.h"
#include "host/messages/wire.h"

namespace tamo {

struct Connection {
    ProcessDescriptor socket;
    StatusMapping status;
    Window window;
    Descriptor windowFile;  /* until the receiver has it */
    bool announced = false; /* see receivePacket */
    char queue[kQueueNameSize];
    uint32_t serial = 0;         /* of the last message that waited */
    uint32_t receiveTimeout = 0; /* as the socket has it; 0: none */
    uint32_t sendTimeout = 0;
    bool retired = false; /* a response was given up: nothing more is received on this socket */
    Connection *next = nullptr;
};

/* This thread's open connection to a queue, null when it has none. `queue` is zero-filled behind its
 * end. */
Connection *knownConnection(const char (&queue)[kQueueNameSize]);

/* Gives this thread a connection to a queue. With a deadline, waits until somebody serves the queue;
 * without one, does not wait. Null with `*result` set to a TAMO_HOST_ code, and recorded, when that
 * fails. */
Connection *newConnection(const char (&queue)[kQueueNameSize], Deadline *deadline,
                          uint32_t *result);

/* Closes one of this thread's connections. */
void dropConnection(Connection *connection);

/* Gives up waiting for a response: one that still comes fails at its sender. The connection goes on
 * carrying messages to the receiver, in order. */
void giveUpResponse(Connection *connection);

/* Packs and sends one message, waiting until the deadline for room; without a deadline, does not
 * wait. Counts it in the queue's status. 0, or an error number; EAGAIN when there was no room. */
int submit(Connection *connection, Packet *packet, Deadline *deadline);

/* Receives one packet, waiting until the deadline. */
Arrival awaitPacket(Connection *connection, Message *message, Descriptor *file, Deadline *deadline);

}  // namespace tamo
