/* Packets written by hand, to a queue and to a waiting sender: each lie is refused, costs its
 * connection at most, and leaves no descriptor behind. The bytes here are the format's second
 * description: host/messages/buffer.h is the first. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <future>
#include <memory>

#include "tests/host/message_parties.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/scratch_root.h"

using namespace parties;

namespace {

constexpr const char *kQueue = "wire";

/* Offsets in a packet's head. */
enum At {
    kVersionAt = 4,
    kWidthAt = 5,
    kKindAt = 6,
    kReasonAt = 7,
    kSerialAt = 8,
    kMsgIdAt = 12,
    kSenderAt = 16,
    kReceiverAt = 32,
    kBodyLengthAt = 48,
    kListLengthAt = 52,
    kFlagsAt = 56,
    kBuildIdLengthAt = 57,
    kBuildIdAt = 58,
    kOffsetAt = 80,
    kHeadSize = 96
};
constexpr uint8_t kOtherWidth = sizeof(void *) == 8 ? 4 : 8;
enum Kind { kMessage = 1, kResponse, kRefusal, kSuccessor, kAnnouncement };
enum Flag { kWaits = 1, kHasList = 2, kInFile = 4, kInWindow = 8 };

void put32(Bytes &bytes, size_t at, uint32_t value) {
    std::memcpy(&bytes[at], &value, sizeof(value));
}

/* A good packet. */
Bytes packet(uint8_t kind, uint8_t flags, const Bytes &content, uint32_t msgId = 3) {
    Bytes bytes = {'T', 'M', 'S', 'G', 1, sizeof(void *), kind, 0};
    bytes.resize(kHeadSize);
    put32(bytes, kSerialAt, 1);
    put32(bytes, kMsgIdAt, msgId);
    bytes[kSenderAt] = 's';
    std::memcpy(&bytes[kReceiverAt], kQueue, std::strlen(kQueue));
    put32(bytes, kBodyLengthAt, static_cast<uint32_t>(content.size()));
    bytes[kFlagsAt] = flags;
    bytes.insert(bytes.end(), content.begin(), content.end());
    return bytes;
}

Bytes with(Bytes bytes, size_t at, uint32_t value) {
    put32(bytes, at, value);
    return bytes;
}

Bytes withByte(Bytes bytes, size_t at, uint8_t value) {
    bytes[at] = value;
    return bytes;
}

sockaddr_un addressOf(const std::string &queue) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = support::scratchRoot() + "/run/" + queue + ".sock";
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

/* One end of a connection in the test's hands. */
class Line {
  public:
    explicit Line(int socket) : socket_(socket) {}
    Line() : Line(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = addressOf(kQueue);
        EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)),
                  0);
    }
    ~Line() { close(socket_); }

    void send(const Bytes &bytes, std::vector<int> descriptors = {}) const {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)] = {};
        iovec part = {const_cast<uint8_t *>(bytes.data()), bytes.size()};
        msghdr header = {};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        if (!descriptors.empty()) {
            header.msg_control = control;
            header.msg_controllen = CMSG_SPACE(sizeof(int) * descriptors.size());
            cmsghdr *entry = CMSG_FIRSTHDR(&header);
            entry->cmsg_level = SOL_SOCKET;
            entry->cmsg_type = SCM_RIGHTS;
            entry->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
            std::memcpy(CMSG_DATA(entry), descriptors.data(), sizeof(int) * descriptors.size());
        }
        EXPECT_EQ(sendmsg(socket_, &header, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    /* The next packet; empty at the end of the connection. */
    Bytes receive() const {
        Bytes bytes(70000);
        ssize_t size = recv(socket_, bytes.data(), bytes.size(), 0);
        if (size < 0 && errno == ECONNRESET) { /* what was sent before can still be read */
            size = recv(socket_, bytes.data(), bytes.size(), 0);
        }
        bytes.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return bytes;
    }

  private:
    int socket_;
};

/* A memory file, closed with the object. */
struct File {
    File(size_t size, unsigned seals)
        : descriptor(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING)) {
        EXPECT_EQ(ftruncate(descriptor, static_cast<off_t>(size)), 0);
        EXPECT_EQ(fcntl(descriptor, F_ADD_SEALS, seals), 0);
    }
    ~File() { close(descriptor); }
    const int descriptor;
};
constexpr unsigned kSealed = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr unsigned kOfWindow = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr size_t kWindowSize = 1280 * 1024;

