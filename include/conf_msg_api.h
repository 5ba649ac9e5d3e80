/* Messages between processes, notifications to the application, and the message block.
 *
 * 1. A message asks another process to run a function of code that both sides load: it carries the
 *    function's address, a 32-bit parameter and a block of data. The receiver's message loop passes
 *    each message to ConfCommMsgProcess, which runs the function there.
 * 2. A synchronous send waits for the response, copies the data back and returns the handler's
 *    result, or CONF_COMM_ERR_FAILED. An asynchronous send returns 0 once the message is queued.
 * 3. A receiver's name has at most 15 characters.
 * 4. Any thread may send. Handlers run on the thread that calls ConfCommMsgProcess; the
 *    notification callback runs on the notifying thread.
 * 5. A send that fails leaves an error record, except where an asynchronous send says otherwise; one
 *    that the platform refused names the receiver and the platform's code.
 * 6. On a workstation a queue holds CONF_MSG_QUEUE_MESSAGES messages and CONF_MSG_QUEUE_BYTES bytes
 *    of them, from all senders together; a send beyond is refused at once, but each of several
 *    senders may pass these limits by 1,024 messages and by 1 MiB or one larger message. A queued
 *    message arrives also when its sender ends, in the order in which one thread sent.
 *
 *     uint32_t size = count * sizeof(ConfConfigListItem);
 *     MeetingServerMsgBlock *block = GenerateMeetingServerMsgBlock(items, size);
 *     block->itemCount = count;
 *     uint32_t result = ConfCommMsgSynSendImplHaveResp(
 *         "Conference", ConfConfigGetConfConfig, 0, block, GetMeetingServerMsgBlockSize(block), 3000);
 *     ... read block->resultList, release it and the block with OSMemTypeFreeMon ...
 */
#pragma once
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The head of a message, the platform message layer's. */
typedef struct OsMsgHeader OsMsgHeader;

enum {
    CONF_COMM_ERR_MSG_INVALID = 10001003, /* the message or its content is unusable */
    CONF_COMM_ERR_FAILED = 10001004       /* the message was not sent or not answered */
};

enum {
    CONF_MSG_MAX_DATA = 33554432 + 83, /* bytes of data in one message: a block of 32 MiB */
    CONF_MSG_QUEUE_MESSAGES = 2097152, /* that wait in one queue; see 6. */
    CONF_MSG_QUEUE_BYTES = 134217728   /* of their bodies, each of 16 or 24 bytes and the data */
};

/* What a message makes its receiver run. `data` is the receiver's copy of the sender's data and may
 * be changed in place: after a synchronous message the sender has the changed bytes. It is null
 * when `dataLength` is 0. The result goes back to a synchronous sender. */
typedef uint32_t (*ConfMsgHandler)(uint32_t param, void *data, uint32_t dataLength);

/* The hosting application's notification callback. `data` is the notifier's and valid only during
 * the call. The result goes back to the notifier of a single notification. */
typedef uint32_t (*ConfNotifyFunc)(uint32_t notifyId, const void *data, uint32_t dataLength,
                                   uint32_t result);

/* The block that travels as the data of a task message: a request with a body, and room for the
 * result list that the handler hangs on it. Its size is bodyLength + 83 bytes, or 84 without a body
 * (see GetMeetingServerMsgBlockSize); it has no fixed size, so it is never copied as a whole
 * record.
 *
 * The list crosses with the response: the requester gets a block of its own, which it releases with
 * OSMemTypeFreeMon. A handler allocates its list with OsMemMallocSetCharMon and leaves it to the
 * message layer. */
typedef struct MeetingServerMsgBlock {
    uint32_t requestWord; /* the application's */
    uint32_t itemCount;   /* items that the request is about */
    uint32_t requestWords[(72 - sizeof(void *)) / sizeof(uint32_t) - 2]; /* the application's */
    void *resultList;                                                    /* or null */
    uint32_t resultSize; /* bytes of the result list */
    uint32_t bodyLength; /* bytes of the body */
    char body[];         /* bodyLength bytes, for instance ConfConfigListItem records */
} MeetingServerMsgBlock;

/* ConfCommMsgSynSendImpl with a time-out of 3000. */
uint32_t ConfCommMsgSynSend(const char *receiverProcess, ConfMsgHandler handler, uint32_t param,
                            void *data, uint32_t dataLength);

