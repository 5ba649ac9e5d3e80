/* Opening and closing a queue, and the connections that come to it.
 *
 * The owner of a name is who holds the lock on run/NAME.lock; the kernel releases it with the
 * owner's death, however it dies. Whoever holds it may replace the other files. The socket is
 * bound and listened on under a passing name and then renamed: a sender never finds one that it
 * cannot connect to, except a dead one. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>

#include <algorithm>
#include <new>

#include "host/base/device_root.h"
#include "host/base/log.h"
#include "host/messages/queue.h"

namespace tamo::messages {

namespace {

constexpr const char *kUnit = "tamo_os_msg";
constexpr long kPauseMs = 100;
constexpr int kAtOnce = 16;

uint32_t systemFailure(const char *queue, const char *what, int error) {
    hostRecord(kError, kUnit, __LINE__, "the queue %s cannot be opened: %s: %s%s", queue, what,
               strerror(error), adviceOn(error));
    return error == ENOMEM ? TAMO_HOST_NO_MEMORY : TAMO_HOST_SYSTEM;
}

/* Is the locked file still the one with the name? An owner that closes removes it. */
bool isNamed(const Descriptor &file, int directory, const char *name) {
    struct stat held;
    struct stat named;
    return fstat(file.get(), &held) == 0 &&
           fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           held.st_ino == named.st_ino && held.st_dev == named.st_dev;
}

uint32_t takeLock(TamoHostQueue *queue) {
    const QueueFileName name = queueFileName(queue->name, ".lock");
    for (;;) {
        Descriptor file(
            openat(queue->directory, name.text, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!file.isOpen()) {
            return systemFailure(queue->name, "its lock file", errno);
        }
        struct flock whole = {};
        whole.l_type = F_WRLCK;
        if (fcntl(file.get(), F_OFD_SETLK, &whole) != 0) {
            if (errno != EAGAIN && errno != EACCES) {
                return systemFailure(queue->name, "its lock", errno);
            }
            hostRecord(kWarning, kUnit, __LINE__,
                       "the queue %s is served by a live process: end that one first", queue->name);
            return TAMO_HOST_IN_USE;
        }
        if (isNamed(file, queue->directory, name.text)) {
            queue->lock.adopt(std::move(file));
            return TAMO_HOST_OK;
        }
    }
}

/* Binds under a passing name: an old socket of that name is a dead opener's. 0, or an error number.
 */
int bindListener(const Descriptor &listener, int directory, const char *passing) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (void)snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s", directory,
                   passing);
    if (unlinkat(directory, passing, 0) != 0 && errno != ENOENT) {
        return errno;
    }
    if (bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        fchmodat(directory, passing, 0600, 0) != 0 || listen(listener.get(), SOMAXCONN) != 0) {
        return errno;
    }
    return 0;
}

uint32_t openListener(TamoHostQueue *queue) {
    const QueueFileName name = queueFileName(queue->name, ".sock");
    const QueueFileName passing = queueFileName(queue->name, ".sock~");
    Descriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int error = listener.isOpen() ? 0 : errno;
    if (error == 0) {
        error = bindListener(listener, queue->directory, passing.text);
    }
    if (error == 0 && renameat(queue->directory, passing.text, queue->directory, name.text) != 0) {
        error = errno;
    }
    if (error != 0) {
        return systemFailure(queue->name, "its socket", error);
    }
    queue->listener.adopt(std::move(listener));
    return TAMO_HOST_OK;
}

bool watch(const TamoHostQueue &queue, int descriptor, void *tag, uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.ptr = tag;
    return epoll_ctl(queue.poller.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

uint32_t openPoller(TamoHostQueue *queue) {
    queue->poller.adopt(Descriptor(epoll_create1(EPOLL_CLOEXEC)));
    queue->pause.adopt(Descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)));
    if (!queue->poller.isOpen() || !queue->pause.isOpen() ||
        !watch(*queue, queue->pause.get(), &queue->pause, EPOLLIN)) {
        return systemFailure(queue->name, "waiting for messages", errno);
    }
    return TAMO_HOST_OK;
}

