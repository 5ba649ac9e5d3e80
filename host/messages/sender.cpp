/* Opening, keeping and using a sender's connections.
 *
 * A thread that gives up waiting for a response shuts its connection's receiving half, so that a
 * late response finds nobody. Messages that it sent before may still wait in that connection, and
 * its next ones must not overtake them: asynchronous ones go on there, and for a synchronous one it
 * makes a new connection and passes the receiver's end of it through the old one. */
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

#include <mutex>
#include <new>

#include "host/base/device_root.h"
#include "host/base/fast_tls.h"
#include "host/base/log.h"
#include "host/messages/body.h"
#include "host/messages/peer_identity.h"
#include "tamo_host.h"

namespace tamo {

namespace {

constexpr const char *kUnit = "tamo_os_msg";
constexpr uint32_t kMaxIdle = 16;
constexpr int kRetryMs = 10;
constexpr uint32_t kWorthAFile = 4096;
/* Twice what a stock kernel gives by default, and as much as it allows everybody. */
constexpr int kSendBuffer = 212992;

/* Connections whose threads have ended; under the mutex that fork respects. */
constinit Connection *idleHead = nullptr;
constinit uint32_t idleCount = 0;

thread_local constinit Connection *ownHead TAMO_FAST_TLS = nullptr;

bool keepIdle(Connection *connection) {
    if (connection->retired || !connection->socket.isOpen()) {
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
        pollfd entry = {own->socket.get(), 0, 0};
        if (!own->socket.isOpen() || poll(&entry, 1, 0) > 0) {
            dropConnection(own);
        } else {
            ++countdown;
        }
    }
}

/* Sets a socket's time-out, unless it is the one that it has. */
void setTimeout(int socket, int option, uint32_t milliseconds, uint32_t *current) {
    if (*current == milliseconds) {
        return;
    }
    timeval value = {};
    value.tv_sec = static_cast<time_t>(milliseconds / 1000);
    value.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
    (void)setsockopt(socket, SOL_SOCKET, option, &value, sizeof(value));
    *current = milliseconds;
}

/* Connects, waiting for room among the receiver's waiting connections until the deadline. 0, or an
 * error number. */
int connectSocket(Connection *connection, int directory, Deadline *deadline) {
    const uint32_t timeout = deadline != nullptr ? deadline->remaining() : 0;
    const int blocking = timeout > 0 ? 0 : SOCK_NONBLOCK;
    connection->sendTimeout = 0;
    Descriptor opened(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | blocking, 0));
    if (!opened.isOpen()) {
        return errno;
    }
    if (timeout > 0) {
        setTimeout(opened.get(), SO_SNDTIMEO, timeout, &connection->sendTimeout);
    }
    (void)setsockopt(opened.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (void)snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s", directory,
                   queueFileName(connection->queue, ".sock").text);
    if (connect(opened.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        return errno;
    }
    if (blocking != 0) {
        (void)fcntl(opened.get(), F_SETFL, 0);
    }
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
        case EAGAIN:
            hostRecord(kWarning, kUnit, __LINE__,
                       "%s takes no more connections: its owner does not receive", queue);
            return TAMO_HOST_QUEUE_FULL;
        case EINVAL:
            hostRecord(kError, kUnit, __LINE__,
                       "run/%s.queue below the device root is damaged: start its owner again",
                       queue);
            return TAMO_HOST_SYSTEM;
        default:
            hostRecord(kError, kUnit, __LINE__, "no connection to %s: %s%s", queue, strerror(error),
                       adviceOn(error));
            return error == ENOMEM ? TAMO_HOST_NO_MEMORY : TAMO_HOST_SYSTEM;
    }
}

/* Opens once. TAMO_HOST_NO_RECEIVER is not recorded. */
uint32_t openConnection(Connection *connection, int directory, Deadline *deadline) {
    int error;
    do {
        error = connectSocket(connection, directory, deadline);
    } while (error == EINTR);
    if (error == 0) {
        error = connection->status.open(directory, connection->queue);
    }
    return error != 0 ? resultOfOpening(error, connection->queue) : checkReceiver(*connection);
}

/* Opens a connection as soon as somebody serves the queue. */
uint32_t openWithin(Connection *connection, int directory, Deadline *deadline) {
    /* A receiver's socket appears under its name ready to be connected to. */
    const Descriptor watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    char path[32];
    (void)snprintf(path, sizeof(path), "/proc/self/fd/%d", directory);
    const bool watches = watch.isOpen() && inotify_add_watch(watch.get(), path, IN_MOVED_TO) >= 0;
    for (;;) {
        const uint32_t result = openConnection(connection, directory, deadline);
        const uint32_t remaining = deadline->remaining();
        if (result != TAMO_HOST_NO_RECEIVER || remaining == 0) {
            return result;
        }
        /* Without a watch (their number is limited) looking now and then has to do. */
        pollfd entry = {watches ? watch.get() : -1, POLLIN, 0};
        const int wait = static_cast<int>(remaining < INT32_MAX ? remaining : INT32_MAX);
        (void)poll(&entry, 1, watches || wait < kRetryMs ? wait : kRetryMs);
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
    uint32_t result = openConnection(connection, directory, deadline);
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

/* Replaces a connection whose receiving half is shut. 0, or an error number. */
int succeed(Connection *connection, int flags) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return errno;
    }
    Descriptor ours(ends[0]);
    const Descriptor theirs(ends[1]);
    Packet packet;
    beginHead(&packet.head, kSuccessor, 0);
    packet.passed = theirs.get();
    const int error = sendPacket(connection->socket.get(), &packet, flags);
    if (error != 0) {
        return error;
    }
    (void)setsockopt(ours.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
    connection->socket.adopt(std::move(ours));
    /* The receiver may still answer into the old window. */
    connection->window.unmap();
    connection->windowFile = Descriptor();
    connection->announced = false;
    connection->receiveTimeout = 0;
    connection->sendTimeout = 0;
    connection->retired = false;
    return 0;
}

/* A message that nobody answers goes as a file where there is no room for it inline. */
int packAndSend(Connection *connection, Packet *packet, bool answered, int flags) {
    int error = answered && connection->retired ? succeed(connection, flags) : 0;
    if (error == 0) {
        error = packBody(packet, answered ? &connection->window : nullptr, &connection->windowFile);
    }
    if (error == 0) {
        error = sendPacket(connection->socket.get(), packet, flags);
    }
    if (error == EAGAIN && !answered && packet->head.bodyLength >= kWorthAFile &&
        packet->passed < 0) {
        error = packFile(packet);
        error = error != 0 ? error : sendPacket(connection->socket.get(), packet, flags);
    }
    if (error == 0 && (packet->head.flags & kInWindow) != 0) {
        connection->windowFile = Descriptor();
    }
    return error;
}

/* Tries without waiting, which saves setting a time-out, and then waits for room. */
int sendWithin(Connection *connection, Packet *packet, Deadline *deadline) {
    const bool answered = deadline != nullptr;
    int error = packAndSend(connection, packet, answered, MSG_DONTWAIT);
    while (answered && (error == EAGAIN || error == EINTR)) {
        const uint32_t remaining = deadline->remaining();
        if (remaining == 0) {
            return EAGAIN;
        }
        setTimeout(connection->socket.get(), SO_SNDTIMEO, remaining, &connection->sendTimeout);
        deadline->waited();
        error = packAndSend(connection, packet, answered, 0);
    }
    return error;
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

void giveUpResponse(Connection *connection) {
    (void)shutdown(connection->socket.get(), SHUT_RD);
    connection->retired = true;
}

int submit(Connection *connection, Packet *packet, Deadline *deadline) {
    QueueStatus &status = *connection->status.get();
    const uint32_t bodyLength = packet->head.bodyLength;
    status.sent.fetch_add(1, std::memory_order_relaxed);
    status.sentBytes.fetch_add(bodyLength, std::memory_order_relaxed);
    const int error = sendWithin(connection, packet, deadline);
    if (error != 0) {
        status.sent.fetch_sub(1, std::memory_order_relaxed);
        status.sentBytes.fetch_sub(bodyLength, std::memory_order_relaxed);
    }
    return error;
}

Arrival awaitPacket(Connection *connection, Message *message, Descriptor *file,
                    Deadline *deadline) {
    for (;;) {
        const uint32_t remaining = deadline->remaining();
        if (remaining > 0) {
            setTimeout(connection->socket.get(), SO_RCVTIMEO, remaining,
                       &connection->receiveTimeout);
        }
        const Arrival arrival = receivePacket(connection->socket.get(), &connection->announced,
                                              remaining > 0 ? 0 : MSG_DONTWAIT, message, file);
        deadline->waited();
        if (arrival == Arrival::kAnnouncement) {
            continue;
        }
        const bool again = arrival == Arrival::kNothing || arrival == Arrival::kInterrupted;
        if (!again || remaining == 0) {
            return again ? Arrival::kNothing : arrival;
        }
    }
}

}  // namespace tamo
