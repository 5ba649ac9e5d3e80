/* Attacks what reads foreign bytes in a received message: RingReader, faultOfHead, takeContent,
 * codeAtPlace, the translation in TamoHostMsgReceive, and ConfCommMsgProcess.
 *
 * An input is one byte of choices and the bytes of a ring. The choices give the first record what no
 * mutation would find: a true size and kind, the address of a handler that is really there, and a
 * file. */
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/scratch.h"
#include "host/messages/handler_address.h"
#include "host/messages/ring.h"
#include "include/conf_log_adapter.h"
#include "include/conf_msg_api.h"
#include "msg/message_format.h"
#include "platform/tamo_os_mem.h"
#include "tamo_host.h"

namespace {

using namespace tamo::messages;

enum Choice : uint8_t {
    kTrueHead = 1,
    kTrueHandler = 2,
    kWithFile = 4,  /* what follows the head goes into a memory file */
    kSealed = 8,    /* ... that is sealed */
    kAsSegment = 16 /* the file is a ring that the first goes on in */
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
void describeHandler(RecordHead *head) {
    CodePlace place = {};
    fuzz::require(placeOfCode(reinterpret_cast<const void *>(readAll), &place) ==
                  PlaceResult::kFound);
    head->prefix.buildIdLength = place.buildIdLength;
    memcpy(head->buildId, place.buildId, sizeof(place.buildId));
    head->handlerOffset = place.offset;
}

int connectToQueue(const std::string &root) {
    const int sender = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s/run/Fuzz.sock", root.c_str());
    fuzz::require(connect(sender, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0);
    return sender;
}

/* A memory file with these bytes at `offset`, and their number where a ring says what is written. */
int fileOf(const std::vector<uint8_t> &bytes, size_t size, size_t offset, size_t writtenAt,
           int seals) {
    const int file = memfd_create("fuzz", MFD_ALLOW_SEALING | MFD_CLOEXEC);
    const auto written = static_cast<uint32_t>(bytes.size());
    fuzz::require(ftruncate(file, static_cast<off_t>(size)) == 0 &&
                  pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset)) >= 0);
    fuzz::require(offset == 0 ||
                  pwrite(file, &written, sizeof(written), static_cast<off_t>(writtenAt)) > 0);
    fcntl(file, F_ADD_SEALS, seals);
    return file;
}

constexpr int kShared = F_SEAL_SHRINK | F_SEAL_GROW;

void sendWith(int sender, const void *bytes, size_t size, int descriptor) {
    iovec part = {const_cast<void *>(bytes), size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr *head = CMSG_FIRSTHDR(&message);
    *head = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    memcpy(CMSG_DATA(head), &descriptor, sizeof(descriptor));
    (void)sendmsg(sender, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    close(descriptor);
}

void sendInput(int sender, const uint8_t *data, size_t size) {
    const uint8_t choices = data[0];
    std::vector<uint8_t> ring(data + 1, data + std::min<size_t>(size, kFirstRequests));
    RecordHead head;
    int passed = -1;
    if (ring.size() >= sizeof(head)) {
        memcpy(&head, ring.data(), sizeof(head));
        if ((choices & kTrueHandler) != 0) {
            describeHandler(&head);
        }
        if ((choices & (kSealed | kAsSegment)) != 0) {
            const std::vector<uint8_t> rest(ring.begin() + sizeof(head), ring.end());
            passed = (choices & kSealed) != 0
                         ? fileOf(rest, rest.size(), 0, 0, kShared | F_SEAL_WRITE)
                         : fileOf(rest, kPage + kFirstRequests, kPage, 0, kShared);
            ring.resize((choices & kSealed) != 0 ? sizeof(head) : sizeof(RecordPrefix));
        }
        ring.resize(ring.size() / 8 * 8);
        if ((choices & kTrueHead) != 0) {
            head.prefix.size = static_cast<uint32_t>(ring.size());
            head.prefix.kind = (choices & kAsSegment) != 0 ? kSegment : kMessage;
            head.prefix.flags &= kSenderWaits | kInFile;
            head.listLength = 0;
            head.sender[sizeof(head.sender) - 1] = '\0';
        }
        memcpy(ring.data(), &head, ring.size() < sizeof(head) ? ring.size() : sizeof(head));
    }
    const Hello hello = {kWireMagic, kWireVersion, kPointerWidth, {}, 0};
    sendWith(sender, &hello, sizeof(hello),
             fileOf(ring, kConnectionFile, kPage, offsetof(ConnectionControl, requests), kShared));
    if (passed >= 0) {
        sendWith(sender, "f", 1, passed);
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
        fuzz::require(TamoHostMsgOpen("Fuzz", &opened) == TAMO_HOST_OK);
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
