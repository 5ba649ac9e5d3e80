/* Sending, receiving and checking packets. */
#include "host/messages/wire.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "host/messages/window.h"

namespace tamo {

namespace {

/* Room for one descriptor and no more: the kernel closes what else a packet brings. */
union OneDescriptor {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(int))];
};

void attachDescriptor(msghdr *header, OneDescriptor *control, int descriptor) {
    header->msg_control = control->bytes;
    header->msg_controllen = CMSG_LEN(sizeof(int));
    cmsghdr *entry = CMSG_FIRSTHDR(header);
    entry->cmsg_level = SOL_SOCKET;
    entry->cmsg_type = SCM_RIGHTS;
    entry->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(entry), &descriptor, sizeof(descriptor));
}

int errorOf(ssize_t result) {
    return result >= 0 ? 0 : errno;
}

/* Sends a head alone. */
int sendHead(int socket, const PacketHead &head, int flags) {
    return errorOf(send(socket, &head, sizeof(head), flags | MSG_NOSIGNAL));
}

int sendWithDescriptor(int socket, const Packet &packet, int flags) {
    PacketHead announcement;
    beginHead(&announcement, kAnnouncement, packet.head.serial);
    const int error = sendHead(socket, announcement, flags);
    if (error != 0) {
        return error;
    }
    iovec part = {const_cast<PacketHead *>(&packet.head), sizeof(packet.head)};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    OneDescriptor control;
    attachDescriptor(&header, &control, packet.passed);
    return errorOf(sendmsg(socket, &header, flags | MSG_NOSIGNAL));
}

int sendGathered(int socket, Packet *packet, int flags) {
    const PacketHead &head = packet->head;
    memcpy(packet->gathered, packet->body, head.bodyLength);
    if (head.listLength > 0) {
        memcpy(packet->gathered + head.bodyLength, packet->list, head.listLength);
    }
    const size_t size = sizeof(head) + head.bodyLength + head.listLength;
    return errorOf(send(socket, &packet->head, size, flags | MSG_NOSIGNAL));
}

/* Takes over what descriptors came; true when it was at most one, of the right kind. */
bool takeDescriptors(msghdr *header, Descriptor *file) {
    bool good = true;
    for (cmsghdr *entry = CMSG_FIRSTHDR(header); entry != nullptr;
         entry = CMSG_NXTHDR(header, entry)) {
        if (entry->cmsg_level != SOL_SOCKET || entry->cmsg_type != SCM_RIGHTS) {
            good = false;
            continue;
        }
        const size_t count = (entry->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int received = -1;
            memcpy(&received, CMSG_DATA(entry) + i * sizeof(int), sizeof(int));
            good = good && !file->isOpen();
            *file = Descriptor(received);
        }
    }
    return good;
}

Arrival arrivalOfError(int error) {
    switch (error) {
        case EAGAIN:
            return Arrival::kNothing;
        case EINTR:
            return Arrival::kInterrupted;
        default:
            return Arrival::kEnd;
    }
}

bool isText(const char (&text)[16]) {
    return text[sizeof(text) - 1] == '\0' || memchr(text, '\0', sizeof(text)) != nullptr;
}

/* Fields that no version has used yet. */
bool isUnused(const PacketHead &head) {
    constexpr uint8_t kZero[sizeof(head.unused2)] = {};
    static_assert(sizeof(head.unused1) <= sizeof(kZero));
    return memcmp(head.unused1, kZero, sizeof(head.unused1)) == 0 &&
           memcmp(head.unused2, kZero, sizeof(head.unused2)) == 0;
}

/* The lengths of body and list against what came. */
const char *faultOfLengths(const Message &message, bool hasFile) {
    const PacketHead &head = message.packet;
    const bool hasList = (head.flags & kHasList) != 0;
    if (head.bodyLength > kMaxBody || head.listLength > kMaxList) {
        return "it claims more bytes than a message carries";
    }
    if ((hasList && head.kind != kResponse) || (!hasList && head.listLength != 0)) {
        return "it has a result list where none may be";
    }
    const bool inFile = (head.flags & kInFile) != 0;
    const bool inWindow = (head.flags & kInWindow) != 0;
    if ((inFile && !hasFile) || (inFile && inWindow)) {
        return "its file is missing";
    }
    if (hasFile && !inFile && !(inWindow && head.kind == kMessage)) {
        return "it brings a descriptor that it does not announce";
    }
    const uint64_t content = uint64_t{head.bodyLength} + head.listLength;
    if (inWindow && content > kWindowSize) {
        return "it claims more bytes than a window holds";
    }
    const bool apart = inFile || inWindow;
    if (apart ? message.size != sizeof(head) || content == 0
              : message.size != sizeof(head) + content) {
        return "its length is not what it says";
    }
    return nullptr;
}

