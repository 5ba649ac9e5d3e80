/* Receiving messages.
 *
 * All connections of a queue are polled by one epoll descriptor, one event at a time: the kernel
 * puts a connection that still has something behind the others, so senders are served in turn. A
 * connection that brought an asynchronous message is asked a few times more without polling, which
 * is what makes a burst cheap; one that brought a synchronous message cannot have another.
 *
 * When more messages wait, one call receives several of them ahead. A program that polls the queue's
 * descriptor would not be told of those, so nothing is received ahead for it. */
#include "host/messages/queue.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <new>

#include "host/base/log.h"
#include "host/messages/body.h"
#include "host/messages/deadline.h"
#include "host/messages/wire.h"

namespace {

using tamo::Arrival;
using tamo::Descriptor;
using tamo::hostRecord;
using tamo::Message;
using tamo::PacketHead;
using tamo::Peer;

constexpr const char *kUnit = "tamo_os_msg";
constexpr uint32_t kBurst = 32;
/* From here on, receiving several with one call costs less than a call each. */
constexpr uint64_t kWorthABatch = 4;

bool senderWaits(const PacketHead &head) {
    return head.kind == tamo::kMessage && (head.flags & tamo::kSenderWaits) != 0;
}

/* Refuses one message: its sender learns it at once. */
void refuse(const TamoHostQueue &queue, const Peer &peer, const PacketHead &head, uint32_t reason,
            const char *why) {
    hostRecord(tamo::kWarning, kUnit, __LINE__, "a message of process %d to %s was refused: %s",
               static_cast<int>(peer.identity.pid), queue.name, why);
    if (senderWaits(head)) {
        tamo::sendRefusal(peer.socket.get(), head.serial, reason);
    }
}

/* Refuses a sender that does not keep to the format. Whether it waits, and for what, cannot be known
 * of one that is of another version. */
void refuseSender(TamoHostQueue *queue, Peer *peer, uint32_t serial, const char *why) {
    hostRecord(tamo::kWarning, kUnit, __LINE__, "the connection of process %d to %s was closed: %s",
               static_cast<int>(peer->identity.pid), queue->name, why);
    tamo::sendRefusal(peer->socket.get(), serial, TAMO_HOST_REFUSED);
    tamo::dropPeer(queue, peer);
}

/* Goes on with the connection that replaces `peer`'s. */
void takeSuccessor(TamoHostQueue *queue, Peer *peer, Descriptor socket) {
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof(int);
    tamo::PeerIdentity sender;
    if (getsockopt(socket.get(), SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 ||
        getsockopt(socket.get(), SOL_SOCKET, SO_TYPE, &type, &size) != 0 || domain != AF_UNIX ||
        type != SOCK_SEQPACKET || !tamo::identifyPeer(socket.get(), &sender)) {
        refuseSender(queue, peer, 0, "its new connection is none");
        return;
    }
    (void)tamo::addPeer(queue, std::move(socket), sender);
    tamo::dropPeer(queue, peer);
}

/* Puts this process's own address of the handler into a body, and takes out what only the sender
 * could use. False when the handler is not here. */
bool translateBody(TamoHostQueue *queue, const Message &message) {
    const PacketHead &head = message.packet;
    if (!tamo::hasHandler(head.msgId) || head.bodyLength == 0) {
        return true;
    }
    void *body = message.header.body;
    if (head.bodyLength < sizeof(tamo::BodyHead)) {
        memset(body, 0, std::min<size_t>(head.bodyLength, sizeof(void *)));
        return true;
    }
    const void *handler = nullptr;
    if (head.buildIdLength > 0) {
        tamo::CodePlace place = {};
        place.offset = head.handlerOffset;
        place.buildIdLength = head.buildIdLength;
        memcpy(place.buildId, head.buildId, sizeof(place.buildId));
        handler = tamo::codeAtPlace(place, &queue->modules);
        if (handler == nullptr) {
            return false;
        }
    }
    tamo::writeHandler(body, handler);
    if (tamo::hasBlock(head.msgId, head.bodyLength)) {
        tamo::writeList(body, {nullptr, 0});
    }
    return true;
}

void recordMissingHandler(const TamoHostQueue &queue, const PacketHead &head) {
    char buildId[2 * tamo::kMaxBuildId + 1] = {};
    for (unsigned i = 0; i < head.buildIdLength; ++i) {
        (void)snprintf(buildId + 2 * i, 3, "%02x", head.buildId[i]);
    }
    hostRecord(
        tamo::kError, kUnit, __LINE__,
        "a message to %s names a handler at %#llx of the module with build id %s, which is "
        "no code of a module loaded here: load the same build of it (-Wl,--no-as-needed keeps a "
        "library of which a program calls nothing), and link both programs "
        "position-independent",
        queue.name, static_cast<unsigned long long>(head.handlerOffset), buildId);
}

void countReceived(const TamoHostQueue &queue, const PacketHead &head) {
    /* The owner alone writes these: no locked instruction is needed. */
    tamo::QueueStatus &status = *queue.status.get();
    status.received.store(status.received.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
    status.receivedBytes.store(
        status.receivedBytes.load(std::memory_order_relaxed) + head.bodyLength,
        std::memory_order_relaxed);
}

/* Makes a message of a packet; true when it can be handed out. */
bool acceptPacket(TamoHostQueue *queue, Peer *peer, Message *message, Descriptor *file) {
    const PacketHead &head = message->packet;
    const char *fault = tamo::faultOfPacket(*message, file->isOpen());
    if (fault == nullptr && head.kind == tamo::kSuccessor) {
        takeSuccessor(queue, peer, std::move(*file));
        return false;
    }
    if (fault == nullptr &&
        (head.kind != tamo::kMessage || !tamo::sameQueueName(head.receiver, queue->name))) {
        fault = "it is none for this queue";
    }
    if (fault != nullptr) {
        refuseSender(queue, peer, head.serial, fault);
        return false;
    }
    const bool inWindow = (head.flags & tamo::kInWindow) != 0;
    if (inWindow && file->isOpen() && !peer->window.adopt(*file)) {
        refuseSender(queue, peer, head.serial, "its window cannot be used");
        return false;
    }
    countReceived(*queue, head);
    fault = tamo::takeBody(message, peer->window, *file);
    if (fault != nullptr) {
        refuse(*queue, *peer, head, TAMO_HOST_REFUSED, fault);
        return false;
    }
    if (!translateBody(queue, *message)) {
        recordMissingHandler(*queue, head);
        if (senderWaits(head)) {
            tamo::sendRefusal(peer->socket.get(), head.serial, TAMO_HOST_REFUSED);
        }
        tamo::forgetBody(message);
        return false;
    }
    if (senderWaits(head) || tamo::waitingMessages(*queue->status.get()) == 0) {
        queue->burst = 0; /* nothing can be there: asking would only cost */
    }
    if (senderWaits(head)) {
        tamo::holdPeer(peer);
        message->peer = peer;
        message->waiting.store(true, std::memory_order_relaxed);
    }
    return true;
}

/* Does what a packet asks for. True when `message` can be handed out. */
bool takeArrival(TamoHostQueue *queue, Arrival arrival, Message *message, Descriptor *file) {
    Peer *peer = queue->current;
    switch (arrival) {
        case Arrival::kPacket:
            return acceptPacket(queue, peer, message, file);
        case Arrival::kNothing:
            queue->burst = 0;
            return false;
        case Arrival::kAnnouncement:
        case Arrival::kInterrupted:
            return false;
        case Arrival::kEnd:
            tamo::dropPeer(queue, peer);
            return false;
        case Arrival::kLost:
            countReceived(*queue, message->packet);
            refuse(*queue, *peer, message->packet, TAMO_HOST_SYSTEM,
                   "this process has no more descriptors, see ulimit -n");
            if ((message->packet.flags & tamo::kInWindow) != 0) {
                tamo::dropPeer(queue, peer); /* its window was lost, and comes only once */
            }
            return false;
        case Arrival::kForeign:
            refuseSender(queue, peer, 0, "it is no packet of this library");
            return false;
    }
    return false;
}

/* Asks the current connection. True when `message` can be handed out. */
bool receiveFromCurrent(TamoHostQueue *queue, Message *message) {
    --queue->burst;
    Descriptor file;
    const Arrival arrival = tamo::receivePacket(
        queue->current->socket.get(), &queue->current->announced, MSG_DONTWAIT, message, &file);
    return takeArrival(queue, arrival, message, &file);
}

/* Receives ahead what waits in the current connection, where that is worth it. */
void receiveAhead(TamoHostQueue *queue) {
    const uint64_t waiting = tamo::waitingMessages(*queue->status.get());
    const uint64_t most =
        std::min<uint64_t>({waiting, queue->burst, uint64_t{tamo::kReceivedAtOnce}});
    if (queue->isPolled || most < kWorthABatch) {
        return;
    }
    Peer *peer = queue->current;
    tamo::receivePackets(peer->socket.get(), &peer->announced, static_cast<unsigned>(most),
                         &queue->ahead);
    queue->burst -= queue->ahead.count;
}

/* The next message that was received ahead, or null. */
Message *nextAhead(TamoHostQueue *queue) {
    tamo::Batch &ahead = queue->ahead;
    if (ahead.next == ahead.count && queue->burst > 0) {
        receiveAhead(queue);
    }
    while (ahead.next < ahead.count) {
        const unsigned n = ahead.next++;
        Message *message = ahead.messages[n];
        Descriptor file(std::move(ahead.files[n]));
        const bool taken = takeArrival(queue, ahead.arrivals[n], message, &file);
        if (ahead.next == ahead.count) {
            tamo::forgetAhead(queue);
        }
        if (taken) {
            return message;
        }
        tamo::giveMessageBack(message);
    }
    return nullptr;
}

/* Polls until some connection is current. */
uint32_t pollPeers(TamoHostQueue *queue, int timeoutMs) {
    epoll_event event = {};
    const int count = epoll_wait(queue->poller.get(), &event, 1, timeoutMs);
    if (count < 0 && errno != EINTR) {
        hostRecord(tamo::kError, kUnit, __LINE__, "nothing can be received from %s: %s",
                   queue->name, strerror(errno));
        return TAMO_HOST_SYSTEM;
    }
    if (count <= 0) {
        return TAMO_HOST_TIMEOUT;
    }
    if (event.data.ptr == &queue->listener) {
        tamo::acceptPeers(queue);
    } else if (event.data.ptr == &queue->acceptPause) {
        tamo::resumeAccepting(queue);
    } else {
        queue->current = static_cast<Peer *>(event.data.ptr);
        queue->burst = kBurst;
    }
    return TAMO_HOST_OK;
}

/* The next message of the burst under way. */
bool receiveOfBurst(TamoHostQueue *queue, Message *message) {
    while (queue->burst > 0) {
        if (receiveFromCurrent(queue, message)) {
            return true;
        }
    }
    return false;
}

/* The next message, as soon as there is one. The clock is looked at only when there may be none. */
uint32_t receiveWithin(TamoHostQueue *queue, Message *message, int32_t timeoutMs) {
    if (receiveOfBurst(queue, message)) {
        return TAMO_HOST_OK;
    }
    tamo::Deadline deadline(timeoutMs > 0 ? static_cast<uint32_t>(timeoutMs) : 0);
    for (;;) {
        const int wait = timeoutMs < 0 ? -1 : static_cast<int>(deadline.remaining());
        const uint32_t result = pollPeers(queue, wait);
        deadline.waited();
        if (result == TAMO_HOST_SYSTEM || (result == TAMO_HOST_TIMEOUT && wait == 0)) {
            return result;
        }
        if (receiveOfBurst(queue, message)) {
            return TAMO_HOST_OK;
        }
    }
}

}  // namespace

uint32_t TamoHostMsgOpen(const char *name, TamoHostQueue **queue) {
    if (name == nullptr || queue == nullptr) {
        hostRecord(tamo::kWarning, kUnit, __LINE__, "a queue without name or place was opened");
        return TAMO_HOST_INVALID;
    }
    auto *opened = new (std::nothrow) TamoHostQueue;
    if (opened == nullptr) {
        hostRecord(tamo::kError, kUnit, __LINE__, "no memory for the queue %s", name);
        return TAMO_HOST_NO_MEMORY;
    }
    uint32_t result = TAMO_HOST_INVALID;
    if (tamo::copyQueueName(name, opened->name)) {
        result = tamo::openQueue(opened);
    } else {
        hostRecord(tamo::kWarning, kUnit, __LINE__,
                   "a queue's name is 1 to 15 letters, digits, '.', '_' or '-', not \"%s\"", name);
    }
    if (result != TAMO_HOST_OK) {
        TamoHostMsgClose(opened);
        return result;
    }
    *queue = opened;
    return TAMO_HOST_OK;
}

int TamoHostMsgDescriptor(TamoHostQueue *queue) {
    if (queue == nullptr) {
        return -1;
    }
    queue->isPolled = true;
    if (queue->ahead.next < queue->ahead.count && !queue->aheadSign.isOpen() &&
        !tamo::signAhead(queue)) {
        hostRecord(tamo::kError, kUnit, __LINE__,
                   "%s cannot be polled (%s): ask for its descriptor before receiving", queue->name,
                   strerror(errno));
        return -1;
    }
    return queue->poller.get();
}

uint32_t TamoHostMsgReceive(TamoHostQueue *queue, OsMsgHeader **message, int32_t timeoutMs) {
    if (queue == nullptr || message == nullptr || !queue->poller.isOpen()) {
        hostRecord(tamo::kWarning, kUnit, __LINE__,
                   "nothing can be received: there is no queue, or it was opened before a fork");
        return TAMO_HOST_INVALID;
    }
    Message *received = nextAhead(queue);
    if (received != nullptr) {
        *message = &received->header;
        return TAMO_HOST_OK;
    }
    received = tamo::takeMessage();
    if (received == nullptr) {
        hostRecord(tamo::kError, kUnit, __LINE__, "no memory for a message to %s", queue->name);
        return TAMO_HOST_NO_MEMORY;
    }
    const uint32_t result = receiveWithin(queue, received, timeoutMs);
    if (result == TAMO_HOST_OK) {
        *message = &received->header;
    } else {
        tamo::giveMessageBack(received);
    }
    return result;
}

void TamoHostMsgClose(TamoHostQueue *queue) {
    if (queue != nullptr) {
        tamo::closeQueue(queue);
        delete queue;
    }
}
