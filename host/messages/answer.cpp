/* Answering and freeing received messages.
 *
 * Both may happen on any thread, also after the queue is closed. A message that waits for its answer
 * holds its sender's connection; whoever clears `waiting` is the one who may write there. */
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include "host/base/log.h"
#include "host/messages/body.h"
#include "host/messages/queue.h"
#include "host/messages/wire.h"
#include "tamo_os_mem.h"

namespace {

using tamo::hostRecord;
using tamo::Message;
using tamo::PacketHead;

constexpr const char *kUnit = "tamo_os_msg";

/* Sends a response, with the list that hangs on its block. 0, or a TAMO_HOST_ code. */
uint32_t sendResponse(const Message &message, const void *body, uint32_t bodyLength,
                      const tamo::ResultList &list) {
    tamo::Packet packet;
    PacketHead *head = &packet.head;
    tamo::beginHead(head, tamo::kResponse, message.packet.serial);
    head->msgId = message.packet.msgId;
    memcpy(head->sender, message.packet.receiver, sizeof(head->sender));
    memcpy(head->receiver, message.packet.sender, sizeof(head->receiver));
    head->bodyLength = bodyLength;
    packet.body = body;
    if (list.list != nullptr) {
        head->flags = tamo::kHasList;
        head->listLength = list.size;
        packet.list = list.list;
    }
    /* A window is the sender's to make: where there is none, a file has to do. */
    tamo::Window *window = message.peer->window.isOpen() ? &message.peer->window : nullptr;
    tamo::Descriptor none;
    int error = tamo::packBody(&packet, window, &none);
    if (error == 0) {
        error = tamo::sendPacket(message.peer->socket.get(), &packet, MSG_DONTWAIT);
    }
    if (error == 0) {
        return TAMO_HOST_OK;
    }
    const bool gone = error == EPIPE || error == ECONNRESET || error == EBADF;
    hostRecord(gone ? tamo::kWarning : tamo::kError, kUnit, __LINE__,
               "no response could be sent to %s of process %d: %s", message.packet.sender,
               static_cast<int>(message.peer->identity.pid),
               gone ? "it no longer waits" : strerror(error));
    const bool noMemory = error == ENOMEM || error == ENOBUFS || error == ENOSPC;
    return gone ? TAMO_HOST_GONE : noMemory ? TAMO_HOST_NO_MEMORY : TAMO_HOST_SYSTEM;
}

uint32_t checkResponse(const Message *message, const void *body, uint32_t bodyLength,
                       const tamo::ResultList &list) {
    if (message == nullptr || (body == nullptr && bodyLength > 0)) {
        hostRecord(tamo::kWarning, kUnit, __LINE__, "a response without message or body was sent");
        return TAMO_HOST_INVALID;
    }
    if (bodyLength > tamo::kMaxBody || list.size > tamo::kMaxList) {
        hostRecord(
            tamo::kWarning, kUnit, __LINE__,
            "a response of %u bytes with a list of %u bytes was sent, %u and %u are the most",
            bodyLength, list.size, tamo::kMaxBody, tamo::kMaxList);
        return TAMO_HOST_TOO_LARGE;
    }
    return TAMO_HOST_OK;
}

/* Releases the list on `body`, and forgets it there. */
void releaseList(void *body) {
    const tamo::ResultList list = tamo::readList(body);
    if (list.list != nullptr) {
        (void)OSMemTypeFreeMon(list.list, 0, 0, __LINE__, kUnit);
        tamo::writeList(body, {nullptr, 0});
    }
}

/* The list went out: the layer releases the block that it was in. */
void releaseSentList(Message *message, void *body, const tamo::ResultList &list) {
    void *own = tamo::bodyOf(message);
    if (body != own && tamo::hasBlock(message->packet.msgId, message->packet.bodyLength) &&
        tamo::readList(own).list == list.list) {
        /* The response was a copy of the message's body, and both name the block. */
        tamo::writeList(own, {nullptr, 0});
    }
    releaseList(body);
}

}  // namespace

uint32_t OsMsgSynSendResp(OsMsgHeader *header, void *body, uint32_t bodyLength) {
    Message *message = header != nullptr ? tamo::messageOf(header) : nullptr;
    tamo::ResultList list = {nullptr, 0};
    if (message != nullptr && body != nullptr &&
        tamo::hasBlock(message->packet.msgId, bodyLength)) {
        list = tamo::readList(body);
        list.size = list.list != nullptr ? list.size : 0;
    }
    uint32_t result = checkResponse(message, body, bodyLength, list);
    if (result != TAMO_HOST_OK) {
        return result;
    }
    if (!message->waiting.exchange(false, std::memory_order_acq_rel)) {
        hostRecord(tamo::kWarning, kUnit, __LINE__,
                   "a message of %s was answered that nobody waits for any more",
                   message->packet.sender);
        return TAMO_HOST_INVALID;
    }
    result = sendResponse(*message, body, bodyLength, list);
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
    Message *message = tamo::messageOf(header);
    const PacketHead &packet = message->packet;
    if (message->waiting.exchange(false, std::memory_order_acq_rel)) {
        tamo::sendRefusal(message->peer->socket.get(), packet.serial, TAMO_HOST_GONE);
    }
    if (tamo::hasBlock(packet.msgId, packet.bodyLength)) {
        releaseList(tamo::bodyOf(message));
    }
    if (message->peer != nullptr) {
        tamo::releasePeer(message->peer);
    }
    tamo::giveMessageBack(message);
}