const Bytes kAnnounce = packet(kAnnouncement, 0, {});

/* A receiver in the test's hands: the socket and the status file that senders look for. */
class RogueReceiver {
  public:
    explicit RogueReceiver(uint8_t width = sizeof(void *))
        : listener_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = addressOf("rogue");
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)),
                  0);
        EXPECT_EQ(listen(listener_, 5), 0);
        std::string status = {'T', 'M', 'S', 'Q', 1, static_cast<char>(width)};
        status.resize(192);
        std::ofstream(support::scratchRoot() + "/run/rogue.queue") << status;
    }
    ~RogueReceiver() {
        close(listener_);
        unlink(addressOf("rogue").sun_path);
        unlink((support::scratchRoot() + "/run/rogue.queue").c_str());
    }

    int accept() const { return accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); }

  private:
    int listener_;
};

/* What a synchronous sender makes of an answer. */
uint32_t resultOfAnswer(Bytes answer, const std::vector<int> &descriptors = {}) {
    const RogueReceiver receiver;
    auto sent = std::async(std::launch::async, [] {
        return Exchange("rogue", bodyOf(doNothing, 0, Bytes(kBlock)), 2).result;
    });
    const Line line(receiver.accept());
    const Bytes request = line.receive();
    EXPECT_EQ(request.size(), kHeadSize + kHead + kBlock);
    std::copy_n(&request[kSerialAt], 4, &answer[kSerialAt]);
    if (!descriptors.empty()) {
        line.send(kAnnounce);
    }
    line.send(answer, descriptors);
    return sent.get();
}

class Wire : public testing::Test {
  protected:
    void SetUp() override {
        queue_ = std::make_unique<Queue>(kQueue);
        EXPECT_TRUE(queue_->isEmpty());
        /* A thread that ends leaves its connection to the next: one stays. */
        EXPECT_EQ(resultOfAnswer(packet(kResponse, 0, {}, 2)), TAMO_HOST_OK);
        before_ = support::openDescriptors().size();
    }
    void TearDown() override {
        /* Whatever came, the queue still works. */
        {
            const Line line;
            line.send(packet(kMessage, 0, {1, 2, 3}));
            OsMsgHeader *message = queue_->next();
            ASSERT_NE(message, nullptr);
            EXPECT_EQ(message->bodyLength, 3U);
            TamoHostMsgFree(message);
        }
        EXPECT_TRUE(queue_->isEmpty());
        EXPECT_LE(support::openDescriptors().size(), before_) << "a descriptor was left open";
        queue_.reset();
    }

    /* The queue hands nothing out; the sender is refused, and its connection closed. */
    void expectRefused(const Bytes &bytes, const std::vector<int> &descriptors,
                       const std::string &what, bool announced = true) {
        const Line line;
        if (announced && !descriptors.empty()) {
            line.send(kAnnounce);
        }
        line.send(bytes, descriptors);
        EXPECT_TRUE(queue_->isEmpty()) << what;
        const Bytes answer = line.receive();
        ASSERT_EQ(answer.size(), size_t{kHeadSize}) << what;
        EXPECT_EQ(answer[kKindAt], kRefusal) << what;
        EXPECT_EQ(answer[kReasonAt], TAMO_HOST_REFUSED) << what;
        EXPECT_TRUE(line.receive().empty()) << what;
    }

