/* tamoctl watch: the changes of the configuration as they are written.
 *
 * The main thread waits for changes and prints them. A second one waits for what ends the watch
 * early, a signal or that nobody reads standard output any more, and ends the process between two
 * lines. */
#include <fnmatch.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>

#include "output.h"
#include "tamo_host.h"
#include "tamoctl.h"

namespace tamoctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/* What ends a walk over changes; no TAMO_HOST_ code. */
constexpr uint32_t kEnough = 1000;

struct WatchOptions {
    uint64_t count = 0; /* 0: no end */
    bool timed = false;
    milliseconds timeout{};
    bool json = false;
    const char *glob = nullptr;
};

struct Viewer {
    WatchOptions options;
    std::timed_mutex printing; /* also of what follows */
    uint64_t shown = 0;
};

/* Ends the program when the text is no count, so that a script does not wait for ever. */
uint64_t parseCount(const Command &command, const char *text) {
    uint64_t count = 0;
    const char *end = text + strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, count);
    if (parsed != end || error != std::errc() || count == 0) {
        failUsage(command, "'%s' is no number of changes: 1 is the least", text);
    }
    return count;
}

milliseconds parseTimeout(const Command &command, const char *text) {
    constexpr double kMostSeconds = 1e9;
    double seconds = 0;
    const char *end = text + strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, seconds, std::chars_format::fixed);
    if (parsed != end || error != std::errc() || !(seconds >= 0 && seconds <= kMostSeconds)) {
        failUsage(command, "'%s' is no number of seconds: 0 to 1000000000, such as 2.5", text);
    }
    return milliseconds(std::llround(seconds * 1000));
}

WatchOptions parse(const Command &command, int argc, char **argv) {
    CommandLine line(command, argc, argv, "n:t:",
                     {{"count", required_argument, nullptr, 'n'},
                      {"timeout", required_argument, nullptr, 't'},
                      kJsonOption});
    WatchOptions options;
    for (int code; (code = line.next()) != -1;) {
        switch (code) {
            case 'n':
                options.count = parseCount(command, optarg);
                break;
            case 't':
                options.timed = true;
                options.timeout = parseTimeout(command, optarg);
                break;
            default:
                options.json = true;
        }
    }
    if (line.operands().size() > 1) {
        failUsage(command, "one pattern at most: quote it against the shell");
    }
    options.glob = line.operands().empty() ? nullptr : line.operands()[0];
    return options;
}