/* Makes a process run `handler` and waits up to `timeout` (milliseconds on a workstation, 0xFFFFFFFF:
 * for ever) for the response, also for a process that comes to life meanwhile. `data` holds
 * `dataLength` bytes to send, or is null; the response's data replaces them, or leaves them as they
 * were when it is longer. Returns the handler's result, or CONF_COMM_ERR_FAILED with `data`
 * untouched. */
uint32_t ConfCommMsgSynSendImpl(const char *receiverProcess, ConfMsgHandler handler, uint32_t param,
                                void *data, uint32_t dataLength, uint32_t timeout);

/* The same to a task, with a message block as data. A response that is longer than `dataLength`
 * gives CONF_COMM_ERR_FAILED and may leave the block cleared; so does any response to data of length
 * 0. After success the caller owns the block's result list; with null data the list is released. */
uint32_t ConfCommMsgSynSendImplHaveResp(const char *receiverTask, ConfMsgHandler handler,
                                        uint32_t param, void *data, uint32_t dataLength,
                                        uint32_t timeout);

/* Queues a message without waiting: 0, or CONF_COMM_ERR_FAILED. `data` may be null only when
 * `dataLength` is 0, and is the caller's again on return. A null argument, a receiver's name of more
 * than 15 characters and a lack of memory leave no record here; a send that the platform refuses
 * does. */
uint32_t ConfCommMsgAsynSend(const char *receiverProcess, ConfMsgHandler handler, uint32_t param,
                             const void *data, uint32_t dataLength);

/* Runs the handler of a received message and answers a waiting sender. The message stays the
 * message layer's. 0 when the handler ran (whether or not the answer arrived), 1 for a null
 * message, another kind of message (which leaves no record) or a null handler,
 * CONF_COMM_ERR_MSG_INVALID for a body that is missing or too short. */
uint32_t ConfCommMsgProcess(OsMsgHeader *message);

/* Whether this process may send messages: always true. */
bool ConfCommMsgCheckPermission(void);

/* Registers the application's callback, in place of an earlier one; null is ignored. Register at
 * start-up: the pointer is not synchronised. */
void ConfRegisterNotifyFunc(ConfNotifyFunc callback);

/* Calls the callback with a result of 0 and returns what it returns; 1, without a record, when none is
 * registered. */
uint32_t ConfCommSendNotifyToApp(uint32_t notifyId, const void *data, uint32_t dataLength);

/* The same with a result. */
uint32_t ConfCommSendNotifyAndResultToApp(uint32_t notifyId, const void *data, uint32_t dataLength,
                                          uint32_t result);

/* Notifies 1 to 33,554,432 bytes in packets: first three 32-bit words (0x12345, number of packets,
 * total length), then packets of 4,194,140 bytes and the rest. No two such notifications mix; do
 * not start one from within the callback. 0 when sent, also when no callback is registered; 1 when
 * the length is out of range. Null data calls the callback once with the length, and sends no
 * packets: the result is then 1. */
uint32_t ConfCommSendMultiPackNotifyToApp(uint32_t notifyId, const void *data, uint32_t dataLength);

/* Creates a block whose body is a copy of `bodyLength` bytes of `body`, or zero bytes when `body`
 * is null; everything else is zero. The caller releases it with OSMemTypeFreeMon. Null, with a
 * record, when there is no memory. */
MeetingServerMsgBlock *GenerateMeetingServerMsgBlock(const void *body, uint32_t bodyLength);

/* The total size of a block in bytes, as passed for the data length of a message; 0, with a record,
 * for null; 0xFFFFFFFF when the block claims a body that no size can hold. */
uint32_t GetMeetingServerMsgBlockSize(const MeetingServerMsgBlock *block);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(MeetingServerMsgBlock, itemCount) == 4, "");
static_assert(offsetof(MeetingServerMsgBlock, requestWords) == 8, "");
static_assert(offsetof(MeetingServerMsgBlock, resultList) == (sizeof(void *) == 4 ? 68 : 64), "");
static_assert(offsetof(MeetingServerMsgBlock, resultSize) == 72, "");
static_assert(offsetof(MeetingServerMsgBlock, bodyLength) == 76, "");
static_assert(offsetof(MeetingServerMsgBlock, body) == 80, "");
#endif
