/* Captures: files of trace events, in the form pcapng that Wireshark reads.
 *
 * How it works. A capture is a row of blocks: a section header, one interface of the link type USER0
 * (147), and a packet for each event. Blocks are written in little endian; what reads them takes both
 * byte orders, any number of sections and interfaces, and skips other blocks. A packet is the event's
 * fields without gaps, numbers in big endian, after a version and its length (docs/captures.md). Fields
 * are only ever added at the end: a reader takes those that it knows, and those that a packet does not
 * have are 0 or empty. The events that were lost before one are its packet's count of drops. */
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tamo_host.h"

namespace tamoctl {

/* Of a packet with all its fields. */
constexpr uint32_t kCapturePacketBytes = 128;

/* What a capture begins with. Of each packet `snaplen` bytes will be written at most. */
std::string captureHead(uint32_t snaplen = kCapturePacketBytes);

/* An event, with how many were lost before it. */
std::string capturePacket(const TamoHostTraceEvent &event, uint64_t lost,
                          uint32_t snaplen = kCapturePacketBytes);

/* What a capture that was ended in order ends with: for programs that show a capture's properties. */
std::string captureTail(uint64_t events, uint64_t lost);

/* A capture's bytes, and where its reading stands. They outlive the reader. */
struct CaptureReader {
    std::string_view bytes;
    size_t at = 0; /* of the next block */
    bool inSection = false;
    bool isBigEndian = false;
    std::vector<uint16_t> linkTypes = {}; /* of the section's interfaces */
    std::string error = {};               /* after `cut` and `fault`: one line */
};

enum class CaptureStep {
    event, /* it is in its place */
    end,
    cut,  /* the capture ends inside a block, as one does whose writer was killed */
    fault /* what follows is not a capture's */
};

/* Reads the next event, whose texts are ended but may hold any other byte, and how many were lost before
 * it. Whatever the bytes are, it reads within them and comes to an end. */
CaptureStep readCaptured(CaptureReader *reader, TamoHostTraceEvent *event, uint64_t *lost);

/* Reads a whole file, or standard input for "-"; false with one line about what went wrong. */
bool loadCapture(const char *path, std::string *bytes, std::string *error);

}  // namespace tamoctl
