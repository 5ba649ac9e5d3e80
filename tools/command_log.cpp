/* tamoctl log: the end of a log file, and what is written to it from then on. */
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log_file.h"
#include "output.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

constexpr const char *kDefaultName = "Conference.log";
constexpr size_t kDefaultLines = 20;
/* "2026-11-24 14:46:45.123456 " stands before the level. */
constexpr size_t kTimeLength = 27;

struct Level {
    std::string_view name;
    const char *color;
};
/* By their numbers, less 1. */
constexpr std::array<Level, 4> kLevels = {{{"ERROR", "\x1b[1;31m"},
                                           {"WARNING", "\x1b[33m"},
                                           {"INFO", "\x1b[32m"},
                                           {"DEBUG", "\x1b[36m"}}};
constexpr const char *kColorEnd = "\x1b[0m";

struct LogOptions {
    size_t lines = kDefaultLines;
    bool follow = false;
    size_t level = kLevels.size(); /* the least severe to show */
    bool color = false;
    std::string name = kDefaultName;
};

/* The number of a record's level; 0 for a line that is no record. */
size_t levelOf(std::string_view line) {
    if (line.size() <= kTimeLength) {
        return 0;
    }
    const std::string_view word =
        line.substr(kTimeLength, line.find(' ', kTimeLength) - kTimeLength);
    for (size_t i = 0; i < kLevels.size(); ++i) {
        if (word == kLevels[i].name) {
            return i + 1;
        }
    }
    return 0;
}

void printRecord(std::string_view line, bool color) {
    const size_t level = levelOf(line);
    // The log layer escapes what would forge a line; this is for files of other origin.
    std::string text = onTerminal() ? printable(line) : std::string(line);
    if (color && level != 0) {
        text.insert(kTimeLength + kLevels[level - 1].name.size(), kColorEnd);
        text.insert(kTimeLength, kLevels[level - 1].color);
    }
    fwrite(text.data(), 1, text.size(), stdout);
    putchar('\n');
}

size_t parseLevel(const Command &command, const char *text) {
    for (size_t i = 0; i < kLevels.size(); ++i) {
        if (kLevels[i].name.size() == strlen(text) &&
            strcasecmp(kLevels[i].name.data(), text) == 0) {
            return i + 1;
        }
    }
    failUsage(command, "'%s' is no level: error, warning, info or debug", text);
}

bool parseColor(const Command &command, const char *text) {
    if (strcmp(text, "always") == 0 || strcmp(text, "never") == 0) {
        return text[0] == 'a';
    }
    if (strcmp(text, "auto") != 0) {
        failUsage(command, "'%s' is no choice of colour: auto, always or never", text);
    }
    const char *noColor = getenv("NO_COLOR");
    const char *terminal = getenv("TERM");
    return onTerminal() && (noColor == nullptr || noColor[0] == 0) &&
           (terminal == nullptr || strcmp(terminal, "dumb") != 0);
}

size_t parseLines(const Command &command, const char *text) {
    char *end = nullptr;
    errno = 0;
    const unsigned long lines = strtoul(text, &end, 10);
    if (text[0] < '0' || text[0] > '9' || *end != 0 || errno != 0) {
        failUsage(command, "'%s' is no number of lines", text);
    }
    return lines;
}

LogOptions parse(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "n:f",
                     {{"lines", required_argument, nullptr, 'n'},
                      {"follow", no_argument, nullptr, 'f'},
                      {"level", required_argument, nullptr, kOptionLevel},
                      {"color", required_argument, nullptr, kOptionColor}});
    LogOptions options;
    options.color = parseColor(command, "auto");
    for (int code; (code = line.next()) != -1;) {
        switch (code) {
            case 'n':
                options.lines = parseLines(command, optarg);
                break;
            case 'f':
                options.follow = true;
                break;
            case kOptionLevel:
                options.level = parseLevel(command, optarg);
                break;
            default:
                options.color = parseColor(command, optarg);
        }
    }
    if (line.operands().size() > 1) {
        failUsage(command, "one log at a time");
    }
    if (!line.operands().empty()) {
        options.name = line.operands()[0];
    }
    if (options.name.empty() || options.name.front() == '.' ||
        options.name.find_first_of("/\\") != std::string::npos) {
        failUsage(command, "'%s' is no name of a log: it stands alone, without a directory",
                  options.name.c_str());
    }
    return options;
}

/* Reports changes in the log's directory. */
class Watch {
  public:
    Watch(const Command &command, const std::string &directory)
        : command_(command), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        if (inotify_add_watch(inotify_.get(), directory.c_str(),
                              IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
            fail(command, "cannot watch '%s' (%s): check that it is there and yours",
                 directory.c_str(), strerror(errno));
        }
    }

    /* Waits for the next changes; false when nobody reads standard output any more. */
    bool wait() {
        pollfd polled[] = {{inotify_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        while (poll(polled, 2, -1) < 0 && errno == EINTR) {
        }
        alignas(inotify_event) char events[16 * 1024];
        while (read(inotify_.get(), events, sizeof(events)) > 0) {
            if ((reinterpret_cast<inotify_event *>(events)->mask & IN_IGNORED) != 0) {
                fail(command_, "the log's directory is gone: start again when it is back");
            }
        }
        return (polled[1].revents & (POLLERR | POLLHUP)) == 0;
    }

  private:
    const Command &command_;
    Descriptor inotify_;
};

void printTail(LogFile *log, const LogOptions &options) {
    const auto wanted = [&](std::string_view line) { return levelOf(line) <= options.level; };
    for (const std::string &line : log->tail(options.lines, wanted)) {
        printRecord(line, options.color);
    }
}

int follow(const Command &command, const LogOptions &options, const std::string &directory) {
    // The log's own layer makes the directory in the same way; it may not have come to it yet.
    mkdir(directory.c_str(), 0700);
    Watch watch(command, directory);
    LogFile log(directory + "/" + options.name);
    if (log.open()) {
        printTail(&log, options);
    }
    do {
        log.readOn([&](std::string_view line) {
            if (levelOf(line) <= options.level) {
                printRecord(line, options.color);
            }
        });
    } while (finishOutput(kSuccess) == kSuccess && watch.wait());
    return kSuccess;
}

int runLog(const Command &command, int argc, char **argv) {
    const LogOptions options = parse(command, argc, argv);
    requireRoot(command);
    const std::string directory = rootPath(command, "/log");
    if (options.follow) {
        return follow(command, options, directory);
    }
    LogFile log(directory + "/" + options.name);
    if (!log.open()) {
        fail(command, "cannot open '%s/%s' (%s): start a program that writes it, or add --follow",
             directory.c_str(), options.name.c_str(), strerror(errno));
    }
    printTail(&log, options);
    return kSuccess;
}

}  // namespace

const Command kLogCommand = {
    "log", "[-n LINES] [-f] [--level LEVEL] [--color WHEN] [NAME]", "show the log, and follow it",
    "Shows the end of a log (Conference.log unless named), reaching back into rotated files.\n"
    "\n"
    "Options:\n"
    "  -n, --lines LINES   how many lines to begin with (default: 20)\n"
    "  -f, --follow        go on with what is written, across rotations, until interrupted\n"
    "  --level LEVEL       only records at least as severe: error, warning, info or debug\n"
    "  --color WHEN        colour the levels: auto (on a terminal, unless NO_COLOR is set),\n"
    "                      always or never\n"
    "\n"
    "Examples:\n"
    "  tamoctl log -n 100\n"
    "  tamoctl log --follow --level warning\n",
    runLog};

}  // namespace tamoctl
