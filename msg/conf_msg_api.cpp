/* Messages: sending a handler's address with data to another process, and running what was
 * received. */
#include "include/conf_msg_api.h"

#include <cstring>

#include "common/log.h"
#include "common/platform_block.h"
#include "msg/message_format.h"
#include "platform/bounds_checked.h"

namespace {

constexpr char kUnit[] = "conf_msg_api";
constexpr uint32_t kDefaultTimeout = 3000;

using Body = PlatformBlock<ConfMsgBody>;

/* A response, released at the end of its scope; the release is told of a missing one too. */
struct Response {
    OsMsgHeader *header = nullptr;

    Response() = default;
    Response(const Response &) = delete;
    Response &operator=(const Response &) = delete;
    ~Response() { OsMsgSynRespFree(header); }

    ConfMsgBody *body() const { return static_cast<ConfMsgBody *>(header->body); }
};

/* Takes a zero-filled body with room for the data; null also where no message could hold it. */
Body takeBody(ConfMsgHandler handler, uint32_t param, uint32_t dataLength,
              uint32_t line = __builtin_LINE()) {
    if (dataLength > UINT32_MAX - sizeof(ConfMsgBody)) {
        return Body(nullptr, BlockRelease{kUnit, line});
    }
    Body body = takeBlock<ConfMsgBody>(sizeof(ConfMsgBody) + dataLength, kUnit, line);
    if (body != nullptr) {
        body->handler = handler;
        body->param = param;
        body->dataLength = dataLength;
    }
    return body;
}

int copyData(ConfMsgBody *body, const void *data) {
    return memcpy_s(body + 1, body->dataLength, data, body->dataLength);
}

/* Completes a header whose receiver is set; false when the sender's name does not fit. */
bool completeHeader(OsMsgHeader *header, MessageId msgId, ConfMsgBody *body) {
    if (strcpy_s(header->sender, sizeof(header->sender), kSenderName) != 0) {
        return false;
    }
    header->msgId = msgId;
    header->bodyLength = static_cast<uint32_t>(sizeof(ConfMsgBody)) + body->dataLength;
    header->body = body;
    return true;
}

bool isUsable(const OsMsgHeader *response) {
    return response != nullptr && response->body != nullptr &&
           response->bodyLength >= sizeof(ConfMsgBody);
}

/* The message block in a body, when the body is long enough for a block's fixed part. */
MeetingServerMsgBlock *bodyBlock(ConfMsgBody *body, uint32_t bodyLength) {
    if (body->dataLength < kBlockHead || bodyLength < sizeof(ConfMsgBody) + kBlockHead) {
        return nullptr;
    }
    return static_cast<MeetingServerMsgBlock *>(bodyData(body));
}

/* Gives back the result list of a task message that found nobody to take it. */
void releaseResultList(ConfMsgBody *body, uint32_t bodyLength) {
    MeetingServerMsgBlock *block = bodyBlock(body, bodyLength);
    if (block != nullptr && block->resultList != nullptr) {
        OSMemTypeFreeMon(block->resultList, 0, 0, __LINE__, kUnit);
        block->resultList = nullptr;
    }
}

/* What differs between a message to a process and one to a task. */
struct SynSend {
    const char *function; /* under whose name the records go */
    MessageId msgId;
    const char *receiverWord;
};

/* Copies the response's data over the caller's; false, with a record, when that fails. */
bool takeResponseData(const SynSend &kind, const OsMsgHeader *response, ConfMsgBody *body,
                      void *data, uint32_t dataLength) {
    if (data == nullptr) {
        return true;
    }
    const bool fits = body->dataLength <= dataLength;
    if (kind.msgId == kProcessMessage && (dataLength == 0 || !fits)) {
        return true;
    }
    if (fits && body->dataLength > response->bodyLength - sizeof(ConfMsgBody)) {
        ConfLogPrintf(CONF_LOG_ERROR, kind.function, kUnit, __LINE__,
                      "Check param fail! dataLen:%u invalid.", body->dataLength);
        return false;
    }
    const int error = memcpy_s(data, dataLength, body + 1, body->dataLength);
    if (error != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, kind.function, kUnit, __LINE__,
                      "ConfCommMsgSynSend memcpy_s fail, ret:%d [%u, %u]", error, dataLength,
                      body->dataLength);
        return false;
    }
    return true;
}

/* Sends a completed header, waits, and takes the response's data and result. */
uint32_t exchange(const SynSend &kind, OsMsgHeader *header, Response *response, uint32_t timeout,
                  const char *receiver, void *data, uint32_t dataLength) {
    const uint32_t result = OsMsgSynSend(header, &response->header, timeout);
    if (result != 0 || !isUsable(response->header)) {
        ConfLogPrintf(CONF_LOG_ERROR, kind.function, kUnit, __LINE__,
                      "ConfCommMsgSynSend OsMsgSynSend fail 0x%x %s %s.", result, kind.receiverWord,
                      receiver);
        return CONF_COMM_ERR_FAILED;
    }
    ConfMsgBody *body = response->body();
    const bool taken = takeResponseData(kind, response->header, body, data, dataLength);
    /* A response longer than the request brings no list, so that field is not looked at there. */
    if (kind.msgId == kTaskMessage && (data == nullptr || !taken) &&
        body->dataLength <= dataLength) {
        releaseResultList(body, response->header->bodyLength);
    }
    return taken ? body->result : static_cast<uint32_t>(CONF_COMM_ERR_FAILED);
}