    std::unique_ptr<Queue> queue_;
    size_t before_ = 0;
};

TEST_F(Wire, AHeadThatLiesIsRefused) {
    const Bytes good = packet(kMessage, kWaits, {1, 2, 3, 4});
    const Bytes lies[] = {
        withByte(good, 0, 'X'),
        withByte(good, kVersionAt, 2),
        withByte(good, kWidthAt, kOtherWidth),
        withByte(good, kKindAt, 9),
        withByte(good, kKindAt, kResponse),
        packet(kRefusal, 0, {}),
        packet(kSuccessor, 0, {}),                                        /* without a connection */
        with(with(with(with(good, 16, ~0U), 20, ~0U), 24, ~0U), 28, ~0U), /* a sender without end */
        withByte(good, kReceiverAt, 'W'),
        withByte(good, kReceiverAt + 15, 'x'), /* behind the name's end */
        with(good, kBodyLengthAt, 5),
        with(good, kBodyLengthAt, 3),
        with(good, kBodyLengthAt, 0xFFFFFFFF),
        with(good, kListLengthAt, 1),
        withByte(good, kFlagsAt, kHasList),
        with(withByte(good, kFlagsAt, kHasList), kListLengthAt, 0xFFFFFFFC),
        withByte(good, kFlagsAt, 0x80),
        withByte(good, kHeadSize - 1, 1), /* unused fields */
        withByte(good, kBuildIdAt + 20, 1),
        withByte(good, kBuildIdLengthAt, 21),
        withByte(packet(kMessage, kInFile, {}), kBodyLengthAt, 4), /* no file */
        with(packet(kMessage, kInWindow, {}), kBodyLengthAt, 1 << 21),
        Bytes(good.begin(), good.begin() + kHeadSize / 2),
        {'T'},
    };
    for (size_t i = 0; i < std::size(lies); i++) {
        expectRefused(lies[i], {}, "lie " + std::to_string(i));
    }
    expectRefused(Bytes(kHeadSize + 65537, 'T'), {}, "longer than a packet");
}

TEST_F(Wire, ADescriptorThatIsNotWhatItShouldBeIsRefusedAndClosed) {
    const Bytes inFile = with(packet(kMessage, kInFile | kWaits, {}), kBodyLengthAt, 100);
    const Bytes inWindow = with(packet(kMessage, kInWindow | kWaits, {}), kBodyLengthAt, 100);
    const File good(100, kSealed), open(100, 0), shorter(99, kSealed), longer(101, kSealed);
    const File window(kWindowSize, kOfWindow), unsealed(kWindowSize, 0),
        narrow(kWindowSize - 1, kOfWindow);
    const struct {
        const char *what;
        Bytes bytes;
        std::vector<int> descriptors;
    } refused[] = {
        {"not announced by its flags", packet(kMessage, kWaits, {1}), {good.descriptor}},
        {"two descriptors", inFile, {good.descriptor, good.descriptor}},
        {"two ways", packet(kMessage, kInFile | kInWindow, {}), {good.descriptor}},
        {"an empty file", packet(kMessage, kInFile, {}), {good.descriptor}},
        {"a successor that is no socket", packet(kSuccessor, 0, {}), {good.descriptor}},
        {"an announcement with a descriptor", kAnnounce, {good.descriptor}},
        {"an open window", inWindow, {unsealed.descriptor}},
        {"a narrow window", inWindow, {narrow.descriptor}},
    };
    for (const auto &[what, bytes, descriptors] : refused) {
        expectRefused(bytes, descriptors, what);
    }
    expectRefused(inFile, {good.descriptor}, "no announcement before", false);
    /* A file that cannot be used costs its message, not the connection. */
    const Line line;
    for (const File *file : {&open, &shorter, &longer}) {
        line.send(kAnnounce);
        line.send(inFile, {file->descriptor});
        EXPECT_TRUE(queue_->isEmpty());
        EXPECT_EQ(line.receive()[kKindAt], kRefusal);
    }
    for (const uint8_t reason : {TAMO_HOST_GONE, TAMO_HOST_REFUSED}) { /* one window, not two */
        line.send(kAnnounce);
        line.send(inWindow, {window.descriptor});
        OsMsgHeader *message = nullptr;
        TamoHostMsgReceive(queue_->get(), &message, 0);
        TamoHostMsgFree(message);
        EXPECT_EQ(line.receive()[kReasonAt], reason);
    }
}

