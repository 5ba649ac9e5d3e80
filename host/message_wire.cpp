/* Sending, receiving and checking packets. */
#include "message_wire.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>

namespace tamo {

namespace {

constexpr int kSeals = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

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

int sendRecord(int socket, const msghdr &header, int flags) {
    return sendmsg(socket, &header, flags | MSG_NOSIGNAL) >= 0 ? 0 : errno;
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
    return memchr(text, '\0', sizeof(text)) != nullptr;
}

bool isZero(const uint8_t *bytes, size_t count) {
    return std::all_of(bytes, bytes + count, [](uint8_t byte) { return byte == 0; });
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
    const uint64_t content = uint64_t{head.bodyLength} + head.listLength;
    const bool inFile = (head.flags & kInFile) != 0;
    if (inFile != hasFile) {
        return inFile ? "its file is missing" : "it brings a descriptor that it does not announce";
    }
    if (inFile ? message.size != sizeof(head) || content == 0
               : message.size != sizeof(head) + content) {
        return "its length is not what it says";
    }
    return nullptr;
}

bool readWhole(int file, void *buffer, size_t count, off_t offset) {
    auto *bytes = static_cast<char *>(buffer);
    while (count > 0) {
        const ssize_t n = pread(file, bytes, count, offset);
        if (n <= 0 && !(n < 0 && errno == EINTR)) {
            return false;
        }
        const size_t got = n > 0 ? static_cast<size_t>(n) : 0;
        bytes += got;
        count -= got;
        offset += static_cast<off_t>(got);
    }
    return true;
}

int writeWhole(int file, const void *content, size_t count) {
    const auto *bytes = static_cast<const char *>(content);
    while (count > 0) {
        const ssize_t n = write(file, bytes, count);
        if (n < 0 && errno != EINTR) {
            return errno;
        }
        const size_t done = n > 0 ? static_cast<size_t>(n) : 0;
        bytes += done;
        count -= done;
    }
    return 0;
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

int packBody(Packet *packet) {
    const PacketHead &head = packet->head;
    if (packet->file.isOpen() || uint64_t{head.bodyLength} + head.listLength <= kInlineLimit) {
        return 0;
    }
    Descriptor file(memfd_create("tamo-message", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file.isOpen()) {
        return errno;
    }
    int error = writeWhole(file.get(), packet->body, head.bodyLength);
    if (error == 0) {
        error = writeWhole(file.get(), packet->list, head.listLength);
    }
    if (error == 0 && fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) {
        error = errno;
    }
    if (error == 0) {
        packet->file = std::move(file);
        packet->head.flags |= kInFile;
    }
    return error;
}

int sendPacket(int socket, const Packet &packet, int flags) {
    /* The C library's records have no const. */
    iovec parts[3] = {{const_cast<PacketHead *>(&packet.head), sizeof(packet.head)},
                      {const_cast<void *>(packet.body), packet.head.bodyLength},
                      {const_cast<void *>(packet.list), packet.head.listLength}};
    msghdr header = {};
    header.msg_iov = parts;
    OneDescriptor control;
    if (packet.file.isOpen()) {
        header.msg_iovlen = 1;
        attachDescriptor(&header, &control, packet.file.get());
    } else {
        header.msg_iovlen = packet.head.listLength > 0 ? 3 : 2;
    }
    return sendRecord(socket, header, flags);
}

void sendRefusal(int socket, uint32_t serial, uint32_t reason) {
    PacketHead head;
    beginHead(&head, kRefusal, serial);
    head.reason = static_cast<uint8_t>(reason);
    /* A sender that is gone needs no answer. */
    (void)send(socket, &head, sizeof(head), MSG_DONTWAIT | MSG_NOSIGNAL);
}

int sendSuccessor(int socket, int successor, int flags) {
    PacketHead head;
    beginHead(&head, kSuccessor, 0);
    iovec part = {&head, sizeof(head)};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    OneDescriptor control;
    attachDescriptor(&header, &control, successor);
    return sendRecord(socket, header, flags);
}

Arrival receivePacket(int socket, Message *message, Descriptor *file, int flags) {
    iovec part = {&message->packet, sizeof(message->packet) + sizeof(message->inlineBody)};
    OneDescriptor control;
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = CMSG_LEN(sizeof(int));
    ssize_t size = recvmsg(socket, &header, flags | MSG_CMSG_CLOEXEC);
    if (size < 0 && errno == ECONNRESET) {
        /* The other side closed with something of ours unread. What it sent before is still here. */
        header.msg_controllen = CMSG_LEN(sizeof(int));
        size = recvmsg(socket, &header, flags | MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (size < 0 && errno == EAGAIN) {
            return Arrival::kEnd;
        }
    }
    if (size < 0) {
        return arrivalOfError(errno);
    }
    message->size = static_cast<uint32_t>(size);
    if (!takeDescriptors(&header, file) || (header.msg_flags & MSG_TRUNC) != 0) {
        return Arrival::kForeign;
    }
    if (size == 0) {
        return Arrival::kEnd;
    }
    if (size < static_cast<ssize_t>(sizeof(PacketHead)) || message->packet.magic != kPacketMagic) {
        return Arrival::kForeign;
    }
    if ((header.msg_flags & MSG_CTRUNC) != 0) {
        /* Without any descriptor it was this process that could not take one. */
        return file->isOpen() ? Arrival::kForeign : Arrival::kLost;
    }
    return Arrival::kPacket;
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
    if ((head.flags & ~(kSenderWaits | kInFile | kHasList)) != 0 ||
        !isZero(head.unused1, sizeof(head.unused1)) ||
        !isZero(head.unused2, sizeof(head.unused2)) || head.buildIdLength > kMaxBuildId) {
        return "it has fields that this version does not know";
    }
    return faultOfLengths(message, hasFile);
}

const char *takeBody(Message *message, const Descriptor &file) {
    const PacketHead &head = message->packet;
    void *body = message->inlineBody;
    if (file.isOpen()) {
        struct stat state;
        const int seals = fcntl(file.get(), F_GET_SEALS);
        if (seals < 0 || (seals & kSeals) != kSeals) {
            return "its file may still change";
        }
        if (fstat(file.get(), &state) != 0 ||
            state.st_size != static_cast<off_t>(head.bodyLength) + head.listLength) {
            return "its file has another length than it says";
        }
        if (head.bodyLength > 0) {
            body =
                mmap(nullptr, head.bodyLength, PROT_READ | PROT_WRITE, MAP_PRIVATE, file.get(), 0);
            if (body == MAP_FAILED) {
                return "there is no memory for it";
            }
            message->mapping = body;
            message->mappingSize = head.bodyLength;
        }
    }
    completeHeader(message, body);
    return nullptr;
}

bool takeList(const Message &message, const Descriptor &file, void *list) {
    const PacketHead &head = message.packet;
    if (file.isOpen()) {
        return readWhole(file.get(), list, head.listLength, static_cast<off_t>(head.bodyLength));
    }
    memcpy(list, message.inlineBody + head.bodyLength, head.listLength);
    return true;
}

}  // namespace tamo
