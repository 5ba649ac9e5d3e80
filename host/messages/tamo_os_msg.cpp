/* libtamo_os_msg: sending messages. Receiving them is in queue.cpp, answering in answer.cpp. */
#include "tamo_os_msg.h"

#include <errno.h>
#include <string.h>

#include "host/base/log.h"
#include "host/messages/block.h"
#include "host/messages/handler_address.h"
#include "host/messages/sender.h"
#include "host/messages/trace.h"
#include "tamo_host.h"
#include "tamo_os_mem.h"

namespace tamo::messages {

namespace {

constexpr const char *kUnit = "tamo_os_msg";

constexpr int kMaxOpened = 3;

/* A message to be sent. */
struct Outgoing {
    RecordHead head = {};
    char queue[kQueueNameSize];
    const OsMsgHeader *header;
};

/* Copies the names; a receiver that this thread is connected to needs no closer look. */
bool copyNames(const OsMsgHeader &header, Outgoing *message) {
    memcpy(message->head.sender, header.sender, sizeof(message->head.sender));
    memcpy(message->queue, header.receiver, sizeof(message->queue));
    const bool terminated = header.sender[sizeof(header.sender) - 1] == '\0' ||
                            memchr(header.sender, '\0', sizeof(header.sender)) != nullptr;
    return terminated && (knownConnection(message->queue) != nullptr ||
                          copyQueueName(header.receiver, message->queue));
}

uint32_t checkLength(const OsMsgHeader *header) {
    if (header == nullptr || (header->body == nullptr && header->bodyLength > 0)) {
        hostRecord(kWarning, kUnit, __LINE__, "a message without header or body was sent");
        return TAMO_HOST_INVALID;
    }
    if (header->bodyLength > kMaxBody) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "a message of %u bytes was sent, %u are the most: send it in parts",
                   header->bodyLength, kMaxBody);
        return TAMO_HOST_TOO_LARGE;
    }
    return TAMO_HOST_OK;
}

/* Says where the handler's code is, in a way that the receiver understands. */
uint32_t describeHandler(const OsMsgHeader &header, Outgoing *message) {
    if (!hasHandler(header.msgId) || header.bodyLength < sizeof(BodyHead)) {
        return TAMO_HOST_OK;
    }
    const void *handler = readBodyHead(header.body).handler;
    if (handler == nullptr) {
        return TAMO_HOST_OK;
    }
    CodePlace place;
    switch (placeOfCode(handler, &place)) {
        case PlaceResult::kFound:
            message->head.prefix.buildIdLength = place.buildIdLength;
            memcpy(message->head.buildId, place.buildId, place.buildIdLength);
            message->head.handlerOffset = place.offset;
            return TAMO_HOST_OK;
        case PlaceResult::kNoBuildId:
            hostRecord(kError, kUnit, __LINE__,
                       "the handler for %s is in %s, which has no build id: link it with "
                       "-Wl,--build-id",
                       message->queue, moduleNameOf(handler));
            return TAMO_HOST_REFUSED;
        default:
            hostRecord(kError, kUnit, __LINE__,
                       "the handler for %s, %p, is no code of a loaded module: pass a function of "
                       "a module that the receiver loads too",
                       message->queue, handler);
            return TAMO_HOST_REFUSED;
    }
}

/* Makes the head of a message. A list field in the body means nothing yet: the receiver clears it. */
uint32_t compose(const OsMsgHeader *header, uint8_t flags, Outgoing *message) {
    const uint32_t result = checkLength(header);
    if (result != TAMO_HOST_OK) {
        return result;
    }
    if (!copyNames(*header, message)) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "a receiver's name is not 1 to 15 letters, digits, '.', '_' or '-', or a "
                   "sender's name has no end");
        return TAMO_HOST_INVALID;
    }
    message->header = header;
    message->head.prefix.kind = kMessage;
    message->head.prefix.flags = flags;
    message->head.msgId = header->msgId;
    message->head.bodyLength = header->bodyLength;
    return describeHandler(*header, message);
}

uint32_t resultOfError(int error, const char *queue) {
    if (error == EDQUOT) {
        return TAMO_HOST_QUEUE_FULL; /* recorded where the limits were looked at */
    }
    if (error == EAGAIN || error == ETOOMANYREFS) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "the queue %s is full: too many memory files wait in its sockets", queue);
        return TAMO_HOST_QUEUE_FULL;
    }
    const bool noMemory = error == ENOMEM || error == ENOBUFS || error == ENOSPC;
    hostRecord(kError, kUnit, __LINE__, "no message could be sent to %s: %s%s", queue,
               strerror(error), adviceOn(error));
    return noMemory ? TAMO_HOST_NO_MEMORY : TAMO_HOST_SYSTEM;
}

