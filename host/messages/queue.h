/* Inside the receiving side: a queue, and the connections of its senders. */
#pragma once
#include <stdint.h>

#include <atomic>

#include "host/base/descriptor.h"
#include "host/messages/buffer.h"
#include "host/messages/peer_identity.h"
#include "host/messages/status.h"
#include "host/messages/window.h"
#include "host/messages/wire.h"
#include "tamo_host.h"

namespace tamo {

/* A sender's connection. Its queue holds it, and each message that came through it and wants an
 * answer, until it is freed: it may be answered on another thread, also after the queue is closed.
 */
struct Peer {
    ProcessDescriptor socket;
    std::atomic<uint32_t> holders{1};
    bool announced = false; /* see receivePacket */
    Window window;
    PeerIdentity identity = {};
    Peer *next = nullptr; /* in the queue's list */
    Peer *previous = nullptr;
};

void holdPeer(Peer *peer);
void releasePeer(Peer *peer);

}  // namespace tamo

struct TamoHostQueue {
    char name[tamo::kQueueNameSize] = {};
    int directory = -1; /* run/ */
    tamo::ProcessDescriptor lock;
    tamo::ProcessDescriptor listener;
    tamo::ProcessDescriptor poller;      /* the epoll descriptor */
    tamo::ProcessDescriptor acceptPause; /* a timer: accepting again when descriptors were short */
    tamo::StatusMapping status;
    tamo::Peer *peers = nullptr;
    tamo::Peer *current = nullptr;     /* is asked again without polling ... */
    uint32_t burst = 0;                /* ... as many times */
    tamo::Batch ahead;                 /* received from `current` and not handed out yet */
    tamo::ProcessDescriptor aheadSign; /* readable, while a polling program has something ahead */
    bool isPolled = false;             /* by the program: nothing more is received ahead */
    tamo::ModuleGuesses modules = {};
};

namespace tamo {

/* Takes the name, or finds out who has it; opens everything. The queue is empty before. */
uint32_t openQueue(TamoHostQueue *queue);

/* Gives the name back. */
void closeQueue(TamoHostQueue *queue);

/* Accepts waiting connections; adds them to what is polled. */
void acceptPeers(TamoHostQueue *queue);

/* Goes on accepting after a pause. */
void resumeAccepting(TamoHostQueue *queue);

/* Adds a connection that was checked. */
bool addPeer(TamoHostQueue *queue, Descriptor socket, const PeerIdentity &identity);

/* Forgets also what was received ahead from the connection. */
void dropPeer(TamoHostQueue *queue, Peer *peer);

/* Gives back what was received ahead. */
void forgetAhead(TamoHostQueue *queue);

/* Lets the queue's descriptor poll readable until forgetAhead. */
bool signAhead(TamoHostQueue *queue);

}  // namespace tamo
