/* Connections written by hand, to a queue and to a waiting sender: each lie is refused, costs its
 * connection at most, and leaves no descriptor behind. The bytes here are the format's second
 * description: host/messages/record.h and ring.h are the first. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

constexpr size_t kFile = 4096 + 32768 + 16384; /* a connection's memory file */
constexpr size_t kStatus = 128 * 2049 + 40 * 8;
constexpr uint8_t kOtherWidth = sizeof(void *) == 8 ? 4 : 8;
constexpr unsigned kShared = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr unsigned kSealed = kShared | F_SEAL_WRITE;

/* Offsets in a record's head. */
enum At {
    kKindAt = 4,
    kFlagsAt = 5,
    kReasonAt = 6,
    kIdLengthAt = 7,
    kSerialAt = 8,
    kBodyAt = 16,
    kListAt = 20,
    kSenderAt = 32,
    kHead72 = 72
};
enum Kind { kMessage = 1, kResponse, kRefusal, kPadding, kSegment };
enum Flag { kWaits = 1, kHasList = 2, kInFile = 4, kInParts = 8 };

Bytes with(Bytes bytes, size_t at, uint32_t value, size_t size = sizeof(uint32_t)) {
    std::memcpy(&bytes[at], &value, size);
    return bytes;
}

Bytes record(uint8_t kind, uint8_t flags, const Bytes &body, uint32_t msgId = 3) {
    Bytes bytes(kHead72);
    bytes[kKindAt] = kind;
    bytes[kFlagsAt] = flags;
    bytes = with(with(bytes, 12, msgId), kBodyAt, static_cast<uint32_t>(body.size()));
    bytes[kSenderAt] = 's';
    bytes.insert(bytes.end(), body.begin(), body.end());
    bytes.resize((bytes.size() + 7) / 8 * 8);
    return with(bytes, 0, static_cast<uint32_t>(bytes.size()));
}

/* Its name fills the field. */
Bytes withEndlessSender(Bytes bytes) {
    std::fill_n(&bytes[kSenderAt], 16, 's');
    return bytes;
}

const Bytes kHello = {'T', 'M', 'S', 'G', 3, sizeof(void *), 0, 0, 100, 0, 0, 0};

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

sockaddr_un addressOf(const std::string &queue) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = support::scratchRoot() + "/run/" + queue + ".sock";
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

void sendTo(int socket, const Bytes &bytes, int descriptor) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec part = {const_cast<uint8_t *>(bytes.data()), bytes.size()};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (descriptor >= 0) {
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        cmsghdr *entry = CMSG_FIRSTHDR(&header);
        entry->cmsg_level = SOL_SOCKET;
        entry->cmsg_type = SCM_RIGHTS;
        entry->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(entry), &descriptor, sizeof(descriptor));
    }
    EXPECT_EQ(sendmsg(socket, &header, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

/* One end of a connection in the test's hands, with the ring that it writes. */
class Line {
  public:
    /* Of a sender. */
    Line() : socket_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)), ring_(64), data_(4096) {
        const sockaddr_un address = addressOf("wire");
        EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)),
                  0);
        const File file(kFile, kShared);
        map(file.descriptor);
        file_ = dup(file.descriptor);
    }
    /* Of a receiver: takes the sender's hello. */
    explicit Line(int listener)
        : socket_(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)), ring_(256), data_(36864) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        Bytes hello(kHello.size());
        iovec part = {hello.data(), hello.size()};
        msghdr header = {nullptr, 0, &part, 1, control, sizeof(control), 0};
        EXPECT_EQ(recvmsg(socket_, &header, 0), static_cast<ssize_t>(hello.size()));
        std::memcpy(&file_, CMSG_DATA(CMSG_FIRSTHDR(&header)), sizeof(file_));
        map(file_);
    }
    ~Line() {
        munmap(bytes_, kFile);
        close(file_);
        close(socket_);
    }

    void send(const Bytes &bytes, int descriptor = -1) const { sendTo(socket_, bytes, descriptor); }
    void hello() const { send(kHello, file_); }
    void publish(const Bytes &record, uint32_t more = 0) {
        std::memcpy(bytes_ + data_ + written_, record.data(), record.size());
        written_ += static_cast<uint32_t>(record.size());
        const uint32_t shown = written_ + more;
        std::memcpy(bytes_ + ring_, &shown, sizeof(shown));
        send({'w'});
    }
    /* Changes a published record. */
    void overwrite(size_t at, uint32_t value) {
        std::memcpy(bytes_ + data_ + at, &value, sizeof(value));
    }
    /* False at the end of the connection. */
    bool receive() const {
        char byte;
        return recv(socket_, &byte, 1, 0) > 0;
    }
    const uint8_t *bytes() const { return bytes_; }

  private:
    void map(int file) {
        void *at = mmap(nullptr, kFile, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        ASSERT_NE(at, MAP_FAILED);
        bytes_ = static_cast<uint8_t *>(at);
    }
    const int socket_;
    const size_t ring_, data_;
    int file_ = -1;
    uint8_t *bytes_ = nullptr;
    uint32_t written_ = 0;
};

