/* tamoctl top: queues, processes and the log's rate on a screen that is renewed again and again, or
 * once as rows.
 *
 * The screen is drawn by curses, which keeps terminals and their sizes apart. Names pass printable():
 * nothing that a process chose reaches the terminal as it is. */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <thread>

#include "commands.h"
#include "output.h"
#include "rows.h"
#include "tamoctl.h"
#include "top_figures.h"

/* After the standard headers: it defines macros. */
#define NCURSES_NOMACROS 1
#include <curses.h>

namespace tamoctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kInterval(1000);

volatile sig_atomic_t interrupted = 0;

std::string shownTime(const std::optional<uint64_t> &ns) {
    if (!ns.has_value()) {
        return "-";
    }
    char text[32];
    const auto value = static_cast<double>(*ns);
    if (value < 1e6) {
        snprintf(text, sizeof(text), "%.1f us", value / 1e3);
    } else {
        snprintf(text, sizeof(text), value < 1e9 ? "%.1f ms" : "%.1f s",
                 value / (value < 1e9 ? 1e6 : 1e9));
    }
    return text;
}

std::string shownNumber(const std::optional<uint64_t> &number) {
    return number.has_value() ? std::to_string(*number) : "-";
}

std::string shownRate(double rate) {
    char text[32];
    snprintf(text, sizeof(text), rate < 10 ? "%.1f" : "%.0f", rate);
    return text;
}

Cell numberCell(const std::optional<uint64_t> &number) {
    return number.has_value() ? Cell(*number) : Cell::none("-");
}

Cell rateCell(double rate) {
    return Cell(static_cast<uint64_t>(std::llround(rate)));
}

/* ---- once ---- */

int showOnce(const Command &command, const Arguments &arguments, milliseconds interval) {
    const Cell none = Cell::none("");
    Rows rows(command, arguments,
              {{"KIND", "kind"},
               {"NAME", "name", false, true},
               {"PID", "pid", true},
               {"DEPTH", "depth", true},
               {"PER_S", "perSecond", true},
               {"MEDIAN_NS", "medianNs", true},
               {"P99_NS", "p99Ns", true},
               {"BLOCKS", "blocks", true},
               {"BYTES", "bytes", true},
               {"FILES", "descriptors", true}});
    TopLooks looks(command);
    std::this_thread::sleep_for(interval);
    const TopFigures figures = looks.look();
    bool more = true;
    for (const QueueFigures &queue : figures.queues) {
        more = more && rows.add({"queue", queue.name,
                                 queue.pid == 0 ? Cell::none("(dead)") : Cell(queue.pid),
                                 queue.depth, rateCell(queue.rate), numberCell(queue.median),
                                 numberCell(queue.p99), none, none, none});
    }
    for (const ProcessFigures &process : figures.processes) {
        more = more && rows.add({"process", process.name, process.pid, none, none, none, none,
                                 numberCell(process.blocks), numberCell(process.bytes),
                                 numberCell(process.descriptors)});
    }
    for (size_t i = 0; i < kLevels; i++) {
        more = more && rows.add({"log", kLevelNames[i], none, none, rateCell(figures.records[i]),
                                 none, none, none, none, none});
    }
    return rows.finish();
}

/* ---- the screen ---- */

struct Order {
    char key;
    const char *name;
    bool (*ofQueues)(const QueueFigures &a, const QueueFigures &b);        /* null: by name */
    bool (*ofProcesses)(const ProcessFigures &a, const ProcessFigures &b); /* null: by id */
};

constexpr Order kOrders[] = {
    {'r', "rate", [](const auto &a, const auto &b) { return a.rate > b.rate; }, nullptr},
    {'d', "depth", [](const auto &a, const auto &b) { return a.depth > b.depth; }, nullptr},
    {'m', "median", [](const auto &a, const auto &b) { return a.median > b.median; }, nullptr},
    {'p', "p99", [](const auto &a, const auto &b) { return a.p99 > b.p99; }, nullptr},
    {'b', "blocks", nullptr, [](const auto &a, const auto &b) { return a.blocks > b.blocks; }},
    {'f', "files", nullptr,
     [](const auto &a, const auto &b) { return a.descriptors > b.descriptors; }},
    {'n', "name", nullptr, nullptr},
};

