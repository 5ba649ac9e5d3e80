/* Opening, keeping and using a sender's connections. */
#include "host/messages/sender.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>

#include <algorithm>
#include <mutex>
#include <new>

#include "host/base/device_root.h"
#include "host/base/fast_tls.h"
#include "host/base/log.h"
#include "host/messages/trace.h"
#include "tamo_host.h"

namespace tamo::messages {

namespace {

constexpr const char *kUnit = "tamo_os_msg";
constexpr uint32_t kMaxIdle = 16;
constexpr int kRetryMs = 10;
/* What a connection may send before it sums up the queue's depth again. */
constexpr uint64_t kMostAllowedMessages = 1024;
constexpr uint64_t kMostAllowedBytes = 1 << 20;

/* Connections whose threads have ended; under the mutex that fork respects. */
constinit Connection *idleHead = nullptr;
constinit uint32_t idleCount = 0;

thread_local constinit Connection *ownHead TAMO_FAST_TLS = nullptr;

bool keepIdle(Connection *connection) {
    if (!connection->socket.isOpen()) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(forkMutex);
    if (idleCount == kMaxIdle) {
        return false;
    }
    ++idleCount;
    connection->next = idleHead;
    idleHead = connection;
    return true;
}

Connection *takeIdle(const char (&queue)[kQueueNameSize]) {
    const std::lock_guard<std::mutex> lock(forkMutex);
    for (Connection **link = &idleHead; *link != nullptr; link = &(*link)->next) {
        Connection *connection = *link;
        if (!connection->socket.isOpen()) {
            continue; /* a parent's, before a fork */
        }
        if (sameQueueName(connection->queue, queue)) {
            *link = connection->next;
            --idleCount;
            return connection;
        }
    }
    return nullptr;
}

struct ThreadEnd {
    ~ThreadEnd() {
        while (ownHead != nullptr) {
            Connection *connection = ownHead;
            ownHead = connection->next;
            if (!keepIdle(connection)) {
                delete connection;
            }
        }
    }
    void arm() {}
};
thread_local ThreadEnd threadEnd;

bool isGone(const Connection &connection) {
    return connection.control->closed.load(std::memory_order_acquire) != 0 ||
           isHungUp(connection.socket.get());
}

/* Receivers come and go, and their names with them. Closes this thread's connections to those that are
 * gone, after as many openings as there are connections. */
void closeGone() {
    thread_local uint32_t countdown = kMaxIdle;
    if (--countdown > 0) {
        return;
    }
    countdown = kMaxIdle;
    for (Connection *own = ownHead, *next = nullptr; own != nullptr; own = next) {
        next = own->next;
        if (!own->socket.isOpen() || isGone(*own)) {
            dropConnection(own);
        } else {
            ++countdown;
        }
    }
}

/* Sets the socket's receive time-out, unless it is the one that it has. */
void setTimeout(Connection *connection, uint32_t milliseconds) {
    if (connection->receiveTimeout == milliseconds) {
        return;
    }
    timeval value = {};
    value.tv_sec = static_cast<time_t>(milliseconds / 1000);
    value.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
    (void)setsockopt(connection->socket.get(), SOL_SOCKET, SO_RCVTIMEO, &value, sizeof(value));
    connection->receiveTimeout = milliseconds;
}

/* Connects without waiting. 0, or an error number. */
int connectSocket(Connection *connection, int directory) {
    Descriptor opened(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!opened.isOpen()) {
        return errno;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (void)snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s", directory,
                   queueFileName(connection->queue, ".sock").text);
    if (connect(opened.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        return errno;
    }
    (void)fcntl(opened.get(), F_SETFL, 0);
    connection->socket.adopt(std::move(opened));
    return 0;
}

/* Is the other side one that this connection may be used with? */
uint32_t checkReceiver(const Connection &connection) {
    const char *queue = connection.queue;
    PeerIdentity receiver;
    if (!identifyPeer(connection.socket.get(), &receiver)) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "%s is served by process %d of user %u, who is neither this user nor root: "
                   "refused",
                   queue, static_cast<int>(receiver.pid), static_cast<unsigned>(receiver.uid));
        return TAMO_HOST_REFUSED;
    }
    const QueueStatus &status = *connection.status.get();
    if (status.version != kWireVersion || status.pointerWidth != kPointerWidth) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "%s is served by a process with wire version %u and pointers of %u bytes, this "
                   "one has version %u and %u bytes: build both alike",
                   queue, status.version, status.pointerWidth, kWireVersion, kPointerWidth);
        return TAMO_HOST_REFUSED;
    }
    return TAMO_HOST_OK;
}