bool addPeer(TamoHostQueue *queue, Descriptor socket, const PeerIdentity &identity) {
    auto *peer = new (std::nothrow) Peer;
    if (peer == nullptr || !watch(*queue, socket.get(), peer, EPOLLIN | EPOLLET)) {
        hostRecord(kError, kUnit, __LINE__, "a sender to %s was turned away: %s", queue->name,
                   strerror(peer == nullptr ? ENOMEM : errno));
        delete peer;
        return false;
    }
    peer->socket.adopt(std::move(socket));
    peer->identity = identity;
    peer->status = queue->status.get();
    peer->next = queue->peers;
    if (queue->peers != nullptr) {
        queue->peers->previous = peer;
    }
    queue->peers = peer;
    return true;
}

/* Has a process that claimed a slot one that its hello has not told yet? */
bool awaitsHello(const TamoHostQueue &queue, uint32_t process) {
    for (const Peer *peer = queue.peers; peer != nullptr; peer = peer->next) {
        if (peer->control == nullptr && static_cast<uint32_t>(peer->identity.pid) == process) {
            return true;
        }
    }
    return false;
}

/* Gives back the slots of senders that were killed before they told of them. All connections that there
 * are have been accepted, so a slot of a process that is gone is one of those here, or lost. */
void freeLostSlots(TamoHostQueue *queue) {
    bool isHeld[kSlots] = {};
    for (const Peer *peer = queue->peers; peer != nullptr; peer = peer->next) {
        if (peer->control != nullptr) {
            isHeld[peer->slot] = true;
        }
    }
    QueueStatus *status = queue->status.get();
    const uint32_t used = std::min(status->slotsUsed.load(std::memory_order_relaxed), kSlots);
    queue->lacksSlots = false;
    for (uint32_t i = 0; i < used; ++i) {
        const uint32_t owner = status->slots[i].owner.load(std::memory_order_acquire);
        if (owner == 0 || isHeld[i]) {
            continue;
        }
        const bool isGone = kill(static_cast<pid_t>(owner), 0) != 0 && errno == ESRCH;
        if (isGone && !awaitsHello(*queue, owner)) {
            freeSlot(status, i);
        } else {
            queue->lacksSlots = true; /* until a later look */
        }
    }
}

void acceptPeers(TamoHostQueue *queue) {
    for (int i = 0; i < kAtOnce; ++i) {
        Descriptor accepted(accept4(queue->listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!accepted.isOpen()) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                pauseForDescriptors(queue, errno);
            } else if (queue->lacksSlots) {
                freeLostSlots(queue);
            }
            return;
        }
        PeerIdentity sender;
        if (identifyPeer(accepted.get(), &sender)) {
            (void)addPeer(queue, std::move(accepted), sender);
        } else {
            hostRecord(kWarning, kUnit, __LINE__,
                       "process %d of user %u tried to send to %s: refused, only this user's "
                       "processes and root's may",
                       static_cast<int>(sender.pid), static_cast<unsigned>(sender.uid),
                       queue->name);
        }
    }
}

void resume(TamoHostQueue *queue) {
    uint64_t expiries;
    if (read(queue->pause.get(), &expiries, sizeof(expiries)) <= 0) {
        return;
    }
    if (!watch(*queue, queue->listener.get(), &queue->listener, EPOLLIN) && errno != EEXIST) {
        pauseForDescriptors(queue, errno);
    }
    for (Peer *peer = queue->peers; peer != nullptr; peer = peer->next) {
        addReady(queue, peer);
    }
}

}  // namespace

void holdPeer(Peer *peer) {
    peer->holders.fetch_add(1, std::memory_order_relaxed);
}

void releasePeer(Peer *peer) {
    if (peer->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete peer;
    }
}

void addReady(TamoHostQueue *queue, Peer *peer) {
    if (peer->isReady) {
        return;
    }
    peer->isReady = true;
    peer->nextReady = nullptr;
    (queue->ready == nullptr ? queue->ready : queue->lastReady->nextReady) = peer;
    queue->lastReady = peer;
}

void removeReady(TamoHostQueue *queue) {
    queue->ready->isReady = false;
    queue->ready = queue->ready->nextReady;
}

