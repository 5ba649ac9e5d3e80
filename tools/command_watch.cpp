/* tamoctl watch: the changes of the configuration as they are written. */
#include <fnmatch.h>

#include "commands.h"
#include "output.h"
#include "rows.h"
#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

/* What ends a walk over changes; not a TAMO_HOST_ code. */
constexpr uint32_t kEnough = 1000;

/* On a terminal with fewer columns the time stands without its date, and cells are narrow. */
constexpr size_t kWide = 120;

struct Viewer {
    Rows rows;
    const char *glob;
    bool narrow;
};

std::string shownTime(int64_t timeUs, bool narrow) {
    constexpr size_t kDate = 11, kTime = 12;
    const std::string text = timeText(timeUs, false);
    return narrow ? text.substr(kDate, kTime) : text;
}

uint32_t showChange(const TamoHostConfigChange *change, void *context) {
    Viewer *viewer = static_cast<Viewer *>(context);
    if (viewer->glob != nullptr && fnmatch(viewer->glob, change->key, 0) != 0) {
        return 0;
    }
    const bool missed = change->isAll != 0;
    const bool more = viewer->rows.add(
        {missed ? Cell::truth(true) : Cell::none(""),
         Cell::both(shownTime(change->timeUs, viewer->narrow), timeText(change->timeUs, true)),
         missed ? Cell::none("(missed)") : Cell(change->writer),
         missed ? Cell::none("-") : Cell(change->writerPid), change->key, change->value});
    return more ? 0 : kEnough;
}

}  // namespace

int runWatch(const Command &command, const Arguments &arguments) {
    requireRoot(command);
    requireStore(command);
    TamoHostConfigWatch *watch = nullptr;
    uint32_t result = TamoHostConfigWatchOpen(&watch);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot watch the configuration store", result);
    }
    const char *glob = arguments.operands().empty() ? nullptr : arguments.operands()[0];
    const bool narrow = onTerminal() && !arguments.has("full") && terminalWidth() < kWide;
    Viewer viewer = {Rows(command, arguments,
                          {{nullptr, "missed"},
                           {"TIME", "time", false, false, narrow ? 12 : 26},
                           {"WRITER", "writer", false, false, narrow ? 12 : 22},
                           {"PID", "pid", true, false, 7},
                           {"KEY", "key", false, false, narrow ? 24 : 36},
                           {"VALUE", "value"}},
                          Lines::endless),
                     glob, narrow};
    while (result == TAMO_HOST_OK || result == TAMO_HOST_TIMEOUT) {
        result = TamoHostConfigWatchNext(watch, -1, showChange, &viewer);
    }
    TamoHostConfigWatchClose(watch);
    if (result != kEnough) {
        failHost(command, "cannot watch the configuration store any more", result);
    }
    return viewer.rows.finish();
}

}  // namespace tamoctl
