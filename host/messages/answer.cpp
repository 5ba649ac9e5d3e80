/* Answering and freeing received messages.
 *
 * Both may happen on any thread, also after the queue is closed. A message that waits for its answer
 * holds its sender's connection; whoever clears `waiting` is the one who may write there. */
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include "host/base/log.h"
#include "host/messages/block.h"
#include "host/messages/queue.h"
#include "host/messages/trace.h"
#include "tamo_os_mem.h"

namespace tamo::messages {

int sendAnswer(Peer *peer, RecordHead *head, const void *body, const void *list, uint64_t takenNs) {
    const std::lock_guard<std::mutex> lock(peer->answerLock);
    if (takenNs != 0 && peer->status != nullptr) {
        countService(peer->status, takenNs);
    }
    if (peer->control->awaited.load(std::memory_order_acquire) != head->serial ||
        !peer->socket.isOpen()) {
        return EPIPE;
    }
    const int error = placeRecord(&peer->responses, peer->socket.get(), head, body, list, true);
    if (error != 0) {
        return error;
    }
    (void)peer->responses.publish();
    return sendWakeUp(peer->socket.get());
}

void sendRefusal(Peer *peer, uint32_t serial, uint32_t reason, uint64_t takenNs) {
    RecordHead head = {};
    head.prefix.kind = kRefusal;
    head.prefix.reason = static_cast<uint8_t>(reason);
    head.serial = serial;
    (void)sendAnswer(peer, &head, nullptr, nullptr, takenNs); /* a sender that is gone needs none */
}

namespace {

constexpr const char *kUnit = "tamo_os_msg";

/* Sends a response, with the list that hangs on its block. 0, or a TAMO_HOST_ code. */
uint32_t sendResponse(const Message &message, const void *body, uint32_t bodyLength,
                      const ResultList &list) {
    RecordHead head = {};
    head.prefix.kind = kResponse;
    head.serial = message.record.serial;
    head.msgId = message.record.msgId;
    head.bodyLength = bodyLength;
    if (list.list != nullptr) {
        head.prefix.flags = kHasList;
        head.listLength = list.size;
    }
    if (isTraced()) {
        RecordHead traced = message.record;
        traced.bodyLength = bodyLength;
        traced.listLength = head.listLength;
        const bool hasResult = hasHandler(head.msgId) && bodyLength >= sizeof(BodyHead);
        trace(TAMO_HOST_TRACE_RESPONDED,
              {message.header.receiver, &traced, body,
               static_cast<uint32_t>(message.peer->identity.pid)},
              hasResult ? readBodyHead(body).result : 0, 0);
    }
    const int error = sendAnswer(message.peer, &head, body, list.list, message.takenNs);
    if (error == 0) {
        return TAMO_HOST_OK;
    }
    const bool gone = error == EPIPE || error == ECONNRESET || error == EBADF;
    hostRecord(gone ? kWarning : kError, kUnit, __LINE__,
               "no response could be sent to %s of process %d: %s", message.record.sender,
               static_cast<int>(message.peer->identity.pid),
               gone ? "it no longer waits" : strerror(error));
    const bool noMemory = error == ENOMEM || error == ENOBUFS || error == ENOSPC;
    return gone ? TAMO_HOST_GONE : noMemory ? TAMO_HOST_NO_MEMORY : TAMO_HOST_SYSTEM;
}

uint32_t checkResponse(const Message *message, const void *body, uint32_t bodyLength,
                       const ResultList &list) {
    if (message == nullptr || (body == nullptr && bodyLength > 0)) {
        hostRecord(kWarning, kUnit, __LINE__, "a response without message or body was sent");
        return TAMO_HOST_INVALID;
    }
    if (bodyLength > kMaxBody || list.size > kMaxList) {
        hostRecord(
            kWarning, kUnit, __LINE__,
            "a response of %u bytes with a list of %u bytes was sent, %u and %u are the most",
            bodyLength, list.size, kMaxBody, kMaxList);
        return TAMO_HOST_TOO_LARGE;
    }
    return TAMO_HOST_OK;
}

/* Releases the list on `body`, and forgets it there. */
void releaseList(void *body) {
    const ResultList list = readList(body);
    if (list.list != nullptr) {
        (void)OSMemTypeFreeMon(list.list, 0, 0, __LINE__, kUnit);
        writeList(body, {nullptr, 0});
    }
}

/* The list went out: the layer releases the block that it was in. */
void releaseSentList(Message *message, void *body, const ResultList &list) {
    void *own = bodyOf(message);
    if (body != own && hasBlock(message->record.msgId, message->record.bodyLength) &&
        readList(own).list == list.list) {
        /* The response was a copy of the message's body, and both name the block. */
        writeList(own, {nullptr, 0});
    }
    releaseList(body);
}

}  // namespace

}  // namespace tamo::messages

using namespace tamo::messages;

uint32_t OsMsgSynSendResp(OsMsgHeader *header, void *body, uint32_t bodyLength) {
    Message *message = header != nullptr ? messageOf(header) : nullptr;
    ResultList list = {nullptr, 0};
    if (message != nullptr && body != nullptr && hasBlock(message->record.msgId, bodyLength)) {
        list = readList(body);
        list.size = list.list != nullptr ? list.size : 0;
    }
    uint32_t result = checkResponse(message, body, bodyLength, list);
    if (result != TAMO_HOST_OK) {
        return result;
    }
    if (!message->waiting.exchange(false, std::memory_order_acq_rel)) {
        hostRecord(tamo::kWarning, kUnit, __LINE__,
                   "a message of %s was answered that nobody waits for any more",
                   message->record.sender);
        return TAMO_HOST_INVALID;
    }
    result = sendResponse(*message, body, bodyLength, list);
    message->takenNs = 0;
    if (result == TAMO_HOST_OK && list.list != nullptr) {
        releaseSentList(message, body, list);
    }
    if (result != TAMO_HOST_OK && result != TAMO_HOST_GONE) {
        message->waiting.store(true, std::memory_order_release); /* another response may fit */
    }
    return result;
}

void TamoHostMsgFree(OsMsgHeader *header) {
    if (header == nullptr) {
        return;
    }
    Message *message = messageOf(header);
    const RecordHead &record = message->record;
    if (message->waiting.exchange(false, std::memory_order_acq_rel)) {
        sendRefusal(message->peer, record.serial, TAMO_HOST_GONE, message->takenNs);
    } else if (message->takenNs != 0) {
        const std::lock_guard<std::mutex> lock(message->peer->answerLock);
        if (message->peer->status != nullptr) {
            countService(message->peer->status, message->takenNs);
        }
    }
    if (hasBlock(record.msgId, record.bodyLength)) {
        releaseList(bodyOf(message));
    }
    if (message->peer != nullptr) {
        releasePeer(message->peer);
    }
    releaseMessage(message);
}
