/* One line of a log file:
 *
 *     2026-11-24 14:46:45.123456 ERROR  conference[1201/1207] conf_msg_api:230 [Unit]Null ptr.
 *
 * that is local time, level, process[process id/thread id], unit:line and the text. A record is one
 * line whatever its text: control characters, line separators and bytes that are not UTF-8 are
 * written as \xNN, a line feed as \n. Nothing here allocates. */
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace tamo::log {

constexpr size_t kLogTextMax = 4096; /* bytes of a text before its characters are escaped */
constexpr size_t kLogUnitMax = 64;
constexpr size_t kLogHeadMax = 128; /* up to the unit's name */
constexpr char kLogCutMark[] = "[cut]";

struct LogLine {
    size_t length; /* with the line feed at its end */
    char text[kLogHeadMax + 4 * (kLogUnitMax + kLogTextMax) + 32];
};

struct LogOrigin {
    uint8_t level;
    const char *unit; /* null allowed */
    int32_t line;
};

/* Makes a line of a record; a text of more than `limit` bytes is cut and marked so. Returns the
 * time in milliseconds, which wraps around. */
uint32_t composeLogLine(LogLine *line, const LogOrigin &origin, const char *text, size_t limit);

}  // namespace tamo::log