/* Local time as in the log, or universal time as JSON has it. */
std::string timeText(int64_t timeUs, bool json) {
    const time_t seconds = static_cast<time_t>(timeUs / 1000000);
    struct tm parts = {};
    char text[64];
    json ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
    const size_t length =
        strftime(text, sizeof(text), json ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    snprintf(text + length, sizeof(text) - length, ".%06d%s", static_cast<int>(timeUs % 1000000),
             json ? "Z" : "");
    return text;
}

void printChangeAsJson(const TamoHostConfigChange &change) {
    const Json json(cJSON_CreateObject());
    addText(json.get(), "time", timeText(change.timeUs, true));
    if (change.isAll != 0) {
        cJSON_AddTrueToObject(json.get(), "missed");
    } else {
        addText(json.get(), "writer", change.writer);
        addNumber(json.get(), "pid", change.writerPid);
    }
    addText(json.get(), "key", change.key);
    addText(json.get(), "value", change.value);
    printJsonLine(json);
}

/* Rows come one at a time: their columns have fixed widths, where Table would wait for the last. */
void printRow(const std::string &time, const std::string &writer, const std::string &pid,
              const std::string &key, const std::string &value) {
    printf(onTerminal() ? "%-26s  %-22s  %7s  %-36s  %s\n" : "%s\t%s\t%s\t%s\t%s\n", time.c_str(),
           writer.c_str(), pid.c_str(), key.c_str(), value.c_str());
}

void printChange(const TamoHostConfigChange &change) {
    const bool known = change.isAll == 0;
    printRow(timeText(change.timeUs, false), known ? printable(change.writer) : "(missed)",
             known ? std::to_string(change.writerPid) : "-", printable(change.key),
             printable(change.value));
}

uint32_t showChange(const TamoHostConfigChange *change, void *context) {
    Viewer *viewer = static_cast<Viewer *>(context);
    const WatchOptions &options = viewer->options;
    if (options.glob != nullptr && fnmatch(options.glob, change->key, 0) != 0) {
        return 0;
    }
    const std::lock_guard guard(viewer->printing);
    options.json ? printChangeAsJson(*change) : printChange(*change);
    viewer->shown++;
    return finishOutput(kSuccess) != kSuccess || viewer->shown == options.count ? kEnough : 0;
}

/* Without a count there is nothing to miss: time and signals are how such a watch ends. */
int endCode(const Viewer &viewer) {
    return viewer.shown < viewer.options.count ? kCountNotReached : kSuccess;
}

/* The second thread. */
void endEarly(Viewer *viewer, int signals) {
    pollfd polled[] = {{signals, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    while (poll(polled, 2, -1) < 0 && errno == EINTR) {
    }
    // A reader that does not read on keeps the other thread in the middle of a line.
    (void)viewer->printing.try_lock_for(milliseconds(500));
    _exit(endCode(*viewer));
}

/* From before the watch is open, so that a signal never finds it half open. */
void endOnSignal(const Command &command, Viewer *viewer) {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ends, number);
    }
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    const int signals = signalfd(-1, &ends, SFD_CLOEXEC);
    if (signals < 0) {
        fail(command, "cannot wait for signals (%s): end some programs", strerror(errno));
    }
    std::thread(endEarly, viewer, signals).detach();
}

/* The time that is left, in what the host takes; -1 without a limit. */
int32_t timeLeft(const WatchOptions &options, Clock::time_point begin) {
    if (!options.timed) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(begin + options.timeout - Clock::now());
    return static_cast<int32_t>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
}

int runWatch(const Command &command, int argc, char **argv) {
    // Outlives the function: the second thread may look at it until the process has ended.
    static Viewer viewer;
    viewer.options = parse(command, argc, argv);
    requireRoot(command);
    requireStore(command);
    const auto begin = Clock::now();
    endOnSignal(command, &viewer);
    TamoHostConfigWatch *watch = nullptr;
    uint32_t result = TamoHostConfigWatchOpen(&watch);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot watch the configuration store", result);
    }
    if (onTerminal() && !viewer.options.json) {
        printRow("TIME", "WRITER", "PID", "KEY", "VALUE");
        fflush(stdout);
    }
    for (int32_t left = -1; left != 0 && (result == TAMO_HOST_OK || result == TAMO_HOST_TIMEOUT);) {
        left = timeLeft(viewer.options, begin);
        result = TamoHostConfigWatchNext(watch, left, showChange, &viewer);
    }
    TamoHostConfigWatchClose(watch);
    if (result != TAMO_HOST_OK && result != TAMO_HOST_TIMEOUT && result != kEnough) {
        failHost(command, "cannot watch the configuration store any more", result);
    }
    return endCode(viewer);
}

}  // namespace

const Command kWatchCommand = {
    "watch", "[-n COUNT] [-t SECONDS] [--json] [GLOB]", "show changes of values as they happen",
    "Shows each changed value with its time and the name and process id of its writer, from now "
    "on,\n"
    "until interrupted; of the keys that match the shell pattern, or of all. What is stored "
    "without\n"
    "being changed is not shown. A removed key is shown with an empty value. When a watch is 4 "
    "MiB\n"
    "of changes behind, all keys are shown as they stand, with the writer (missed).\n"
    "\n"
    "Options:\n"
    "  -n, --count COUNT       end after so many changes\n"
    "  -t, --timeout SECONDS   end after this time, such as 2.5\n"
    "  --json                  print one object a line, with the time in UTC\n"
    "\n"
    "Exit status: 3 when the watch ended, by time or a signal, before COUNT changes were shown.\n"
    "\n"
    "Examples:\n"
    "  tamoctl watch 'Conf.SIPCallParam.*'\n"
    "  tamoctl watch --count 1 --timeout 30 Conf.Audio.mute && echo somebody pressed mute\n"
    "  tamoctl watch --json | jq -r .writer\n",
    runWatch};

}  // namespace tamoctl