uint32_t sendAndWait(const SynSend &kind, const char *receiver, ConfMsgHandler handler,
                     uint32_t param, void *data, uint32_t dataLength, uint32_t timeout) {
    if (receiver == nullptr || handler == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, kind.function, kUnit, __LINE__, "Null ptr.");
        return CONF_COMM_ERR_FAILED;
    }
    const Body body = takeBody(handler, param, dataLength);
    if (body == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, kind.function, kUnit, __LINE__, "Null ptr.");
        return CONF_COMM_ERR_FAILED;
    }
    Response response;
    OsMsgHeader header = {};
    if (strcpy_s(header.receiver, sizeof(header.receiver), receiver) != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, kind.function, kUnit, __LINE__,
                      "ConfCommMsgSynSend strcpy_s fail");
        return CONF_COMM_ERR_FAILED;
    }
    if (data != nullptr && dataLength != 0 && copyData(body.get(), data) != 0) {
        ConfLogPrintf(CONF_LOG_ERROR, kind.function, kUnit, __LINE__,
                      "ConfCommMsgSynSend memcpy_s fail!");
        return CONF_COMM_ERR_FAILED;
    }
    if (!completeHeader(&header, kind.msgId, body.get())) {
        ConfLogPrintf(CONF_LOG_ERROR, kind.function, kUnit, __LINE__,
                      "ConfCommMsgSynSend strcpy_s fail");
        return CONF_COMM_ERR_FAILED;
    }
    return exchange(kind, &header, &response, timeout, receiver, data, dataLength);
}

/* What is wrong with a received message, as ConfCommMsgProcess's result; 0 when it can run. */
uint32_t checkReceived(const char *function, const OsMsgHeader *message) {
    if (message->body == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "Null ptr.");
        return CONF_COMM_ERR_MSG_INVALID;
    }
    if (message->bodyLength < sizeof(ConfMsgBody)) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "Check param fail! dataLen:%u invalid.", message->bodyLength);
        return CONF_COMM_ERR_MSG_INVALID;
    }
    const auto *body = static_cast<const ConfMsgBody *>(message->body);
    if (body->handler == nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__, "Null ptr.");
        return 1;
    }
    /* The handler would read behind the message. */
    if (body->dataLength > message->bodyLength - sizeof(ConfMsgBody)) {
        ConfLogPrintf(CONF_LOG_ERROR, function, kUnit, __LINE__,
                      "Check param fail! dataLen:%u invalid.", body->dataLength);
        return CONF_COMM_ERR_MSG_INVALID;
    }
    return 0;
}

}  // namespace

uint32_t ConfCommMsgSynSend(const char *receiverProcess, ConfMsgHandler handler, uint32_t param,
                            void *data, uint32_t dataLength) {
    return ConfCommMsgSynSendImpl(receiverProcess, handler, param, data, dataLength,
                                  kDefaultTimeout);
}

uint32_t ConfCommMsgSynSendImpl(const char *receiverProcess, ConfMsgHandler handler, uint32_t param,
                                void *data, uint32_t dataLength, uint32_t timeout) {
    const SynSend kind = {__func__, kProcessMessage, "recvProcName"};
    return sendAndWait(kind, receiverProcess, handler, param, data, dataLength, timeout);
}

uint32_t ConfCommMsgSynSendImplHaveResp(const char *receiverTask, ConfMsgHandler handler,
                                        uint32_t param, void *data, uint32_t dataLength,
                                        uint32_t timeout) {
    const SynSend kind = {__func__, kTaskMessage, "recvTaskName"};
    return sendAndWait(kind, receiverTask, handler, param, data, dataLength, timeout);
}

uint32_t ConfCommMsgAsynSend(const char *receiverProcess, ConfMsgHandler handler, uint32_t param,
                             const void *data, uint32_t dataLength) {
    if (receiverProcess == nullptr || handler == nullptr) {
        return CONF_COMM_ERR_FAILED;
    }
    const Body body = takeBody(handler, param, dataLength);
    if (body == nullptr) {
        return CONF_COMM_ERR_FAILED;
    }
    OsMsgHeader header = {};
    if (strcpy_s(header.receiver, sizeof(header.receiver), receiverProcess) != 0) {
        return CONF_COMM_ERR_FAILED;
    }
    if (dataLength != 0 && (data == nullptr || copyData(body.get(), data) != 0)) {
        return CONF_COMM_ERR_FAILED;
    }
    if (!completeHeader(&header, kProcessMessage, body.get())) {
        return CONF_COMM_ERR_FAILED;
    }
    const uint32_t result = OsMsgAsynSend(&header);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfCommMsgAsynSend OsMsgAsynSend fail 0x%x recvProcName %s",
                 result, receiverProcess);
        return CONF_COMM_ERR_FAILED;
    }
    return 0;
}

uint32_t ConfCommMsgProcess(OsMsgHeader *message) {
    if (message == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return 1;
    }
    if (message->msgId != kProcessMessage && message->msgId != kTaskMessage) {
        return 1;
    }
    const uint32_t invalid = checkReceived(__func__, message);
    if (invalid != 0) {
        return invalid;
    }
    auto *body = static_cast<ConfMsgBody *>(message->body);
    const MeetingServerMsgBlock *block =
        message->msgId == kTaskMessage ? bodyBlock(body, message->bodyLength) : nullptr;
    const void *brought = block == nullptr ? nullptr : block->resultList;
    body->result = body->handler(body->param, bodyData(body), body->dataLength);
    if (message->syncFlag != 1) {
        return 0;
    }
    const uint32_t result = OsMsgSynSendResp(message, body, message->bodyLength);
    if (result != 0) {
        CONF_LOG(CONF_LOG_ERROR, "ConfCommMsgProcess Resp fail! msgId:%u, ret:%#x", message->msgId,
                 result);
        /* An address that came with the request is nothing of this process. */
        if (block != nullptr && block->resultList != brought) {
            releaseResultList(body, message->bodyLength);
        }
    }
    return 0;
}

bool ConfCommMsgCheckPermission(void) {
    return true;
}
