/* Packets, memory files and rings. */
#include "host/messages/ring.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <bit>

#include "host/messages/block.h"

namespace tamo::messages {

namespace {

constexpr int kSealed = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

struct alignas(cmsghdr) OneDescriptor {
    char bytes[CMSG_SPACE(sizeof(int))];
};

/* Takes the descriptors out of what came; false when there is more than one. */
bool takeDescriptors(msghdr *header, Descriptor *descriptor) {
    bool good = true;
    for (cmsghdr *entry = CMSG_FIRSTHDR(header); entry != nullptr;
         entry = CMSG_NXTHDR(header, entry)) {
        if (entry->cmsg_level != SOL_SOCKET || entry->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (entry->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int value;
            memcpy(&value, CMSG_DATA(entry) + i * sizeof(int), sizeof(value));
            Descriptor taken(value);
            good = good && !descriptor->isOpen();
            if (good) {
                *descriptor = std::move(taken);
            }
        }
    }
    return good;
}

/* Is it a memory file with these seals, on ordinary pages? */
bool isMemoryFile(const Descriptor &file, int seals, struct stat *state) {
    struct statfs system;
    const int present = fcntl(file.get(), F_GET_SEALS);
    return present >= 0 && (present & seals) == seals && fstat(file.get(), state) == 0 &&
           fstatfs(file.get(), &system) == 0 &&
           static_cast<unsigned long>(system.f_type) == TMPFS_MAGIC;
}

uint32_t ringOffset(const Segment &segment, uint32_t position) {
    return position & (segment.size - 1);
}

void writePrefix(const Segment &segment, uint32_t position, uint32_t size, RecordKind kind) {
    RecordPrefix prefix = {};
    prefix.size = size;
    prefix.kind = kind;
    memcpy(segment.bytes + ringOffset(segment, position), &prefix, sizeof(prefix));
}

Segment wholeFile(const Mapping &file) {
    return {reinterpret_cast<RingControl *>(file.bytes()), file.bytes() + kPage,
            static_cast<uint32_t>(file.size() - kPage)};
}

/* Sequentially consistent, as is RingReader::sleep: one of the two sees what the other wrote. */
bool wakesReader(RingControl *control) {
    return control != nullptr && control->asleep.load(std::memory_order_seq_cst) != 0 &&
           control->asleep.exchange(0, std::memory_order_acq_rel) != 0;
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

const char *faultOfHead(const RecordHead &head) {
    const uint64_t content = uint64_t{head.bodyLength} + head.listLength;
    const bool hasList = (head.prefix.flags & kHasList) != 0;
    const bool inFile = (head.prefix.flags & kInFile) != 0;
    if (head.bodyLength > kMaxBody || head.listLength > kMaxList) {
        return "it claims more bytes than a message carries";
    }
    if (head.prefix.kind < kMessage || head.prefix.kind > kRefusal) {
        return "its kind is unknown";
    }
    if ((hasList && head.prefix.kind != kResponse) || (!hasList && head.listLength != 0)) {
        return "it has a result list where none may be";
    }
    if (head.prefix.size < sizeof(head) + (inFile ? 0 : content) ||
        (inFile && (content == 0 || (head.prefix.flags & kInParts) != 0))) {
        return "its length is not what it says";
    }
    if (memchr(head.sender, '\0', sizeof(head.sender)) == nullptr ||
        head.prefix.buildIdLength > kMaxBuildId ||
        (head.prefix.flags & ~(kSenderWaits | kHasList | kInFile | kInParts)) != 0) {
        return "it has fields that this version does not know";
    }
    return nullptr;
}

bool identifyPeer(int socket, PeerIdentity *peer) {
    ucred credentials = {};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        *peer = {-1, static_cast<uid_t>(-1)};
        return false;
    }
    *peer = {credentials.pid, credentials.uid};
    return peer->pid >= 0 && (peer->uid == geteuid() || peer->uid == 0);
}

bool isHungUp(int socket) {
    pollfd entry = {socket, 0, 0};
    return poll(&entry, 1, 0) > 0;
}

int sendPacket(int socket, const void *bytes, size_t size, int descriptor) {
    /* The C library's records have no const. */
    iovec part = {const_cast<void *>(bytes), size};
    OneDescriptor control = {};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (descriptor >= 0) {
        header.msg_control = control.bytes;
        header.msg_controllen = sizeof(control.bytes);
        cmsghdr *entry = CMSG_FIRSTHDR(&header);
        entry->cmsg_level = SOL_SOCKET;
        entry->cmsg_type = SCM_RIGHTS;
        entry->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(entry), &descriptor, sizeof(descriptor));
    }
    return sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ? errno : 0;
}

int sendWakeUp(int socket) {
    const int error = send(socket, "w", 1, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ? errno : 0;
    return error == EAGAIN ? 0 : error;
}

Arrival receivePacket(int socket, int flags, void *bytes, size_t size, size_t *received,
                      Descriptor *descriptor) {
    iovec part = {bytes, size};
    OneDescriptor control;
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = CMSG_LEN(sizeof(int));
    ssize_t n = recvmsg(socket, &header, flags | MSG_CMSG_CLOEXEC);
    if (n < 0 && errno == ECONNRESET) {
        /* The other side closed with something of ours unread. What it sent is still here. */
        n = recvmsg(socket, &header, flags | MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (n < 0 && errno == EAGAIN) {
            return Arrival::kEnd;
        }
    }
    if (n < 0) {
        return errno == EAGAIN || errno == EINTR ? Arrival::kNothing : Arrival::kEnd;
    }
    if (n == 0) {
        return Arrival::kEnd;
    }
    *received = static_cast<size_t>(n);
    if (!takeDescriptors(&header, descriptor)) {
        return Arrival::kForeign;
    }
    if ((header.msg_flags & MSG_CTRUNC) != 0) {
        /* Without any descriptor it was this process that could not take one. */
        return descriptor->isOpen() ? Arrival::kForeign : Arrival::kShort;
    }
    return Arrival::kPacket;
}

Arrival receiveDescriptor(int socket, uint32_t *wakeUps, Descriptor *descriptor) {
    for (;;) {
        char byte;
        size_t size;
        const Arrival arrival =
            receivePacket(socket, MSG_PEEK | MSG_DONTWAIT, &byte, 1, &size, descriptor);
        if (arrival != Arrival::kPacket) {
            return arrival;
        }
        (void)recv(socket, &byte, 1, MSG_DONTWAIT);
        if (descriptor->isOpen()) {
            return Arrival::kPacket;
        }
        *wakeUps -= *wakeUps > 0 ? 1 : 0;
    }
}

Mapping::~Mapping() {
    if (bytes_ != nullptr) {
        (void)munmap(bytes_, size_);
    }
}

bool Mapping::map(const Descriptor &file, size_t size, bool isPrivate) {
    Mapping fresh;
    void *at = mmap(nullptr, size, PROT_READ | PROT_WRITE, isPrivate ? MAP_PRIVATE : MAP_SHARED,
                    file.get(), 0);
    if (at == MAP_FAILED) {
        return false;
    }
    fresh.bytes_ = static_cast<uint8_t *>(at);
    fresh.size_ = size;
    swap(fresh);
    return true;
}

int createShared(size_t size, Descriptor *file, Mapping *mapping) {
    Descriptor made(memfd_create("tamo-ring", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!made.isOpen() || fallocate(made.get(), 0, 0, static_cast<off_t>(size)) != 0 ||
        fcntl(made.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0 ||
        !mapping->map(made, size, false)) {
        return errno;
    }
    *file = std::move(made);
    return 0;
}

bool mapShared(const Descriptor &file, size_t size, Mapping *mapping) {
    struct stat state;
    if (!isMemoryFile(file, F_SEAL_SHRINK | F_SEAL_GROW, &state) || state.st_size < kPage ||
        state.st_size > static_cast<off_t>(kMaxSegmentFile) ||
        (size != 0 && state.st_size != static_cast<off_t>(size))) {
        return false;
    }
    return mapping->map(file, static_cast<size_t>(state.st_size), false);
}

int createSealed(const void *body, size_t bodyLength, const void *list, size_t listLength,
                 Descriptor *file) {
    Descriptor made(memfd_create("tamo-message", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!made.isOpen()) {
        return errno;
    }
    int error = writeWhole(made.get(), body, bodyLength);
    if (error == 0) {
        error = writeWhole(made.get(), list, listLength);
    }
    if (error == 0 && fcntl(made.get(), F_ADD_SEALS, kSealed) != 0) {
        error = errno;
    }
    *file = std::move(made);
    return error;
}

const char *mapSealed(const Descriptor &file, size_t size, Mapping *mapping) {
    struct stat state;
    if (!isMemoryFile(file, kSealed, &state)) {
        return "its file may still change";
    }
    if (state.st_size != static_cast<off_t>(size)) {
        return "its file has another length than it says";
    }
    /* Private: the handler may write, and pages that it only reads are not copied. */
    return mapping->map(file, size, true) ? nullptr : "there is no memory for it";
}

Segment firstRequests(const Mapping &connectionFile) {
    auto *control = reinterpret_cast<ConnectionControl *>(connectionFile.bytes());
    return {&control->requests, connectionFile.bytes() + kPage, kFirstRequests};
}

Segment firstResponses(const Mapping &connectionFile) {
    auto *control = reinterpret_cast<ConnectionControl *>(connectionFile.bytes());
    return {&control->responses, connectionFile.bytes() + kPage + kFirstRequests, kFirstResponses};
}

int RingWriter::reserve(int socket, uint32_t size, uint8_t **at) {
    const uint32_t used = written_ - segment_.control->consumed.load(std::memory_order_acquire);
    const uint32_t toEnd = segment_.size - ringOffset(segment_, written_);
    uint32_t padding = toEnd < size ? toEnd : 0;
    /* There is always room for the record that names the next segment. */
    constexpr uint32_t kSpare = sizeof(RecordPrefix);
    if (used > segment_.size || uint64_t{used} + padding + size + kSpare > segment_.size) {
        const int error = grow(socket, size);
        if (error != 0) {
            return error;
        }
        padding = 0;
    }
    if (padding > 0) {
        writePrefix(segment_, written_, padding, kPadding);
        written_ += padding;
    }
    reserved_ = size;
    *at = segment_.bytes + ringOffset(segment_, written_);
    return 0;
}

int RingWriter::grow(int socket, uint32_t size) {
    const uint32_t wanted = std::max(segment_.size, std::bit_ceil(size + kPage)) * 2;
    Descriptor file;
    Mapping mapping;
    int error = createShared(kPage + std::min(wanted, kMaxSegment), &file, &mapping);
    if (error == 0) {
        error = sendPacket(socket, "s", 1, file.get());
    }
    if (error != 0) {
        return error;
    }
    wakes_ = wakes_ || wakesReader(previous_);
    writePrefix(segment_, written_, sizeof(RecordPrefix), kSegment);
    segment_.control->written.store(written_ + sizeof(RecordPrefix), std::memory_order_seq_cst);
    previous_ = segment_.control;
    ownPrevious_ = std::exchange(own_, std::move(mapping));
    segment_ = wholeFile(own_);
    written_ = 0;
    return 0;
}

/* The reader is woken up only here, right before the packet: the packets that a reader counts come
 * before every descriptor that it has not been told of. */
bool RingWriter::publishPart(uint32_t size) {
    written_ += size;
    reserved_ -= size;
    segment_.control->written.store(written_, std::memory_order_seq_cst);
    bool wakes = wakesReader(segment_.control);
    if (previous_ != nullptr) {
        wakes = wakesReader(previous_) || wakes || wakes_;
        previous_ = nullptr;
        ownPrevious_ = Mapping();
        wakes_ = false;
    }
    return wakes;
}

bool RingWriter::isDrained() const {
    return segment_.control->consumed.load(std::memory_order_acquire) == written_;
}

RingReader::Look RingReader::look(RecordHead *head, const uint8_t **content) {
    for (;;) {
        const uint32_t there = segment_.control->written.load(std::memory_order_acquire) - read_;
        seen_ = read_;
        if (there == 0) {
            return Look::kEmpty;
        }
        const uint32_t offset = ringOffset(segment_, read_);
        if (there > segment_.size || there % 8 != 0) {
            return Look::kFault;
        }
        RecordPrefix prefix;
        memcpy(&prefix, segment_.bytes + offset, sizeof(prefix));
        std::atomic_signal_fence(std::memory_order_seq_cst); /* the copy is what counts from here */
        const bool isWhole = prefix.size <= there;
        const bool mayComeInParts = (prefix.flags & kInParts) != 0 && there >= sizeof(*head);
        if (prefix.size < sizeof(prefix) || prefix.size % 8 != 0 ||
            prefix.size > segment_.size - offset || (!isWhole && !mayComeInParts)) {
            return Look::kFault;
        }
        size_ = prefix.size;
        if (isWhole && prefix.kind == kSegment) {
            return Look::kSegment;
        }
        if (isWhole && prefix.kind == kPadding) {
            pass();
            continue;
        }
        if (prefix.size < sizeof(*head)) {
            return Look::kFault;
        }
        memcpy(head, segment_.bytes + offset, sizeof(*head));
        head->prefix = prefix; /* the sender may have changed it since */
        std::atomic_signal_fence(std::memory_order_seq_cst);
        *content = segment_.bytes + offset + sizeof(*head);
        if (!isWhole) {
            seen_ = read_ + there;
            return Look::kPart;
        }
        return Look::kRecord;
    }
}

void RingReader::pass() {
    read_ += size_;
    seen_ = read_;
    segment_.control->consumed.store(read_, std::memory_order_release);
}

bool RingReader::enter(const Descriptor &file) {
    Mapping mapping;
    if (!mapShared(file, 0, &mapping) || !std::has_single_bit(mapping.size() - kPage)) {
        return false;
    }
    pass();
    own_ = std::move(mapping);
    segment_ = wholeFile(own_);
    read_ = 0;
    seen_ = 0;
    return true;
}

bool RingReader::sleep() {
    segment_.control->asleep.store(1, std::memory_order_seq_cst);
    return segment_.control->written.load(std::memory_order_seq_cst) == seen_;
}

bool RingReader::wakeUp() {
    return segment_.control->asleep.exchange(0, std::memory_order_acq_rel) == 0;
}

bool RingReader::isEmpty() const {
    return segment_.control->written.load(std::memory_order_acquire) == seen_;
}

namespace {

/* Copies a record's content into the ring, and publishes the parts that more will follow. */
class Placing {
  public:
    Placing(RingWriter *ring, int socket, uint8_t *at, size_t content, bool readerWaits)
        : ring_(ring), socket_(socket), at_(at), left_(content), packetDue_(readerWaits) {}

    /* 0, or an error number. */
    int add(const void *bytes, size_t length) {
        const auto *from = static_cast<const uint8_t *>(bytes);
        int error = 0;
        while (length > 0 && error == 0) {
            const size_t piece = std::min<size_t>(length, kPart);
            memcpy(at_, from, piece);
            at_ += piece;
            from += piece;
            length -= piece;
            left_ -= piece;
            unpublished_ += static_cast<uint32_t>(piece);
            error = left_ > 0 && unpublished_ >= kPart ? publish() : 0;
        }
        return error;
    }

    /* The reader copies one part while the next is written. */
    static constexpr uint32_t kPart = 128 << 10;

  private:
    int publish() {
        const uint32_t size = unpublished_ / 8 * 8;
        unpublished_ -= size;
        const bool wakes = ring_->publishPart(size) || packetDue_;
        packetDue_ = false;
        return wakes ? sendWakeUp(socket_) : 0;
    }

    RingWriter *ring_;
    int socket_;
    uint8_t *at_;
    size_t left_;
    uint32_t unpublished_ = sizeof(RecordHead);
    bool packetDue_;
};

}  // namespace

int placeRecord(RingWriter *ring, int socket, RecordHead *head, const void *body, const void *list,
                bool readerWaits) {
    const size_t content = size_t{head->bodyLength} + head->listLength;
    Descriptor file;
    if (content > kRingLimit) {
        const int error = createSealed(body, head->bodyLength, list, head->listLength, &file);
        if (error != 0) {
            return error;
        }
        head->prefix.flags |= kInFile;
    } else if (content > Placing::kPart) {
        head->prefix.flags |= kInParts;
    }
    const size_t size = (sizeof(*head) + (file.isOpen() ? 0 : content) + 7) / 8 * 8;
    head->prefix.size = static_cast<uint32_t>(size);
    uint8_t *at = nullptr;
    int error = ring->reserve(socket, head->prefix.size, &at);
    if (error == 0 && file.isOpen()) {
        error = sendPacket(socket, "f", 1, file.get());
    }
    if (error != 0) {
        return error;
    }
    memcpy(at, head, sizeof(*head));
    if (!file.isOpen()) {
        Placing placing(ring, socket, at + sizeof(*head), content, readerWaits);
        error = placing.add(body, head->bodyLength);
        error = error != 0 ? error : placing.add(list, head->listLength);
    }
    return error;
}

}  // namespace tamo::messages
