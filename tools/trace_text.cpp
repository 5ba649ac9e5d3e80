/* Events in words: see trace_text.h. */
#include "trace_text.h"

#include <fnmatch.h>

#include <cstdio>

namespace tamoctl {

namespace {

bool matches(const char *glob, const std::string &text) {
    return glob == nullptr || fnmatch(glob, text.c_str(), 0) == 0;
}

}  // namespace

const char *nameOfEvent(uint32_t kind) {
    switch (kind) {
        case TAMO_HOST_TRACE_SENT:
            return "sent";
        case TAMO_HOST_TRACE_RECEIVED:
            return "received";
        case TAMO_HOST_TRACE_REFUSED:
            return "refused";
        case TAMO_HOST_TRACE_RESPONDED:
            return "responded";
        case TAMO_HOST_TRACE_ANSWERED:
            return "answered";
        case TAMO_HOST_TRACE_FAILED:
            return "failed";
        default:
            return "unknown";
    }
}

std::string reasonText(uint32_t code) {
    switch (code) {
        case TAMO_HOST_TIMEOUT:
            return "time-out";
        case TAMO_HOST_NO_RECEIVER:
            return "nobody serves the queue";
        case TAMO_HOST_QUEUE_FULL:
            return "queue full";
        case TAMO_HOST_GONE:
            return "receiver ended or dropped it";
        case TAMO_HOST_REFUSED:
            return "refused";
        case TAMO_HOST_TOO_LARGE:
            return "too large";
        case TAMO_HOST_NO_MEMORY:
            return "no memory";
        default:
            return "error " + std::to_string(code);
    }
}

std::string handlerText(const TamoHostTraceEvent &event) {
    if (event.module[0] == '\0') {
        return "";
    }
    char offset[24];
    (void)snprintf(offset, sizeof(offset), "+0x%llx",
                   static_cast<unsigned long long>(event.handlerOffset));
    return std::string(event.module) + offset;
}

bool isWanted(const Arguments &arguments, const TamoHostTraceEvent &event) {
    return matches(arguments.text("queue"), event.queue) &&
           matches(arguments.text("process"), event.process) &&
           matches(arguments.text("handler"), handlerText(event));
}

}  // namespace tamoctl
