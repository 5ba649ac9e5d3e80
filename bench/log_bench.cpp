/* What a log record and a monitored memory block cost, beside what they cannot do without.
 *
 * A written record stands beside reading the clock, printing the same line and one write of it to a
 * file on the same file system; a block beside the C library's. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "bench/take_turns.h"
#include "include/conf_log_adapter.h"
#include "platform/tamo_om_log_client.h"
#include "platform/tamo_os_mem.h"

namespace {

constexpr char kUnit[] = "log_bench";
constexpr char kPeer[] = "sip.example.com";

using bench::require;

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
    bench::compare({.title = "Suppressed record", .samples = 100, .rounds = 60},
                   {{"an empty function with the same arguments", 0,
                     [] { callOften(&empty, kCalls); }, kCalls},
                    {.name = "ConfLogPrintf at a suppressed level",
                     .limit = 0,
                     .run = [] { callOften(&real, kCalls); },
                     .calls = kCalls,
                     .mostNs = 5}});
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
    require(write(file, line, static_cast<size_t>(length)) == length, "the bare write");
}

void writeRecord(int number) {
    ConfLogPrintf(CONF_LOG_ERROR, __func__, kUnit, __LINE__, "connection %d to %s failed", number,
                  kPeer);
}

void measureWritten(const std::string &root) {
    const int file =
        open((root + "/bare.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    require(file >= 0, "opening the bare file");
    int number = 0;
    const auto clientOnly = [] {
        TamoOmLogModuleLogRecord(CONF_LOG_ERROR, static_cast<uint16_t>(GetConfLogFileId()), kUnit,
                                 sizeof(kUnit) - 1, __LINE__, "%s",
                                 "[writeRecord]connection 1 to sip.example.com failed");
    };
    bench::compare({.title = "Written record", .samples = 2000, .rounds = 60},
                   {{"clock, format and one bare write", 0,
                     [&] { writeBare(file, "2026-01-01 12:00:00", number++); }},
                    {"ConfLogPrintf", 1.2, [&] { writeRecord(number++); }},
                    {"TamoOmLogModuleLogRecord of a ready text", 0, clientOnly}});
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
        const std::string title = "A block of " + std::to_string(size) + " bytes";
        bench::compare({.title = title.c_str(), .samples = 200, .rounds = 60},
                       {{"calloc and free", 0, bare, calls},
                        {"OsMemMallocSetCharMon and OSMemTypeFreeMon", 0, monitored, calls}});
    }
}

}  // namespace

int main() {
    const bench::DeviceRoot root;
    require(ConfLogInit() == 0, "ConfLogInit");
    measureSuppressed();
    measureWritten(root.path());
    measureBlocks();
    return bench::finish();
}
