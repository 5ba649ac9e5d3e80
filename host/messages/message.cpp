/* Allocating, filling and releasing messages. */
#include "host/messages/message.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <new>

#include "host/base/fast_tls.h"

namespace tamo::messages {

namespace {

/* The one that is in hand, and one for a message that its handler sends. */
constexpr unsigned kSpares = 4;

struct Spares {
    Message *messages[kSpares];
    unsigned count;
    bool ended; /* the thread ends: nothing is kept any more */
};

/* Without a destructor of its own, for those who release a message after SparesEnd has run. */
thread_local constinit Spares spares TAMO_FAST_TLS = {};

struct SparesEnd {
    ~SparesEnd() {
        while (spares.count > 0) {
            free(spares.messages[--spares.count]);
        }
        spares.ended = true;
    }
    void arm() {}
};
thread_local SparesEnd sparesEnd;

}  // namespace

Message *allocateMessage() {
    void *block = spares.count > 0 ? spares.messages[--spares.count]
                                   : aligned_alloc(alignof(Message), sizeof(Message));
    if (block == nullptr) {
        return nullptr;
    }
    auto *message = ::new (block) Message; /* leaves the bytes as they are */
    message->header = {};
    message->peer = nullptr;
    message->takenNs = 0;
    message->waiting.store(false, std::memory_order_relaxed);
    message->allocated = nullptr;
    message->arrived = 0;
    return message;
}

void releaseMessage(Message *message) {
    if (message == nullptr) {
        return;
    }
    free(message->allocated);
    message->~Message();
    if (spares.ended || spares.count == kSpares) {
        free(message);
        return;
    }
    sparesEnd.arm();
    spares.messages[spares.count++] = message;
}

void *bodyOf(Message *message) {
    if (message->mapped.bytes() != nullptr) {
        return message->mapped.bytes();
    }
    return message->allocated != nullptr ? message->allocated : message->smallBody;
}

bool takePart(Message *message, const uint8_t *content, uint32_t available) {
    const uint32_t length = message->record.bodyLength;
    if (length > sizeof(message->smallBody) && message->allocated == nullptr) {
        message->allocated = malloc(length);
        if (message->allocated == nullptr) {
            return false;
        }
    }
    const uint32_t most = std::min(available, length);
    const uint32_t more = most > message->arrived ? most - message->arrived : 0;
    memcpy(static_cast<uint8_t *>(bodyOf(message)) + message->arrived, content + message->arrived,
           more);
    message->arrived += more;
    return more > 0;
}

const char *takeContent(Message *message, const uint8_t *content, const Descriptor &file,
                        const uint8_t **list) {
    const RecordHead &record = message->record;
    if ((record.prefix.flags & kInFile) != 0) {
        const size_t size = size_t{record.bodyLength} + record.listLength;
        const char *fault = mapSealed(file, size, &message->mapped);
        if (fault != nullptr) {
            return fault;
        }
        *list = message->mapped.bytes() + record.bodyLength;
    } else {
        (void)takePart(message, content, record.bodyLength);
        if (message->arrived != record.bodyLength) {
            return "there is no memory for it";
        }
        *list = content + record.bodyLength;
    }
    OsMsgHeader &header = message->header;
    header.syncFlag =
        record.prefix.kind == kMessage && (record.prefix.flags & kSenderWaits) != 0 ? 1 : 0;
    header.msgId = record.msgId;
    header.bodyLength = record.bodyLength;
    header.body = record.bodyLength > 0 ? bodyOf(message) : nullptr;
    return nullptr;
}

}  // namespace tamo::messages
