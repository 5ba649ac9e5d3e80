/* Captures: see capture_file.h. */
#include "capture_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace tamoctl {

namespace {

enum BlockType : uint32_t {
    kInterface = 1,
    kStatistics = 5,
    kPacket = 6,
    kSectionHeader = 0x0A0D0D0A /* the same in both byte orders */
};
enum OptionCode : uint16_t {
    kEndOfOptions = 0,
    kInterfaceName = 2,
    kPacketDrops = 4,
    kProgram = 4,
    kStatisticsEvents = 4,
    kStatisticsDrops = 5,
    kTimeResolution = 9
};
constexpr uint32_t kByteOrder = 0x1A2B3C4D;
constexpr uint16_t kLinkType = 147; /* USER0 */
constexpr uint16_t kPacketVersion = 1;
constexpr size_t kLeastPacket = 8; /* version, length and kind */

/* Type and length at the begin, length at the end. */
constexpr size_t kBlockHead = 8, kBlockFrame = 12;
constexpr size_t kSectionBody = 16, kInterfaceBody = 8, kPacketBody = 20;

size_t padded(size_t length) {
    return (length + 3) & ~size_t{3};
}

// ---- writing ----

void put(std::string *to, uint64_t number, unsigned size, bool bigEndian = false) {
    for (unsigned i = 0; i < size; ++i) {
        const unsigned shift = 8 * (bigEndian ? size - 1 - i : i);
        to->push_back(static_cast<char>(number >> shift & 0xFF));
    }
}

void putOption(std::string *to, OptionCode code, std::string_view value) {
    put(to, code, 2);
    put(to, value.size(), 2);
    to->append(value);
    to->append(padded(value.size()) - value.size(), '\0');
}

void putNumberOption(std::string *to, OptionCode code, uint64_t number) {
    std::string value;
    put(&value, number, 8);
    putOption(to, code, value);
}

std::string block(BlockType type, const std::string &body) {
    const size_t length = body.size() + kBlockFrame;
    std::string whole;
    put(&whole, type, 4);
    put(&whole, length, 4);
    whole += body;
    put(&whole, length, 4);
    return whole;
}

void putTime(std::string *to, int64_t timeUs) {
    const uint64_t time = timeUs < 0 ? 0 : static_cast<uint64_t>(timeUs);
    put(to, time >> 32, 4);
    put(to, time, 4);
}

// ---- the fields of an event ----

/* In the order of the packet. New ones come last. */
template <typename Event, typename Field>
void eachField(Event &event, Field &&field) {
    field(event.kind);
    field(event.timeUs);
    field(event.durationNs);
    field(event.handlerOffset);
    field(event.pid);
    field(event.tid);
    field(event.peerPid);
    field(event.serial);
    field(event.param);
    field(event.bodyLength);
    field(event.listLength);
    field(event.result);
    field(event.queue);
    field(event.process);
    field(event.module);
}

struct FieldWriter {
    std::string *to;

    template <typename Number>
    void operator()(const Number &number) {
        put(to, static_cast<uint64_t>(number), sizeof(number), true);
    }
    template <size_t size>
    void operator()(const char (&text)[size]) {
        const size_t length = strnlen(text, size - 1);
        to->append(text, length);
        to->append(size - length, '\0');
    }
};

/* A number that is not whole within the bytes is 0. */
uint64_t get(std::string_view bytes, size_t at, size_t size, bool bigEndian) {
    uint64_t number = 0;
    if (at > bytes.size() || bytes.size() - at < size) {
        return 0;
    }
    for (size_t i = 0; i < size; ++i) {
        const char byte = bytes[at + (bigEndian ? i : size - 1 - i)];
        number = number << 8 | static_cast<unsigned char>(byte);
    }
    return number;
}

struct FieldReader {
    std::string_view bytes;
    size_t at;