uint32_t resultOfOpening(int error, const char *queue) {
    switch (error) {
        case ENOENT:
        case ECONNREFUSED:
            return TAMO_HOST_NO_RECEIVER;
        case EPIPE:
        case ECONNRESET:
            return TAMO_HOST_GONE;
        case EAGAIN:
            hostRecord(kWarning, kUnit, __LINE__,
                       "%s takes no more connections: its owner does not receive", queue);
            return TAMO_HOST_QUEUE_FULL;
        case EINVAL:
            hostRecord(kError, kUnit, __LINE__,
                       "run/%s.queue below the device root is damaged, or its owner is in another "
                       "IPC namespace: start its owner again, where this process can share memory "
                       "with it",
                       queue);
            return TAMO_HOST_SYSTEM;
        default:
            hostRecord(kError, kUnit, __LINE__, "no connection to %s: %s%s", queue, strerror(error),
                       adviceOn(error));
            return error == ENOMEM ? TAMO_HOST_NO_MEMORY : TAMO_HOST_SYSTEM;
    }
}

/* Shares the connection's rings with the receiver. 0, or an error number. */
int sendHello(Connection *connection) {
    Descriptor file;
    int error = createShared(kConnectionFile, &file, &connection->file);
    if (error != 0) {
        return error;
    }
    connection->control = reinterpret_cast<ConnectionControl *>(connection->file.bytes());
    connection->requests.begin(firstRequests(connection->file));
    connection->responses.begin(firstResponses(connection->file));
    connection->slot = claimSlot(connection->status.get());
    if (connection->slot == kSlots) {
        return EAGAIN;
    }
    Hello hello = {};
    hello.magic = kWireMagic;
    hello.version = kWireVersion;
    hello.pointerWidth = kPointerWidth;
    hello.slot = connection->slot;
    error = sendPacket(connection->socket.get(), &hello, sizeof(hello), file.get());
    if (error != 0) {
        freeSlot(connection->status.get(), connection->slot);
    }
    return error;
}

/* Opens once. TAMO_HOST_NO_RECEIVER is not recorded. */
uint32_t openConnection(Connection *connection, int directory) {
    int error;
    do {
        error = connectSocket(connection, directory);
    } while (error == EINTR);
    if (error == 0) {
        error = connection->status.open(directory, connection->queue);
    }
    if (error != 0) {
        return resultOfOpening(error, connection->queue);
    }
    const uint32_t result = checkReceiver(*connection);
    if (result != TAMO_HOST_OK) {
        return result;
    }
    error = sendHello(connection);
    return error == 0 ? result : resultOfOpening(error, connection->queue);
}

/* Opens a connection as soon as somebody serves the queue. */
uint32_t openWithin(Connection *connection, int directory, Deadline *deadline) {
    /* A receiver's socket appears under its name ready to be connected to. */
    const Descriptor watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    char path[32];
    (void)snprintf(path, sizeof(path), "/proc/self/fd/%d", directory);
    const bool watches = watch.isOpen() && inotify_add_watch(watch.get(), path, IN_MOVED_TO) >= 0;
    for (;;) {
        const uint32_t result = openConnection(connection, directory);
        const uint32_t remaining = deadline->remaining();
        if (result != TAMO_HOST_NO_RECEIVER || remaining == 0) {
            return result;
        }
        /* Without a watch (their number is limited) looking now and then has to do. */
        pollfd entry = {watches ? watch.get() : -1, POLLIN, 0};
        const int wait = deadline->forPoll();
        const bool looks = !watches && (wait < 0 || wait > kRetryMs);
        (void)poll(&entry, 1, looks ? kRetryMs : wait);
        char events[4096];
        while (watches && read(watch.get(), events, sizeof(events)) > 0) {
        }
    }
}