int pollQueue(TamoHostQueue *queue, int timeoutMs) {
    epoll_event events[kAtOnce];
    const int count = epoll_wait(queue->poller.get(), events, kAtOnce, timeoutMs);
    if (count < 0 && errno != EINTR) {
        hostRecord(kError, kUnit, __LINE__, "nothing can be received from %s: %s", queue->name,
                   strerror(errno));
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        void *tag = events[i].data.ptr;
        if (tag == &queue->listener) {
            acceptPeers(queue);
        } else if (tag == &queue->pause) {
            resume(queue);
        } else if (tag != &queue->sign) {
            auto *peer = static_cast<Peer *>(tag);
            peer->isEnded = peer->isEnded || (events[i].events & (EPOLLHUP | EPOLLERR)) != 0;
            addReady(queue, peer);
        }
    }
    return count > 0 ? count : 0;
}

bool openSign(TamoHostQueue *queue) {
    Descriptor sign(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!sign.isOpen() || !watch(*queue, sign.get(), &queue->sign, EPOLLIN)) {
        return false;
    }
    queue->sign.adopt(std::move(sign));
    return true;
}

void pauseForDescriptors(TamoHostQueue *queue, int error) {
    hostRecord(kWarning, kUnit, __LINE__,
               "senders to %s have to wait: %s; see ulimit -n where descriptors are short",
               queue->name, strerror(error));
    itimerspec pause = {};
    pause.it_value.tv_nsec = kPauseMs * 1000000;
    if (timerfd_settime(queue->pause.get(), 0, &pause, nullptr) == 0) {
        (void)epoll_ctl(queue->poller.get(), EPOLL_CTL_DEL, queue->listener.get(), nullptr);
    }
}

uint32_t openQueue(TamoHostQueue *queue) {
    queue->directory = rootDirectory("run");
    if (queue->directory < 0) {
        return TAMO_HOST_NO_ROOT;
    }
    uint32_t result = takeLock(queue);
    if (result == TAMO_HOST_OK) {
        result = openPoller(queue);
    }
    if (result != TAMO_HOST_OK) {
        return result;
    }
    /* Before the socket: who can connect finds the counts. */
    const int error = queue->status.create(queue->directory, queue->name);
    if (error != 0) {
        return systemFailure(queue->name, "its status file", error);
    }
    result = openListener(queue);
    if (result == TAMO_HOST_OK &&
        !watch(*queue, queue->listener.get(), &queue->listener, EPOLLIN)) {
        return systemFailure(queue->name, "waiting for senders", errno);
    }
    return result;
}

void closeQueue(TamoHostQueue *queue) {
    queue->ready = nullptr;
    while (queue->peers != nullptr) {
        Peer *peer = queue->peers;
        if (peer->control != nullptr && peer->holders.load(std::memory_order_acquire) > 1) {
            /* Its socket stays open: freeing what was not handed out refuses it. */
            Message *message = nullptr;
            const char *fault = nullptr;
            for (Taken taken = Taken::kSkipped;
                 taken == Taken::kMessage || taken == Taken::kSkipped;) {
                taken = takeRecord(queue, peer, &message, &fault);
                TamoHostMsgFree(taken == Taken::kMessage ? &message->header : nullptr);
            }
        }
        dropPeer(queue, peer);
    }
    /* In a forked child the name is not ours to give back. */
    if (queue->lock.isOpen()) {
        for (const char *suffix : {".sock", ".sock~", ".queue", ".queue~", ".lock"}) {
            (void)unlinkat(queue->directory, queueFileName(queue->name, suffix).text, 0);
        }
    }
}

void dropPeer(TamoHostQueue *queue, Peer *peer) {
    (peer->previous != nullptr ? peer->previous->next : queue->peers) = peer->next;
    if (peer->next != nullptr) {
        peer->next->previous = peer->previous;
    }
    if (peer->control != nullptr) {
        /* A message may hold the socket open for its answer. Its sender must find out with its next
         * message that nobody receives here any more. */
        peer->control->closed.store(1, std::memory_order_release);
        freeSlot(queue->status.get(), peer->slot);
    } else {
        queue->lacksSlots = true;
    }
    (void)epoll_ctl(queue->poller.get(), EPOLL_CTL_DEL, peer->socket.get(), nullptr);
    releaseMessage(peer->arriving);
    peer->arriving = nullptr;
    {
        const std::lock_guard<std::mutex> lock(peer->answerLock);
        peer->status = nullptr;
    }
    releasePeer(peer);
}

}  // namespace tamo::messages
