/* tamoctl monitor: messages as they happen. */
#include <fnmatch.h>

#include <cstdio>

#include "commands.h"
#include "output.h"
#include "rows.h"
#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

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

bool matches(const char *glob, const std::string &text) {
    return glob == nullptr || fnmatch(glob, text.c_str(), 0) == 0;
}

Cell durationCell(const TamoHostTraceEvent &event) {
    if (event.durationNs == 0) {
        return Cell::none("");
    }
    return Cell(event.durationNs / 1000);
}

std::vector<Cell> rowOf(const TamoHostTraceEvent &event, const std::string &handler) {
    const bool failed =
        event.kind == TAMO_HOST_TRACE_REFUSED || event.kind == TAMO_HOST_TRACE_FAILED;
    const bool hasResult =
        event.kind == TAMO_HOST_TRACE_RESPONDED || event.kind == TAMO_HOST_TRACE_ANSWERED;
    return {
        Cell::none(""),
        Cell::both(timeText(event.timeUs, false), timeText(event.timeUs, true)),
        nameOfEvent(event.kind),
        event.process,
        event.pid,
        event.tid,
        event.queue,
        handler.empty() ? Cell::none("") : Cell(handler),
        event.param,
        event.bodyLength,
        event.listLength,
        failed ? Cell(reasonText(event.result)) : (hasResult ? Cell(event.result) : Cell::none("")),
        durationCell(event),
        event.serial,
        event.peerPid != 0 ? Cell(event.peerPid) : Cell::none("")};
}

std::vector<Cell> missedRow(uint64_t missed) {
    const Cell none = Cell::none("");
    return {missed, Cell::none("(" + std::to_string(missed) + " events were missed)"),
            none,   none,
            none,   none,
            none,   none,
            none,   none,
            none,   none,
            none,   none,
            none};
}

}  // namespace

int runMonitor(const Command &command, const Arguments &arguments) {
    requireRoot(command);
    TamoHostTrace *trace = nullptr;
    uint32_t result = TamoHostTraceOpen(&trace);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot watch messages", result);
    }
    Rows rows(command, arguments,
              {{nullptr, "missed"},
               {"TIME", "time", false, false, 26},
               {"EVENT", "event", false, false, 9},
               {"PROCESS", "process", false, false, 15},
               {"PID", "pid", true, false, 7},
               {"THREAD", "thread", true, false, 7},
               {"QUEUE", "queue", false, false, 15},
               {"HANDLER", "handler", false, false, 36},
               {"PARAM", "param", true, false, 6},
               {"BODY", "bodyBytes", true, false, 7},
               {"LIST", "listBytes", true, false, 6},
               {"RESULT", "result", false, false, 10},
               {"US", "durationUs", true, false, 8},
               {nullptr, "serial"},
               {nullptr, "senderPid"}},
              Lines::endless);
    for (bool more = true; more;) {
        TamoHostTraceEvent event = {};
        uint64_t missed = 0;
        result = TamoHostTraceNext(trace, 1000, &event, &missed);
        if (result != TAMO_HOST_OK && result != TAMO_HOST_TIMEOUT) {
            failHost(command, "cannot watch messages any more", result);
        }
        more = missed == 0 || rows.add(missedRow(missed));
        const std::string handler = handlerText(event);
        if (more && result == TAMO_HOST_OK && matches(arguments.text("queue"), event.queue) &&
            matches(arguments.text("process"), event.process) &&
            matches(arguments.text("handler"), handler)) {
            more = rows.add(rowOf(event, handler));
        }
    }
    TamoHostTraceClose(trace);
    return rows.finish();
}

}  // namespace tamoctl
