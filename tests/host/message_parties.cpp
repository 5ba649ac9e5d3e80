/* See message_parties.h. */
#include "message_parties.h"

#include <gtest/gtest.h>

#include <cstring>
#include <future>

#include "tests/support/deadline.h"

namespace parties {

uint32_t patienceMs() {
    return static_cast<uint32_t>(support::patience().count());
}

Bytes bodyOf(Handler handler, uint32_t param, const Bytes &data) {
    const BodyHead head = {handler, 0, param, static_cast<uint32_t>(data.size())};
    Bytes body(kHead + data.size());
    std::memcpy(body.data(), &head, sizeof(head));
    std::copy(data.begin(), data.end(), body.begin() + kHead);
    return body;
}

Bytes pattern(size_t size, uint8_t seed) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 251 + seed);
    }
    return bytes;
}

OsMsgHeader headerOf(const std::string &receiver, Bytes &body, uint32_t msgId) {
    OsMsgHeader header = {};
    header.msgId = msgId;
    std::strcpy(header.sender, "TamoUIConf");
    receiver.copy(header.receiver, sizeof(header.receiver));
    header.bodyLength = static_cast<uint32_t>(body.size());
    header.body = body.empty() ? nullptr : body.data();
    return header;
}

BodyHead headOf(const OsMsgHeader *message) {
    BodyHead head;
    std::memcpy(&head, message->body, sizeof(head));
    return head;
}

uint8_t *dataOf(const OsMsgHeader *message) {
    return static_cast<uint8_t *>(message->body) + kHead;
}

void *listOf(const OsMsgHeader *message) {
    void *list;
    std::memcpy(&list, dataOf(message) + kListOffset, sizeof(list));
    return list;
}

uint32_t listSizeOf(const OsMsgHeader *message) {
    uint32_t size;
    std::memcpy(&size, dataOf(message) + kListSizeOffset, sizeof(size));
    return size;
}

void hangList(void *block, void *list, uint32_t size) {
    std::memcpy(static_cast<uint8_t *>(block) + kListOffset, &list, sizeof(list));
    std::memcpy(static_cast<uint8_t *>(block) + kListSizeOffset, &size, sizeof(size));
}

Exchange::Exchange(const std::string &receiver, Bytes body, uint32_t msgId, uint32_t timeoutMs) {
    OsMsgHeader header = headerOf(receiver, body, msgId);
    result = OsMsgSynSend(&header, &response, timeoutMs);
}

uint32_t sendAsync(const std::string &receiver, Bytes body, uint32_t msgId) {
    OsMsgHeader header = headerOf(receiver, body, msgId);
    return OsMsgAsynSend(&header);
}

Queue::Queue(const std::string &name) {
    EXPECT_EQ(TamoHostMsgOpen(name.c_str(), &queue_), TAMO_HOST_OK);
}

OsMsgHeader *Queue::next() {
    OsMsgHeader *message = nullptr;
    EXPECT_EQ(TamoHostMsgReceive(queue_, &message, static_cast<int32_t>(patienceMs())),
              TAMO_HOST_OK);
    return message;
}

bool Queue::isEmpty() {
    OsMsgHeader *message = nullptr;
    const bool isEmpty = TamoHostMsgReceive(queue_, &message, 0) == TAMO_HOST_TIMEOUT;
    TamoHostMsgFree(message);
    return isEmpty;
}

void Queue::close() {
    TamoHostMsgClose(queue_);
    queue_ = nullptr;
}

void serve(OsMsgHeader *message) {
    BodyHead head = headOf(message);
    const uint32_t result = head.handler(head.param, dataOf(message), head.dataLength);
    std::memcpy(static_cast<uint8_t *>(message->body) + offsetof(BodyHead, result), &result,
                sizeof(result));
    if (message->syncFlag == 1) {
        OsMsgSynSendResp(message, message->body, message->bodyLength);
    }
    TamoHostMsgFree(message);
}

namespace {

constexpr uint32_t kEndMessage = 0xE0D;

}  // namespace

Server::Server(const std::string &name, std::function<void(OsMsgHeader *)> each) : name_(name) {
    std::promise<void> open;
    thread_ = std::thread([this, &open, each = std::move(each)] {
        Queue queue(name_);
        open.set_value();
        OsMsgHeader *message = nullptr;
        while (TamoHostMsgReceive(queue.get(), &message, -1) == TAMO_HOST_OK) {
            if (message->msgId == kEndMessage) {
                TamoHostMsgFree(message);
                break;
            }
            each(message);
        }
    });
    open.get_future().wait();
}

Server::~Server() {
    EXPECT_EQ(sendAsync(name_, {}, kEndMessage), TAMO_HOST_OK);
    thread_.join();
}

TamoHostQueueInfo queueInfo(const std::string &name) {
    TamoHostQueueInfo info = {};
    name.copy(info.name, sizeof(info.name) - 1);
    const bool found = TamoHostMsgQueues(
                           [](const TamoHostQueueInfo *queue, void *context) -> uint32_t {
                               auto *wanted = static_cast<TamoHostQueueInfo *>(context);
                               if (std::strcmp(queue->name, wanted->name) != 0) {
                                   return 0;
                               }
                               *wanted = *queue;
                               return 1;
                           },
                           &info) == 1;
    return found ? info : TamoHostQueueInfo{};
}

uint64_t outstandingBlocks(uint32_t pid) {
    uint64_t blocks = 0;
    TamoHostMemReport(
        pid,
        [](const TamoHostMemSite *site, void *context) -> uint32_t {
            *static_cast<uint64_t *>(context) += site->blocks;
            return 0;
        },
        &blocks);
    return blocks;
}

uint32_t doNothing(uint32_t, void *, uint32_t) {
    return 0;
}

}  // namespace parties
