/* tamoctl monitor: messages as they happen. */
#include "commands.h"
#include "output.h"
#include "rows.h"
#include "tamo_host.h"
#include "tamoctl.h"
#include "trace_text.h"

namespace tamoctl {

namespace {

Cell durationCell(const TamoHostTraceEvent &event) {
    if (event.durationNs == 0) {
        return Cell::none("");
    }
    return Cell(event.durationNs / 1000);
}

std::vector<Cell> rowOf(const TamoHostTraceEvent &event) {
    const std::string handler = handlerText(event);
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
        if (more && result == TAMO_HOST_OK && isWanted(arguments, event)) {
            more = rows.add(rowOf(event));
        }
    }
    TamoHostTraceClose(trace);
    return rows.finish();
}

}  // namespace tamoctl
