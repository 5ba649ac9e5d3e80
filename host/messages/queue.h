/* Inside the receiving side: a queue, and the connections of its senders. */
#pragma once
#include <stdint.h>

#include <atomic>
#include <mutex>

#include "host/base/descriptor.h"
#include "host/messages/message.h"
#include "host/messages/ring.h"
#include "host/messages/status.h"
#include "tamo_host.h"

namespace tamo::messages {

/* A sender's connection. Its queue holds it, and each message that came through it and wants an
 * answer, until it is freed: it may be answered on another thread, also after the queue is closed.
 */
struct Peer {
    ProcessDescriptor socket;
    std::atomic<uint32_t> holders{1};
    PeerIdentity identity = {};
    Mapping file;
    ConnectionControl *control = nullptr; /* until the sender's hello came */
    uint32_t slot = kSlots;               /* in the queue's status */

    /* Of the receiving thread. */
    RingReader requests;
    Message *arriving = nullptr; /* whose record is not all there yet */
    uint32_t wakeUps = 0;        /* wake-up packets in the socket, or on the way there */
    bool isAsleep = false;
    bool isReady = false; /* in the queue's list of those that may have messages */
    bool isEnded = false; /* its sender closed: what it published is still taken */
    Peer *nextReady = nullptr;
    Peer *next = nullptr; /* in the list of all */
    Peer *previous = nullptr;

    /* Of whoever answers. */
    std::mutex answerLock;
    QueueStatus *status = nullptr; /* for the service times; null once the queue dropped it */
    RingWriter responses;
};

void holdPeer(Peer *peer);
void releasePeer(Peer *peer);

/* Answers the message `serial`, if its sender still waits: with a response's head and content, or
 * with a refusal for `reason`. `takenNs` is when the message was taken out, 0 when its service is not
 * measured. 0, or an error number; EPIPE when nobody waits. */
int sendAnswer(Peer *peer, RecordHead *head, const void *body, const void *list, uint64_t takenNs);
void sendRefusal(Peer *peer, uint32_t serial, uint32_t reason, uint64_t takenNs = 0);

}  // namespace tamo::messages

struct TamoHostQueue {
    char name[tamo::messages::kQueueNameSize] = {};
    int directory = -1; /* run/ */
    tamo::ProcessDescriptor lock;
    tamo::ProcessDescriptor listener;
    tamo::ProcessDescriptor poller; /* the epoll descriptor */
    tamo::ProcessDescriptor pause;  /* a timer: going on when descriptors were short */
    tamo::ProcessDescriptor sign;   /* an event object: readable while a polling program has ... */
    bool isSigned = false;          /* ... somebody in the list of ready connections */
    tamo::messages::StatusMapping status;
    tamo::messages::Peer *peers = nullptr;
    tamo::messages::Peer *ready = nullptr; /* the first is served */
    tamo::messages::Peer *lastReady = nullptr;
    uint32_t unmeasured = 0; /* messages until the next one whose service is measured */
    uint32_t turn = 0;       /* messages that it may still have taken before the next one's turn */
    bool lacksSlots = false; /* a sender ended before its hello: it may have had one */
    bool yields = false;     /* before a connection goes to sleep, once in a call */
    tamo::messages::ModuleGuesses modules = {};
};

namespace tamo::messages {

/* Takes the name, or finds out who has it; opens everything. The queue is empty before. */
uint32_t openQueue(TamoHostQueue *queue);

/* Gives the name back. */
void closeQueue(TamoHostQueue *queue);

/* Opens what is needed for a program that polls the queue. */
bool openSign(TamoHostQueue *queue);

/* Waits (see epoll_wait) until something happens and takes note of it: accepts connections, and
 * lists as ready those whose senders woke this side up. How many things, -1 when waiting failed. */
int pollQueue(TamoHostQueue *queue, int timeoutMs);

/* Descriptors are short: what needs one waits where it is and is looked at again after a pause. */
void pauseForDescriptors(TamoHostQueue *queue, int error);

/* Puts a connection behind the other ready ones. */
void addReady(TamoHostQueue *queue, Peer *peer);

/* Takes the first ready connection out of the list. */
void removeReady(TamoHostQueue *queue);

/* Drops a connection that is not in the list of ready ones. */
void dropPeer(TamoHostQueue *queue, Peer *peer);

/* What came of looking at a connection. */
enum class Taken {
    kMessage,
    kSkipped, /* there may be more */
    kNothing,
    kShort, /* of descriptors */
    kNoMemory,
    kFault
};

/* Takes the next record of a connection; a message when it is one. */
Taken takeRecord(TamoHostQueue *queue, Peer *peer, Message **message, const char **fault);

}  // namespace tamo::messages