TEST_F(Wire, AHandlerThatNoLoadedModuleHasIsRefusedAtOnce) {
    Bytes bytes = packet(kMessage, kWaits, bodyOf(doNothing, 0, {}), 1);
    bytes[kBuildIdLengthAt] = 20; /* of zero bytes */
    const Line line;
    line.send(bytes);
    line.send(withByte(bytes, kFlagsAt, 0));
    EXPECT_TRUE(queue_->isEmpty());
    EXPECT_EQ(line.receive()[kReasonAt], TAMO_HOST_REFUSED);
    /* Without a place, an address in the body is worth nothing. */
    line.send(withByte(bytes, kBuildIdLengthAt, 0));
    OsMsgHeader *message = queue_->next();
    EXPECT_EQ(headOf(message).handler, nullptr);
    TamoHostMsgFree(message);
}

TEST_F(Wire, AResponseThatLiesFailsItsRequest) {
    const Bytes good = packet(kResponse, 0, bodyOf(nullptr, 0, Bytes(kBlock)), 2);
    EXPECT_EQ(resultOfAnswer(good), TAMO_HOST_OK);
    EXPECT_EQ(resultOfAnswer(packet(kResponse, 0, {}, 2)), TAMO_HOST_OK) << "without a body";
    EXPECT_EQ(resultOfAnswer(packet(kResponse, kHasList, {1}, 2)), TAMO_HOST_OK)
        << "a list, but no block to hang it on";
    const Bytes list = with(packet(kResponse, kHasList, Bytes(8), 2), kBodyLengthAt, 4);
    const Bytes refusal = packet(kRefusal, 0, {}); /* without a reason */
    for (const Bytes &lie :
         {withByte(good, kKindAt, kMessage), withByte(good, kKindAt, kSuccessor),
          with(good, kBodyLengthAt, 0), list, with(list, kListLengthAt, 0xFFFFFFFF),
          withByte(good, kWidthAt, 3), with(packet(kResponse, kInWindow, {}, 2), kBodyLengthAt, 8),
          refusal, withByte(refusal, kReasonAt, 200)}) {
        EXPECT_EQ(resultOfAnswer(lie), TAMO_HOST_REFUSED);
    }
    const File file(100, kSealed);
    const Bytes inFile = with(packet(kResponse, kInFile, {}, 2), kBodyLengthAt, 101);
    EXPECT_EQ(resultOfAnswer(inFile, {file.descriptor}), TAMO_HOST_REFUSED);
    const Bytes later = withByte(withByte(refusal, kVersionAt, 9), kReasonAt, TAMO_HOST_NO_MEMORY);
    EXPECT_EQ(resultOfAnswer(later), TAMO_HOST_NO_MEMORY) << "understood from any version";
}

TEST_F(Wire, AReceiverOfAnotherPointerWidthOrWithADamagedStatusFileIsNotSentTo) {
    const RogueReceiver receiver(kOtherWidth);
    EXPECT_EQ(Exchange("rogue", bodyOf(doNothing, 0, {})).result, TAMO_HOST_REFUSED);
    for (const char *content : {"", "TMSQ", "something else altogether"}) {
        std::ofstream(support::scratchRoot() + "/run/rogue.queue") << content;
        EXPECT_EQ(sendAsync("rogue", bodyOf(doNothing, 0, {})), TAMO_HOST_SYSTEM) << content;
    }
}

}  // namespace
