/* The benchmarks' harness: rows of work that take turns, bounds, and what becomes of them.
 *
 * The rows of a table take turns in many short rounds, and a ratio is the median of the rounds' own ratios
 * to the table's first row, so that what the machine does meanwhile meets all rows alike. A table ends after its
 * rounds or its seconds, whichever comes first.
 *
 * Each bounded figure is printed with "held" or "MISSED". `finish` repeats what was missed and gives the
 * program's result. With BENCH_FIGURES in the environment, every bounded figure is also appended to the
 * files of that name with ".json" and ".md" behind it: bench/all makes its table of them. */
#pragma once
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace bench {

/* Ends the program when a step of it failed. */
inline void require(bool good, const char *what) {
    if (!good) {
        std::fprintf(stderr, "%s failed\n", what);
        std::exit(1);
    }
}

/* A device root of its own, until the end of the scope. */
class DeviceRoot {
  public:
    DeviceRoot() {
        const char *temporary = std::getenv("TMPDIR");
        path_ = std::string(temporary == nullptr ? "/tmp" : temporary) + "/bench.XXXXXX";
        require(mkdtemp(path_.data()) != nullptr, "making a device root");
        setenv("TAMO_DEVICE_ROOT", path_.c_str(), 1);
    }
    ~DeviceRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    DeviceRoot(const DeviceRoot &) = delete;
    DeviceRoot &operator=(const DeviceRoot &) = delete;

    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

/* ---- figures ---- */

/* What was missed, for the end. */
inline std::vector<std::string> missed;

inline std::string quoted(const std::string &text) {
    std::string json;
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            json += '\\';
        }
        json += c;
    }
    return '"' + json + '"';
}

inline std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), value < 100 ? "%.2f" : "%.0f", value);
    return text;
}

inline void appendLine(const std::string &path, const std::string &line) {
    FILE *file = std::fopen(path.c_str(), "a");
    require(file != nullptr, path.c_str());
    std::fprintf(file, "%s\n", line.c_str());
    require(std::fclose(file) == 0, path.c_str());
}

/* Prints and keeps one bounded figure; `unit` is "" for a ratio. False when it is missed. */
inline bool figure(const std::string &what, double measured, double bound, const char *unit = "") {
    const bool held = measured <= bound;
    const std::string behind = *unit == '\0' ? "" : std::string(" ") + unit;
    const std::string value = number(measured) + behind;
    const std::string most = number(bound) + behind;
    std::printf("  %-64s %12s, at most %s: %s\n", what.c_str(), value.c_str(), most.c_str(),
                held ? "held" : "MISSED");
    if (!held) {
        missed.push_back(what + ": " + value + ", at most " + most);
    }
    if (const char *files = std::getenv("BENCH_FIGURES")) {
        appendLine(std::string(files) + ".md",
                   "| " + what + " | " + value + " | " + most + (held ? " |" : " (missed) |"));
        appendLine(std::string(files) + ".json",
                   "{\"bench\": " + quoted(program_invocation_short_name) +
                       ", \"what\": " + quoted(what) + ", \"measured\": " + number(measured) +
                       ", \"bound\": " + number(bound) + ", \"unit\": " + quoted(unit) +
                       ", \"held\": " + (held ? "true" : "false") + "}");
    }
    return held;
}

/* Says what was missed; the program's result. */
inline int finish() {
    for (const std::string &each : missed) {
        std::printf("%s %s\n", &each == &missed[0] ? "NOT HELD:" : "         ", each.c_str());
    }
    if (missed.empty()) {
        std::printf("every bound is held\n");
    }
    std::fflush(stdout);
    return missed.empty() ? 0 : 1;
}

/* ---- rows ---- */

struct Row {
    const char *name;
    double limit; /* of the ratio to the first row; 0: any */
    std::function<void()> run;
    size_t calls = 1;     /* that one run makes; times are told per call */
    double tailLimit = 0; /* of the ratio of 99th percentiles; 0: any */
    double mostNs = 0;    /* of the median itself; 0: any */
    std::vector<double> nanoseconds = {};
};

enum class Clock {
    kWall,
    kProcessor /* of this thread: for work whose disk time is the same in all rows */
};

struct Table {
    const char *title;
    size_t runs = 1;    /* in one sample */
    size_t samples = 5; /* of each row in a round */
    size_t rounds = 400;
    double seconds = 6;
    Clock clock = Clock::kWall;
};

inline double nowNs(Clock clock) {
    timespec now = {};
    clock_gettime(clock == Clock::kWall ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

inline double percentile(std::vector<double> values, double part) {
    const auto at = static_cast<ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<size_t>(at)];
}

/* Samples of one row, after a run that only warms up. */
inline void takeTurn(Row &row, const Table &table) {
    row.run();
    for (size_t sample = 0; sample < table.samples; sample++) {
        const double begin = nowNs(table.clock);
        for (size_t run = 0; run < table.runs; run++) {
            row.run();
        }
        const double took = nowNs(table.clock) - begin;
        row.nanoseconds.push_back(took / static_cast<double>(table.runs * row.calls));
    }
}

inline double ratio(const Row &row, const Row &first, size_t samples) {
    std::vector<double> ratios;
    for (size_t at = 0; at < row.nanoseconds.size(); at += samples) {
        const auto median = [=](const Row &of) {
            const auto begin = of.nanoseconds.begin() + static_cast<ptrdiff_t>(at);
            return percentile({begin, begin + static_cast<ptrdiff_t>(samples)}, 0.5);
        };
        ratios.push_back(median(row) / median(first));
    }
    return percentile(ratios, 0.5);
}

/* Has the rows take turns. Each round begins with another row, so that none always follows the same. */
inline void measure(std::vector<Row> &rows, const Table &table) {
    const double begin = nowNs(Clock::kWall);
    for (size_t round = 0; round < table.rounds; round++) {
        if (round >= rows.size() && nowNs(Clock::kWall) - begin > table.seconds * 1e9) {
            break;
        }
        for (size_t turn = 0; turn < rows.size(); turn++) {
            takeTurn(rows[(round + turn) % rows.size()], table);
        }
    }
}

/* Measures and prints a table. */
inline void compare(const Table &table, std::vector<Row> rows) {
    measure(rows, table);
    std::printf("%s\n  %-52s %12s %12s %7s %7s\n", table.title, "", "median ns", "p99 ns", "ratio",
                "of p99");
    const double firstTail = percentile(rows[0].nanoseconds, 0.99);
    for (const Row &row : rows) {
        const double median = percentile(row.nanoseconds, 0.5);
        const double tail = percentile(row.nanoseconds, 0.99);
        const double times = ratio(row, rows[0], table.samples);
        std::printf("  %-52s %12.1f %12.1f %7.3f %7.3f\n", row.name, median, tail, times,
                    tail / firstTail);
        const std::string what = std::string(table.title) + ": " + row.name;
        if (row.limit > 0) {
            figure(what, times, row.limit);
        }
        if (row.tailLimit > 0) {
            figure(what + ", 99th percentile", tail / firstTail, row.tailLimit);
        }
        if (row.mostNs > 0) {
            figure(what, median, row.mostNs, "ns");
        }
    }
    std::fflush(stdout);
}

}  // namespace bench
