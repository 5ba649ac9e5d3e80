/* tamoctl log: the end of a log file, and what is written to it from then on. */
#include <fnmatch.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "commands.h"
#include "lines.h"
#include "log_file.h"
#include "log_filter.h"
#include "output.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

constexpr const char *kDefaultName = "Conference.log";
constexpr size_t kDefaultLines = 20;
constexpr const char *kColors[] = {"\x1b[1;31m", "\x1b[33m", "\x1b[32m", "\x1b[36m"};
constexpr const char *kColorEnd = "\x1b[0m";

struct LogOptions {
    std::string name;
    size_t lines;
    bool color, json;
    LogFilter filter;
};

LogOptions readOptions(const Command &command, const Arguments &arguments) {
    const std::string when = arguments.has("color") ? arguments.text("color") : "auto";
    const char *name = arguments.operands().empty() ? kDefaultName : arguments.operands()[0];
    const std::optional<uint64_t> lines = arguments.number("lines", 0);
    if (name[0] == 0 || name[0] == '.' || strpbrk(name, "/\\") != nullptr) {
        failUsage(command, "invalid log name '%s': it stands alone, without a directory", name);
    }
    const uint64_t most = lines.value_or(arguments.has("since") ? SIZE_MAX : kDefaultLines);
    return {name, static_cast<size_t>(std::min<uint64_t>(most, SIZE_MAX)),
            when == "auto" ? wantsColor() : when == "always", arguments.has("json"),
            LogFilter(command, arguments)};
}

bool putJson(const LogRecord &record) {
    const Json json(cJSON_CreateObject());
    addText(json.get(), "time", record.universalTime());
    addText(json.get(), "level", record.level);
    addText(json.get(), "process", record.process);
    addNumber(json.get(), "pid", record.pid);
    addNumber(json.get(), "tid", record.tid);
    addText(json.get(), "unit", record.unit);
    addNumber(json.get(), "line", record.line);
    addText(json.get(), "text", record.text);
    return putLine(jsonLine(json));
}

/* Prints a line of the log; false when no other is wanted. */
bool putRecord(std::string_view line, const LogOptions &options) {
    const std::optional<LogRecord> record = parseRecord(line);
    if (options.json) {
        return !record.has_value() || putJson(*record);
    }
    // The log layer escapes what would forge a line; this is for files of other origin.
    std::string text = onTerminal() ? printable(line) : std::string(line);
    if (options.color && record.has_value()) {
        text.insert(kLogTimeLength + record->level.size(), kColorEnd);
        text.insert(kLogTimeLength, kColors[record->severity - 1]);
    }
    return putLine(text);
}

/* Reports changes in the log's directory. */
class Watch {
  public:
    Watch(const Command &command, const std::string &directory)
        : command_(command), inotify_(inotify_init1(IN_CLOEXEC)) {
        if (inotify_add_watch(inotify_.get(), directory.c_str(),
                              IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
            fail(command, "cannot watch '%s': %s", directory.c_str(), strerror(errno));
        }
    }

    /* Waits for the next changes. */
    void wait() {
        alignas(inotify_event) char events[16 * 1024];
        const ssize_t size = read(inotify_.get(), events, sizeof(events));
        if (size > 0 && (reinterpret_cast<inotify_event *>(events)->mask & IN_IGNORED) != 0) {
            fail(command_, "the log's directory was removed: start again when it is back");
        }
    }

  private:
    const Command &command_;
    Descriptor inotify_;
};

bool putTail(LogFile *log, const LogOptions &options) {
    const auto wanted = [&](std::string_view line) { return options.filter.takes(line); };
    for (const std::string &line : log->tail(options.lines, wanted)) {
        if (!putRecord(line, options)) {
            return false;
        }
    }
    return true;
}

void follow(const Command &command, const LogOptions &options, const std::string &directory) {
    // The log's own layer makes the directory in the same way; it may not have come to it yet.
    mkdir(directory.c_str(), 0700);
    Watch watch(command, directory);
    LogFile log(directory + "/" + options.name);
    bool more = !log.open() || putTail(&log, options);
    while (more) {
        log.readOn([&](std::string_view line) {
            more = more && (!options.filter.takes(line) || putRecord(line, options));
        });
        if (more) {
            watch.wait();
        }
    }
}

}  // namespace

int runLog(const Command &command, const Arguments &arguments) {
    const LogOptions options = readOptions(command, arguments);
    requireRoot(command);
    const std::string directory = rootPath(command, "/log");
    if (arguments.has("follow")) {
        beginLines(command, arguments, Lines::endless);
        follow(command, options, directory);
        return endLines();
    }
    beginLines(command, arguments, Lines::finite);
    LogFile log(directory + "/" + options.name);
    if (!log.open()) {
        fail(command, "cannot open the log '%s': %s%s", options.name.c_str(), strerror(errno),
             suggestion(options.name, logNames()).c_str());
    }
    (void)putTail(&log, options);
    return endLines();
}

}  // namespace tamoctl