class Wire : public testing::Test {
  protected:
    void SetUp() override {
        EXPECT_TRUE(queue_.isEmpty());
        before_ = support::openDescriptors().size();
    }
    void TearDown() override {
        /* Whatever came, the queue still works. */
        {
            Line line;
            line.hello();
            line.publish(record(kMessage, 0, {1, 2, 3}));
            OsMsgHeader *message = queue_.next();
            ASSERT_NE(message, nullptr);
            EXPECT_EQ(Bytes(dataOf(message) - kHead, dataOf(message) - kHead + 3),
                      (Bytes{1, 2, 3}));
            TamoHostMsgFree(message);
        }
        EXPECT_TRUE(queue_.isEmpty());
        EXPECT_EQ(support::openDescriptors().size(), before_) << "a descriptor was left open";
    }

    Queue queue_{"wire"};
    size_t before_ = 0;
};

TEST_F(Wire, AHelloThatLiesIsRefused) {
    const File good(kFile, kShared), open(kFile, 0), shorter(kFile - 1, kShared);
    const struct {
        const char *what;
        Bytes bytes;
        int descriptor;
    } lies[] = {
        {"magic", with(kHello, 0, 'X', 1), good.descriptor},
        {"version", with(kHello, 4, 1, 1), good.descriptor},
        {"width", with(kHello, 5, kOtherWidth, 1), good.descriptor},
        {"slot", with(kHello, 8, 2048), good.descriptor},
        {"short", {'T', 'M'}, good.descriptor},
        {"no file", kHello, -1},
        {"a file that may shrink", kHello, open.descriptor},
        {"a shorter file", kHello, shorter.descriptor},
        {"a socket", kHello, socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)},
    };
    for (const auto &[what, bytes, descriptor] : lies) {
        const Line line;
        line.send(bytes, descriptor);
        EXPECT_TRUE(queue_.isEmpty()) << what;
        EXPECT_FALSE(line.receive()) << what;
    }
    close(std::end(lies)[-1].descriptor);
}

TEST_F(Wire, ARecordThatLiesIsRefused) {
    const File sealed(100, kSealed), open(100, 0);
    const Bytes good = record(kMessage, kWaits, Bytes(40));
    const Bytes inFile = with(record(kMessage, kInFile, {}), kBodyAt, 101);
    const struct {
        const char *what;
        Bytes bytes;
        uint32_t more;
        int descriptor;
    } lies[] = {
        {"no size", with(good, 0, 0), 0, -1},
        {"an odd size", with(good, 0, 113), 0, -1},
        {"a size behind what is written", with(good, 0, 120), 0, -1},
        {"a size of less than a head", with(good, 0, 64), 0, -1},
        {"more written than the ring holds", good, 40000, -1},
        {"written is odd", good, 1, -1},
        {"a longer body", with(good, kBodyAt, 41), 0, -1},
        {"an endless body", with(good, kBodyAt, 0xFFFFFFFF), 0, -1},
        {"a list", with(good, kListAt, 4), 0, -1},
        {"a list flag", with(good, kFlagsAt, kHasList, 1), 0, -1},
        {"an unknown flag", with(good, kFlagsAt, 0x80, 1), 0, -1},
        {"a kind", with(good, kKindAt, 9, 1), 0, -1},
        {"a response", with(good, kKindAt, kResponse, 1), 0, -1},
        {"a long build id", with(good, kIdLengthAt, 21, 1), 0, -1},
        {"a sender without end", withEndlessSender(good), 0, -1},
        {"no file", inFile, 0, -1},
        {"a file in parts", with(inFile, kFlagsAt, kInFile | kInParts, 1), 0, sealed.descriptor},
        {"no segment", with(with(Bytes(8), 0, 8), kKindAt, kSegment, 1), 0, -1},
        {"a segment that is sealed", with(with(Bytes(8), 0, 8), kKindAt, kSegment, 1), 0,
         sealed.descriptor},
    };
    for (const auto &[what, bytes, more, descriptor] : lies) {
        Line line;
        line.hello();
        if (descriptor >= 0) {
            line.send({'f'}, descriptor);
        }
        line.publish(bytes, more);
        EXPECT_TRUE(queue_.isEmpty()) << what;
        EXPECT_FALSE(line.receive()) << what;
    }
    /* Parts: what is not all there is no message, and may not become another one. */
    for (const bool changes : {false, true}) {
        Line line;
        line.hello();
        const Bytes whole = with(record(kMessage, kInParts, Bytes(4000, 7)), kSerialAt, 1);
        line.publish(Bytes(whole.begin(), whole.begin() + 2000));
        EXPECT_TRUE(queue_.isEmpty());
        if (changes) {
            line.overwrite(kBodyAt, 100);
            line.publish(Bytes(8));
            EXPECT_TRUE(queue_.isEmpty());
            EXPECT_FALSE(line.receive());
            continue;
        }
        line.publish(Bytes(whole.begin() + 2000, whole.end()));
        OsMsgHeader *message = queue_.next();
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(Bytes(dataOf(message) - kHead, dataOf(message) - kHead + 4000), Bytes(4000, 7));
        TamoHostMsgFree(message);
        line.publish(Bytes(whole.begin(), whole.begin() + 2000)); /* and its sender ends */
    }
    /* A file that cannot be used costs its message, not the connection. */
    Line line;
    line.hello();
    for (const int file : {sealed.descriptor, open.descriptor}) {
        line.send({'f'}, file);
        line.publish(inFile);
    }
    line.publish(record(kMessage, 0, {}));
    TamoHostMsgFree(queue_.next());
    EXPECT_TRUE(queue_.isEmpty());
}