/* A packet whose descriptor was announced. */
Arrival arrivalOfAnnounced(msghdr *header, Descriptor *file) {
    if (!takeDescriptors(header, file)) {
        return Arrival::kForeign;
    }
    if ((header->msg_flags & MSG_CTRUNC) != 0) {
        /* Without any descriptor it was this process that could not take one. */
        return file->isOpen() ? Arrival::kForeign : Arrival::kLost;
    }
    return Arrival::kPacket;
}

/* The costlier call, for a packet whose descriptor was announced. */
Arrival receiveAnnounced(int socket, int flags, Message *message, Descriptor *file, ssize_t *size) {
    iovec part = {&message->packet, sizeof(message->packet) + sizeof(message->inlineBody)};
    OneDescriptor control;
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = CMSG_LEN(sizeof(int));
    *size = recvmsg(socket, &header, flags | MSG_CMSG_CLOEXEC | MSG_TRUNC);
    if (*size < 0) {
        return Arrival::kNothing;
    }
    return arrivalOfAnnounced(&header, file);
}

Arrival receiveRecord(int socket, bool announced, int flags, Message *message, Descriptor *file,
                      ssize_t *size) {
    if (announced) {
        return receiveAnnounced(socket, flags, message, file, size);
    }
    *size = recv(socket, &message->packet, sizeof(message->packet) + sizeof(message->inlineBody),
                 flags | MSG_TRUNC);
    return Arrival::kPacket;
}

/* What a record that came is. */
Arrival arrivalOfRecord(Arrival arrival, ssize_t size, bool *announced, Message *message,
                        const Descriptor &file) {
    *announced = false;
    if (size == 0) {
        return Arrival::kEnd;
    }
    constexpr ssize_t kLargest = sizeof(message->packet) + sizeof(message->inlineBody);
    constexpr ssize_t kSmallest = sizeof(PacketHead);
    if (size < kSmallest || size > kLargest || message->packet.magic != kPacketMagic) {
        return Arrival::kForeign;
    }
    message->size = static_cast<uint32_t>(size);
    if (message->packet.kind == kAnnouncement && arrival == Arrival::kPacket) {
        *announced = true;
        return file.isOpen() ? Arrival::kForeign : Arrival::kAnnouncement;
    }
    return arrival;
}

/* What the n-th record of a batch is. A descriptor that was not announced is closed, as the kernel
 * does where none is asked for. */
Arrival arrivalInBatch(mmsghdr *record, bool *announced, Batch *batch, unsigned n) {
    Arrival arrival = Arrival::kPacket;
    if (*announced) {
        arrival = arrivalOfAnnounced(&record->msg_hdr, &batch->files[n]);
    } else if (record->msg_hdr.msg_controllen > 0) {
        Descriptor unasked;
        (void)takeDescriptors(&record->msg_hdr, &unasked);
    }
    return arrivalOfRecord(arrival, static_cast<ssize_t>(record->msg_len), announced,
                           batch->messages[n], batch->files[n]);
}

}  // namespace

void beginHead(PacketHead *head, PacketKind kind, uint32_t serial) {
    *head = {};
    head->magic = kPacketMagic;
    head->version = kWireVersion;
    head->pointerWidth = kPointerWidth;
    head->kind = kind;
    head->serial = serial;
}

int sendPacket(int socket, Packet *outgoing, int flags) {
    const Packet &packet = *outgoing;
    if (packet.passed >= 0) {
        return sendWithDescriptor(socket, packet, flags);
    }
    if ((packet.head.flags & kInWindow) != 0 || packet.head.bodyLength == 0) {
        return sendHead(socket, packet.head, flags);
    }
    if (uint64_t{packet.head.bodyLength} + packet.head.listLength <= kGathered) {
        return sendGathered(socket, outgoing, flags);
    }
    /* The C library's records have no const. */
    iovec parts[3] = {{const_cast<PacketHead *>(&packet.head), sizeof(packet.head)},
                      {const_cast<void *>(packet.body), packet.head.bodyLength},
                      {const_cast<void *>(packet.list), packet.head.listLength}};
    msghdr header = {};
    header.msg_iov = parts;
    header.msg_iovlen = packet.head.listLength > 0 ? 3 : 2;
    return errorOf(sendmsg(socket, &header, flags | MSG_NOSIGNAL));
}

