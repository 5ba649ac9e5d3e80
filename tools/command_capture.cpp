/* tamoctl capture: messages as they happen, into a file for Wireshark. */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>

#include "capture_file.h"
#include "commands.h"
#include "tamo_host.h"
#include "tamoctl.h"
#include "trace_text.h"

namespace tamoctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint64_t kLeastSnaplen = 64; /* the numbers without the names */
constexpr uint64_t kTaken = 64;        /* events after which it is flushed though others wait */
constexpr milliseconds kLook{100};

/* A capture that is being written. What waits to be written is whole blocks. */
struct Capture {
    const Command &command;
    const char *name;
    int file, signals;
    std::string waiting = {};
    uint64_t taken = 0, events = 0, missed = 0; /* taken: from the trace, wanted or not */
    bool ended = false;                         /* by a signal, or as its reader went away */
};

int openFile(const Command &command, const char *name) {
    if (strcmp(name, "-") != 0) {
        workAsCaller();
        const int file = open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (file < 0) {
            fail(command, "cannot write '%s': %s", name, strerror(errno));
        }
        return file;
    }
    if (isatty(STDOUT_FILENO) == 1) {
        failUsage(command, "a capture is no text for a terminal: name a file, or pipe it");
    }
    return STDOUT_FILENO;
}

/* A descriptor that becomes readable with a signal to end. */
int blockSignals(const Command &command) {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ends, number);
    }
    (void)sigprocmask(SIG_BLOCK, &ends, nullptr);
    const int signals = signalfd(-1, &ends, SFD_CLOEXEC);
    if (signals < 0) {
        fail(command, "cannot wait for signals: %s", strerror(errno));
    }
    return signals;
}

/* Writes what waits, if it can be written before a signal comes; then looks whether a signal, or a
 * reader that went away, ends the capture. */
void flush(Capture *capture) {
    std::string_view left = capture->waiting;
    while (!left.empty()) {
        pollfd polled[] = {{capture->signals, POLLIN, 0}, {capture->file, POLLOUT, 0}};
        if (poll(polled, 2, -1) > 0 && polled[1].revents == 0) {
            break;
        }
        const ssize_t written = write(capture->file, left.data(), left.size());
        if (written < 0 && errno == EPIPE) {
            break;
        }
        if (written < 0 && errno != EINTR && errno != EAGAIN) {
            fail(capture->command, "cannot write '%s': %s", capture->name, strerror(errno));
        }
        left.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    capture->waiting.clear();
    pollfd polled[] = {{capture->signals, POLLIN, 0}, {capture->file, 0, 0}};
    capture->ended = poll(polled, 2, 0) > 0;
}

/* Puts whole blocks together, so that a write cannot be cut in two, neither in a file nor in a pipe. */
void put(Capture *capture, const std::string &block) {
    if (capture->waiting.size() + block.size() > PIPE_BUF) {
        flush(capture);
    }
    capture->waiting += block;
}

/* How long to wait for the next event, 0 when the time is over. */
milliseconds timeLeft(const std::optional<Clock::time_point> &end) {
    if (!end.has_value()) {
        return kLook;
    }
    return std::clamp(std::chrono::ceil<milliseconds>(*end - Clock::now()), milliseconds(0), kLook);
}

/* The next event; what waits to be written does not wait for it. */
bool nextEvent(Capture *capture, TamoHostTrace *trace, milliseconds wait, TamoHostTraceEvent *event,
               uint64_t *lost) {
    uint64_t missed = 0;
    uint32_t result = TamoHostTraceNext(trace, 0, event, &missed);
    *lost += missed;
    const bool isIdle = result == TAMO_HOST_TIMEOUT;
    if (isIdle || ++capture->taken % kTaken == 0) {
        flush(capture);
    }
    if (isIdle) {
        result = TamoHostTraceNext(trace, static_cast<int32_t>(wait.count()), event, &missed);
        *lost += missed;
    }
    if (result != TAMO_HOST_OK && result != TAMO_HOST_TIMEOUT) {
        flush(capture);
        failHost(capture->command, "cannot watch messages any more", result);
    }
    return result == TAMO_HOST_OK;
}

/* Writes the events until the capture is full, or something else ends it. */
void captureEvents(Capture *capture, const Arguments &arguments, TamoHostTrace *trace) {
    const uint64_t most = arguments.number("count", 1).value_or(UINT64_MAX);
    const uint64_t snaplen = arguments.number("snaplen", kLeastSnaplen).value_or(UINT64_MAX);
    const auto packetBytes =
        static_cast<uint32_t>(std::min<uint64_t>(snaplen, kCapturePacketBytes));
    std::optional<Clock::time_point> end;
    if (const std::optional<milliseconds> timeout = arguments.seconds("timeout")) {
        end = Clock::now() + *timeout;
    }
    put(capture, captureHead(packetBytes));
    flush(capture);
    uint64_t lost = 0;
    while (capture->events < most && timeLeft(end).count() > 0 && !capture->ended) {
        TamoHostTraceEvent event = {};
        if (nextEvent(capture, trace, timeLeft(end), &event, &lost) && isWanted(arguments, event)) {
            put(capture, capturePacket(event, lost, packetBytes));
            capture->events++;
            capture->missed += lost;
            lost = 0;
        }
    }
    capture->missed += lost;
    put(capture, captureTail(capture->events, capture->missed));
    flush(capture);
}

}  // namespace

int runCapture(const Command &command, const Arguments &arguments) {
    if (arguments.operands().empty()) {
        failUsage(command, "a file is missing");
    }
    (void)arguments.number("snaplen", kLeastSnaplen); /* ends the program now when it is wrong */
    requireRoot(command);
    TamoHostTrace *trace = nullptr;
    const uint32_t result = TamoHostTraceOpen(&trace);
    if (result != TAMO_HOST_OK) {
        failHost(command, "cannot watch messages", result);
    }
    const char *name = arguments.operands()[0];
    const int file = openFile(command, name);
    Capture capture = {command, name, file, blockSignals(command)};
    captureEvents(&capture, arguments, trace);
    TamoHostTraceClose(trace);
    if (file != STDOUT_FILENO && close(file) != 0) {
        fail(command, "cannot write '%s': %s", name, strerror(errno));
    }
    if (capture.missed > 0 || isatty(STDERR_FILENO) == 1) {
        fprintf(stderr, "tamoctl capture: %" PRIu64 " events, %" PRIu64 " were missed\n",
                capture.events, capture.missed);
    }
    const std::optional<uint64_t> count = arguments.number("count", 1);
    return count.has_value() && capture.events < *count ? kCountNotReached : kSuccess;
}

}  // namespace tamoctl