uint32_t openNew(Connection *connection, Deadline *deadline) {
    const int directory = rootDirectory("run");
    if (directory < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    uint32_t result = openConnection(connection, directory);
    if (result == TAMO_HOST_NO_RECEIVER && deadline != nullptr) {
        deadline->waited();
        result = openWithin(connection, directory, deadline);
    }
    if (result == TAMO_HOST_NO_RECEIVER) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "nobody serves %s: start its process below the same device root",
                   connection->queue);
    }
    return result;
}

/* May a body of `bodyLength` bytes go into the queue? Until the allowance is used up, the queue's depth
 * need not be summed up again: it is this connection's share of the room that there was, or less. */
bool isAdmitted(Connection *connection, uint32_t bodyLength, QueueDepth *depth) {
    if (connection->allowedMessages == 0 || connection->allowedBytes < bodyLength) {
        const QueueStatus &status = *connection->status.get();
        *depth = depthOf(status);
        if (depth->messages >= kQueueMessages || depth->bytes + bodyLength > kQueueBytes) {
            return false;
        }
        const uint64_t sharers = std::max(1U, status.slotsUsed.load(std::memory_order_relaxed));
        connection->allowedMessages = std::clamp<uint64_t>(
            (kQueueMessages - depth->messages) / sharers, 1, kMostAllowedMessages);
        connection->allowedBytes = std::max<uint64_t>(
            bodyLength, std::min((kQueueBytes - depth->bytes) / sharers, kMostAllowedBytes));
    }
    --connection->allowedMessages;
    connection->allowedBytes -= bodyLength;
    return true;
}

/* The sender alone writes these: no locked instruction is needed. */
void add(std::atomic<uint64_t> *count, uint64_t more) {
    count->store(count->load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
}

void takePassed(Connection *connection, Descriptor *file) {
    *file = std::move(connection->passed[0]);
    --connection->passedCount;
    for (unsigned i = 0; i < connection->passedCount; ++i) {
        connection->passed[i] = std::move(connection->passed[i + 1]);
    }
}

/* Waits for one packet, which announces an answer or brings a file. */
Arrival awaitPacket(Connection *connection, Deadline *deadline) {
    for (;;) {
        const uint32_t remaining = deadline->remaining();
        if (remaining > 0) {
            setTimeout(connection, remaining == kForEver ? 0 : remaining);
        }
        char byte;
        size_t size;
        Descriptor file;
        const Arrival arrival = receivePacket(
            connection->socket.get(), remaining > 0 ? 0 : MSG_DONTWAIT, &byte, 1, &size, &file);
        deadline->waited();
        if (file.isOpen()) {
            if (connection->passedCount == Connection::kMaxPassed) {
                return Arrival::kForeign;
            }
            connection->passed[connection->passedCount++] = std::move(file);
        }
        if (arrival != Arrival::kNothing || remaining == 0) {
            return arrival;
        }
    }
}

}  // namespace

Connection *knownConnection(const char (&queue)[kQueueNameSize]) {
    for (Connection *own = ownHead; own != nullptr; own = own->next) {
        if (sameQueueName(own->queue, queue)) {
            if (own->socket.isOpen()) {
                return own;
            }
            dropConnection(own); /* it was the parent's, before a fork */
            break;
        }
    }
    return nullptr;
}

Connection *newConnection(const char (&queue)[kQueueNameSize], Deadline *deadline,
                          uint32_t *result) {
    Connection *connection = takeIdle(queue);
    while (connection != nullptr && isGone(*connection)) {
        delete connection;
        connection = takeIdle(queue);
    }
    if (connection == nullptr) {
        connection = new (std::nothrow) Connection;
        if (connection == nullptr) {
            hostRecord(kError, kUnit, __LINE__, "no memory for a connection to %s", queue);
            *result = TAMO_HOST_NO_MEMORY;
            return nullptr;
        }
        memcpy(connection->queue, queue, sizeof(queue));
        *result = openNew(connection, deadline);
        if (*result != TAMO_HOST_OK) {
            delete connection;
            return nullptr;
        }
    }
    threadEnd.arm();
    closeGone();
    connection->next = ownHead;
    ownHead = connection;
    return connection;
}

void dropConnection(Connection *connection) {
    for (Connection **link = &ownHead; *link != nullptr; link = &(*link)->next) {
        if (*link == connection) {
            *link = connection->next;
            break;
        }
    }
    delete connection;
}

