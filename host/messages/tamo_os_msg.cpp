/* libtamo_os_msg: sending messages. Receiving them is in message_queue.cpp.
 *
 * A synchronous message costs one system call to send and one to receive its response, on a
 * connection that is the calling thread's own. */
#include "tamo_os_msg.h"

#include <errno.h>
#include <string.h>

#include "host/base/log.h"
#include "host/messages/body.h"
#include "host/messages/handler_address.h"
#include "host/messages/sender.h"
#include "host/messages/wire.h"
#include "tamo_host.h"
#include "tamo_os_mem.h"

namespace {

using tamo::Arrival;
using tamo::Connection;
using tamo::Deadline;
using tamo::hostRecord;
using tamo::Message;
using tamo::Packet;

constexpr const char *kUnit = "tamo_os_msg";
/* Bytes of bodies that asynchronous senders may heap up at one receiver. */
constexpr uint64_t kQueueLimit = 3ULL * tamo::kMaxBody;

/* Copies the names; a receiver that this thread is connected to needs no closer look. */
bool copyNames(const OsMsgHeader &header, tamo::PacketHead *head) {
    memcpy(head->sender, header.sender, sizeof(head->sender));
    memcpy(head->receiver, header.receiver, sizeof(head->receiver));
    const bool terminated = header.sender[sizeof(header.sender) - 1] == '\0' ||
                            memchr(header.sender, '\0', sizeof(header.sender)) != nullptr;
    return terminated && (tamo::knownConnection(head->receiver) != nullptr ||
                          tamo::copyQueueName(header.receiver, head->receiver));
}

uint32_t checkLength(const OsMsgHeader *header) {
    if (header == nullptr || (header->body == nullptr && header->bodyLength > 0)) {
        hostRecord(tamo::kWarning, kUnit, __LINE__, "a message without header or body was sent");
        return TAMO_HOST_INVALID;
    }
    if (header->bodyLength > tamo::kMaxBody) {
        hostRecord(tamo::kWarning, kUnit, __LINE__,
                   "a message of %u bytes was sent, %u are the most: send it in parts",
                   header->bodyLength, tamo::kMaxBody);
        return TAMO_HOST_TOO_LARGE;
    }
    return TAMO_HOST_OK;
}

/* Says where the handler's code is, in a way that the receiver understands. */
uint32_t describeHandler(const OsMsgHeader &header, tamo::PacketHead *head) {
    if (!tamo::hasHandler(header.msgId) || header.bodyLength < sizeof(tamo::BodyHead)) {
        return TAMO_HOST_OK;
    }
    const void *handler = tamo::readBodyHead(header.body).handler;
    if (handler == nullptr) {
        return TAMO_HOST_OK;
    }
    tamo::CodePlace place;
    switch (tamo::placeOfCode(handler, &place)) {
        case tamo::PlaceResult::kFound:
            head->buildIdLength = place.buildIdLength;
            memcpy(head->buildId, place.buildId, sizeof(head->buildId));
            head->handlerOffset = place.offset;
            return TAMO_HOST_OK;
        case tamo::PlaceResult::kNoBuildId:
            hostRecord(tamo::kError, kUnit, __LINE__,
                       "the handler for %s is in %s, which has no build id: link it with "
                       "-Wl,--build-id",
                       head->receiver, tamo::moduleNameOf(handler));
            return TAMO_HOST_REFUSED;
        default:
            hostRecord(tamo::kError, kUnit, __LINE__,
                       "the handler for %s, %p, is no code of a loaded module: pass a function of "
                       "a module that the receiver loads too",
                       head->receiver, handler);
            return TAMO_HOST_REFUSED;
    }
}

/* Makes the packet of a message. A list field in the body means nothing yet: the receiver clears
 * it. */
uint32_t compose(const OsMsgHeader *header, uint8_t flags, Packet *packet) {
    const uint32_t result = checkLength(header);
    if (result != TAMO_HOST_OK) {
        return result;
    }
    tamo::PacketHead *head = &packet->head;
    tamo::beginHead(head, tamo::kMessage, 0);
    if (!copyNames(*header, head)) {
        hostRecord(tamo::kWarning, kUnit, __LINE__,
                   "a receiver's name is not 1 to 15 letters, digits, '.', '_' or '-', or a "
                   "sender's name has no end");
        return TAMO_HOST_INVALID;
    }
    head->flags = flags;
    head->msgId = header->msgId;
    head->bodyLength = header->bodyLength;
    packet->body = header->body;
    return describeHandler(*header, head);
}

uint32_t resultOfError(int error, const char *queue) {
    const bool noMemory = error == ENOMEM || error == ENOBUFS || error == ENOSPC;
    hostRecord(tamo::kError, kUnit, __LINE__, "no message could be sent to %s: %s%s", queue,
               strerror(error), tamo::adviceOn(error));
    return noMemory ? TAMO_HOST_NO_MEMORY : TAMO_HOST_SYSTEM;
}

bool isGone(int error) {
    return error == EPIPE || error == ECONNRESET || error == ENOTCONN;
}

uint32_t resultOfFullQueue(const Packet &packet) {
    hostRecord(tamo::kWarning, kUnit, __LINE__,
               "the queue %s is full: its owner does not keep up, or does not receive",
               packet.head.receiver);
    return TAMO_HOST_QUEUE_FULL;
}

/* Sends on this thread's connection, which it opens again when its receiver is gone: what could not
 * be sent was not delivered. */
uint32_t deliver(Packet *packet, Deadline *deadline, Connection **used) {
    for (;;) {
        uint32_t result = TAMO_HOST_OK;
        Connection *connection = tamo::knownConnection(packet->head.receiver);
        if (connection == nullptr) {
            connection = tamo::newConnection(packet->head.receiver, deadline, &result);
        }
        if (connection == nullptr) {
            return result;
        }
        const uint64_t waiting = tamo::waitingBytes(*connection->status.get());
        if (deadline == nullptr && waiting + packet->head.bodyLength > kQueueLimit) {
            return resultOfFullQueue(*packet);
        }
        packet->head.serial = ++connection->serial;
        const int error = tamo::submit(connection, packet, deadline);
        if (error == 0) {
            *used = connection;
            return TAMO_HOST_OK;
        }
        if (isGone(error)) {
            tamo::dropConnection(connection);
            continue;
        }
        const bool full = error == EAGAIN || error == ETOOMANYREFS;
        return full ? resultOfFullQueue(*packet) : resultOfError(error, packet->head.receiver);
    }
}

uint32_t resultOfSilence(Connection *connection, Arrival arrival) {
    switch (arrival) {
        case Arrival::kNothing:
            hostRecord(tamo::kWarning, kUnit, __LINE__, "%s did not answer in time",
                       connection->queue);
            tamo::giveUpResponse(connection);
            return TAMO_HOST_TIMEOUT;
        case Arrival::kEnd:
            hostRecord(tamo::kWarning, kUnit, __LINE__, "%s ended before it answered",
                       connection->queue);
            tamo::dropConnection(connection);
            return TAMO_HOST_GONE;
        case Arrival::kLost:
            hostRecord(tamo::kError, kUnit, __LINE__,
                       "the response of %s was lost: this process has no more descriptors, see "
                       "ulimit -n",
                       connection->queue);
            return TAMO_HOST_SYSTEM;
        default:
            hostRecord(tamo::kError, kUnit, __LINE__, "%s sent something that is no response",
                       connection->queue);
            tamo::dropConnection(connection);
            return TAMO_HOST_REFUSED;
    }
}

uint32_t resultOfRefusal(const Packet &request, const Message &answer) {
    const uint8_t reason = answer.packet.reason;
    hostRecord(tamo::kWarning, kUnit, __LINE__,
               reason == TAMO_HOST_GONE ? "%s dropped a message unanswered (reason %u)"
                                        : "%s refused a message: its log says why (reason %u)",
               request.head.receiver, reason);
    const bool isKnown = reason != TAMO_HOST_OK && reason <= TAMO_HOST_SYSTEM;
    return isKnown ? reason : static_cast<uint32_t>(TAMO_HOST_REFUSED);
}

/* Receives what the receiver says to `request`. */
uint32_t awaitResponse(Connection *connection, const Packet &request, Deadline *deadline,
                       Message *answer, tamo::Descriptor *file) {
    const Arrival arrival = tamo::awaitPacket(connection, answer, file, deadline);
    if (arrival != Arrival::kPacket) {
        return resultOfSilence(connection, arrival);
    }
    /* A refusal is understood from any version. */
    if (answer->packet.kind == tamo::kRefusal) {
        const uint32_t result = resultOfRefusal(request, *answer);
        if (answer->packet.serial != request.head.serial || file->isOpen()) {
            tamo::dropConnection(connection);
        }
        return result;
    }
    const char *fault = tamo::faultOfPacket(*answer, file->isOpen());
    if (fault == nullptr &&
        (answer->packet.kind != tamo::kResponse || answer->packet.serial != request.head.serial)) {
        fault = "it answers another message";
    }
    if (fault == nullptr) {
        fault = tamo::takeBody(answer, connection->window, *file);
    }
    if (fault != nullptr) {
        hostRecord(tamo::kError, kUnit, __LINE__, "the response of %s cannot be used: %s",
                   connection->queue, fault);
        tamo::dropConnection(connection);
        return TAMO_HOST_REFUSED;
    }
    return TAMO_HOST_OK;
}

/* Would the requester's library find a list in this response? It takes no data that is longer than
 * what it sent, and looks for the list only in data that holds a whole block. */
bool canTakeList(const OsMsgHeader &request, const OsMsgHeader &response) {
    if (!tamo::hasBlock(request.msgId, request.bodyLength)) {
        return false;
    }
    const uint32_t sent = tamo::readBodyHead(request.body).dataLength;
    const uint32_t received = tamo::readBodyHead(response.body).dataLength;
    return received >= tamo::kBlockHead && received <= sent;
}

/* Gives the requester its own addresses: the handler that it named, and the list as a block of its
 * own. */
uint32_t translateResponse(const OsMsgHeader &request, Message *answer, const tamo::Window &window,
                           const tamo::Descriptor &file) {
    const OsMsgHeader &response = answer->header;
    if (!tamo::hasHandler(request.msgId)) {
        return TAMO_HOST_OK;
    }
    if (response.bodyLength < sizeof(tamo::BodyHead)) {
        if (response.bodyLength > 0) {
            memset(response.body, 0, response.bodyLength);
        }
        return TAMO_HOST_OK;
    }
    const bool named = request.bodyLength >= sizeof(tamo::BodyHead);
    tamo::writeHandler(response.body, named ? tamo::readBodyHead(request.body).handler : nullptr);
    if (!tamo::hasBlock(request.msgId, response.bodyLength)) {
        return TAMO_HOST_OK;
    }
    tamo::ResultList list = {nullptr, 0};
    if ((answer->packet.flags & tamo::kHasList) != 0 && canTakeList(request, response)) {
        list.size = answer->packet.listLength;
        list.list = OsMemMallocSetCharMon(list.size, 0, 0, 0, __LINE__, kUnit);
        if (list.list == nullptr || !tamo::takeList(*answer, window, file, list.list)) {
            hostRecord(tamo::kError, kUnit, __LINE__, "no memory for a result list of %u bytes",
                       list.size);
            if (list.list != nullptr) {
                (void)OSMemTypeFreeMon(list.list, 0, 0, __LINE__, kUnit);
            }
            return TAMO_HOST_NO_MEMORY;
        }
    }
    tamo::writeList(response.body, list);
    return TAMO_HOST_OK;
}

}  // namespace

