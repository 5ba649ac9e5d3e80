/* Attacks what reads foreign bytes in a received message: tamo::receivePacket, tamo::faultOfPacket,
 * tamo::takeBody, tamo::codeAtPlace, the translation in TamoHostMsgReceive, and ConfCommMsgProcess.
 *
 * An input is one byte of choices and a packet. The choices give a packet what no mutation would find:
 * a true magic and version, the address of a handler that is really there, and a descriptor. */
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/scratch.h"
#include "host/messages/buffer.h"
#include "include/conf_log_adapter.h"
#include "include/conf_msg_api.h"
#include "msg/message_format.h"
#include "platform/tamo_os_mem.h"
#include "tamo_host.h"

namespace {

enum Choice : uint8_t {
    kTrueHead = 1,
    kTrueHandler = 2,
    kWithFile = 4,   /* what follows the head goes into a memory file */
    kSealed = 8,     /* ... that is sealed */
    kWithSocket = 16 /* a socket comes with the packet */
};

volatile uint32_t sum; /* so that the handler's reads are not optimised away */
bool hasBlock;         /* only a task message's handler may hang a list on its data */

uint32_t readAll(uint32_t param, void *data, uint32_t dataLength) {
    const auto *bytes = static_cast<unsigned char *>(data);
    for (uint32_t i = 0; i < dataLength; i++) {
        sum = sum + bytes[i];
    }
    if (hasBlock && param % 2 == 1 && dataLength >= kBlockHead) {
        auto *block = static_cast<MeetingServerMsgBlock *>(data);
        block->resultList = OsMemMallocSetCharMon(64, 0, 0, 0, __LINE__, "fuzz");
        block->resultSize = param % 3 == 0 ? 64 : 0;
    }
    return 0;
}

/* Puts this program's build id and the handler's offset into a head. */
int describeHandler(dl_phdr_info *module, size_t, void *context) {
    auto *head = static_cast<tamo::PacketHead *>(context);
    for (int i = 0; i < module->dlpi_phnum; i++) {
        const ElfW(Phdr) &segment = module->dlpi_phdr[i];
        const auto *at = reinterpret_cast<const char *>(module->dlpi_addr + segment.p_vaddr);
        const char *end = at + segment.p_memsz;
        while (segment.p_type == PT_NOTE && at + sizeof(ElfW(Nhdr)) <= end) {
            const auto *note = reinterpret_cast<const ElfW(Nhdr) *>(at);
            const char *description = at + sizeof(*note) + (note->n_namesz + 3) / 4 * 4;
            if (note->n_type == NT_GNU_BUILD_ID) {
                head->buildIdLength =
                    static_cast<uint8_t>(std::min<uint32_t>(note->n_descsz, sizeof(head->buildId)));
                memcpy(head->buildId, description, head->buildIdLength);
            }
            at = description + (note->n_descsz + 3) / 4 * 4;
        }
    }
    head->handlerOffset = reinterpret_cast<uintptr_t>(readAll) - module->dlpi_addr;
    return 1; /* the program itself comes first */
}

int connectToQueue(const std::string &root) {
    const int sender = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s/run/Fuzz.sock", root.c_str());
    if (connect(sender, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        perror("no connection to the queue");
        abort();
    }
    return sender;
}

int fileOf(const uint8_t *data, size_t size, bool sealed) {
    const int file = memfd_create("fuzz", MFD_ALLOW_SEALING | MFD_CLOEXEC);
    if (write(file, data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    if (sealed) {
        fcntl(file, F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    }
    return file;
}

void sendWith(int sender, const void *bytes, size_t size, int descriptor) {
    iovec part = {const_cast<void *>(bytes), size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr *head = CMSG_FIRSTHDR(&message);
        *head = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
        memcpy(CMSG_DATA(head), &descriptor, sizeof(descriptor));
    }
    (void)sendmsg(sender, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

tamo::PacketHead trueHead() {
    tamo::PacketHead head = {};
    head.magic = tamo::kPacketMagic;
    head.version = tamo::kWireVersion;
    head.pointerWidth = tamo::kPointerWidth;
    return head;
}

void sendInput(int sender, const uint8_t *data, size_t size) {
    const uint8_t choices = data[0];
    std::vector<uint8_t> packet(data + 1, data + size);
    tamo::PacketHead head;
    const bool hasHead = packet.size() >= sizeof(head);
    if (hasHead && (choices & (kTrueHead | kTrueHandler)) != 0) {
        memcpy(&head, packet.data(), sizeof(head));
        if ((choices & kTrueHandler) != 0) {
            dl_iterate_phdr(describeHandler, &head);
        }
        const tamo::PacketHead begin = trueHead();
        memcpy(&head, &begin, offsetof(tamo::PacketHead, kind));
        snprintf(head.receiver, sizeof(head.receiver), "Fuzz");
        memcpy(packet.data(), &head, sizeof(head));
    }
    int descriptor = -1;
    if (hasHead && (choices & kWithFile) != 0) {
        descriptor = fileOf(packet.data() + sizeof(head), packet.size() - sizeof(head),
                            (choices & kSealed) != 0);
        packet.resize(sizeof(head));
    } else if ((choices & kWithSocket) != 0) {
        descriptor = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    }
    if (descriptor >= 0) {
        tamo::PacketHead announcement = trueHead();
        announcement.kind = tamo::kAnnouncement;
        sendWith(sender, &announcement, sizeof(announcement), -1);
    }
    sendWith(sender, packet.data(), packet.size(), descriptor);
    if (descriptor >= 0) {
        close(descriptor);
    }
}

void receiveAll(TamoHostQueue *queue) {
    OsMsgHeader *message = nullptr;
    while (TamoHostMsgReceive(queue, &message, 0) == TAMO_HOST_OK) {
        hasBlock = message->msgId == kTaskMessage;
        ConfCommMsgProcess(message);
        TamoHostMsgFree(message);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string root = fuzz::scratchRoot();
    static TamoHostQueue *const queue = [] {
        ConfLogInit();
        TamoHostQueue *opened = nullptr;
        if (TamoHostMsgOpen("Fuzz", &opened) != TAMO_HOST_OK) {
            abort();
        }
        return opened;
    }();
    if (size < 2) {
        return 0;
    }
    const int sender = connectToQueue(root);
    sendInput(sender, data, size);
    receiveAll(queue);
    close(sender);
    receiveAll(queue);
    return 0;
}
