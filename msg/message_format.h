/* The formats that cross between processes (docs/message_format.md draws them): what stands behind
 * the platform's message header, and the rules of its sizes. Writer and reader both include this
 * file. */
#pragma once

#include <cstddef>
#include <cstdint>

#include "include/conf_msg_api.h"
#include "platform/tamo_os_msg.h"

/* Every message of the library names this sender. */
constexpr char kSenderName[] = "TamoUIConf";

enum MessageId : uint32_t {
    kProcessMessage = 1, /* the receiver was named as a process */
    kTaskMessage = 2     /* the receiver was named as a task; the data is a message block */
};

/* The body of a message. Its data follows it, aligned for a pointer. */
struct ConfMsgBody {
    ConfMsgHandler handler; /* never null */
    uint32_t result;        /* the handler's, written by the receiver */
    uint32_t param;
    uint32_t dataLength;
};

/* The bytes behind the body, null when there are none. */
inline void *bodyData(ConfMsgBody *body) {
    return body->dataLength == 0 ? nullptr : body + 1;
}

/* The first packet of a multi-packet notification. */
struct MultiPackHeader {
    uint32_t magic;
    uint32_t packetCount;
    uint32_t totalLength;
};

constexpr uint32_t kMultiPackMagic = 0x12345;
constexpr uint32_t kMultiPackPacket = 4 * 1024 * 1024 - 164;
constexpr uint32_t kMultiPackLimit = 32 * 1024 * 1024;

/* Where a message block's fixed part ends and its body begins. */
constexpr uint32_t kBlockHead = offsetof(MeetingServerMsgBlock, body);

static_assert(sizeof(ConfMsgBody) == (sizeof(void *) == 4 ? 16 : 24));
static_assert(offsetof(ConfMsgBody, result) == sizeof(void *));
static_assert(offsetof(ConfMsgBody, dataLength) == sizeof(void *) + 8);
static_assert(sizeof(MultiPackHeader) == 12);