/* Sends on this thread's connection, which it opens again when its receiver is gone: what could not
 * be sent was not delivered. A receiver that closes new connections takes none of this process. */
uint32_t deliver(Outgoing *message, Deadline *deadline, Connection **used) {
    for (int opened = 0; opened <= kMaxOpened;) {
        uint32_t result = TAMO_HOST_OK;
        Connection *connection = knownConnection(message->queue);
        if (connection == nullptr) {
            ++opened;
            connection = newConnection(message->queue, deadline, &result);
        }
        if (connection == nullptr && result == TAMO_HOST_GONE) {
            continue;
        }
        if (connection == nullptr) {
            return result;
        }
        const int error = submit(connection, &message->head, message->header->body);
        if (error == 0) {
            *used = connection;
            return TAMO_HOST_OK;
        }
        if (error != EPIPE && error != ECONNRESET) {
            return resultOfError(error, message->queue);
        }
        dropConnection(connection);
    }
    hostRecord(kWarning, kUnit, __LINE__,
               "%s closes each connection at once: it takes none of this process", message->queue);
    return TAMO_HOST_GONE;
}

/* What comes of waiting for an answer in vain. */
uint32_t resultOfSilence(Connection *connection, Arrival arrival, const char *fault) {
    switch (arrival) {
        case Arrival::kNothing:
            hostRecord(kWarning, kUnit, __LINE__, "%s did not answer in time", connection->queue);
            giveUpAnswer(connection);
            return TAMO_HOST_TIMEOUT;
        case Arrival::kEnd:
            hostRecord(kWarning, kUnit, __LINE__, "%s ended before it answered", connection->queue);
            dropConnection(connection);
            return TAMO_HOST_GONE;
        case Arrival::kShort:
            hostRecord(kError, kUnit, __LINE__,
                       "the response of %s was lost: this process has no more descriptors, see "
                       "ulimit -n",
                       connection->queue);
            dropConnection(connection);
            return TAMO_HOST_SYSTEM;
        default:
            hostRecord(kError, kUnit, __LINE__, "the response of %s cannot be used: %s",
                       connection->queue, fault != nullptr ? fault : "its packet is none");
            dropConnection(connection);
            return TAMO_HOST_REFUSED;
    }
}

uint32_t resultOfRefusal(const char *queue, const Message &answer) {
    const uint8_t reason = answer.record.prefix.reason;
    hostRecord(kWarning, kUnit, __LINE__,
               reason == TAMO_HOST_GONE ? "%s dropped a message unanswered (reason %u)"
                                        : "%s refused a message: its log says why (reason %u)",
               queue, reason);
    const bool isKnown = reason != TAMO_HOST_OK && reason <= TAMO_HOST_SYSTEM;
    return isKnown ? reason : static_cast<uint32_t>(TAMO_HOST_REFUSED);
}

/* Would the requester's library find a list in this response? It takes no data that is longer than
 * what it sent, and looks for the list only in data that holds a whole block. */
bool canTakeList(const OsMsgHeader &request, const OsMsgHeader &response) {
    if (!hasBlock(request.msgId, request.bodyLength)) {
        return false;
    }
    const uint32_t sent = readBodyHead(request.body).dataLength;
    const uint32_t received = readBodyHead(response.body).dataLength;
    return received >= kBlockHead && received <= sent;
}

/* Gives the requester its own addresses: the handler that it named, and the list as a block of its
 * own. */
