/* What the message layer knows of a message's body: the address of the handler at its begin, and
 * the result list that a handler hangs on a message block. Nothing else of a body is looked at. */
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace tamo::messages {

constexpr uint32_t kProcessMessage = 1;
constexpr uint32_t kTaskMessage = 2;

/* Begins the body of messages of both ids. */
struct BodyHead {
    void *handler;
    uint32_t result;
    uint32_t param;
    uint32_t dataLength;
};
static_assert(sizeof(BodyHead) == (sizeof(void *) == 8 ? 24 : 16));

/* The block's fixed part is the same in both pointer widths; the pointer widens to the left. */
constexpr uint32_t kBlockHead = 80;
constexpr size_t kListField = sizeof(BodyHead) + 72 - sizeof(void *);
constexpr size_t kListSizeField = sizeof(BodyHead) + 72;

constexpr uint32_t kMaxData = 32U << 20;
constexpr uint32_t kMaxBody = sizeof(BodyHead) + kMaxData + 83; /* a block's size rule adds 83 */
constexpr uint32_t kMaxList = 32U << 20;

constexpr bool hasHandler(uint32_t msgId) {
    return msgId == kProcessMessage || msgId == kTaskMessage;
}

constexpr bool hasBlock(uint32_t msgId, uint32_t bodyLength) {
    return msgId == kTaskMessage && bodyLength >= sizeof(BodyHead) + kBlockHead;
}

struct ResultList {
    void *list;
    uint32_t size;
};

/* Bodies are copied in and out: a sender's may lie at any address. */
inline BodyHead readBodyHead(const void *body) {
    BodyHead head;
    memcpy(&head, body, sizeof(head));
    return head;
}

inline void writeHandler(void *body, const void *handler) {
    memcpy(body, &handler, sizeof(handler));
}

inline ResultList readList(const void *body) {
    ResultList list;
    memcpy(&list.list, static_cast<const char *>(body) + kListField, sizeof(list.list));
    memcpy(&list.size, static_cast<const char *>(body) + kListSizeField, sizeof(list.size));
    return list;
}

inline void writeList(void *body, ResultList list) {
    memcpy(static_cast<char *>(body) + kListField, &list.list, sizeof(list.list));
    memcpy(static_cast<char *>(body) + kListSizeField, &list.size, sizeof(list.size));
}

}  // namespace tamo::messages