void sendRefusal(int socket, uint32_t serial, uint32_t reason) {
    PacketHead head;
    beginHead(&head, kRefusal, serial);
    head.reason = static_cast<uint8_t>(reason);
    (void)sendHead(socket, head, MSG_DONTWAIT); /* a sender that is gone needs no answer */
}

Arrival receivePacket(int socket, bool *announced, int flags, Message *message, Descriptor *file) {
    ssize_t size = 0;
    Arrival arrival = receiveRecord(socket, *announced, flags, message, file, &size);
    if (size < 0 && errno == ECONNRESET) {
        /* The other side closed with something of ours unread. What it sent before is still here. */
        arrival = receiveRecord(socket, *announced, flags | MSG_DONTWAIT, message, file, &size);
        if (size < 0 && errno == EAGAIN) {
            return Arrival::kEnd;
        }
    }
    return size < 0 ? arrivalOfError(errno)
                    : arrivalOfRecord(arrival, size, announced, message, *file);
}

void receivePackets(int socket, bool *announced, unsigned most, Batch *batch) {
    mmsghdr records[kReceivedAtOnce];
    iovec parts[kReceivedAtOnce];
    OneDescriptor controls[kReceivedAtOnce];
    unsigned room = 0;
    while (room < most && (batch->messages[room] = takeMessage()) != nullptr) {
        Message *message = batch->messages[room];
        parts[room] = {&message->packet, sizeof(message->packet) + sizeof(message->inlineBody)};
        records[room] = {};
        records[room].msg_hdr.msg_iov = &parts[room];
        records[room].msg_hdr.msg_iovlen = 1;
        records[room].msg_hdr.msg_control = controls[room].bytes;
        records[room].msg_hdr.msg_controllen = CMSG_LEN(sizeof(int));
        room++;
    }
    batch->next = 0;
    batch->count = 0;
    if (room == 0) {
        return;
    }
    const int received =
        recvmmsg(socket, records, room, MSG_DONTWAIT | MSG_CMSG_CLOEXEC | MSG_TRUNC, nullptr);
    if (received <= 0) {
        const int error = received < 0 ? errno : EAGAIN;
        batch->count = 1;
        batch->arrivals[0] = arrivalOfError(error);
        if (error == ECONNRESET) { /* as in receivePacket */
            batch->arrivals[0] = receivePacket(socket, announced, MSG_DONTWAIT, batch->messages[0],
                                               &batch->files[0]);
        }
        if (error == ECONNRESET && batch->arrivals[0] == Arrival::kNothing) {
            batch->arrivals[0] = Arrival::kEnd;
        }
    } else {
        batch->count = static_cast<unsigned>(received);
        for (unsigned i = 0; i < batch->count; ++i) {
            batch->arrivals[i] = arrivalInBatch(&records[i], announced, batch, i);
        }
    }
    while (room > batch->count) {
        giveMessageBack(batch->messages[--room]);
    }
}

const char *faultOfPacket(const Message &message, bool hasFile) {
    const PacketHead &head = message.packet;
    if (head.version != kWireVersion) {
        return "it comes from another version of this library: install the same one for both";
    }
    if (head.pointerWidth != kPointerWidth) {
        return "the two processes have pointers of different width: build them alike";
    }
    if (head.kind == kRefusal) {
        return hasFile ? "it brings a descriptor that it does not announce" : nullptr;
    }
    if (head.kind == kSuccessor) {
        return hasFile ? nullptr : "its descriptor is missing";
    }
    if (head.kind != kMessage && head.kind != kResponse) {
        return "its kind is unknown";
    }
    if (!isText(head.sender) || !isText(head.receiver)) {
        return "a name in it has no end";
    }
    if ((head.flags & ~(kSenderWaits | kHasList | kInFile | kInWindow)) != 0 || !isUnused(head) ||
        head.buildIdLength > kMaxBuildId) {
        return "it has fields that this version does not know";
    }
    return faultOfLengths(message, hasFile);
}

}  // namespace tamo
