/* What a log record and a monitored memory block cost, beside what they cannot do without, in one
 * run.
 *
 * A written record stands beside reading the clock, printing the same line and one write of it to a
 * file on the same file system; a block beside the C library's. The rows take turns in rounds, each
 * round beginning with another row, and the cost of measuring is taken off each sample. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "include/conf_log_adapter.h"
#include "platform/tamo_om_log_client.h"
#include "platform/tamo_os_mem.h"

namespace {

constexpr size_t kRounds = 60;
constexpr char kUnit[] = "log_bench";
constexpr char kPeer[] = "sip.example.com";

struct Row {
    const char *name;
    std::function<void()> run;
    size_t calls; /* in one `run` */
    std::vector<double> nanoseconds;
};

void check(bool good, const char *what) {
    if (!good) {
        fprintf(stderr, "%s failed\n", what);
        exit(1);
    }
}

double now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double percentile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(part * static_cast<double>(values.size() - 1))];
}

double clockCost() {
    std::vector<double> costs;
    for (int i = 0; i < 1000; i++) {
        const double start = now();
        costs.push_back(now() - start);
    }
    return percentile(costs, 0.5);
}

void measure(std::vector<Row> &rows, size_t samples) {
    const double clock = clockCost();
    for (size_t round = 0; round < kRounds; round++) {
        for (size_t turn = 0; turn < rows.size(); turn++) {
            Row &row = rows[(round + turn) % rows.size()];
            for (size_t i = 0; i < samples + samples / 10; i++) {
                const double start = now();
                row.run();
                const double took = now() - start - clock;
                if (i >= samples / 10) { /* the first ones warm up */
                    row.nanoseconds.push_back(took / static_cast<double>(row.calls));
                }
            }
        }
    }
}

/* The median of the rounds' ratios of a percentile, which a change of the processor's speed does not
 * reach. */
double ratio(const Row &row, const Row &bare, size_t samples, double part) {
    std::vector<double> ratios;
    for (size_t at = 0; at < row.nanoseconds.size(); at += samples) {
        const auto of = [&](const Row &which) {
            const auto first = which.nanoseconds.begin() + static_cast<ptrdiff_t>(at);
            return percentile({first, first + static_cast<ptrdiff_t>(samples)}, part);
        };
        ratios.push_back(of(row) / of(bare));
    }
    return percentile(ratios, 0.5);
}

/* Ratios are against the first row. */
void compare(const char *title, std::vector<Row> rows, size_t samples) {
    measure(rows, samples);
    printf("%s\n  %-44s %10s %10s %8s %8s\n", title, "", "median ns", "p99 ns", "ratio", "of p99");
    for (const Row &row : rows) {
        printf("  %-44s %10.1f %10.1f %8.2f %8.2f\n", row.name, percentile(row.nanoseconds, 0.5),
               percentile(row.nanoseconds, 0.99), ratio(row, rows[0], samples, 0.5),
               ratio(row, rows[0], samples, 0.99));
    }
}

using LogFunction = void (*)(uint8_t level, const char *functionName, const char *fileName,
                             int32_t line, const char *format, ...);

void emptyFunction(uint8_t, const char *, const char *, int32_t, const char *, ...) {}

/* Through a pointer that could change, as into another library. */
void callOften(LogFunction volatile *log, size_t calls) {
    for (size_t i = 0; i < calls; i++) {
        (*log)(CONF_LOG_DEBUG, __func__, kUnit, __LINE__, "connection %zu to %s failed", i, kPeer);
    }
}

void measureSuppressed() {
    constexpr size_t kCalls = 1000;
    static LogFunction volatile empty = emptyFunction;
    static LogFunction volatile real = ConfLogPrintf;
    std::vector<Row> rows = {
        {"an empty function with the same arguments",
         [] { callOften(&empty, kCalls); },
         kCalls,
         {}},
        {"ConfLogPrintf at a suppressed level", [] { callOften(&real, kCalls); }, kCalls, {}}};
    compare("Suppressed record (wanted: at most 5 ns)", rows, 100);
}

/* The line of writeRecord, with the second's date at hand. */
void writeBare(int file, const char *date, int number) {
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    char line[600];
    const int length = snprintf(line, sizeof(line),
                                "%s.%06ld %-6s %s[%d/%d] %s:%d [%s]connection %d to %s failed\n",
                                date, time.tv_nsec / 1000, "ERROR", "log_bench", 1234, 1234, kUnit,
                                __LINE__, "writeRecord", number, kPeer);
    check(write(file, line, static_cast<size_t>(length)) == length, "the bare write");
}

void writeRecord(int number) {
    ConfLogPrintf(CONF_LOG_ERROR, __func__, kUnit, __LINE__, "connection %d to %s failed", number,
                  kPeer);
}

void measureWritten(const std::string &root) {
    const int file =
        open((root + "/bare.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    check(file >= 0, "opening the bare file");
    int number = 0;
    const auto clientOnly = [] {
        TamoOmLogModuleLogRecord(CONF_LOG_ERROR, static_cast<uint16_t>(GetConfLogFileId()), kUnit,
                                 sizeof(kUnit) - 1, __LINE__, "%s",
                                 "[writeRecord]connection 1 to sip.example.com failed");
    };
    std::vector<Row> rows = {{"clock, format and one bare write",
                              [&] { writeBare(file, "2026-01-01 12:00:00", number++); },
                              1,
                              {}},
                             {"ConfLogPrintf", [&] { writeRecord(number++); }, 1, {}},
                             {"TamoOmLogModuleLogRecord of a ready text", clientOnly, 1, {}}};
    compare("Written record (wanted: at most 1.20)", rows, 2000);
    close(file);
}

void measureBlocks() {
    for (const size_t size : {size_t{200}, size_t{576000}}) {
        const size_t calls = size < 1000 ? 100 : 1;
        const auto bare = [=] {
            for (size_t i = 0; i < calls; i++) {
                void *block = calloc(1, size);
                __asm__ volatile("" : : "r"(block) : "memory");
                free(block);
            }
        };
        const auto monitored = [=] {
            for (size_t i = 0; i < calls; i++) {
                void *block = OsMemMallocSetCharMon(size, 0, 0, 0, __LINE__, kUnit);
                OSMemTypeFreeMon(block, 0, 0, __LINE__, kUnit);
            }
        };
        std::vector<Row> rows = {
            {"calloc and free", bare, calls, {}},
            {"OsMemMallocSetCharMon and OSMemTypeFreeMon", monitored, calls, {}}};
        compare(("A block of " + std::to_string(size) + " bytes").c_str(), rows, 200);
    }
}

}  // namespace

int main() {
    const char *temporary = getenv("TMPDIR");
    std::string root = std::string(temporary == nullptr ? "/tmp" : temporary) + "/log_bench.XXXXXX";
    check(mkdtemp(root.data()) != nullptr, "making a device root");
    setenv("TAMO_DEVICE_ROOT", root.c_str(), 1);
    check(ConfLogInit() == 0, "ConfLogInit");
    measureSuppressed();
    measureWritten(root);
    measureBlocks();
    std::filesystem::remove_all(root);
    return 0;
}