/* A receiver in the test's hands: the socket, and the status that senders look for. */
class RogueReceiver {
  public:
    RogueReceiver() : listener_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = addressOf("rogue");
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)),
                  0);
        EXPECT_EQ(listen(listener_, 5), 0);
        const int number = shmget(IPC_PRIVATE, kStatus, 0600);
        status_ = static_cast<uint8_t *>(shmat(number, nullptr, 0));
        shmctl(number, IPC_RMID, nullptr);
        struct stat place = {};
        stat((support::scratchRoot() + "/run").c_str(), &place);
        const uint64_t directory[] = {place.st_dev, place.st_ino};
        const uint8_t head[] = {'T', 'M', 'S', 'Q', 3, sizeof(void *)};
        std::memcpy(status_, head, sizeof(head));
        std::memcpy(status_ + 16, "rogue", 6);
        std::memcpy(status_ + 32, directory, sizeof(directory));
        std::string file = "TMSQ....";
        std::memcpy(file.data() + 4, &number, sizeof(number));
        std::ofstream(support::scratchRoot() + "/run/rogue.queue") << file;
    }
    ~RogueReceiver() {
        shmdt(status_);
        close(listener_);
        unlink(addressOf("rogue").sun_path);
        unlink((support::scratchRoot() + "/run/rogue.queue").c_str());
    }
    int listener() const { return listener_; }

  private:
    int listener_;
    uint8_t *status_;
};

/* What a synchronous sender makes of an answer. */
uint32_t resultOfAnswer(Bytes answer, uint32_t more = 0, int descriptor = -1) {
    const RogueReceiver receiver;
    auto sent = std::async(std::launch::async, [] {
        return Exchange("rogue", bodyOf(doNothing, 0, Bytes(kBlock)), 2).result;
    });
    Line line(receiver.listener());
    uint32_t awaited = 0;
    while (awaited == 0) {
        std::this_thread::yield();
        std::memcpy(&awaited, line.bytes(), sizeof(awaited));
    }
    if (answer.size() >= kHead72) {
        answer = with(answer, kSerialAt, awaited);
    }
    if (descriptor >= 0) {
        line.send({'f'}, descriptor);
    }
    line.publish(answer, more);
    return sent.get();
}

TEST_F(Wire, AnAnswerThatLiesFailsItsRequest) {
    const Bytes good = record(kResponse, 0, bodyOf(nullptr, 0, Bytes(kBlock)), 2);
    EXPECT_EQ(resultOfAnswer(good), TAMO_HOST_OK);
    EXPECT_EQ(resultOfAnswer(record(kResponse, 0, {}, 2)), TAMO_HOST_OK) << "without a body";
    const Bytes list = with(record(kResponse, kHasList, Bytes(8), 2), kBodyAt, 4);
    EXPECT_EQ(resultOfAnswer(with(list, kListAt, 4)), TAMO_HOST_OK) << "no block to hang it on";
    const Bytes refusal = record(kRefusal, 0, {}); /* without a reason */
    for (const Bytes &lie : {with(good, kKindAt, kMessage, 1), with(good, kBodyAt, 200),
                             with(list, kListAt, 5), with(list, kListAt, 0xFFFFFFFC),
                             with(good, 0, 4096), refusal, with(refusal, kReasonAt, 200, 1)}) {
        EXPECT_EQ(resultOfAnswer(lie), TAMO_HOST_REFUSED);
    }
    EXPECT_EQ(resultOfAnswer(good, 32768), TAMO_HOST_REFUSED);
    EXPECT_EQ(resultOfAnswer(with(refusal, kReasonAt, TAMO_HOST_NO_MEMORY, 1)),
              TAMO_HOST_NO_MEMORY);
    const File file(100, kSealed);
    const Bytes inFile = with(record(kResponse, kInFile, {}, 2), kBodyAt, 101);
    EXPECT_EQ(resultOfAnswer(inFile, 0, file.descriptor), TAMO_HOST_REFUSED);
}

}  // namespace