int submit(Connection *connection, RecordHead *head, const void *body) {
    const int socket = connection->socket.get();
    QueueDepth depth = {};
    const bool admitted = isAdmitted(connection, head->bodyLength, &depth);
    /* A receiver that sleeps gets a packet, and with it this side learns of its end. */
    if (connection->control->closed.load(std::memory_order_acquire) != 0 ||
        ((!admitted || !connection->requests.isReaderAsleep()) && isHungUp(socket))) {
        return EPIPE;
    }
    if (!admitted) {
        hostRecord(kWarning, kUnit, __LINE__,
                   "the queue %s is full: %llu messages with %llu bytes wait in it, %llu and %llu "
                   "are the most; its owner does not keep up, or does not receive",
                   connection->queue, static_cast<unsigned long long>(depth.messages),
                   static_cast<unsigned long long>(depth.bytes),
                   static_cast<unsigned long long>(kQueueMessages),
                   static_cast<unsigned long long>(kQueueBytes));
        return EDQUOT;
    }
    connection->serial += connection->serial == UINT32_MAX ? 2 : 1; /* never 0 */
    head->serial = connection->serial;
    const int error = placeRecord(&connection->requests, socket, head, body, nullptr, false);
    if (error != 0) {
        return error;
    }
    SenderSlot &slot = connection->status.get()->slots[connection->slot];
    add(&slot.sent, 1);
    add(&slot.sentBytes, head->bodyLength);
    if ((head->prefix.flags & kSenderWaits) != 0) {
        connection->control->awaited.store(head->serial, std::memory_order_release);
    }
    trace(TAMO_HOST_TRACE_SENT, {connection->queue, head, body, 0}, 0, 0);
    const bool wakes = connection->requests.publish();
    const bool gone = wakes && sendWakeUp(socket) != 0;
    return gone && !connection->requests.isDrained() ? EPIPE : 0;
}

Arrival awaitAnswer(Connection *connection, const RecordHead &head, Deadline *deadline,
                    Message *answer, const uint8_t **list, const char **fault) {
    RingReader &ring = connection->responses;
    const uint8_t *content = nullptr;
    bool hasBegun = false;
    for (bool waits = true;;) {
        if (waits) {
            const Arrival arrival = awaitPacket(connection, deadline);
            if (arrival != Arrival::kPacket) {
                return arrival;
            }
        }
        RecordHead found = {};
        const RingReader::Look look = ring.look(&found, &content);
        const bool isPart = look == RingReader::Look::kPart;
        const bool hasHead = isPart || look == RingReader::Look::kRecord;
        *fault = hasHead ? faultOfHead(found) : "its ring or memory file cannot be used";
        if (hasHead && hasBegun && memcmp(&answer->record, &found, sizeof(found)) != 0) {
            *fault = "its record was changed while it came";
        }
        const bool isRecord = hasHead && *fault == nullptr;
        if (isRecord) {
            answer->record = found;
        }
        if (isRecord && isPart) {
            hasBegun = found.serial == head.serial;
            waits = !hasBegun || !takePart(answer, content, ring.available());
            continue;
        }
        const bool needsFile = look == RingReader::Look::kSegment ||
                               (isRecord && (answer->record.prefix.flags & kInFile) != 0);
        waits = look == RingReader::Look::kEmpty || (needsFile && connection->passedCount == 0);
        if (waits) {
            continue;
        }
        Descriptor file;
        if (needsFile) {
            takePassed(connection, &file);
        }
        if (look == RingReader::Look::kSegment && ring.enter(file)) {
            continue;
        }
        if (!isRecord || answer->record.prefix.kind == kMessage) {
            return Arrival::kForeign;
        }
        if (answer->record.serial != head.serial) {
            ring.pass(); /* to a message that was given up */
            continue;
        }
        *fault = takeContent(answer, content, file, list);
        return *fault == nullptr ? Arrival::kPacket : Arrival::kForeign;
    }
}

void passAnswer(Connection *connection) {
    connection->responses.pass();
    giveUpAnswer(connection);
}

void giveUpAnswer(Connection *connection) {
    connection->control->awaited.store(0, std::memory_order_release);
}

}  // namespace tamo::messages
