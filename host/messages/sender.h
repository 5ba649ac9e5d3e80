/* A sender's connections to queues.
 *
 * A connection belongs to one thread at a time: so one thread's messages to one queue stay in order,
 * and sending takes no lock. A thread keeps its connections until it ends, and then leaves them to
 * threads that come after it. */
#pragma once
#include <stdint.h>

#include "host/messages/deadline.h"
#include "host/messages/message.h"
#include "host/messages/ring.h"
#include "host/messages/status.h"

namespace tamo::messages {

struct Connection {
    ProcessDescriptor socket;
    StatusMapping status;
    Mapping file;
    ConnectionControl *control = nullptr;
    RingWriter requests;
    RingReader responses;
    static constexpr unsigned kMaxPassed = 4;
    Descriptor passed[kMaxPassed]; /* came with packets, for records of the responses' ring */
    unsigned passedCount = 0;
    char queue[kQueueNameSize];
    uint32_t slot = kSlots;
    uint32_t serial = 0;          /* of the last message */
    uint64_t allowedMessages = 0; /* may be sent before the queue's depth is summed up again */
    uint64_t allowedBytes = 0;
    uint32_t receiveTimeout = 0; /* as the socket has it; 0: none */
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

/* Sends one message without waiting: counts it in the queue's status and publishes it. 0; EPIPE when
 * the receiver is gone and did not take it; EDQUOT when the queue is full; or another error number. */
int submit(Connection *connection, RecordHead *head, const void *body);

/* Waits until the deadline for the answer to the message `head`, and copies it to `answer`; `*list`
 * is where its result list is until passAnswer. kShort: this process could not take its file. */
Arrival awaitAnswer(Connection *connection, const RecordHead &head, Deadline *deadline,
                    Message *answer, const uint8_t **list, const char **fault);

/* Done with the answer. */
void passAnswer(Connection *connection);

/* Gives up waiting: an answer that still comes fails at its sender. */
void giveUpAnswer(Connection *connection);

}  // namespace tamo::messages
