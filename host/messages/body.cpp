/* Packing and taking bodies and result lists. */
#include "host/messages/body.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tamo {

namespace {

/* A file's receiver maps it: neither its bytes nor its length may change any more. */
constexpr int kSeals = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

bool readWhole(int file, void *buffer, size_t count, off_t offset) {
    auto *bytes = static_cast<char *>(buffer);
    while (count > 0) {
        const ssize_t n = pread(file, bytes, count, offset);
        if (n == 0 || (n < 0 && errno != EINTR)) {
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

uint64_t contentOf(const PacketHead &head) {
    return uint64_t{head.bodyLength} + head.listLength;
}

void packWindow(Packet *packet, const Window &window) {
    memcpy(window.bytes(), packet->body, packet->head.bodyLength);
    if (packet->head.listLength > 0) {
        memcpy(window.bytes() + packet->head.bodyLength, packet->list, packet->head.listLength);
    }
    packet->head.flags |= kInWindow;
}

const char *mapBody(Message *message, const Descriptor &file) {
    const PacketHead &head = message->packet;
    struct stat state;
    const int seals = fcntl(file.get(), F_GET_SEALS);
    if (seals < 0 || (seals & kSeals) != kSeals) {
        return "its file may still change";
    }
    if (fstat(file.get(), &state) != 0 || state.st_size != static_cast<off_t>(contentOf(head))) {
        return "its file has another length than it says";
    }
    if (head.bodyLength == 0) {
        return nullptr;
    }
    /* Private: the handler may write, and pages that it only reads are not copied. */
    void *mapped =
        mmap(nullptr, head.bodyLength, PROT_READ | PROT_WRITE, MAP_PRIVATE, file.get(), 0);
    if (mapped == MAP_FAILED) {
        return "there is no memory for it";
    }
    message->apart = mapped;
    message->mappedSize = head.bodyLength;
    return nullptr;
}

const char *copyBody(Message *message, const Window &window) {
    if (!window.isOpen()) {
        return "it is in a window that there is not";
    }
    message->apart = malloc(message->packet.bodyLength);
    if (message->apart == nullptr && message->packet.bodyLength > 0) {
        return "there is no memory for it";
    }
    memcpy(message->apart, window.bytes(), message->packet.bodyLength);
    return nullptr;
}

}  // namespace

int packFile(Packet *packet) {
    if (!packet->file.isOpen()) {
        Descriptor file(memfd_create("tamo-message", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        if (!file.isOpen()) {
            return errno;
        }
        int error = writeWhole(file.get(), packet->body, packet->head.bodyLength);
        if (error == 0) {
            error = writeWhole(file.get(), packet->list, packet->head.listLength);
        }
        if (error == 0 && fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) {
            error = errno;
        }
        if (error != 0) {
            return error;
        }
        packet->file = std::move(file);
    }
    packet->head.flags |= kInFile;
    packet->passed = packet->file.get();
    return 0;
}

int packBody(Packet *packet, Window *window, Descriptor *windowFile) {
    packet->head.flags &= static_cast<uint8_t>(~(kInFile | kInWindow));
    packet->passed = -1;
    const uint64_t content = contentOf(packet->head);
    if (content <= kInlineLimit) {
        return 0;
    }
    const bool fits = window != nullptr && content <= kWindowSize;
    if (fits && (window->isOpen() || window->create(windowFile) == 0)) {
        packWindow(packet, *window);
        packet->passed = windowFile->get();
        return 0;
    }
    return packFile(packet);
}

const char *takeBody(Message *message, const Window &window, const Descriptor &file) {
    const uint8_t flags = message->packet.flags;
    const char *fault = nullptr;
    if ((flags & kInFile) != 0) {
        fault = mapBody(message, file);
    } else if ((flags & kInWindow) != 0) {
        fault = copyBody(message, window);
    }
    if (fault == nullptr) {
        completeHeader(message);
    }
    return fault;
}

bool takeList(const Message &message, const Window &window, const Descriptor &file, void *list) {
    const PacketHead &head = message.packet;
    if ((head.flags & kInFile) != 0) {
        return readWhole(file.get(), list, head.listLength, static_cast<off_t>(head.bodyLength));
    }
    const uint8_t *content = (head.flags & kInWindow) != 0 ? window.bytes() : message.inlineBody;
    memcpy(list, content + head.bodyLength, head.listLength);
    return true;
}

}  // namespace tamo
