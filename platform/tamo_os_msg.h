/* libtamo_os_msg: messages between processes and tasks.
 *
 * 1. Results are 0 for success; another value tells why a message did not go.
 * 2. A message is a header, and a body that the header points to. The body begins with the address
 *    of the function that the receiver is asked to run (message ids 1 and 2).
 * 3. Time-outs are in milliseconds on the workstation host, 0xFFFFFFFF waits for ever; on a device
 *    they are the device's.
 * 4. Any thread may send. A sender keeps its header and body; the layer copies what it needs before
 *    a send returns.
 * 5. A message of id 2 carries a message block behind the body's header. In a received request its
 *    result buffer is null: the sender's address means nothing here. The result buffer that a
 *    handler hangs on that block crosses with the response: the waiting sender gets a block of its
 *    own from libtamo_os_mem, the receiver's block is released by the layer once the response went
 *    out, and by nobody else. When the response does not go out, the receiver keeps it; where the
 *    response's data is longer than the request's, the sender can take neither, and no buffer
 *    crosses.
 * 6. A queue of the workstation host holds 2,097,152 messages and 134,217,728 bytes of their bodies,
 *    from all senders together. A send beyond that is refused at once, with a record that names the
 *    queue, what waits in it and the limit; each of several senders may pass it by 1,024 messages
 *    and by 1 MiB or one larger message. The largest body is that of 33,554,432 + 83 bytes of data, the largest result buffer
 *    has 33,554,432; larger ones are refused with a record. A queued message arrives also when its
 *    sender ends. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The head of every message. Zeroed before use; words without a name stay zero. */
typedef struct OsMsgHeader {
    uint32_t syncFlag; /* set to 1 by the layer when the sender waits for a response */
    uint32_t unused1[11];
    uint32_t msgId; /* 1: to a process; 2: to a task, with a message block */
    uint32_t unused2;
    char sender[16];   /* NUL-terminated */
    char receiver[16]; /* NUL-terminated */
    uint32_t unused3[17];
    uint32_t bodyLength; /* bytes that `body` points to */
    void *body;
} OsMsgHeader;

/* Sends and waits up to `timeout` for the response. On success (0) `*response` is a received header
 * whose body is the receiver's body after its handler ran; it belongs to the layer until
 * OsMsgSynRespFree. On failure `*response` is left as it was. Fails at once when the receiver ends,
 * refuses the handler's address or drops the message unanswered. The receiver may come to life
 * within the time-out. */
uint32_t OsMsgSynSend(OsMsgHeader *header, OsMsgHeader **response, uint32_t timeout);

/* Releases a response; null is allowed. A result buffer that came with it is the caller's and
 * stays. */
uint32_t OsMsgSynRespFree(OsMsgHeader *response);

/* Queues a message and returns without waiting, also when it cannot be queued: with no receiver, or
 * a receiver whose queue is full, it fails. Messages of one thread to one receiver arrive in order,
 * those that it waits for and those that it does not. */
uint32_t OsMsgAsynSend(OsMsgHeader *header);

/* Answers the waiting sender of a received message with `bodyLength` bytes of `body`, once. Fails
 * when that sender no longer waits, and for a message that nobody waits for. */
uint32_t OsMsgSynSendResp(OsMsgHeader *header, void *body, uint32_t bodyLength);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(OsMsgHeader, msgId) == 48);
static_assert(offsetof(OsMsgHeader, sender) == 56);
static_assert(offsetof(OsMsgHeader, receiver) == 72);
static_assert(offsetof(OsMsgHeader, bodyLength) == 156);
static_assert(offsetof(OsMsgHeader, body) == 160);
static_assert(sizeof(OsMsgHeader) == 160 + sizeof(void *));
#endif
