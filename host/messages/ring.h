/* Rings of records in memory files, and the packets that carry the files. */
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <utility>

#include "host/base/descriptor.h"
#include "host/messages/record.h"

namespace tamo::messages {

/* ---- packets ---- */

struct PeerIdentity {
    pid_t pid;
    uid_t uid;
};

/* Finds out who is at the other end; true when that process may exchange messages with this one: the
 * same user's, or root's. */
bool identifyPeer(int socket, PeerIdentity *peer);

/* Has the other end closed? */
bool isHungUp(int socket);

/* Sends a packet with a descriptor (-1: without) and does not wait. 0, or an error number. */
int sendPacket(int socket, const void *bytes, size_t size, int descriptor);

/* Sends the packet that wakes a reader up. A full socket has enough of them. */
int sendWakeUp(int socket);

enum class Arrival {
    kPacket,
    kNothing, /* none is there, or none came in time */
    kEnd,     /* the other side is gone */
    kShort,   /* a descriptor is there, but this process can have no more */
    kForeign
};

/* Receives a packet of at most `size` bytes, `*received` of them, and the descriptor that came with
 * it, if any. `flags` are recvmsg's: with MSG_PEEK the packet stays. */
Arrival receivePacket(int socket, int flags, void *bytes, size_t size, size_t *received,
                      Descriptor *descriptor);

/* Takes the next descriptor from the socket without waiting, past wake-up packets, which
 * `*wakeUps` counts down. After kShort it is still there. */
Arrival receiveDescriptor(int socket, uint32_t *wakeUps, Descriptor *descriptor);

/* ---- memory files ---- */

/* A mapped file, or a part of the address space. */
class Mapping {
  public:
    Mapping() = default;
    Mapping(Mapping &&other) noexcept { swap(other); }
    Mapping &operator=(Mapping &&other) noexcept {
        swap(other);
        return *this;
    }
    ~Mapping();

    /* Maps a whole file. `isPrivate`: what this process writes stays its own. */
    bool map(const Descriptor &file, size_t size, bool isPrivate);

    uint8_t *bytes() const { return bytes_; }
    size_t size() const { return size_; }

  private:
    void swap(Mapping &other) {
        std::swap(bytes_, other.bytes_);
        std::swap(size_, other.size_);
    }
    uint8_t *bytes_ = nullptr;
    size_t size_ = 0;
};

/* Makes a file of `size` bytes that never shrinks, with its memory set aside, and maps it. 0, or an
 * error number. */
int createShared(size_t size, Descriptor *file, Mapping *mapping);

/* Maps a file that the other side made, of `size` bytes (0: of any size up to kMaxSegmentFile), if it
 * cannot shrink. */
bool mapShared(const Descriptor &file, size_t size, Mapping *mapping);

/* Makes a sealed file of a body and a list. 0, or an error number. */
int createSealed(const void *body, size_t bodyLength, const void *list, size_t listLength,
                 Descriptor *file);

/* Maps a sealed file privately. Null, or what is wrong. */
const char *mapSealed(const Descriptor &file, size_t size, Mapping *mapping);

/* ---- rings ---- */

struct RingControl {
    alignas(64) std::atomic<uint32_t> written;  /* bytes, modulo 2 to the 32nd; the writer's */
    alignas(64) std::atomic<uint32_t> consumed; /* the reader's */
    alignas(64) std::atomic<uint32_t> asleep;   /* 1: the reader wants a packet */
};

/* At the begin of the file that a connection begins with. */
struct ConnectionControl {
    alignas(64) std::atomic<uint32_t> awaited; /* the serial that the sender waits for, or 0 */
    std::atomic<uint32_t> closed;              /* 1: the receiver reads no more */
    RingControl requests;
    RingControl responses;
};

constexpr uint32_t kPage = 4096;
constexpr uint32_t kFirstRequests = 32768; /* rings' sizes are powers of two */
constexpr uint32_t kFirstResponses = 16384;
constexpr uint32_t kConnectionFile = kPage + kFirstRequests + kFirstResponses;
constexpr uint32_t kMaxSegment = 8U << 20;
constexpr uint32_t kMaxSegmentFile = kPage + kMaxSegment;

/* Bodies and lists of more bytes go in a file of their own: twice the library's largest request for
 * configuration values fits. */
constexpr uint32_t kRingLimit = 1310720;
static_assert(sizeof(ConnectionControl) <= kPage && 2 * kRingLimit < kMaxSegment);

/* One memory file's ring, mapped by somebody. */
struct Segment {
    RingControl *control;
    uint8_t *bytes;
    uint32_t size;
};

Segment firstRequests(const Mapping &connectionFile);
Segment firstResponses(const Mapping &connectionFile);

class RingWriter {
  public:
    void begin(const Segment &first) { segment_ = first; }

    /* Finds room for a record of `size` bytes, a multiple of 8, in a new segment if need be. What is
     * written there counts only once it is published. 0, or an error number: EAGAIN when the socket
     * takes no more descriptors. */
    int reserve(int socket, uint32_t size, uint8_t **at);

    /* Shows the reader what is reserved; true when the reader sleeps and wants a packet. */
    bool publish() { return publishPart(reserved_); }

    /* The same for the next `size` bytes, a multiple of 8, of what is reserved. */
    bool publishPart(uint32_t size);

    /* Has the reader taken everything? */
    bool isDrained() const;

    /* Does it sleep, so that what is published next comes with a packet? */
    bool isReaderAsleep() const {
        return segment_.control->asleep.load(std::memory_order_relaxed) != 0;
    }

  private:
    int grow(int socket, uint32_t size);

    Segment segment_ = {};
    Mapping own_; /* of a segment that is not the first */
    uint32_t written_ = 0;
    uint32_t reserved_ = 0;
    /* The segment before, in which the reader may sleep until something is published in this one. */
    RingControl *previous_ = nullptr;
    Mapping ownPrevious_;
    bool wakes_ = false; /* it slept in one before that */
};

/* Puts a record where it is to be published next: body and list into the ring, or into a file that
 * goes ahead through the socket. Of a large one all parts but the last are published here, the first of
 * them with a packet when `readerWaits` in the socket. 0, or an error number: as of reserve, EPIPE
 * when the reader is gone. */
int placeRecord(RingWriter *ring, int socket, RecordHead *head, const void *body, const void *list,
                bool readerWaits);

class RingReader {
  public:
    enum class Look { kRecord, kPart, kEmpty, kSegment, kFault };

    void begin(const Segment &first) { segment_ = first; }

    /* Copies the next record's head, and says where in the ring its content is: as many bytes as the
     * head says are there, or with kPart those that available() counts. The record stays until pass(). */
    Look look(RecordHead *head, const uint8_t **content);
    uint32_t available() const { return seen_ - read_ - uint32_t{sizeof(RecordHead)}; }
    void pass();

    /* After kSegment: goes on in the file. */
    bool enter(const Descriptor &file);

    /* Goes to sleep: false when something has been written. */
    bool sleep();

    /* Ends the sleep: true when a packet was sent, or soon will be. */
    bool wakeUp();

    bool isEmpty() const;

  private:
    Segment segment_ = {};
    Mapping own_;
    uint32_t read_ = 0;
    uint32_t size_ = 0; /* of the record that was looked at */
    uint32_t seen_ = 0; /* there is nothing to take while this is what is written */
};

}  // namespace tamo::messages