/* Its end gives the terminal back as it was, and standard error, which nothing may write to while the
 * screen stands. */
class Screen {
  public:
    explicit Screen(const Command &command) : errors_(dup(STDERR_FILENO)) {
        screen_ = newterm(nullptr, stdout, stdin);
        if (screen_ == nullptr) {
            fail(command, "this terminal cannot show a screen (see TERM): use --once");
        }
        const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nothing, STDERR_FILENO);
        close(nothing);
        cbreak();
        noecho();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        curs_set(0);
    }
    ~Screen() {
        endwin();
        delscreen(screen_);
        dup2(errors_, STDERR_FILENO);
        close(errors_);
    }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    void begin() {
        erase();
        row_ = 0;
    }
    int rowsLeft() const { return LINES - row_; }

    void put(const std::string &line, attr_t attributes = A_NORMAL) {
        if (row_ >= LINES) {
            return;
        }
        const std::string text = printable(line);
        const auto width = static_cast<size_t>(COLS);
        attrset(static_cast<int>(attributes));
        mvaddstr(row_++, 0, (displayWidth(text) <= width ? text : cutToWidth(text, width)).c_str());
    }
    void show() { refresh(); }

  private:
    SCREEN *screen_;
    int errors_, row_ = 0;
};

/* Cells of a line; a negative width is of one that stands on the right. */
std::string lineOf(const std::vector<std::pair<std::string, int>> &cells) {
    std::string line;
    for (const auto &[text, width] : cells) {
        const auto wanted = static_cast<size_t>(std::abs(width));
        std::string shown = printable(text);
        shown = displayWidth(shown) <= wanted ? shown : cutToWidth(shown, wanted);
        const std::string gap(wanted - std::min(wanted, displayWidth(shown)), ' ');
        line += (line.empty() ? "" : "  ") + (width < 0 ? gap + shown : shown + gap);
    }
    return line;
}

/* Lines below their titles; those that find no room are counted in the last one. */
void putTable(Screen *screen, const std::string &titles, const std::vector<std::string> &lines,
              int room) {
    screen->put(titles, A_REVERSE);
    const auto most = static_cast<size_t>(std::max(room - 1, 0));
    const size_t shown = lines.size() <= most ? lines.size() : most - std::min<size_t>(most, 1);
    for (size_t i = 0; i < shown; i++) {
        screen->put(lines[i]);
    }
    if (shown < lines.size() && most > 0) {
        screen->put("... " + std::to_string(lines.size() - shown) + " more", A_DIM);
    }
}

void draw(Screen *screen, TopFigures figures, const Order &order) {
    if (order.ofQueues != nullptr) {
        std::stable_sort(figures.queues.begin(), figures.queues.end(), order.ofQueues);
    }
    if (order.ofProcesses != nullptr) {
        std::stable_sort(figures.processes.begin(), figures.processes.end(), order.ofProcesses);
    }
    screen->begin();
    screen->put("tamoctl top  " + rootInUse(), A_BOLD);
    screen->put(std::string("sorted by ") + order.name +
                "   keys: n name  d depth  r rate  m median  p p99  b blocks  f files  q quit");
    std::string rates = "log records/s:";
    for (size_t i = 0; i < kLevels; i++) {
        rates += std::string("  ") + kLevelNames[i] + " " + shownRate(figures.records[i]);
    }
    screen->put(rates);
    screen->put("");
    std::vector<std::string> lines;
    for (const QueueFigures &queue : figures.queues) {
        lines.push_back(lineOf({{queue.name, 16},
                                {queue.pid == 0 ? "(dead)" : std::to_string(queue.pid), -7},
                                {std::to_string(queue.depth), -8},
                                {shownRate(queue.rate), -8},
                                {shownTime(queue.median), -9},
                                {shownTime(queue.p99), -9}}));
    }
    const int below =
        std::min(static_cast<int>(figures.processes.size()) + 2, screen->rowsLeft() / 2);
    putTable(screen,
             lineOf({{"QUEUE", 16},
                     {"PID", -7},
                     {"DEPTH", -8},
                     {"PER S", -8},
                     {"MEDIAN", -9},
                     {"P99", -9}}),
             lines, screen->rowsLeft() - below);
    screen->put("");
    lines.clear();
    for (const ProcessFigures &process : figures.processes) {
        lines.push_back(lineOf({{process.name, 24},
                                {std::to_string(process.pid), -7},
                                {shownNumber(process.blocks), -9},
                                {shownNumber(process.bytes), -12},
                                {shownNumber(process.descriptors), -6}}));
    }
    putTable(screen,
             lineOf({{"PROCESS", 24}, {"PID", -7}, {"BLOCKS", -9}, {"BYTES", -12}, {"FILES", -6}}),
             lines, screen->rowsLeft());
    screen->show();
}

