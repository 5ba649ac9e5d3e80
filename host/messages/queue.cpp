/* Receiving messages: see record.h for how it works. */
#include "host/messages/queue.h"

#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <utility>

#include "host/base/clock.h"
#include "host/base/log.h"
#include "host/messages/block.h"
#include "host/messages/deadline.h"
#include "host/messages/trace.h"

namespace tamo::messages {

namespace {

constexpr const char *kUnit = "tamo_os_msg";
constexpr uint32_t kTurn = 32;
constexpr uint32_t kMeasuredOf = 5; /* no power of 2, with which traffic may keep step */
constexpr uint32_t kDrainedAtOnce = 32;

bool senderWaits(const RecordHead &head) {
    return (head.prefix.flags & kSenderWaits) != 0;
}

void tracePeer(TamoHostTraceKind kind, const TamoHostQueue &queue, const Peer &peer,
               const RecordHead &head, const void *body, uint32_t result) {
    trace(kind, {queue.name, &head, body, static_cast<uint32_t>(peer.identity.pid)}, result, 0);
}

/* Refuses one message: its sender learns it at once. */
void refuse(const TamoHostQueue &queue, Peer *peer, const RecordHead &head, uint32_t reason,
            const char *why) {
    hostRecord(kWarning, kUnit, __LINE__, "a message of process %d to %s was refused: %s",
               static_cast<int>(peer->identity.pid), queue.name, why);
    tracePeer(TAMO_HOST_TRACE_REFUSED, queue, *peer, head, nullptr, reason);
    if (senderWaits(head)) {
        sendRefusal(peer, head.serial, reason);
    }
}

void recordMissingHandler(const TamoHostQueue &queue, const RecordHead &head) {
    char buildId[2 * kMaxBuildId + 1] = {};
    for (unsigned i = 0; i < head.prefix.buildIdLength; ++i) {
        (void)snprintf(buildId + 2 * i, 3, "%02x", head.buildId[i]);
    }
    hostRecord(
        kError, kUnit, __LINE__,
        "a message to %s names a handler at %#llx of the module with build id %s, which is "
        "no code of a module loaded here: load the same build of it (-Wl,--no-as-needed keeps a "
        "library of which a program calls nothing), and link both programs "
        "position-independent",
        queue.name, static_cast<unsigned long long>(head.handlerOffset), buildId);
}

/* Puts this process's own address of the handler into a body, and takes out what only the sender
 * could use. False when the handler is not here. */
bool translateBody(TamoHostQueue *queue, const Message &message) {
    const RecordHead &head = message.record;
    if (!hasHandler(head.msgId) || head.bodyLength == 0) {
        return true;
    }
    void *body = message.header.body;
    if (head.bodyLength < sizeof(BodyHead)) {
        memset(body, 0, std::min<size_t>(head.bodyLength, sizeof(void *)));
        return true;
    }
    const void *handler = nullptr;
    if (head.prefix.buildIdLength > 0) {
        CodePlace place = {};
        place.offset = head.handlerOffset;
        place.buildIdLength = head.prefix.buildIdLength;
        memcpy(place.buildId, head.buildId, sizeof(place.buildId));
        handler = codeAtPlace(place, &queue->modules);
        if (handler == nullptr) {
            return false;
        }
    }
    writeHandler(body, handler);
    if (hasBlock(head.msgId, head.bodyLength)) {
        writeList(body, {nullptr, 0});
    }
    return true;
}

/* The receiving thread alone writes these: no locked instruction is needed. */
void add(std::atomic<uint64_t> *count, uint64_t more) {
    count->store(count->load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
}

void countTaken(TamoHostQueue *queue, const Peer &peer, const RecordHead &head) {
    QueueStatus &status = *queue->status.get();
    add(&status.received, 1);
    add(&status.slots[peer.slot].taken, 1);
    add(&status.slots[peer.slot].takenBytes, head.bodyLength);
}

Taken takenOf(Arrival arrival) {
    switch (arrival) {
        case Arrival::kPacket:
            return Taken::kSkipped;
        case Arrival::kShort:
            return Taken::kShort;
        case Arrival::kNothing:
            return Taken::kNothing;
        default:
            return Taken::kFault;
    }
}

/* The descriptor that the next record needs: it was sent before the record was published. */
Taken takeDescriptor(Peer *peer, Descriptor *file) {
    const Taken taken = takenOf(receiveDescriptor(peer->socket.get(), &peer->wakeUps, file));
    return taken == Taken::kNothing ? Taken::kFault : taken;
}

/* Takes the first packet of a connection. */
Taken takeHello(Peer *peer, const char **fault) {
    Hello hello = {};
    size_t size = 0;
    Descriptor file;
    const int socket = peer->socket.get();
    const Arrival arrival =
        receivePacket(socket, MSG_PEEK | MSG_DONTWAIT, &hello, sizeof(hello), &size, &file);
    if (arrival == Arrival::kEnd) {
        *fault = nullptr;
        return Taken::kFault;
    }
    if (arrival != Arrival::kPacket) {
        return takenOf(arrival);
    }
    (void)recv(socket, &hello, sizeof(hello), MSG_DONTWAIT);
    if (size != sizeof(hello) || hello.magic != kWireMagic) {
        *fault = "it is no sender of this library";
    } else if (hello.version != kWireVersion) {
        *fault = "it comes from another version of this library: install the same one for both";
    } else if (hello.pointerWidth != kPointerWidth) {
        *fault = "the two processes have pointers of different width: build them alike";
    } else if (hello.slot >= kSlots || !mapShared(file, kConnectionFile, &peer->file)) {
        *fault = "its memory file cannot be used";
    } else {
        peer->control = reinterpret_cast<ConnectionControl *>(peer->file.bytes());
        peer->slot = hello.slot;
        peer->requests.begin(firstRequests(peer->file));
        peer->responses.begin(firstResponses(peer->file));
        return Taken::kSkipped;
    }
    return Taken::kFault;
}

/* Begins to measure the service of some messages: looking at the clock for each would cost a round trip
 * more than is lost by estimating. */
void measure(TamoHostQueue *queue, Message *message) {
    if (queue->unmeasured == 0) {
        queue->unmeasured = kMeasuredOf;
        message->takenNs = monotonicNs();
    }
    --queue->unmeasured;
}

/* Makes a message of a checked record. */
Taken acceptRecord(TamoHostQueue *queue, Peer *peer, Message *message, const uint8_t *content,
                   const Descriptor &file) {
    const RecordHead &head = message->record;
    const uint8_t *list = nullptr;
    const char *fault = takeContent(message, content, file, &list);
    countTaken(queue, *peer, head);
    peer->requests.pass();
    if (fault != nullptr) {
        refuse(*queue, peer, head, TAMO_HOST_REFUSED, fault);
        return Taken::kSkipped;
    }
    if (!translateBody(queue, *message)) {
        recordMissingHandler(*queue, head);
        tracePeer(TAMO_HOST_TRACE_REFUSED, *queue, *peer, head, nullptr, TAMO_HOST_REFUSED);
        if (senderWaits(head)) {
            sendRefusal(peer, head.serial, TAMO_HOST_REFUSED);
        }
        return Taken::kSkipped;
    }
    tracePeer(TAMO_HOST_TRACE_RECEIVED, *queue, *peer, head, message->header.body, 0);
    memcpy(message->header.sender, head.sender, sizeof(message->header.sender));
    memcpy(message->header.receiver, queue->name, sizeof(message->header.receiver));
    measure(queue, message);
    if (senderWaits(head) || message->takenNs != 0) {
        holdPeer(peer);
        message->peer = peer;
        message->waiting.store(senderWaits(head), std::memory_order_relaxed);
    }
    return Taken::kMessage;
}

Taken enterSegment(Peer *peer, const char **fault) {
    Descriptor file;
    *fault = "the memory file that it goes on in is missing or cannot be used";
    const Taken taken = takeDescriptor(peer, &file);
    return taken != Taken::kSkipped || peer->requests.enter(file) ? taken : Taken::kFault;
}

/* Goes to sleep; false when there is something again. Wake-up packets are taken out of the socket
 * now and then, so that it does not fill up. */
bool fallAsleep(Peer *peer) {
    if (peer->wakeUps >= kDrainedAtOnce) {
        mmsghdr packets[kDrainedAtOnce] = {};
        const int drained =
            recvmmsg(peer->socket.get(), packets, kDrainedAtOnce, MSG_DONTWAIT, nullptr);
        peer->wakeUps -= drained > 0 ? static_cast<uint32_t>(drained) : 0;
    }
    peer->isAsleep = peer->requests.sleep();
    if (!peer->isAsleep) {
        peer->wakeUps += peer->requests.wakeUp() ? 1 : 0;
    }
    return peer->isAsleep;
}

/* The first ready connection has nothing: it sleeps, or is dropped at its end. False when it has
 * something again. */
bool retireFirst(TamoHostQueue *queue) {
    Peer *peer = queue->ready;
    if (!fallAsleep(peer)) {
        return false;
    }
    removeReady(queue);
    if (peer->isEnded) {
        dropPeer(queue, peer);
    }
    return true;
}

/* Lets the others have their turn, and those that have woken up meanwhile. */
void endTurn(TamoHostQueue *queue) {
    (void)pollQueue(queue, 0);
    Peer *peer = queue->ready;
    removeReady(queue);
    addReady(queue, peer);
    queue->turn = kTurn;
}

/* Looks at the first ready connection. */
Taken takeFromFirst(TamoHostQueue *queue, Message **message) {
    Peer *peer = queue->ready;
    if (peer->isAsleep) {
        peer->isAsleep = false;
        peer->wakeUps += peer->requests.wakeUp() ? 1 : 0;
    }
    const char *fault = nullptr;
    const Taken taken = peer->control != nullptr ? takeRecord(queue, peer, message, &fault)
                                                 : takeHello(peer, &fault);
    switch (taken) {
        case Taken::kNothing:
            if (peer->control == nullptr) {
                removeReady(queue); /* until its hello comes */
            } else if (queue->yields) {
                /* Others may have more to send, and then need not wake this side up. */
                queue->yields = false;
                (void)sched_yield();
                return Taken::kSkipped;
            } else {
                (void)retireFirst(queue);
            }
            break;
        case Taken::kShort:
            removeReady(queue);
            pauseForDescriptors(queue, EMFILE);
            break;
        case Taken::kFault:
            if (fault != nullptr) {
                hostRecord(kWarning, kUnit, __LINE__,
                           "the connection of process %d to %s was closed: %s",
                           static_cast<int>(peer->identity.pid), queue->name, fault);
            }
            removeReady(queue);
            dropPeer(queue, peer);
            break;
        default:
            break;
    }
    return taken;
}

/* The next message of the ready connections. */
Taken takeReady(TamoHostQueue *queue, Message **message) {
    while (queue->ready != nullptr) {
        if (queue->turn == 0) {
            endTurn(queue);
        }
        --queue->turn;
        const Taken taken = takeFromFirst(queue, message);
        if (taken == Taken::kMessage || taken == Taken::kNoMemory) {
            return taken;
        }
    }
    return Taken::kNothing;
}

/* Lets a polling program see whether there is something. */
void settleSign(TamoHostQueue *queue) {
    if (!queue->sign.isOpen()) {
        return;
    }
    while (queue->ready != nullptr && queue->ready->control != nullptr &&
           queue->ready->requests.isEmpty() && retireFirst(queue)) {
    }
    const bool wanted = queue->ready != nullptr;
    if (wanted == queue->isSigned) {
        return;
    }
    queue->isSigned = wanted;
    uint64_t value = 1;
    (void)!(wanted ? write(queue->sign.get(), &value, sizeof(value))
                   : read(queue->sign.get(), &value, sizeof(value)));
}

/* The next message, as soon as there is one. The clock is looked at only when there may be none. */
Taken takeWithin(TamoHostQueue *queue, int32_t timeoutMs, Message **message) {
    Deadline deadline(timeoutMs < 0 ? kForEver : static_cast<uint32_t>(timeoutMs));
    queue->yields = timeoutMs != 0;
    for (;;) {
        const Taken taken = takeReady(queue, message);
        settleSign(queue);
        if (taken != Taken::kNothing) {
            return taken;
        }
        if (queue->ready != nullptr) {
            continue;
        }
        const int wait = deadline.forPoll();
        const int happened = pollQueue(queue, wait);
        deadline.waited();
        if (happened <= 0 && (happened < 0 || wait == 0)) {
            return happened < 0 ? Taken::kFault : Taken::kNothing;
        }
    }
}

}  // namespace

Taken takeRecord(TamoHostQueue *queue, Peer *peer, Message **message, const char **fault) {
    RecordHead head;
    const uint8_t *content = nullptr;
    const RingReader::Look look = peer->requests.look(&head, &content);
    switch (look) {
        case RingReader::Look::kEmpty:
            return Taken::kNothing;
        case RingReader::Look::kSegment:
            return enterSegment(peer, fault);
        case RingReader::Look::kFault:
            *fault = "its ring is damaged";
            return Taken::kFault;
        case RingReader::Look::kPart:
        case RingReader::Look::kRecord:
            break;
    }
    *fault = head.prefix.kind == kMessage ? faultOfHead(head) : "it answers what nobody asked";
    Message *taken = std::exchange(peer->arriving, nullptr);
    if (taken != nullptr && memcmp(&taken->record, &head, sizeof(head)) != 0) {
        *fault = "its record was changed while it came";
    }
    if (*fault != nullptr) {
        releaseMessage(taken);
        return Taken::kFault;
    }
    if (taken == nullptr) {
        taken = allocateMessage();
        if (taken == nullptr) {
            return Taken::kNoMemory;
        }
        taken->record = head;
    }
    if (look == RingReader::Look::kPart) {
        peer->arriving = taken;
        return takePart(taken, content, peer->requests.available()) ? Taken::kSkipped
                                                                    : Taken::kNothing;
    }
    Descriptor file;
    Taken result = Taken::kSkipped;
    if ((head.prefix.flags & kInFile) != 0) {
        *fault = "the memory file of its message is missing";
        result = takeDescriptor(peer, &file);
    }
    if (result == Taken::kSkipped) {
        result = acceptRecord(queue, peer, taken, content, file);
    }
    if (result == Taken::kMessage) {
        *message = taken;
    } else {
        releaseMessage(taken);
    }
    return result;
}

}  // namespace tamo::messages

using namespace tamo::messages;

uint32_t TamoHostMsgOpen(const char *name, TamoHostQueue **queue) {
    if (name == nullptr || queue == nullptr) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__,
                         "a queue without name or place was opened");
        return TAMO_HOST_INVALID;
    }
    auto *opened = new (std::nothrow) TamoHostQueue;
    if (opened == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__, "no memory for the queue %s", name);
        return TAMO_HOST_NO_MEMORY;
    }
    uint32_t result = TAMO_HOST_INVALID;
    if (copyQueueName(name, opened->name)) {
        result = openQueue(opened);
    } else {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__,
                         "a queue's name is 1 to 15 letters, digits, '.', '_' or '-', not \"%s\"",
                         name);
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
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__,
                         "nothing can be polled: there is no queue");
        return -1;
    }
    if (!queue->sign.isOpen() && !openSign(queue)) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__, "%s cannot be polled: %s%s", queue->name,
                         strerror(errno), tamo::adviceOn(errno));
        return -1;
    }
    settleSign(queue);
    return queue->poller.get();
}

uint32_t TamoHostMsgReceive(TamoHostQueue *queue, OsMsgHeader **message, int32_t timeoutMs) {
    if (queue == nullptr || message == nullptr || !queue->poller.isOpen()) {
        tamo::hostRecord(
            tamo::kWarning, kUnit, __LINE__,
            "nothing can be received: there is no queue, or it was opened before a fork");
        return TAMO_HOST_INVALID;
    }
    Message *received = nullptr;
    switch (takeWithin(queue, timeoutMs, &received)) {
        case Taken::kMessage:
            *message = &received->header;
            return TAMO_HOST_OK;
        case Taken::kNothing:
            return TAMO_HOST_TIMEOUT;
        case Taken::kNoMemory:
            tamo::hostRecord(tamo::kError, kUnit, __LINE__, "no memory for a message to %s",
                             queue->name);
            return TAMO_HOST_NO_MEMORY;
        default:
            return TAMO_HOST_SYSTEM;
    }
}

void TamoHostMsgClose(TamoHostQueue *queue) {
    if (queue != nullptr) {
        closeQueue(queue);
        delete queue;
    }
}