    template <typename Number>
    void operator()(Number &number) {
        number = static_cast<Number>(get(bytes, at, sizeof(number), true));
        at += sizeof(number);
    }
    template <size_t size>
    void operator()(char (&text)[size]) {
        const size_t from = std::min(at, bytes.size());
        const size_t length = std::min(size - 1, bytes.size() - from);
        memset(text, 0, size);
        memcpy(text, bytes.data() + from, strnlen(bytes.data() + from, length));
        at += size;
    }
};

std::string packetOf(const TamoHostTraceEvent &event) {
    std::string packet;
    put(&packet, kPacketVersion, 2, true);
    put(&packet, kCapturePacketBytes, 2, true);
    eachField(event, FieldWriter{&packet});
    return packet;
}

// ---- reading ----

CaptureStep endWith(CaptureReader *reader, CaptureStep step, size_t at, const std::string &what) {
    reader->error = what + " (at byte " + std::to_string(at) + ")";
    return step;
}

CaptureStep fault(CaptureReader *reader, size_t at, const std::string &what) {
    return endWith(reader, CaptureStep::fault, at, what);
}

/* Learns a section's byte order, which its block's length is in already. */
bool beginSection(CaptureReader *reader) {
    for (const bool bigEndian : {false, true}) {
        if (get(reader->bytes, reader->at + kBlockHead, 4, bigEndian) == kByteOrder) {
            reader->isBigEndian = bigEndian;
            reader->inSection = true;
            reader->linkTypes.clear();
            return true;
        }
    }
    return false;
}

/* The next block with its frame; its step is `event` when it is whole. */
CaptureStep nextBlock(CaptureReader *reader, std::string_view *whole) {
    const size_t at = reader->at, left = reader->bytes.size() - at;
    const uint64_t type = get(reader->bytes, at, 4, reader->isBigEndian);
    if (left == 0 && reader->inSection) {
        return CaptureStep::end;
    }
    if (left >= 4 && type != kSectionHeader && !reader->inSection) {
        return fault(reader, at, "this is not a pcapng file: no section header is at its begin");
    }
    if (left < kBlockFrame) {
        return endWith(reader, CaptureStep::cut, at, "the capture ends inside a block");
    }
    if (type == kSectionHeader && !beginSection(reader)) {
        return fault(reader, at + kBlockHead, "a section's byte order is neither of the two");
    }
    const uint64_t length = get(reader->bytes, at + 4, 4, reader->isBigEndian);
    if (length < kBlockFrame || length % 4 != 0) {
        return fault(reader, at + 4, "a block cannot have a length of " + std::to_string(length));
    }
    if (length > left) {
        return endWith(reader, CaptureStep::cut, at, "the capture ends inside a block");
    }
    *whole = reader->bytes.substr(at, static_cast<size_t>(length));
    if (get(*whole, whole->size() - 4, 4, reader->isBigEndian) != length) {
        return fault(reader, at + whole->size() - 4, "a block's two lengths differ");
    }
    return CaptureStep::event;
}

/* The count of drops among a packet's options; false when one goes beyond the block. */
bool readDrops(std::string_view options, bool bigEndian, uint64_t *lost) {
    *lost = 0;
    while (!options.empty()) {
        const uint64_t code = get(options, 0, 2, bigEndian);
        const uint64_t length = get(options, 2, 2, bigEndian);
        if (code == kEndOfOptions) {
            return true;
        }
        const size_t next = 4 + padded(static_cast<size_t>(length));
        if (options.size() < next) {
            return false;
        }
        if (code == kPacketDrops && length == sizeof(*lost)) {
            *lost = get(options, 4, sizeof(*lost), bigEndian);
        }
        options.remove_prefix(next);
    }
    return true;
}

/* Takes a packet apart: `end` when it is not an event of the trace. */
CaptureStep readPacket(CaptureReader *reader, std::string_view body, size_t at,
                       TamoHostTraceEvent *event, uint64_t *lost) {
    const bool bigEndian = reader->isBigEndian;
    const uint64_t interface = get(body, 0, 4, bigEndian);
    const uint64_t length = get(body, 12, 4, bigEndian);
    if (body.size() < kPacketBody || length > body.size() - kPacketBody) {
        return fault(reader, at, "a packet is longer than its block");
    }
    if (interface >= reader->linkTypes.size()) {
        return fault(reader, at, "a packet names an interface that was not described");
    }
    if (reader->linkTypes[static_cast<size_t>(interface)] != kLinkType) {
        return CaptureStep::end;
    }
    std::string_view packet = body.substr(kPacketBody, static_cast<size_t>(length));
    const size_t options = std::min(body.size(), kPacketBody + padded(packet.size()));
    if (!readDrops(body.substr(options), bigEndian, lost)) {
        return fault(reader, at, "a packet's option is longer than its block");
    }
    const uint64_t version = get(packet, 0, 2, true), whole = get(packet, 2, 2, true);
    if (version != kPacketVersion || whole < kLeastPacket || packet.size() < kLeastPacket) {
        return fault(reader, at + kPacketBody,
                     "a packet is not a trace event of version " + std::to_string(kPacketVersion));
    }
    packet = packet.substr(0, static_cast<size_t>(whole));
    *event = {};
    eachField(*event, FieldReader{packet, 4});
    return CaptureStep::event;
}

}  // namespace

