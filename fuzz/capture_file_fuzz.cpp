/* Attacks readCaptured: the reader of captures, whose files come from anywhere.
 *
 * An input is a capture. Each event that is read is written and read again as it is. */
#include "tools/capture_file.h"

#include <cstdint>
#include <cstring>

#include "fuzz/scratch.h"

namespace {

using fuzz::require;
using tamoctl::CaptureStep;

void writeAndReadAgain(const TamoHostTraceEvent &event, uint64_t lost) {
    const std::string capture = tamoctl::captureHead() + tamoctl::capturePacket(event, lost);
    tamoctl::CaptureReader reader{capture};
    TamoHostTraceEvent again = {};
    uint64_t lostAgain = 0;
    require(tamoctl::readCaptured(&reader, &again, &lostAgain) == CaptureStep::event);
    require(memcmp(&again, &event, sizeof(event)) == 0 && lostAgain == lost);
    require(tamoctl::readCaptured(&reader, &again, &lostAgain) == CaptureStep::end);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // In a block of its own size, so that a byte too many is found.
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    tamoctl::CaptureReader reader{bytes};
    TamoHostTraceEvent event = {};
    uint64_t lost = 0;
    size_t at = 0;
    CaptureStep step = CaptureStep::event;
    while ((step = tamoctl::readCaptured(&reader, &event, &lost)) == CaptureStep::event) {
        require(reader.at > at && reader.at <= size);
        at = reader.at;
        require(memchr(event.queue, 0, sizeof(event.queue)) != nullptr &&
                memchr(event.process, 0, sizeof(event.process)) != nullptr &&
                memchr(event.module, 0, sizeof(event.module)) != nullptr);
        writeAndReadAgain(event, lost);
    }
    require(reader.error.empty() == (step == CaptureStep::end));
    return 0;
}