uint32_t OsMsgSynSend(OsMsgHeader *header, OsMsgHeader **response, uint32_t timeout) {
    if (response == nullptr) {
        hostRecord(tamo::kWarning, kUnit, __LINE__, "there is no place for a response");
        return TAMO_HOST_INVALID;
    }
    Deadline deadline(timeout);
    Packet request;
    uint32_t result = compose(header, tamo::kSenderWaits, &request);
    if (result != TAMO_HOST_OK) {
        return result;
    }
    Message *answer = tamo::takeMessage();
    if (answer == nullptr) {
        hostRecord(tamo::kError, kUnit, __LINE__, "no memory for the response of %s",
                   request.head.receiver);
        return TAMO_HOST_NO_MEMORY;
    }
    Connection *connection = nullptr;
    tamo::Descriptor file;
    result = deliver(&request, &deadline, &connection);
    if (result == TAMO_HOST_OK) {
        result = awaitResponse(connection, request, &deadline, answer, &file);
    }
    if (result == TAMO_HOST_OK) {
        result = translateResponse(*header, answer, connection->window, file);
    }
    if (result == TAMO_HOST_OK) {
        *response = &answer->header;
    } else {
        tamo::giveMessageBack(answer);
    }
    return result;
}

uint32_t OsMsgSynRespFree(OsMsgHeader *response) {
    if (response != nullptr) {
        tamo::giveMessageBack(tamo::messageOf(response));
    }
    return TAMO_HOST_OK;
}

uint32_t OsMsgAsynSend(OsMsgHeader *header) {
    Packet packet;
    const uint32_t result = compose(header, 0, &packet);
    Connection *connection = nullptr;
    return result == TAMO_HOST_OK ? deliver(&packet, nullptr, &connection) : result;
}