std::string captureHead(uint32_t snaplen) {
    std::string section;
    put(&section, kByteOrder, 4);
    put(&section, 1, 2); /* version 1.0 */
    put(&section, 0, 2);
    put(&section, UINT64_MAX, 8); /* the section's length is not known */
    putOption(&section, kProgram, "tamoctl capture");
    putOption(&section, kEndOfOptions, "");
    std::string interface;
    put(&interface, kLinkType, 2);
    put(&interface, 0, 2);
    put(&interface, snaplen, 4);
    putOption(&interface, kInterfaceName, "messages");
    putOption(&interface, kTimeResolution, "\x06");
    putOption(&interface, kEndOfOptions, "");
    return block(kSectionHeader, section) + block(kInterface, interface);
}

std::string capturePacket(const TamoHostTraceEvent &event, uint64_t lost, uint32_t snaplen) {
    const std::string packet = packetOf(event);
    const size_t written = std::min<size_t>(packet.size(), snaplen);
    std::string body;
    put(&body, 0, 4); /* the interface */
    putTime(&body, event.timeUs);
    put(&body, written, 4);
    put(&body, packet.size(), 4);
    body.append(packet, 0, written);
    body.append(padded(written) - written, '\0');
    if (lost > 0) {
        putNumberOption(&body, kPacketDrops, lost);
        putOption(&body, kEndOfOptions, "");
    }
    return block(kPacket, body);
}

std::string captureTail(uint64_t events, uint64_t lost) {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    std::string body;
    put(&body, 0, 4); /* the interface */
    putTime(&body, int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000);
    putNumberOption(&body, kStatisticsEvents, events);
    putNumberOption(&body, kStatisticsDrops, lost);
    putOption(&body, kEndOfOptions, "");
    return block(kStatistics, body);
}

CaptureStep readCaptured(CaptureReader *reader, TamoHostTraceEvent *event, uint64_t *lost) {
    for (;;) {
        std::string_view whole;
        CaptureStep step = nextBlock(reader, &whole);
        if (step != CaptureStep::event) {
            return step;
        }
        const size_t at = reader->at;
        const std::string_view body = whole.substr(kBlockHead, whole.size() - kBlockFrame);
        const uint64_t type = get(whole, 0, 4, reader->isBigEndian);
        if (type == kSectionHeader &&
            (body.size() < kSectionBody || get(body, 4, 2, reader->isBigEndian) != 1)) {
            return fault(reader, at, "this is not a pcapng file of version 1");
        }
        if (type == kInterface && body.size() < kInterfaceBody) {
            return fault(reader, at, "an interface is longer than its block");
        }
        if (type == kInterface) {
            reader->linkTypes.push_back(
                static_cast<uint16_t>(get(body, 0, 2, reader->isBigEndian)));
        }
        if (type == kPacket) {
            step = readPacket(reader, body, at + kBlockHead, event, lost);
            if (step == CaptureStep::fault) {
                return step;
            }
        }
        reader->at = at + whole.size();
        if (type == kPacket && step == CaptureStep::event) {
            return step;
        }
    }
}

bool loadCapture(const char *path, std::string *bytes, std::string *error) {
    const bool isInput = strcmp(path, "-") == 0;
    FILE *file = isInput ? stdin : fopen(path, "rbe");
    bytes->clear();
    if (file != nullptr) {
        char buffer[65536];
        for (size_t length; (length = fread(buffer, 1, sizeof(buffer), file)) > 0;) {
            bytes->append(buffer, length);
        }
        if (ferror(file) == 0) {
            if (!isInput) {
                (void)fclose(file);
            }
            return true;
        }
    }
    *error = std::string("cannot read '") + path + "': " + strerror(errno);
    if (file != nullptr && !isInput) {
        (void)fclose(file);
    }
    return false;
}

}  // namespace tamoctl