uint32_t translateResponse(const OsMsgHeader &request, Message *answer, const uint8_t *content) {
    const OsMsgHeader &response = answer->header;
    if (!hasHandler(request.msgId)) {
        return TAMO_HOST_OK;
    }
    if (response.bodyLength < sizeof(BodyHead)) {
        if (response.bodyLength > 0) {
            memset(response.body, 0, response.bodyLength);
        }
        return TAMO_HOST_OK;
    }
    const bool named = request.bodyLength >= sizeof(BodyHead);
    writeHandler(response.body, named ? readBodyHead(request.body).handler : nullptr);
    if (!hasBlock(request.msgId, response.bodyLength)) {
        return TAMO_HOST_OK;
    }
    ResultList list = {nullptr, 0};
    if ((answer->record.prefix.flags & kHasList) != 0 && canTakeList(request, response)) {
        list.size = answer->record.listLength;
        list.list = OsMemMallocSetCharMon(list.size, 0, 0, 0, __LINE__, kUnit);
        if (list.list == nullptr) {
            hostRecord(kError, kUnit, __LINE__, "no memory for a result list of %u bytes",
                       list.size);
            return TAMO_HOST_NO_MEMORY;
        }
        memcpy(list.list, content, list.size);
    }
    writeList(response.body, list);
    return TAMO_HOST_OK;
}

/* Waits for what the receiver says to a message, and makes the response of it. */
uint32_t receiveResponse(Connection *connection, const Outgoing &request, Deadline *deadline,
                         Message *answer) {
    const uint8_t *list = nullptr;
    const char *fault = nullptr;
    const Arrival arrival = awaitAnswer(connection, request.head, deadline, answer, &list, &fault);
    if (arrival != Arrival::kPacket) {
        return resultOfSilence(connection, arrival, fault);
    }
    uint32_t result = TAMO_HOST_OK;
    if (answer->record.prefix.kind == kRefusal) {
        result = resultOfRefusal(request.queue, *answer);
    } else {
        memcpy(answer->header.sender, request.queue, sizeof(answer->header.sender));
        memcpy(answer->header.receiver, request.head.sender, sizeof(answer->header.receiver));
        result = translateResponse(*request.header, answer, list);
    }
    passAnswer(connection);
    return result;
}

/* What the sender has of its message at the end. */
void traceEnd(const Outgoing &message, const OsMsgHeader *response, uint32_t result,
              uint64_t beganNs) {
    RecordHead head = message.head;
    if (response == nullptr) {
        trace(TAMO_HOST_TRACE_FAILED, {message.queue, &head, message.header->body, 0}, result,
              beganNs);
        return;
    }
    head.bodyLength = response->bodyLength;
    head.listLength = messageOf(const_cast<OsMsgHeader *>(response))->record.listLength;
    const bool hasResult = hasHandler(head.msgId) && head.bodyLength >= sizeof(BodyHead);
    trace(TAMO_HOST_TRACE_ANSWERED, {message.queue, &head, response->body, 0},
          hasResult ? readBodyHead(response->body).result : 0, beganNs);
}

}  // namespace

}  // namespace tamo::messages

using namespace tamo::messages;

uint32_t OsMsgSynSend(OsMsgHeader *header, OsMsgHeader **response, uint32_t timeout) {
    if (response == nullptr) {
        tamo::hostRecord(tamo::kWarning, kUnit, __LINE__, "there is no place for a response");
        return TAMO_HOST_INVALID;
    }
    const uint64_t beganNs = beginOfTrace();
    Deadline deadline(timeout);
    Outgoing request;
    uint32_t result = compose(header, kSenderWaits, &request);
    if (result != TAMO_HOST_OK) {
        return result;
    }
    Message *answer = allocateMessage();
    if (answer == nullptr) {
        tamo::hostRecord(tamo::kError, kUnit, __LINE__, "no memory for the response of %s",
                         request.queue);
        return TAMO_HOST_NO_MEMORY;
    }
    Connection *connection = nullptr;
    result = deliver(&request, &deadline, &connection);
    if (result == TAMO_HOST_OK) {
        result = receiveResponse(connection, request, &deadline, answer);
    }
    if (isTraced()) {
        traceEnd(request, result == TAMO_HOST_OK ? &answer->header : nullptr, result, beganNs);
    }
    if (result == TAMO_HOST_OK) {
        *response = &answer->header;
    } else {
        releaseMessage(answer);
    }
    return result;
}

uint32_t OsMsgSynRespFree(OsMsgHeader *response) {
    if (response != nullptr) {
        releaseMessage(messageOf(response));
    }
    return TAMO_HOST_OK;
}

uint32_t OsMsgAsynSend(OsMsgHeader *header) {
    Outgoing message;
    Connection *connection = nullptr;
    uint32_t result = compose(header, 0, &message);
    if (result != TAMO_HOST_OK) {
        return result;
    }
    result = deliver(&message, nullptr, &connection);
    if (result != TAMO_HOST_OK && isTraced()) {
        traceEnd(message, nullptr, result, 0);
    }
    return result;
}
