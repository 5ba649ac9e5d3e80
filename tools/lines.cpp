/* Lines of output: see lines.h. */
#include "lines.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "output.h"

namespace tamoctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct State {
    std::timed_mutex printing; /* also of `shown` */
    uint64_t count = UINT64_MAX, shown = 0;
    bool counts = false, endless = false;
    std::optional<Clock::time_point> end;
};
/* The second thread may look at it until the process has ended: never destroyed. */
State &state = *new State;

int codeOfEarlyEnd() {
    const bool complete = state.counts ? state.shown >= state.count : state.endless;
    return complete ? kSuccess : kCountNotReached;
}

/* Waits until it is time to end, or for one of the descriptors. */
void waitForEnd(std::span<pollfd> polled) {
    for (;;) {
        int left = -1;
        if (state.end.has_value()) {
            const auto rest = std::chrono::ceil<milliseconds>(*state.end - Clock::now()).count();
            left = static_cast<int>(std::clamp<int64_t>(rest, 0, INT_MAX));
        }
        const int ready = poll(polled.data(), polled.size(), left);
        if (ready > 0 || (ready == 0 && Clock::now() >= *state.end)) {
            return;
        }
    }
}

/* The second thread. */
void endEarly(int signals) {
    pollfd polled[] = {{signals, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    waitForEnd(polled);
    // A reader that does not read on keeps the other thread in the middle of a line.
    (void)state.printing.try_lock_for(milliseconds(500));
    _exit(codeOfEarlyEnd());
}

}  // namespace

void beginLines(const Command &command, const Arguments &arguments, Lines lines) {
    const std::optional<uint64_t> count = arguments.number("count", 1);
    const std::optional<milliseconds> timeout = arguments.seconds("timeout");
    state.counts = count.has_value();
    state.count = count.value_or(UINT64_MAX);
    state.endless = lines == Lines::endless;
    if (timeout.has_value()) {
        state.end = Clock::now() + *timeout;
    }
    if (!state.endless && !timeout.has_value()) {
        return;
    }
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ends, number);
    }
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    const int signals = signalfd(-1, &ends, SFD_CLOEXEC);
    if (signals < 0) {
        fail(command, "cannot wait for signals: %s", strerror(errno));
    }
    std::thread(endEarly, signals).detach();
}

bool putLine(std::string_view line) {
    const std::lock_guard guard(state.printing);
    if (state.shown >= state.count) {
        return false;
    }
    fwrite(line.data(), 1, line.size(), stdout);
    putchar('\n');
    state.shown++;
    const bool readable = !state.endless || finishOutput(kSuccess) == kSuccess;
    return readable && ferror(stdout) == 0 && state.shown < state.count;
}

int endLines() {
    return state.endless && state.counts && state.shown < state.count ? kCountNotReached : kSuccess;
}

}  // namespace tamoctl