enum class Wish { nothing, draw, quit };

/* Takes the keys that were pressed. */
Wish takeKeys(const Order **order) {
    Wish wish = Wish::nothing;
    for (int key; (key = getch()) != ERR;) {
        const auto found = std::find_if(std::begin(kOrders), std::end(kOrders),
                                        [&](const Order &each) { return each.key == key; });
        if (key == 'q') {
            return Wish::quit;
        }
        if (found != std::end(kOrders)) {
            *order = found;
        }
        wish = Wish::draw;
    }
    return wish;
}

/* Handles keys until it is time for the next look; false at the end. */
bool waitForLook(Screen *screen, const TopFigures &figures, const Order **order,
                 Clock::time_point end) {
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now()).count();
        if (left <= 0 || interrupted != 0) {
            return interrupted == 0;
        }
        pollfd polled = {STDIN_FILENO, POLLIN, 0};
        const int ready = poll(&polled, 1, static_cast<int>(left));
        if (ready > 0 && (polled.revents & POLLIN) == 0) {
            return false; /* the terminal went away */
        }
        const Wish wish = takeKeys(order); /* a new size of the terminal is one */
        if (wish == Wish::quit) {
            return false;
        }
        if (wish == Wish::draw) {
            draw(screen, figures, **order);
        }
    }
}

int showScreen(const Command &command, const Arguments &arguments, milliseconds interval) {
    const uint64_t most = arguments.number("count", 1).value_or(UINT64_MAX);
    const std::optional<milliseconds> timeout = arguments.seconds("timeout");
    const Clock::time_point begin = Clock::now();
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = 1; };
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
    const Order *order = &kOrders[0];
    TopLooks looks(command);
    Screen screen(command);
    for (uint64_t shown = 1;; shown++) {
        const TopFigures figures = looks.look();
        draw(&screen, figures, *order);
        if (shown == most) {
            return kSuccess;
        }
        Clock::time_point end = Clock::now() + interval;
        const bool isLast = timeout.has_value() && begin + *timeout <= end;
        end = isLast ? begin + *timeout : end;
        if (!waitForLook(&screen, figures, &order, end) || isLast) {
            return arguments.has("count") ? kCountNotReached : kSuccess;
        }
    }
}

}  // namespace

int runTop(const Command &command, const Arguments &arguments) {
    const milliseconds interval = arguments.seconds("interval").value_or(kInterval);
    if (arguments.has("json") && !arguments.has("once")) {
        failUsage(command, "--json needs --once");
    }
    requireRoot(command);
    if (arguments.has("once")) {
        return showOnce(command, arguments, interval);
    }
    if (!onTerminal() || isatty(STDIN_FILENO) == 0) {
        fail(command, "there is no terminal for the screen: use --once");
    }
    return showScreen(command, arguments, interval);
}

}  // namespace tamoctl
